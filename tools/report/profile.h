// A heap result, or the comparison of two, as rows of numbers with resolved call stacks.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "report/progress.h"
#include "report/result.h"
#include "report/symbols.h"

namespace report {

enum class Metric { kPeak, kLive, kBytes, kCalls, kTemporary };

std::uint64_t valueOf(const Numbers& numbers, Metric metric);

struct Row {
  Numbers now;
  Numbers before;                    // of a comparison
  bool cut;                          // the stack goes on beyond
  std::vector<std::uint32_t> places; // indices, innermost first
};

// What is said about the process that was observed.
struct Run {
  std::string resultPath; // printable
  std::string program;
  std::uint64_t pid;
  std::string end;
  std::string status;
  std::uint64_t milliseconds;
  Totals totals;
  std::uint64_t sampleMilliseconds;
  std::vector<Sample> samples;
};

struct Profile {
  Run run;
  std::optional<Run> before; // of a comparison
  std::vector<Place> places;
  std::vector<Row> rows; // in the result's order

  bool isComparison() const { return before.has_value(); }
};

struct NameSettings {
  std::string debugDirectory; // empty: none of its own
  bool libraryInlines =
      false; // all of a run of inlined functions of the C++ library, not its outermost alone
};

// Resolves the frames. What it could not look into is told on standard error.
Profile makeProfile(HeapResult result, const std::string& path, const NameSettings& settings,
                    Progress& progress);

struct Selection {
  std::optional<Metric> metric; // to sort by, the highest first; none: the result's order
  bool leaks = false;           // only what holds blocks at the end, by its bytes
};

// What the rows are sorted by first.
Metric firstMetric(const Selection& selection);

// The rows in the order in which they are shown; of a comparison those that differ, the greatest difference first.
std::vector<const Row*> select(const Profile& profile, const Selection& selection);

} // namespace report
