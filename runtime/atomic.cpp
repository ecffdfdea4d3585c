// The exported atomic primitives and bit scans.
#include "veskrt/atomic.h"

#include <bit>

namespace {

// The target is the caller's word, which callers declare as they like: the builtins take it as it comes.
template <class T>
[[gnu::always_inline]] inline T compareExchange(volatile T* target, T exchange, T comparand) {
  __atomic_compare_exchange_n(target, &comparand, exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
  return comparand;
}

} // namespace

uint32_t __VeskInterlockedCompareExchangeInternal(volatile uint32_t* target, uint32_t exchange,
                                                  uint32_t comparand) {
  return compareExchange(target, exchange, comparand);
}

uint32_t __VeskInterlockedCompareExchange(volatile uint32_t* target, uint32_t exchange, uint32_t comparand) {
  return __VeskInterlockedCompareExchangeInternal(target, exchange, comparand);
}

uint64_t __VeskInterlockedCompareExchange64Internal(volatile uint64_t* target, uint64_t exchange,
                                                    uint64_t comparand) {
  return compareExchange(target, exchange, comparand);
}

uint64_t __VeskInterlockedCompareExchange64(volatile uint64_t* target, uint64_t exchange,
                                            uint64_t comparand) {
  return __VeskInterlockedCompareExchange64Internal(target, exchange, comparand);
}

int32_t __VeskInterlockedIncrementInternal(volatile uint32_t* target) {
  return static_cast<int32_t>(__atomic_add_fetch(target, 1, __ATOMIC_SEQ_CST));
}

int32_t __VeskInterlockedIncrement(volatile uint32_t* target) {
  return __VeskInterlockedIncrementInternal(target);
}

int32_t __VeskInterlockedDecrementInternal(volatile uint32_t* target) {
  return static_cast<int32_t>(__atomic_sub_fetch(target, 1, __ATOMIC_SEQ_CST));
}

int32_t __VeskInterlockedDecrement(volatile uint32_t* target) {
  return __VeskInterlockedDecrementInternal(target);
}

uint32_t __VeskInterlockedExchangeAddInternal(volatile uint32_t* target, uint32_t addend) {
  return __atomic_fetch_add(target, addend, __ATOMIC_SEQ_CST);
}

uint32_t __VeskInterlockedExchangeAdd(volatile uint32_t* target, uint32_t addend) {
  return __VeskInterlockedExchangeAddInternal(target, addend);
}

// The scans answer 0 for 0, where the processor's own instructions leave their result undefined.

uint32_t __VeskGetLeastSignificantOneIndexInternal(uint32_t value) {
  return value == 0 ? 0 : static_cast<uint32_t>(std::countr_zero(value));
}

uint32_t __VeskGetLeastSignificantOneIndex(uint32_t value) {
  return __VeskGetLeastSignificantOneIndexInternal(value);
}

uint32_t __VeskGetMostSignificantOneIndexInternal(uint32_t value) {
  return value == 0 ? 0 : 31u - static_cast<uint32_t>(std::countl_zero(value));
}

uint32_t __VeskGetMostSignificantOneIndexLong(uint64_t value) {
  return value == 0 ? 0 : 63u - static_cast<uint32_t>(std::countl_zero(value));
}
