#include "collectors/heap/result.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "collectors/common/xml_text.h"
#include "collectors/heap/modules.h"
#include "collectors/heap/settings.h"
#include "veskrt/hash_table.h"
#include "veskrt/memory.h"
#include "veskrt/runtime.h"
#include "veskrt/xml.h"

namespace heap {

namespace {

constexpr char kRoot[] = "heapProfile";
constexpr const char* kFunctionNames[] = {"malloc", "calloc",         "realloc",       "reallocarray",
                                          "free",   "posix_memalign", "aligned_alloc", "memalign",
                                          "valloc", "pvalloc"};
static_assert(sizeof kFunctionNames / sizeof kFunctionNames[0] == kHeapFunctions);

using PartName = Text<PATH_MAX + 32>;

void namePart(PartName& part, const char* path) { part.append("%s.%d.part", path, __VeskGetPid()); }

void writePath(VeskXMLFile* file, const char* element, const char* path) {
  Path clean;
  common::appendClean(clean, path);
  __VeskXMLWriteStringElement(file, element, clean.text());
}

// ---- Numbers ----

void writeElement(VeskXMLFile* file, const char* name, std::uint64_t value) {
  __VeskXMLWriteLongDecimalElement(file, name, static_cast<std::int64_t>(value));
}

void writeAttribute(VeskXMLFile* file, const char* name, std::uint64_t value) {
  char digits[24];
  __VeskSnprintf(digits, sizeof digits, "%llu", static_cast<unsigned long long>(value));
  __VeskXMLWriteStringAttribute(file, name, digits);
}

void finishEmpty(VeskXMLFile* file, const char* name) {
  __VeskXMLFinishWritingOpeningTag(file);
  __VeskXMLAppendClosingTag(file, name);
}

// ---- Frames: each is written once, stacks refer to it by its number ----

constexpr std::uint64_t kOffsetBits = 48;
constexpr std::uint64_t kNoModuleKey = 0xFFFF;

class Frames {
public:
  explicit Frames(std::uint32_t category)
      : table_(__VeskCreateHashTable(VESK_HASH_TABLE_UNLOCKED | VESK_HASH_TABLE_1024_BUCKETS, kFunctions, 1,
                                     nullptr, nullptr, category, 0)) {}
  ~Frames() { __VeskDestroyHashTable(table_, nullptr); }
  Frames(const Frames&) = delete;
  Frames& operator=(const Frames&) = delete;

  struct Place {
    std::uint64_t module; // kNoModuleKey: none
    std::uint64_t offset;
    std::uint64_t key() const { return module << kOffsetBits | offset; }
  };

  static Place placeOf(const Stack& stack, std::uint32_t frame) {
    const auto address = reinterpret_cast<std::uint64_t>(stack.frames[frame]);
    const std::uint32_t module = stack.modules[frame];
    constexpr std::uint64_t kMask = (std::uint64_t{1} << kOffsetBits) - 1;
    if (module >= kNoModuleKey) return {kNoModuleKey, address & kMask};
    return {module, (address - moduleByIndex(module).base) & kMask};
  }

  // The frame's number, from 0 on; `isNew` says that it has just got it.
  std::uint64_t number(const Place& place, bool& isNew) {
    auto* mine = reinterpret_cast<void*>(count_ + 1);
    void* held = __VeskInsertHashTableEntry(table_, place.key(), mine);
    isNew = held == mine;
    if (isNew) ++count_;
    return reinterpret_cast<std::uint64_t>(held) - 1;
  }

private:
  static std::uint64_t hash(VeskHashTable* /*table*/, std::uint64_t key) {
    return key * 0x9E3779B97F4A7C15u >> 32;
  }
  static constexpr VeskHashFunction kFunctions[] = {hash};

  VeskHashTable* table_;
  std::uint64_t count_ = 0;
};

// ---- Sections ----

void writeProcess(VeskXMLFile* file, const Report& report, const Ending& ending, std::uint32_t depth) {
  __VeskXMLWriteOpeningTag(file, "process");
  writePath(file, "program", veskHostProgramPath());
  writeElement(file, "pid", static_cast<std::uint64_t>(__VeskGetPid()));
  __VeskXMLWriteStringElement(file, "end", ending.how);
  __VeskXMLWriteDecimalElement(file, "status", ending.status);
  writeElement(file, "milliseconds", report.milliseconds);
  writeElement(file, "depth", depth);
  __VeskXMLWriteClosingTag(file, "process");
}

void writeTotals(VeskXMLFile* file, const Totals& totals) {
  __VeskXMLWriteOpeningTag(file, "totals");
  writeElement(file, "calls", totals.calls);
  writeElement(file, "allocatedBytes", totals.allocatedBytes);
  writeElement(file, "releases", totals.releases);
  writeElement(file, "releasedBytes", totals.releasedBytes);
  writeElement(file, "liveBlocks", totals.liveBlocks);
  writeElement(file, "liveBytes", totals.liveBytes);
  writeElement(file, "peakBytes", totals.peakBytes);
  writeElement(file, "peakMilliseconds", totals.peakNanoseconds / 1'000'000);
  writeElement(file, "temporary", totals.temporary);
  for (std::uint32_t i = 0; i < kHeapFunctions; ++i) {
    if (totals.callsOf[i] == 0) continue;
    __VeskXMLStartWritingOpeningTag(file, "function");
    __VeskXMLWriteStringAttribute(file, "name", kFunctionNames[i]);
    writeAttribute(file, "calls", totals.callsOf[i]);
    finishEmpty(file, "function");
  }
  __VeskXMLWriteClosingTag(file, "totals");
}

void writeModules(VeskXMLFile* file) {
  __VeskXMLWriteOpeningTag(file, "modules");
  for (std::uint32_t i = 0; i < moduleCount(); ++i) {
    const Module& module = moduleByIndex(i);
    __VeskXMLStartWritingOpeningTag(file, "module");
    writeAttribute(file, "id", i);
    __VeskXMLWriteHexadecimalAddressAttribute(file, "base", module.base);
    __VeskXMLWriteHexadecimalAddressAttribute(file, "start", module.start);
    __VeskXMLWriteHexadecimalAddressAttribute(file, "end", module.end);
    if (module.buildId[0] != '\0') __VeskXMLWriteStringAttribute(file, "buildId", module.buildId);
    if (module.unloaded) __VeskXMLWriteStringAttribute(file, "unloaded", "true");
    __VeskXMLFinishWritingOpeningTag(file);
    writePath(file, "path", module.path);
    __VeskXMLWriteClosingTag(file, "module");
  }
  __VeskXMLWriteClosingTag(file, "modules");
}

void writeFrame(VeskXMLFile* file, std::uint64_t number, const Frames::Place& place) {
  __VeskXMLStartWritingOpeningTag(file, "frame");
  writeAttribute(file, "id", number);
  if (place.module != kNoModuleKey) writeAttribute(file, "module", place.module);
  __VeskXMLWriteHexadecimalAttribute(file, "offset", place.offset);
  finishEmpty(file, "frame");
}

void writeFrames(VeskXMLFile* file, const Report& report, Frames& frames) {
  __VeskXMLWriteOpeningTag(file, "frames");
  for (std::uint32_t i = 0; i < report.siteCount; ++i) {
    const Stack& stack = *report.sites[i].stack;
    for (std::uint32_t k = 0; k < stack.depth; ++k) {
      const Frames::Place place = Frames::placeOf(stack, k);
      bool isNew;
      const std::uint64_t number = frames.number(place, isNew);
      if (isNew) writeFrame(file, number, place);
    }
  }
  __VeskXMLWriteClosingTag(file, "frames");
}

void writeStack(VeskXMLFile* file, const ReportedSite& site, Frames& frames) {
  const Stack& stack = *site.stack;
  __VeskXMLStartWritingOpeningTag(file, "stack");
  writeAttribute(file, "id", stack.id);
  writeAttribute(file, "calls", site.calls);
  writeAttribute(file, "allocatedBytes", site.allocatedBytes);
  writeAttribute(file, "liveBlocks", site.liveBlocks);
  writeAttribute(file, "liveBytes", site.liveBytes);
  writeAttribute(file, "peakBytes", site.peakBytes);
  writeAttribute(file, "temporary", site.temporary);
  if (stack.cut) __VeskXMLWriteStringAttribute(file, "cut", "true");
  __VeskXMLFinishWritingOpeningTag(file);
  Text<kMaxDepth * 24> numbers;
  for (std::uint32_t k = 0; k < stack.depth; ++k) {
    bool isNew;
    const std::uint64_t number = frames.number(Frames::placeOf(stack, k), isNew);
    numbers.append("%s%llu", k == 0 ? "" : " ", static_cast<unsigned long long>(number));
  }
  __VeskXMLWriteStringValue(file, numbers.text());
  __VeskXMLAppendClosingTag(file, "stack");
}

void writeStacks(VeskXMLFile* file, const Report& report, Frames& frames) {
  __VeskXMLWriteOpeningTag(file, "stacks");
  for (std::uint32_t i = 0; i < report.siteCount; ++i) writeStack(file, report.sites[i], frames);
  __VeskXMLWriteClosingTag(file, "stacks");
}

void writeTimeline(VeskXMLFile* file, const Report& report) {
  if (report.sampleCount == 0) return;
  __VeskXMLStartWritingOpeningTag(file, "timeline");
  writeAttribute(file, "interval", report.sampleMilliseconds);
  __VeskXMLFinishWritingOpeningTag(file);
  for (std::uint32_t i = 0; i < report.sampleCount; ++i) {
    const Sample& sample = report.samples[i];
    __VeskXMLStartWritingOpeningTag(file, "sample");
    writeAttribute(file, "milliseconds", sample.milliseconds);
    writeAttribute(file, "liveBytes", sample.liveBytes);
    writeAttribute(file, "liveBlocks", sample.liveBlocks);
    writeAttribute(file, "calls", sample.calls);
    finishEmpty(file, "sample");
  }
  __VeskXMLWriteClosingTag(file, "timeline");
}

void writeOwnUse(VeskXMLFile* file) {
  __VeskXMLWriteOpeningTag(file, "collector");
  std::uint64_t total = 0;
  VeskMemoryCategoryInfo info;
  for (std::uint32_t i = 0; __VeskGetMemoryInfoByCategory(i, &info); ++i) {
    __VeskXMLStartWritingOpeningTag(file, "category");
    __VeskXMLWriteStringAttribute(file, "name", info.name);
    writeAttribute(file, "allocated", static_cast<std::uint64_t>(info.allocated));
    writeAttribute(file, "allocatedAtPeak", static_cast<std::uint64_t>(info.allocatedAtPeak));
    finishEmpty(file, "category");
    total += static_cast<std::uint64_t>(info.allocated);
  }
  writeElement(file, "allocated", total);
  writeElement(file, "peak", __VeskGetPeakTotalMemoryAllocated());
  writeElement(file, "collections", __VeskGetTotalTimesMemoryCollected());
  const VeskHostMemory host = veskHostMemoryInUse();
  writeElement(file, "hostBytes", host.bytes);
  writeElement(file, "hostBlocks", host.blocks);
  __VeskXMLWriteClosingTag(file, "collector");
}

// Single writes report no errors: a file that misses some of its bytes misses its end.
bool endsWhole(const char* path) {
  constexpr char kEnd[] = "</heapProfile>";
  constexpr off_t kLength = sizeof kEnd - 1;
  char end[kLength];
  const int descriptor = open(path, O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return false;
  const bool whole = lseek(descriptor, -kLength, SEEK_END) >= 0 &&
                     read(descriptor, end, kLength) == kLength && std::memcmp(end, kEnd, kLength) == 0;
  close(descriptor);
  return whole;
}

// Makes an empty file of this process's own: what lies under the name, a link of somebody else's perhaps, is not written through.
int claim(const char* path) {
  unlink(path);
  const int descriptor = open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
  if (descriptor < 0) return errno;
  close(descriptor);
  return 0;
}

} // namespace

int checkResultFile(const char* path) {
  struct stat status;
  if (stat(path, &status) == 0 && S_ISDIR(status.st_mode)) return EISDIR;
  PartName part;
  namePart(part, path);
  const int error = claim(part.text());
  if (error == 0) unlink(part.text());
  return error;
}

int writeResult(const char* path, const Report& report, const Ending& ending, std::uint32_t depth,
                std::uint32_t category) {
  PartName part;
  namePart(part, path);
  if (const int error = claim(part.text())) return error;
  errno = 0;
  VeskXMLFile* file = __VeskXMLCreateFile(part.text(), 0);
  if (file == nullptr) return errno != 0 ? errno : EIO;

  __VeskXMLAcquireFile(file);
  __VeskXMLStartWritingOpeningTag(file, kRoot);
  __VeskXMLWriteIntegerAttribute(file, "version", 1);
  __VeskXMLFinishWritingOpeningTag(file);
  writeProcess(file, report, ending, depth);
  writeTotals(file, report.totals);
  {
    StillStacks still;
    writeModules(file);
    Frames frames(category);
    writeFrames(file, report, frames);
    writeStacks(file, report, frames);
  }
  writeTimeline(file, report);
  writeOwnUse(file);
  __VeskXMLWriteClosingTag(file, kRoot);
  errno = 0;
  __VeskXMLReleaseFile(file);
  const int flushError = errno;
  __VeskXMLCloseFile(&file);

  if (file != nullptr || !endsWhole(part.text())) {
    unlink(part.text());
    return flushError != 0 ? flushError : EIO;
  }
  if (rename(part.text(), path) == 0) return 0;
  const int error = errno;
  unlink(part.text());
  return error;
}

} // namespace heap
