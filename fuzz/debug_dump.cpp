// Texts of the debug-dump option, one after the other, against a mask that is reckoned apart.
#include <cctype>
#include <optional>
#include <string_view>

#include "fuzz/input.h"
#include "fuzz/support.h"
#include "veskrt/debug.h"

namespace {

constexpr DbgMapEntry kMap[] = {
    {0x0, "NONE"},        {0x1, "API"},     {0x2, "CALL"},        {0x10, "DOTNET_GC"},
    {0x20, "DOTNET_API"}, {0x30, "DOTNET"}, {0x80000000, "high"}, {0x700000004, "WIDE"},
    {0x40, "no-name"},    {0x80, ""},       {0xFFFFFFFF, "ALL"},  {0, nullptr},
};

const char* const kWords[] = {"api",  "NO-Call", "no-dotnet", "dotnet_a", "dot",     "all",
                              "none", "high",    "no-high",   "wide",     "no-name", "no-no-name",
                              "no-",  "no",      "bogus",     "0x30",     "0",       ""};

// Words or anything else, with commas in between, and now and then behind the last.
std::string takeOption(fuzz::Input& input) {
  std::string text;
  for (int left = input.takeInRange(1, 4); left > 0; --left) {
    text += input.takeBool() ? input.pick(kWords) : input.takeText(16).c_str();
    if (left > 1 || input.takeInRange(0, 3) == 0) text += ',';
  }
  return text;
}

// One entry for each bit: a message of category i comes out if bit i is enabled.
const DbgMapEntry* bitMap() {
  static DbgMapEntry map[VESK_MAX_DBG_MAP_ENTRIES];
  for (std::uint32_t i = 0; i < VESK_MAX_DBG_MAP_ENTRIES; ++i) map[i] = {std::uint64_t{1} << i, "bit"};
  return map;
}

std::uint32_t enabledBits() {
  fuzz::require(__VeskDbgRegisterDbgMap(bitMap()) == 1);
  for (std::uint32_t i = 0; i <= VESK_MAX_DBG_MAP_ENTRIES; ++i) __VeskDbgMessageDumpInternal(i, "<%u>", i);
  const std::string log = fuzz::takeLog();
  std::uint32_t bits = 0;
  for (std::size_t at = 0; (at = log.find("] <", at)) != std::string::npos; ++at)
    bits |= 1u << std::stoi(log.substr(at + 3));
  fuzz::require(__VeskDbgRegisterDbgMap(kMap) == 1);
  return bits;
}

bool begins(std::string_view name, std::string_view token) {
  if (token.size() > name.size()) return false;
  for (std::size_t i = 0; i < token.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(token[i])) !=
        std::tolower(static_cast<unsigned char>(name[i])))
      return false;
  }
  return true;
}

bool applyToken(std::string_view token, std::uint32_t& mask) {
  const bool negated = token.size() > 3 && begins(token, "no-");
  for (const DbgMapEntry* entry = kMap; entry->name != nullptr; ++entry) {
    const auto bits = static_cast<std::uint32_t>(entry->mask);
    if (begins(entry->name, token)) {
      mask = entry->mask == 0 ? 0 : mask | bits;
      return true;
    }
    if (negated && begins(entry->name, token.substr(3))) {
      mask &= ~bits;
      return true;
    }
  }
  return false;
}

bool applyTokens(std::string_view text, std::uint32_t& mask) {
  while (!text.empty()) {
    const std::size_t length = std::min(text.find(','), text.size());
    if (!applyToken(text.substr(0, length), mask)) return false;
    text.remove_prefix(std::min(length + 1, text.size()));
  }
  return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::startRuntime();
  fuzz::Input input(data, size);
  std::uint32_t mask = 0;
  fuzz::require(__VeskDbgRegisterDbgMap(kMap) == 1 && __VeskParseDbgDumpOption("0x0") == 1);
  while (input.left() > 0) {
    const std::string text = takeOption(input);
    const int understood = __VeskParseDbgDumpOption(text.c_str());
    if (text[0] != '0') {
      fuzz::require(understood == applyTokens(text, mask));
    } else if (understood == 1) {
      // Digits are the C library's to read.
      const auto added = static_cast<std::uint32_t>(std::strtoul(text.c_str() + 2, nullptr, 16));
      fuzz::require(text[1] == 'x' || text[1] == 'X');
      mask = added == 0 ? 0 : mask | added;
    }
  }
  fuzz::require(enabledBits() == mask);
  return 0;
}
