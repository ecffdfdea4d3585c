// Words that other threads read: how the library touches them.
//
// A plain word of a record that two threads may see is a plain word in the interface, since callers embed and
// inspect the records; inside the library every access to it goes through these.
#pragma once

#include <atomic>
#include <type_traits>

namespace vesk {

template <class T>
[[gnu::always_inline]] inline T loadRelaxed(const T& word) noexcept {
  return std::atomic_ref<T>(const_cast<T&>(word)).load(std::memory_order_relaxed);
}

template <class T>
[[gnu::always_inline]] inline T loadAcquire(const T& word) noexcept {
  return std::atomic_ref<T>(const_cast<T&>(word)).load(std::memory_order_acquire);
}

// In one order with every locked instruction and every other such load.
template <class T>
[[gnu::always_inline]] inline T loadSequential(const T& word) noexcept {
  return std::atomic_ref<T>(const_cast<T&>(word)).load(std::memory_order_seq_cst);
}

template <class T>
[[gnu::always_inline]] inline void storeRelaxed(T& word, std::type_identity_t<T> value) noexcept {
  std::atomic_ref<T>(word).store(value, std::memory_order_relaxed);
}

template <class T>
[[gnu::always_inline]] inline void storeRelease(T& word, std::type_identity_t<T> value) noexcept {
  std::atomic_ref<T>(word).store(value, std::memory_order_release);
}

// Stores `desired` if the word holds `expected`; says whether it did. One locked instruction, a full barrier.
template <class T>
[[gnu::always_inline]] inline bool compareAndSwap(T& word, std::type_identity_t<T> expected,
                                                  std::type_identity_t<T> desired) noexcept {
  return std::atomic_ref<T>(word).compare_exchange_strong(expected, desired);
}

// Adds and returns the value held before.
template <class T>
[[gnu::always_inline]] inline T fetchAdd(T& word, std::type_identity_t<T> addend) noexcept {
  return std::atomic_ref<T>(word).fetch_add(addend);
}

} // namespace vesk
