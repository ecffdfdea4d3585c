#include "collectors/heap/summary.h"

#include <cerrno>
#include <cstring>
#include <new>

#include <fcntl.h>
#include <unistd.h>

#include "collectors/common/elf_file.h"
#include "collectors/common/text.h"
#include "collectors/heap/modules.h"
#include "veskrt/memory.h"

namespace heap {

namespace {

constexpr std::uint32_t kFramesShown = 3;
constexpr std::uint32_t kNameShown = 100; // characters of a function's name

// What the buffer that a row is in must take at least.
using common::Text;
using Line = Text<512>;
using Short = Text<32>;

class Output {
public:
  explicit Output(std::uint32_t category, std::uint32_t capacity)
      : bytes_(static_cast<char*>(__VeskMalloc(category, capacity, 0))), capacity_(capacity) {}
  ~Output() { __VeskFree(bytes_); }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  void add(const Line& line) {
    if (line.length() + 1 > capacity_ - length_) return;
    std::memcpy(bytes_ + length_, line.text(), line.length());
    length_ += line.length();
    bytes_[length_++] = '\n';
  }

  void write() const {
    std::uint32_t done = 0;
    while (done < length_) {
      const ssize_t count = ::write(STDERR_FILENO, bytes_ + done, length_ - done);
      if (count < 0 && errno == EINTR) continue;
      if (count <= 0) return;
      done += static_cast<std::uint32_t>(count);
    }
  }

private:
  char* bytes_;
  std::uint32_t length_ = 0;
  std::uint32_t capacity_;
};

Short readableSize(std::uint64_t bytes) {
  constexpr const char* kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  Short text;
  if (bytes < 1024) {
    text.append("%llu B", static_cast<unsigned long long>(bytes));
    return text;
  }
  double value = static_cast<double>(bytes) / 1024;
  std::uint32_t unit = 0;
  for (; value >= 1023.95; ++unit) value /= 1024;
  text.append("%.1f %s", value, kUnits[unit]);
  return text;
}

// 1234567 as 1,234,567.
Short readableCount(std::uint64_t count) {
  Short digits;
  digits.append("%llu", static_cast<unsigned long long>(count));
  Short text;
  for (std::uint32_t i = 0; i < digits.length(); ++i) {
    const bool group = i > 0 && (digits.length() - i) % 3 == 0;
    text.append(group ? ",%c" : "%c", digits.text()[i]);
  }
  return text;
}

// The files that names were looked up in so far stay open, since rows share them.
class Symbols {
public:
  Symbols() = default;
  ~Symbols() {
    for (std::uint32_t i = 0; i < count_; ++i) file(i).~ElfFile();
  }
  Symbols(const Symbols&) = delete;
  Symbols& operator=(const Symbols&) = delete;

  const char* find(std::uint32_t module, std::uint64_t address) {
    for (std::uint32_t i = 0; i < count_; ++i) {
      if (modules_[i] == module) return file(i).find(address);
    }
    if (count_ == kFiles) return nullptr;
    modules_[count_] = module;
    return (new (&files_[count_++]) common::ElfFile(moduleByIndex(module).path))->find(address);
  }

private:
  static constexpr std::uint32_t kFiles = 64;
  common::ElfFile& file(std::uint32_t i) {
    return *std::launder(reinterpret_cast<common::ElfFile*>(&files_[i]));
  }

  std::uint32_t count_ = 0;
  std::uint32_t modules_[kFiles];
  struct alignas(common::ElfFile) Storage {
    std::byte bytes[sizeof(common::ElfFile)];
  } files_[kFiles];
};

// operator new and new[]: in front of every C++ allocation, and no news.
bool isOperatorNew(const char* name) {
  return name != nullptr && (std::strncmp(name, "_Znw", 4) == 0 || std::strncmp(name, "_Zna", 4) == 0);
}

const char* baseName(const char* path) {
  const char* slash = std::strrchr(path, '/');
  return slash == nullptr ? path : slash + 1;
}

struct Place {
  const char* function; // null: no symbol
  const Module* module; // null: none
  std::uint64_t offset; // of the return address in the module, or the address
};

Place placeOf(const Stack& stack, std::uint32_t frame, Symbols& symbols) {
  const auto address = reinterpret_cast<std::uint64_t>(stack.frames[frame]);
  const std::uint32_t index = stack.modules[frame];
  if (index == kNoModule) return {nullptr, nullptr, address};
  const Module& module = moduleByIndex(index);
  const std::uint64_t offset = address - module.base;
  return {symbols.find(index, offset - 1), &module, offset}; // the call is in front of where it returns to
}

void appendPlace(Line& line, const Place& place) {
  const auto offset = static_cast<unsigned long long>(place.offset);
  if (place.module == nullptr)
    line.append("0x%llx", offset);
  else if (place.function == nullptr)
    line.append("%.80s+0x%llx", baseName(place.module->path), offset);
  else {
    const bool cut = std::strlen(place.function) > kNameShown;
    line.append("%.*s%s (%.80s)", static_cast<int>(kNameShown), place.function, cut ? "..." : "",
                baseName(place.module->path));
  }
}

constexpr char kColumns[] = "%10s %10s %10s %11s %11s  ";

void addHeading(Output& output, const Totals& totals) {
  Line line;
  line.append("veskheap: %s heap calls for %s; peak %s after %llu.%03llu s; at the end %s in %s blocks",
              readableCount(totals.calls).text(), readableSize(totals.allocatedBytes).text(),
              readableSize(totals.peakBytes).text(),
              static_cast<unsigned long long>(totals.peakNanoseconds / 1'000'000'000),
              static_cast<unsigned long long>(totals.peakNanoseconds / 1'000'000 % 1000),
              readableSize(totals.liveBytes).text(), readableCount(totals.liveBlocks).text());
  output.add(line);
  line.clear();
  line.append(kColumns, "at peak", "at end", "in all", "calls", "temporary");
  line.append("where");
  output.add(line);
}

void addRow(Output& output, const ReportedSite& site, Symbols& symbols) {
  Line line;
  line.append(kColumns, readableSize(site.peakBytes).text(), readableSize(site.liveBytes).text(),
              readableSize(site.allocatedBytes).text(), readableCount(site.calls).text(),
              readableCount(site.temporary).text());
  const std::uint32_t indentation = line.length();
  std::uint32_t shown = 0;
  for (std::uint32_t i = 0; i < site.stack->depth && shown < kFramesShown; ++i) {
    const Place place = placeOf(*site.stack, i, symbols);
    if (shown == 0 && i + 1 < site.stack->depth && isOperatorNew(place.function)) continue;
    if (shown++ > 0) line.append("%*s  from ", static_cast<int>(indentation), "");
    appendPlace(line, place);
    output.add(line);
    line.clear();
  }
  if (shown > 0) return;
  line.append("(unknown)");
  output.add(line);
}

} // namespace

void writeSummary(const Report& report, std::uint32_t top, const char* resultPath, std::uint32_t category) {
  if (top == 0 || fcntl(STDERR_FILENO, F_GETFD) < 0) return;
  const std::uint32_t rows = top < report.siteCount ? top : report.siteCount;
  Output output(category, (rows * kFramesShown + 4) * Line::capacity());
  addHeading(output, report.totals);
  {
    StillStacks still;
    Symbols symbols;
    for (std::uint32_t i = 0; i < rows; ++i) addRow(output, report.sites[i], symbols);
  }
  Line line;
  if (rows < report.siteCount) {
    line.append("and %s more call stacks", readableCount(report.siteCount - rows).text());
    output.add(line);
    line.clear();
  }
  if (resultPath != nullptr) {
    line.append("veskheap: all of it is in %.480s", resultPath);
    output.add(line);
  }
  output.write();
}

} // namespace heap
