// A host for tests: counts what the library takes from it, fails on demand, and calls back in the middle of
// an allocation.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

namespace test {

struct Host {
  std::atomic<std::int64_t> liveBlocks{0};
  std::atomic<std::int64_t> liveBytes{0};
  std::atomic<std::uint64_t> allocations{0};
  std::atomic<std::uint64_t> lastRequest{0};
  // Called for every request with its size; false refuses it. Set it before other threads allocate.
  std::function<bool(std::uint64_t bytes)> allow;
  // Called for every block given back, with its size.
  std::function<void(std::uint64_t bytes)> released;
};

Host& host();

// The raw pair, as the library gets it.
void* hostAllocate(std::uint64_t bytes);
void hostFree(void* block);

// Distinct, nonzero, one for each thread.
std::uint32_t threadId();

// Installs the pair, thread ids and pid, and starts the runtime.
void startRuntime();

// Installs the pair and thread ids only.
void installHost();

// Bytes of the slabs that a memory category has, while statistics are collected.
std::int64_t bytesOfSlabs(std::uint32_t category);

} // namespace test
