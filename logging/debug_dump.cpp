// Debug messages: the active map, the mask of what is enabled, and the option text that changes it.
#include "veskrt/debug.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>

#include <strings.h>

#include "runtime/atomic.h"
#include "runtime/hooks.h"
#include "veskrt/log.h"
#include "veskrt/text.h"

using namespace vesk;

namespace {

constexpr DbgMapEntry kDefaultMap[] = {
    {0x0, "NONE"},
    {0x1, "API"},
    {0x2, "CAL"},
    {0x4, "MEM"},
    {0x8, "BUF"},
    {0x10, "MOD"},
    {0x20, "CFG"},
    {0x40, "HUV"},
    {0x80, "QEL"},
    {0x100, "SCR"},
    {0x1FF, "VESKCORE"},
    {0x200, "TRC"},
    {0x400, "IMG"},
    {0x800, "RTN"},
    {0x1000, "BBL"},
    {0x2000, "INS"},
    {0x4000, "THR"},
    {0x8000, "RTL"},
    {0x10000, "TRA"},
    {0x1FE00, "VESKET"},
    {0x20000, "DOTNET_GC"},
    {0x40000, "DOTNET_API"},
    {0x80000, "DOTNET_MEM"},
    {0x100000, "DOTNET_JIT"},
    {0x200000, "DOTNET_GEN"},
    {0x3E0000, "DOTNET"},
    {0x3FFFFF, "ALL"},
    {0, nullptr},
};

constinit const DbgMapEntry* activeMap = kDefaultMap;
constinit std::uint32_t activeEntries = std::size(kDefaultMap) - 1;
constinit std::uint32_t enabledMask = 0;

constexpr char kNegation[] = "no-";
constexpr std::size_t kNegationLength = sizeof kNegation - 1;

// Is the token a leading part of the name?
bool begins(const char* name, const char* token, std::size_t length) {
  return strncasecmp(token, name, length) == 0;
}

// Adds to what is enabled; a mask of 0 disables all.
void enable(std::uint64_t mask) {
  storeRelaxed(enabledMask, mask != 0 ? loadRelaxed(enabledMask) | static_cast<std::uint32_t>(mask) : 0);
}

void disable(std::uint64_t mask) {
  storeRelaxed(enabledMask, loadRelaxed(enabledMask) & ~static_cast<std::uint32_t>(mask));
}

bool applyToken(const char* token, std::size_t length) {
  const bool negated = length > kNegationLength && begins(kNegation, token, kNegationLength);
  const DbgMapEntry* const map = loadRelaxed(activeMap);
  const std::uint32_t entries = loadRelaxed(activeEntries);
  for (std::uint32_t i = 0; i < entries; ++i) {
    if (begins(map[i].name, token, length)) {
      enable(map[i].mask);
      return true;
    }
    if (negated && begins(map[i].name, token + kNegationLength, length - kNegationLength)) {
      disable(map[i].mask);
      return true;
    }
  }
  return false;
}

bool applyHexadecimal(const char* text) {
  unsigned value = 0;
  if ((text[1] != 'x' && text[1] != 'X') || std::sscanf(text + 2, "%x", &value) != 1) return false;
  enable(value);
  return true;
}

constexpr std::size_t kMessageSize = 1024;

[[gnu::noinline]] void writeMessage(const char* category, const char* format, std::va_list arguments) {
  char text[kMessageSize];
  text[0] = '\0';
  if (format != nullptr) __VeskVsnprintf(text, sizeof text - 1, format, arguments);
  text[sizeof text - 1] = '\0';
  __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0, "[%-4s] [%-5d] %s", category,
                    static_cast<std::int32_t>(nativeThreadId()), text);
}

} // namespace

int __VeskDbgRegisterDbgMap(const DbgMapEntry* map) {
  if (map == nullptr) return 0;
  std::uint32_t entries = 0;
  while (entries < VESK_MAX_DBG_MAP_ENTRIES && map[entries].name != nullptr) ++entries;
  storeRelaxed(activeMap, map);
  storeRelaxed(activeEntries, entries);
  return 1;
}

int __VeskParseDbgDumpOption(const char* text) {
  if (text == nullptr) return 0;
  if (*text == '0') return applyHexadecimal(text);
  while (*text != '\0') {
    const std::size_t length = std::strcspn(text, ",");
    if (!applyToken(text, length)) return 0;
    text += length;
    if (*text == ',') ++text;
  }
  return 1;
}

void __VeskDbgMessageDumpInternal(uint32_t category, const char* format, ...) {
  if (category >= loadRelaxed(activeEntries)) return;
  const DbgMapEntry& entry = loadRelaxed(activeMap)[category];
  if ((entry.mask & loadRelaxed(enabledMask)) == 0) [[likely]]
    return;
  std::va_list arguments;
  va_start(arguments, format);
  writeMessage(entry.name, format, arguments);
  va_end(arguments);
}
