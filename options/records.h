// The tables behind the option ids, and who may look at what.
//
// Both tables are fixed, and their counters only ever hand out the next slot. A slot is counted before it is
// filled; it is published by its last store: an option by its `parser`, a parser by its name. Whoever finds
// the parser it looks for in an option sees the whole record. Releasing takes the same store back first.
#pragma once

#include <algorithm>
#include <cstdint>

#include "runtime/atomic.h"
#include "veskrt/options.h"

namespace vesk::options {

enum class OptionType : std::uint32_t { Boolean, Integer, String, StringEnum, Path };

// A value of an option, or one of its valid arguments.
struct OptionValue {
  std::int32_t intValue = 0; // -1 for values given as text; an enumeration value among the valid arguments
  char* text = nullptr;      // owned; may be null
  OptionValue* next = nullptr;
};

struct Option {
  char* name = nullptr;        // owned, begins with '-'
  char* description = nullptr; // owned
  OptionType type = OptionType::Boolean;
  std::uint32_t append = 0; // 1: every setting adds a value
  OptionValue defaultValue;
  OptionValue firstValue;
  std::uint32_t valueCount = 0;
  OptionValue* lastValue = nullptr; // of texts only
  OptionValue* values = nullptr; // what readers see: the default, from the first setting on the first value
  std::uint32_t flags = 0;
  std::uint32_t parser = VESK_INVALID_ID; // the owner; VESK_INVALID_ID until registered and after release
  OptionValue* validArguments = nullptr;  // in the order of registration
  std::uint32_t visible = 0;
};

struct Registry {
  char* parserNames[VESK_MAX_OPTION_PARSERS] = {}; // owned; null until published and after release
  std::uint32_t parserCount = 0;
  Option options[VESK_MAX_OPTIONS];
  std::uint32_t optionCount = 0;
};

extern Registry registry;

// A counter stands above its table for a moment while a request beyond the table's end is refused.
inline std::uint32_t parserCount() noexcept {
  return std::min(loadRelaxed(registry.parserCount), VESK_MAX_OPTION_PARSERS);
}
inline std::uint32_t optionCount() noexcept {
  return std::min(loadRelaxed(registry.optionCount), VESK_MAX_OPTIONS);
}

// Null for a parser that is not there, not there yet, or released.
inline const char* toolName(std::uint32_t parser) noexcept {
  return parser < parserCount() ? loadAcquire(registry.parserNames[parser]) : nullptr;
}

inline bool isOwnedBy(const Option& option, std::uint32_t parser) noexcept {
  return parser != VESK_INVALID_ID && loadAcquire(option.parser) == parser;
}

// The option, if the ids belong together; else null.
inline Option* find(std::uint32_t parser, std::uint32_t option) noexcept {
  if (option >= optionCount() || !isOwnedBy(registry.options[option], parser)) return nullptr;
  return &registry.options[option];
}

// Calls visit(option, id) for each option of the parser, in the order of their ids, until it returns false.
template <class Visitor>
void forEachOption(std::uint32_t parser, Visitor visit) {
  const std::uint32_t count = optionCount();
  for (std::uint32_t id = 0; id < count; ++id) {
    const Option& option = registry.options[id];
    if (isOwnedBy(option, parser) && !visit(option, id)) return;
  }
}

// A text as it is shown where there may be none.
inline const char* shown(const char* text) noexcept { return text != nullptr ? text : "none"; }

} // namespace vesk::options
