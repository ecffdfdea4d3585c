// What was counted, as it stood at one moment: copied out, so that it can be ordered and written while the
// program goes on.
#pragma once

#include <cstdint>

#include "collectors/heap/accounts.h"
#include "collectors/heap/stacks.h"

namespace heap {

struct ReportedSite {
  const Stack* stack;
  std::uint64_t calls;
  std::uint64_t allocatedBytes;
  std::uint64_t liveBlocks;
  std::uint64_t liveBytes;
  std::uint64_t peakBytes; // live bytes at the process peak
  std::uint64_t temporary;
};

// All of its memory is of one category, until it is given back.
struct Report {
  Totals totals;
  std::uint64_t milliseconds; // since the start
  ReportedSite* sites;        // those that allocated, in the order of the report
  std::uint32_t siteCount;
  Sample* samples; // the last one is the moment of the report
  std::uint32_t sampleCount;
  std::uint64_t sampleMilliseconds; // 0: no samples
};

Report takeReport(std::uint32_t category);
void releaseReport(Report& report);

// The order of the report, in the file and on the terminal.
bool comesBefore(const ReportedSite& left, const ReportedSite& right);

} // namespace heap
