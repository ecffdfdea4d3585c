// What the three sources of the memory manager share. Private to this folder.
//
// Lock order: pre-allocation lock, host-allocation lock, row lock, statistics lock.
#pragma once

#include <cstdint>

#include "runtime/spin_lock.h"
#include "veskrt/memory.h"

namespace vesk::memory {

// ---- Sub-allocator ----

// The host's pair: written once, under the initialisation guard, before the library allocates.
extern VeskHostAllocateProc hostAllocate;
extern VeskHostFreeProc hostFree;

// Guards initialisation, of the sub-allocator and of memory collection alike (once_guard.h).
extern std::uint32_t initializationGuard;

// Held around every host allocation of the library, so that a call-back made from inside one can be told from
// any other.
extern VeskSpinLock hostAllocationLock;

// Guards the state of the probe and orders probes against the engine's reports.
extern VeskSpinLock preAllocationLock;

// ---- Statistics ----

bool statisticsOn() noexcept;
void accountSlabAcquired(std::uint32_t category, std::uint64_t bytes) noexcept;
void accountSlabReleased(std::uint32_t category, std::uint64_t bytes) noexcept;
void clearStatistics() noexcept;
void countCollection() noexcept;
std::uint64_t totalAllocated() noexcept;

// One comment in the log for each category; the format takes its name and its allocated bytes (char*, long).
void listCategories(const char* format) noexcept;

// Ends the process.
[[noreturn]] void reportOutOfMemory() noexcept;

// Says once that memory is tight.
void reportMemoryIsTight() noexcept;

// ---- Collection ----

// A new attempt at a host allocation logs a collection of its own again. Caller holds the host-allocation
// lock.
void forgetLoggedCollection() noexcept;

// Collects if free swap has fallen far enough. Caller holds the host-allocation lock.
void checkPressure() noexcept;

// For a host allocation that has just failed: hands reserve blocks back, one at a time, and tries again after
// each. Null when the reserve ran out. Caller holds the host-allocation lock.
void* allocateFromReserves(std::uint64_t bytes) noexcept;

} // namespace vesk::memory
