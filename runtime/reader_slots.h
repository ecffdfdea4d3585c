// Readers of a shared/exclusive lock that announce themselves in words of their own.
//
// A reader that arrives at the lock's word and leaves it changes that word twice by a locked instruction, and
// takes its line away from every other reader. A reader that announces itself writes one locked instruction to
// a slot, which is its thread's alone as a rule, and leaves by a plain store; of the lock it only reads.
//
//   reader   slot := 1 (locked), then: lock neither held exclusive nor waited for?   no: slot := 0, not arrived
//   writer   lock exclusive (locked), then: wait until every slot is 0
//
// One of the two sees the other, since each reads behind a locked instruction of its own. The word of the lock
// shows no announced readers: whoever changes what they read calls waitForReaders() behind any exclusive
// acquisition of the lock, or gives it back if it must not wait.
//
// An announced reader calls nothing from outside, and waits for nobody who may be waiting for it.
#pragma once

#include <bit>
#include <cstdint>

#include "runtime/backoff.h"
#include "runtime/shared_lock.h"

namespace vesk {

struct alignas(64) ReaderSlot {
  std::uint64_t inside;
};

class ReaderSlots {
public:
  static constexpr std::uint32_t kSlots = 16;

  // What the slots need, wherever it begins.
  static constexpr std::uint32_t kBytes = kSlots * sizeof(ReaderSlot) + alignof(ReaderSlot) - 1;

  // Null: there are none.
  explicit ReaderSlots(void* memory)
      : slots_(reinterpret_cast<ReaderSlot*>(
            (reinterpret_cast<std::uintptr_t>(memory) + alignof(ReaderSlot) - 1) &
            ~(alignof(ReaderSlot) - 1))) {
    for (std::uint32_t i = 0; areThere() && i < kSlots; ++i) slots_[i].inside = 0;
  }

  bool areThere() const { return slots_ != nullptr; }

  // The calling thread's slot once it has arrived; null if it has to go to the lock itself.
  [[gnu::always_inline]] ReaderSlot* tryToArrive(const VeskSharedExclusiveLock& lock) {
    const std::uint32_t number = numberOfThread();
    if ((loadRelaxed(used_) >> number & 1) == 0) [[unlikely]]
      use(number);
    ReaderSlot& slot = slots_[number];
    if (!compareAndSwap(slot.inside, 0, 1)) [[unlikely]]
      return nullptr;
    if (loadSequential(lock.state) == shared_lock::kExclusive || loadSequential(lock.writerWaiting) != 0)
        [[unlikely]] {
      leave(slot);
      return nullptr;
    }
    return &slot;
  }

  [[gnu::always_inline]] static void leave(ReaderSlot& slot) { storeRelease(slot.inside, 0); }

  // For the exclusive holder of the lock, who is not inside itself.
  bool hasReaders() const {
    for (std::uint32_t left = loadSequential(used_); left != 0; left &= left - 1) {
      if (loadSequential(slotOf(left).inside) != 0) return true;
    }
    return false;
  }

  [[gnu::always_inline]] void waitForReaders() const {
    for (std::uint32_t left = loadSequential(used_); left != 0; left &= left - 1) {
      if (loadSequential(slotOf(left).inside) != 0) [[unlikely]]
        waitFor(slotOf(left));
    }
  }

private:
  // Stacks of threads lie some megabytes apart as a rule, or less; a thread that moves up and down its own stack
  // may come to another slot. This spares the call of the thread-id hook.
  [[gnu::always_inline]] static std::uint32_t numberOfThread() {
    std::uint64_t stack;
    asm("mov %%rsp, %0" : "=r"(stack));
    return static_cast<std::uint32_t>(stack >> 23 ^ stack >> 17) % kSlots;
  }

  [[gnu::always_inline]] const ReaderSlot& slotOf(std::uint32_t left) const {
    return slots_[std::countr_zero(left)];
  }

  [[gnu::noinline]] void use(std::uint32_t number) {
    for (std::uint32_t seen = loadRelaxed(used_); !compareAndSwap(used_, seen, seen | 1u << number);)
      seen = loadRelaxed(used_);
  }

  [[gnu::noinline]] static void waitFor(const ReaderSlot& slot) {
    Backoff backoff(0);
    while (loadSequential(slot.inside) != 0) backoff.busy();
  }

  ReaderSlot* slots_;
  std::uint32_t used_ = 0; // bit n: slot n has been used; spares writers the others
};

} // namespace vesk
