// Definition files of any bytes: what a file delivers is what its lines deliver one by one, to each module its
// own, in order.
#include <cstring>
#include <set>
#include <string_view>
#include <tuple>
#include <vector>

#include "fuzz/support.h"
#include "veskrt/annotations.h"
#include "veskrt/memory.h"

namespace {

constexpr std::size_t kLongestPiece = 65533;
constexpr std::uint64_t kLoadBase = 0x7F0000000000;

// Name, address, whether it has a location, and its constant.
using Delivered = std::tuple<std::string, std::uint64_t, std::uint32_t, std::int64_t>;

struct Line {
  std::string module;
  Delivered record;
};

Line* parse(std::string_view piece, Line& result) {
  std::string line(piece.substr(0, piece.find('\0')));
  VESK_QEL_DEFINITION definition = {};
  __VeskQELParseDefinition(line.data(), &definition);
  const bool counts = definition.name != nullptr && definition.modulePath != nullptr;
  if (counts) {
    const std::int64_t value = definition.location != nullptr ? definition.location->value : 0;
    result = {definition.modulePath,
              {definition.name, kLoadBase + definition.address, definition.hasValue, value}};
  }
  __VeskFree(definition.name);
  __VeskFree(definition.modulePath);
  __VeskFree(definition.location);
  return counts ? &result : nullptr;
}

std::vector<Line> parseLines(std::string_view text) {
  std::vector<Line> lines;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    const std::size_t length = std::min(end != std::string_view::npos ? end + 1 : text.size(), kLongestPiece);
    Line line;
    if (parse(text.substr(0, length), line) != nullptr) lines.push_back(line);
    text.remove_prefix(length);
  }
  return lines;
}

uint64_t collect(VESK_QEL_RECORD* record, uint64_t context) {
  fuzz::require(record->expression == nullptr && record->probe == 0 && record->location.isRegister == 0);
  reinterpret_cast<std::vector<Delivered>*>(context)->emplace_back(
      record->name, record->address, record->hasLocation,
      record->hasLocation != 0 ? record->location.value : 0);
  return 0;
}

// Every '/' twice: folded again before it is compared.
std::string withDoubledSeparators(const std::string& path) {
  std::string result;
  for (const char character : path) result.append(character == '/' ? 2 : 1, character);
  return result;
}

} // namespace

// A first byte from 192 on puts up to 70,400 characters in front of the text: lines longer than the buffer.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  fuzz::startRuntime();
  const std::int64_t before = fuzz::liveBlocks();
  static fuzz::MemoryFile file;
  std::string text(data[0] >= 192 ? (data[0] - 191u) * 1100u : 0, 'x');
  text.append(reinterpret_cast<const char*>(data + 1), size - 1);
  file.write(text);

  fuzz::require(__VeskQELLoadExternalDefinitions(file.path()) == 1);
  const std::vector<Line> lines = parseLines(text);
  std::set<std::string> modules;
  for (const Line& line : lines) modules.insert(line.module);
  for (const std::string& module : modules) {
    std::vector<Delivered> expected;
    for (const Line& line : lines) {
      if (line.module == module) expected.push_back(line.record);
    }
    std::vector<Delivered> delivered;
    __VeskQELProcessExternalRecords(withDoubledSeparators(module).c_str(), kLoadBase, collect, &delivered);
    fuzz::require(delivered == expected);
    if (modules.size() > 64) break; // each goes through the whole list
  }
  __VeskQELCleanupDefinitions();
  fuzz::require(fuzz::liveBlocks() == before);
  fuzz::takeLog();
  return 0;
}
