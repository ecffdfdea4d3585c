// What is counted: for every call stack (a site) and for the process.
//
// One lock makes every event a single step, so events have one order, also across threads, and the sums over
// the sites equal the totals at every moment. The step is a few additions; unwinding, the search for the
// stack and the table of live blocks lie outside it.
//
// Bytes at the peak. The process peak is the moment at which the live bytes first reached their highest
// value. Copying every site at each new peak would cost as much as there are sites; instead the first release
// after a new peak closes it by raising an epoch, and a site keeps what it held when an event touches it for
// the first time in an epoch. A site that was not touched since the last peak was closed holds now what it
// held then.
#pragma once

#include <cstdint>

#include "collectors/heap/lock.h"
#include "veskrt/host.h"

namespace heap {

struct Stack;

inline constexpr std::uint32_t kHeapFunctions = VESK_HEAP_PVALLOC + 1;

// One cache line. Written under the accounts' lock.
struct Site {
  std::uint64_t calls;
  std::uint64_t allocatedBytes;
  std::uint64_t liveBlocks;
  std::uint64_t liveBytes;
  std::uint64_t temporary;
  std::uint64_t peakBytes; // live bytes when the peak before `peakEpoch` was closed
  std::uint64_t peakEpoch;
  Stack* stack; // set when the site is made
};

struct Totals {
  std::uint64_t calls;
  std::uint64_t allocatedBytes;
  std::uint64_t releases;
  std::uint64_t releasedBytes;
  std::uint64_t liveBlocks;
  std::uint64_t liveBytes;
  std::uint64_t peakBytes;
  std::uint64_t peakNanoseconds; // since the start
  std::uint64_t temporary;
  std::uint64_t callsOf[kHeapFunctions]; // by the function that handed the block out
};

// The state just after the first event at or after a multiple of the interval.
struct Sample {
  std::uint64_t milliseconds; // since the start
  std::uint64_t liveBytes;
  std::uint64_t liveBlocks;
  std::uint64_t calls;
};

inline constexpr std::uint32_t kSamples = 1000;

// Before the first event: takes the time. An interval of 0 takes no samples.
void startAccounts(std::uint32_t timelineMilliseconds, std::uint32_t timelineCategory);

// In the child of a fork: everything is 0 again and time starts now. The caller clears the sites.
void restartAccounts();

void accountAllocation(Site& site, std::uint64_t bytes, VeskHeapFunction function);
void accountRelease(Site& site, std::uint64_t bytes, bool temporary);

// A release and an allocation in one step: no moment in between is a peak. `released` may be null: an
// allocation alone.
void accountReallocation(Site* released, std::uint64_t releasedBytes, bool temporary, Site& site,
                         std::uint64_t bytes, VeskHeapFunction function);

// While one is held, nothing changes. Reading goes through it.
class StillAccounts {
public:
  StillAccounts();
  ~StillAccounts();
  StillAccounts(const StillAccounts&) = delete;
  StillAccounts& operator=(const StillAccounts&) = delete;

  const Totals& totals() const;
  std::uint64_t peakBytes(const Site& site) const; // what the site held at the process peak
  std::uint64_t nanoseconds() const;               // since the start
  const Sample* samples() const;
  std::uint32_t sampleCount() const;
  std::uint64_t sampleMilliseconds() const; // the interval as it is now
};

} // namespace heap
