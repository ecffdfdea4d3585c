// The result files of the collectors, as docs/heap-result.md and docs/annotations-result.md describe them.
// Texts in them are printable, except paths, which name files.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "report/progress.h"

namespace report {

// What is counted for one call stack, and for all of them.
struct Numbers {
  std::uint64_t calls = 0;
  std::uint64_t allocatedBytes = 0;
  std::uint64_t liveBlocks = 0;
  std::uint64_t liveBytes = 0;
  std::uint64_t peakBytes = 0;
  std::uint64_t temporary = 0;

  bool operator==(const Numbers&) const = default;
  Numbers& operator+=(const Numbers& other);
};

struct Totals : Numbers {
  std::uint64_t releases = 0;
  std::uint64_t releasedBytes = 0;
  std::uint64_t peakMilliseconds = 0;
  std::vector<std::pair<std::string, std::uint64_t>> functions; // name, calls
};

struct Module {
  std::string path;
  std::string buildId; // hexadecimal digits; empty: it has none
};

struct Frame {
  static constexpr std::uint32_t kNoModule = ~0u;
  std::uint32_t module; // an index
  std::uint64_t offset; // of the return address in the module; without one, the address
};

struct Stack {
  Numbers numbers;
  bool cut;                          // it goes on beyond its frames
  std::vector<std::uint32_t> frames; // indices, innermost first
};

struct Sample {
  std::uint64_t milliseconds;
  std::uint64_t liveBytes;
  std::uint64_t liveBlocks;
  std::uint64_t calls;
};

struct HeapResult {
  std::string program;
  std::uint64_t pid;
  std::string end;
  std::string status;
  std::uint64_t milliseconds;
  Totals totals;
  std::vector<Module> modules;
  std::vector<Frame> frames;
  std::vector<Stack> stacks;
  std::uint64_t sampleMilliseconds = 0; // between samples
  std::vector<Sample> samples;
};

struct Annotation {
  std::string name;
  std::string location;
  std::string symbol; // empty: not known
  std::string offset;
  std::string address;
  std::string probe; // empty: it has none
};

struct AnnotatedModule {
  std::string path;
  std::vector<Annotation> annotations;
};

struct AnnotationsResult {
  std::string program;
  std::vector<AnnotatedModule> modules;
};

using Result = std::variant<HeapResult, AnnotationsResult>;

// Throws Failure.
Result readResult(const std::string& path, Progress& progress);

// The same, of a file that must be a heap result.
HeapResult readHeapResult(const std::string& path, Progress& progress);

} // namespace report
