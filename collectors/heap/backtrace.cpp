#include "collectors/heap/backtrace.h"

#include <atomic>

#define UNW_LOCAL_ONLY
#include <libunwind.h>

#include "collectors/heap/frame_rules.h"

namespace heap {

namespace {

// Frames of this collector and of the host, between the program and the unwinder, at most.
constexpr std::uint32_t kOwnFrames = 12;

// A frame that seems larger is looked at by the full unwinder, which checks what it reads.
constexpr std::uint64_t kLargestFrame = 1u << 20;

// ---- Rules by return address ----
//
// Two words without a lock: the rule, and the rule XOR the address. A reader that catches halves of two
// different entries finds neither address.

using PackedRule = std::uint64_t; // never 0

struct Entry {
  std::atomic<PackedRule> rule;
  std::atomic<std::uint64_t> check;
};

constexpr std::uint32_t kEntryBits = 14;
constinit Entry entries[1u << kEntryBits] = {};

// bits 0-2 kind, 3 saves the frame pointer, 4-31 its offset, 32-63 the CFA's offset
PackedRule pack(const FrameRule& rule) {
  return static_cast<std::uint64_t>(rule.kind) | static_cast<std::uint64_t>(rule.savesFramePointer) << 3 |
         (static_cast<std::uint64_t>(static_cast<std::uint32_t>(rule.framePointerOffset)) << 4 &
          0xFFFFFFF0u) |
         static_cast<std::uint64_t>(static_cast<std::uint32_t>(rule.cfaOffset)) << 32;
}

FrameKind kindOf(PackedRule rule) { return static_cast<FrameKind>(rule & 7); }
bool savesFramePointer(PackedRule rule) { return (rule & 8) != 0; }
std::int64_t framePointerOffset(PackedRule rule) { return static_cast<std::int32_t>(rule) >> 4; }
std::int64_t cfaOffset(PackedRule rule) { return static_cast<std::int32_t>(rule >> 32); }

[[gnu::noinline]] PackedRule readRule(Entry& entry, std::uint64_t address) {
  FrameRule rule = readFrameRule(address);
  constexpr std::int32_t kOffsetEnd = 1 << 27;
  if (rule.framePointerOffset >= kOffsetEnd || rule.framePointerOffset < -kOffsetEnd)
    rule.kind = FrameKind::kOther;
  const PackedRule packed = pack(rule);
  entry.rule.store(packed, std::memory_order_relaxed);
  entry.check.store(packed ^ address, std::memory_order_relaxed);
  return packed;
}

[[gnu::always_inline]] inline PackedRule ruleFor(std::uint64_t address) {
  Entry& entry = entries[address * 0x9E3779B97F4A7C15u >> (64 - kEntryBits)];
  const PackedRule rule = entry.rule.load(std::memory_order_relaxed);
  if ((entry.check.load(std::memory_order_relaxed) ^ rule) == address && rule != 0) [[likely]]
    return rule;
  return readRule(entry, address);
}

// ---- The walk ----

struct Registers {
  std::uint64_t ip;
  std::uint64_t sp;
  std::uint64_t fp;
};

enum class Step { kTaken, kOutermost, kImpossible };

std::uint64_t wordAt(std::uint64_t address) { return *reinterpret_cast<const std::uint64_t*>(address); }

// The caller's frame lies above; what is saved lies between.
[[gnu::always_inline]] inline Step stepOut(Registers& frame) {
  const PackedRule rule = ruleFor(frame.ip);
  const FrameKind kind = kindOf(rule);
  if (kind <= FrameKind::kOutermost) [[unlikely]] {
    return kind == FrameKind::kOutermost ? Step::kOutermost : Step::kImpossible;
  }
  const std::uint64_t from = kind == FrameKind::kStackPointer ? frame.sp : frame.fp;
  const std::uint64_t cfa = from + static_cast<std::uint64_t>(cfaOffset(rule));
  const std::uint64_t size = cfa - frame.sp;
  if (size - 8 > kLargestFrame || size % 8 != 0) [[unlikely]]
    return Step::kImpossible;
  if (savesFramePointer(rule)) {
    const std::uint64_t place = cfa + static_cast<std::uint64_t>(framePointerOffset(rule));
    if (place - frame.sp > size - 8) [[unlikely]]
      return Step::kImpossible;
    frame.fp = wordAt(place);
  }
  frame.ip = wordAt(cfa - 8);
  frame.sp = cfa;
  return frame.ip != 0 ? Step::kTaken : Step::kOutermost;
}

// False when a frame has no simple rule.
[[gnu::always_inline]] inline bool walk(Trace& trace, Registers frame, std::uint64_t caller,
                                        std::uint32_t depth) {
  for (std::uint32_t own = 0; frame.ip != caller; ++own) {
    if (own == kOwnFrames || stepOut(frame) != Step::kTaken) return false;
  }
  trace.frames[0] = reinterpret_cast<const void*>(frame.ip);
  trace.depth = 1;
  for (;;) {
    const Step step = stepOut(frame);
    if (step == Step::kImpossible) return false;
    trace.cut = step == Step::kTaken;
    if (step == Step::kOutermost || trace.depth == depth) return true;
    trace.frames[trace.depth++] = reinterpret_cast<const void*>(frame.ip);
  }
}

[[gnu::noinline]] void walkFully(Trace& trace, const void* caller, std::uint32_t depth) {
  trace.frames[0] = caller;
  trace.depth = 1;
  trace.cut = true;
  unw_context_t context;
  unw_cursor_t cursor;
  if (unw_getcontext(&context) != 0 || unw_init_local(&cursor, &context) != 0) return;
  unw_word_t ip = 0;
  for (std::uint32_t own = 0; ip != reinterpret_cast<unw_word_t>(caller); ++own) {
    if (own == kOwnFrames || unw_step(&cursor) <= 0 || unw_get_reg(&cursor, UNW_REG_IP, &ip) != 0) return;
  }
  while (unw_step(&cursor) > 0 && unw_get_reg(&cursor, UNW_REG_IP, &ip) == 0 && ip != 0) {
    if (trace.depth == depth) return;
    trace.frames[trace.depth++] = reinterpret_cast<const void*>(ip);
  }
  trace.cut = false;
}

} // namespace

void startBacktraces() {
  // With caches of their own threads take no lock inside libunwind: one that waits there for the loader,
  // while the thread that holds the loader allocates, would wait for ever.
  unw_set_caching_policy(unw_local_addr_space, UNW_CACHE_PER_THREAD);
}

[[gnu::noinline]] void captureBacktrace(Trace& trace, const void* caller, std::uint32_t depth) {
  // Asking for the frame's address gives this function a frame pointer: saved rbp, then the return address,
  // then the caller's.
  const auto own = reinterpret_cast<std::uint64_t>(__builtin_frame_address(0));
  const Registers frame = {wordAt(own + 8), own + 16, wordAt(own)};
  if (!walk(trace, frame, reinterpret_cast<std::uint64_t>(caller), depth)) [[unlikely]] {
    walkFully(trace, caller, depth);
  }
}

void forgetCode() {
  for (Entry& entry : entries) {
    entry.rule.store(0, std::memory_order_relaxed);
    entry.check.store(0, std::memory_order_relaxed);
  }
  unw_flush_cache(unw_local_addr_space, 0, 0);
}

} // namespace heap
