// Definition lines of any bytes, each in a block of its own size: nothing around it is touched, whatever is
// kept is freed, and a line that counts as whole has all that a whole line has.
#include <cctype>
#include <cstring>
#include <memory>
#include <vector>

#include "fuzz/support.h"
#include "veskrt/annotations.h"
#include "veskrt/memory.h"

namespace {

// Four fields, of which quotes join what they enclose, and the second has room for its own.
bool isWhole(const std::string& line) {
  std::vector<std::string> fields;
  bool quoted = false, inside = false;
  for (const char character : line) {
    const bool ends = !quoted && std::isspace(static_cast<unsigned char>(character)) != 0;
    if (!ends && !inside) fields.emplace_back();
    inside = !ends;
    if (!ends) fields.back() += character;
    if (character == '"') quoted = !quoted;
  }
  return fields.size() == 4 && fields[1].size() >= 2;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::startRuntime();
  const std::int64_t before = fuzz::liveBlocks();
  const auto line = std::make_unique<char[]>(size + 1);
  std::memcpy(line.get(), data, size);
  line[size] = '\0';
  VESK_QEL_DEFINITION definition = {};
  const int whole = __VeskQELParseDefinition(line.get(), &definition);
  fuzz::require(whole == isWhole(std::string(reinterpret_cast<const char*>(data), size).c_str()));
  if (whole == 1) {
    fuzz::require(definition.name != nullptr && definition.modulePath != nullptr);
    fuzz::require(definition.hasValue == 1 && definition.location != nullptr);
  }
  if (definition.modulePath != nullptr) fuzz::require(std::strstr(definition.modulePath, "//") == nullptr);
  __VeskFree(definition.name);
  __VeskFree(definition.modulePath);
  __VeskFree(definition.location);
  fuzz::require(fuzz::liveBlocks() == before);
  fuzz::takeLog();
  return 0;
}
