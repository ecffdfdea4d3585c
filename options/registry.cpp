// Options and their values.
#include "options/records.h"

#include <cstring>

#include "veskrt/log.h"
#include "veskrt/memory.h"
#include "veskrt/runtime.h"
#include "veskrt/text.h"

using namespace vesk;
using namespace vesk::options;

namespace vesk::options {

constinit Registry registry;

} // namespace vesk::options

namespace {

bool holdsText(OptionType type) noexcept {
  return type == OptionType::String || type == OptionType::StringEnum || type == OptionType::Path;
}

bool beginsWith(const char* text, const char* beginning) noexcept {
  return std::strncmp(text, beginning, std::strlen(beginning)) == 0;
}

// The next slot of a table, or VESK_INVALID_ID; a counter that went past the end is put back.
std::uint32_t reserve(std::uint32_t& counter, std::uint32_t size) noexcept {
  const std::uint32_t id = fetchAdd(counter, 1);
  if (id < size) return id;
  fetchAdd(counter, static_cast<std::uint32_t>(-1));
  return VESK_INVALID_ID;
}

char* copyText(OptionType type, const char* text) noexcept {
  char* const copy = __VeskStrdup(text);
  if (type == OptionType::Path) __VeskSanitizePath(copy);
  return copy;
}

OptionValue* newValue(std::int32_t intValue, char* text) noexcept {
  auto* const value =
      static_cast<OptionValue*>(__VeskMalloc(VESK_MEMORY_CATEGORY_MISC, sizeof(OptionValue), 0));
  *value = {intValue, text, nullptr};
  return value;
}

void freeList(OptionValue* value) noexcept {
  while (value != nullptr) {
    OptionValue* const next = value->next;
    __VeskFree(value->text);
    __VeskFree(value);
    value = next;
  }
}

std::uint32_t registerOption(OptionType type, std::uint32_t parser, const char* name, const char* description,
                             OptionValue defaultValue, std::uint32_t flags, bool append,
                             std::uint32_t visible) noexcept {
  if (name == nullptr || description == nullptr || parser >= parserCount()) {
    __VeskLogFatalToolDefect(
        "A valid option name, description and parser handle must be specified to register an "
        "option with VESKRT");
  }
  const std::uint32_t id = reserve(registry.optionCount, VESK_MAX_OPTIONS);
  if (id == VESK_INVALID_ID) return VESK_INVALID_ID;
  if (name[0] != '-') {
    __VeskLogFatalToolDefect(
        "A valid option name starting with '-' must be specified to register the option with "
        "VESKRT");
  }
  Option& option = registry.options[id];
  option.name = __VeskStrdup(name);
  option.description = __VeskStrdup(description);
  option.type = type;
  option.append = append;
  option.defaultValue = {defaultValue.intValue, copyText(type, defaultValue.text), nullptr};
  option.values = &option.defaultValue;
  option.flags = flags;
  option.visible = visible;
  storeRelease(option.parser, parser);
  return id;
}

std::uint32_t registerText(OptionType type, std::uint32_t parser, const char* name, const char* description,
                           const char* defaultText, std::uint32_t flags, bool append,
                           std::uint32_t visible) noexcept {
  // The registry copies the text and leaves the caller's alone.
  return registerOption(type, parser, name, description, {-1, const_cast<char*>(defaultText), nullptr}, flags,
                        append, visible);
}

int addValidArgument(std::uint32_t parser, std::uint32_t id, std::int32_t intValue,
                     const char* text) noexcept {
  Option* const option = find(parser, id);
  if (option == nullptr) {
    __VeskLogFatalToolDefect(
        "A valid option id and parser id must be specified to register an option argument for an "
        "option in VESKRT");
  }
  if (option->append) {
    __VeskLogFatalToolDefect("Registering valid arguments for append options is not currenctly supported");
  }
  if (option->type != OptionType::Integer && option->type != OptionType::String &&
      option->type != OptionType::StringEnum) {
    __VeskLogFatalToolDefect("Only string and integer option types can register valid arguments");
  }
  OptionValue** end = &option->validArguments;
  while (*end != nullptr) end = &(*end)->next;
  *end = newValue(intValue, __VeskStrdup(text));
  return 1;
}

[[noreturn]] void failForValue() noexcept {
  __VeskLogFatalToolDefect(
      "A valid option id and parser id must be specified to get the value of the option");
}

// The option for an operation on its value, whatever its type, or of one type only.
Option& findForValue(std::uint32_t parser, std::uint32_t id) noexcept {
  Option* const option = find(parser, id);
  if (option == nullptr) failForValue();
  return *option;
}

Option& findForValue(std::uint32_t parser, std::uint32_t id, OptionType type) noexcept {
  Option* const option = find(parser, id);
  if (option == nullptr || option->type != type) failForValue();
  return *option;
}

// The first valid argument that begins with the text, or null.
const OptionValue* findValidText(const Option& option, const char* text) noexcept {
  const OptionValue* valid = option.validArguments;
  while (valid != nullptr && (valid->text == nullptr || !beginsWith(valid->text, text))) valid = valid->next;
  return valid;
}

bool isValid(const Option& option, std::int32_t intValue, const char* text) noexcept {
  if (option.validArguments == nullptr || option.type == OptionType::Boolean) return true;
  if (holdsText(option.type)) return findValidText(option, text) != nullptr;
  const OptionValue* valid = option.validArguments;
  while (valid != nullptr && valid->intValue != intValue) valid = valid->next;
  return valid != nullptr;
}

void addText(Option& option, const char* text) noexcept {
  // Copied before anything is released: it may be the text that the option holds now.
  char* const copy = copyText(option.type, text);
  if (option.append && option.lastValue != nullptr) {
    OptionValue* const value = newValue(-1, copy);
    option.lastValue->next = value;
    option.lastValue = value;
    ++option.valueCount;
    return;
  }
  __VeskFree(option.firstValue.text);
  option.firstValue = {-1, copy, nullptr};
  option.lastValue = &option.firstValue;
  option.valueCount = 1;
}

// What an option makes of a value is decided by its type, whichever setter it came through.
int setValue(Option& option, std::int32_t intValue, const char* text) noexcept {
  if (holdsText(option.type) && text == nullptr) {
    __VeskLogFatalToolDefect("Null string used to set string option");
  }
  if (!isValid(option, intValue, text)) {
    __VeskLogFatalToolDefect("Invalid argument [%s, %d] used to set Option %s",
                             text != nullptr ? text : "\"\"", intValue, option.name);
  }
  if (holdsText(option.type)) {
    addText(option, text);
  } else {
    option.firstValue = {intValue, nullptr, nullptr};
    option.valueCount = 1;
  }
  option.values = &option.firstValue;
  return 1;
}

bool isSet(const Option& option) noexcept { return option.values == &option.firstValue; }

std::int32_t currentNumber(const Option& option) noexcept {
  if (option.values == nullptr) {
    __VeskLogFatalToolDefect("Option %s is not initialized correctly", shown(option.name));
  }
  return option.values->intValue;
}

const char* textValue(const Option& option, std::uint32_t index) noexcept {
  if (index == 0 || (isSet(option) && index > option.valueCount)) {
    __VeskLogInternal(VESKLOG_SEVERITY_ERROR, VESKLOG_MSG_INTERNAL, 0,
                      "Option %s does not have an argument #%d", option.name, static_cast<int>(index));
    return nullptr;
  }
  const OptionValue* value = option.values;
  while (value != nullptr && --index != 0) value = value->next;
  return value != nullptr ? value->text : nullptr;
}

void releaseOption(Option& option) noexcept {
  storeRelease(option.parser, VESK_INVALID_ID);
  __VeskFree(option.name);
  __VeskFree(option.description);
  __VeskFree(option.defaultValue.text);
  __VeskFree(option.firstValue.text);
  freeList(option.firstValue.next);
  freeList(option.validArguments);
  option.name = nullptr;
  option.description = nullptr;
  option.type = OptionType::Integer;
  option.append = 0;
  option.defaultValue = {};
  option.firstValue = {};
  option.lastValue = nullptr;
  option.values = nullptr;
  option.flags = 0;
  option.validArguments = nullptr;
}

} // namespace

uint32_t __VeskGetOptionParser(const char* name) {
  if (name == nullptr) return VESK_INVALID_ID;
  const std::uint32_t id = reserve(registry.parserCount, VESK_MAX_OPTION_PARSERS);
  if (id != VESK_INVALID_ID) storeRelease(registry.parserNames[id], __VeskStrdup(name));
  return id;
}

int __VeskReleaseOptionParserHandle(uint32_t parser, const char* name) {
  if (name == nullptr || parser >= parserCount()) return 0;
  char* const stored = loadAcquire(registry.parserNames[parser]);
  if (stored == nullptr || !beginsWith(name, stored)) return 0;
  storeRelease(registry.parserNames[parser], nullptr);
  __VeskFree(stored);
  const std::uint32_t count = optionCount();
  for (std::uint32_t id = 0; id < count; ++id) {
    if (isOwnedBy(registry.options[id], parser)) releaseOption(registry.options[id]);
  }
  return 1;
}

uint32_t __VeskRegisterBooleanOption(uint32_t parser, const char* name, const char* description,
                                     int32_t defaultValue, uint32_t flags, uint32_t visible) {
  return registerOption(OptionType::Boolean, parser, name, description, {defaultValue != 0, nullptr, nullptr},
                        flags, false, visible);
}

uint32_t __VeskRegisterIntegerOption(uint32_t parser, const char* name, const char* description,
                                     int32_t defaultValue, uint32_t flags, uint32_t visible) {
  return registerOption(OptionType::Integer, parser, name, description, {defaultValue, nullptr, nullptr},
                        flags, false, visible);
}

uint32_t __VeskRegisterStringOption(uint32_t parser, const char* name, const char* description,
                                    const char* defaultText, uint32_t flags, int append, uint32_t visible) {
  return registerText(OptionType::String, parser, name, description, defaultText, flags, append != 0,
                      visible);
}

uint32_t __VeskRegisterStringEnumOption(uint32_t parser, const char* name, const char* description,
                                        const char* defaultText, uint32_t flags, uint32_t visible) {
  return registerText(OptionType::StringEnum, parser, name, description, defaultText, flags, false, visible);
}

uint32_t __VeskRegisterPathOption(uint32_t parser, const char* name, const char* description,
                                  const char* defaultText, uint32_t flags, int append, uint32_t visible) {
  return registerText(OptionType::Path, parser, name, description, defaultText, flags, append != 0, visible);
}

int __VeskSetValidIntegerOptionArgument(uint32_t parser, uint32_t option, int32_t value) {
  return addValidArgument(parser, option, value, nullptr);
}

int __VeskSetValidStringOptionArgument(uint32_t parser, uint32_t option, const char* text) {
  return addValidArgument(parser, option, -1, text);
}

int __VeskSetValidStringOptionArgumentWithEnum(uint32_t parser, uint32_t option, const char* text,
                                               int32_t enumValue) {
  return addValidArgument(parser, option, enumValue, text);
}

int __VeskSetBooleanOption(uint32_t parser, uint32_t option, int32_t value) {
  return setValue(findForValue(parser, option, OptionType::Boolean), value, nullptr);
}

int __VeskSetIntegerOption(uint32_t parser, uint32_t option, int32_t value) {
  return setValue(findForValue(parser, option, OptionType::Integer), value, nullptr);
}

int __VeskSetPathOption(uint32_t parser, uint32_t option, const char* text) {
  return setValue(findForValue(parser, option, OptionType::Path), -1, text);
}

int __VeskSetStringOption(uint32_t parser, uint32_t option, const char* text) {
  return setValue(findForValue(parser, option), -1, text);
}

int32_t __VeskGetBooleanOptionValue(uint32_t parser, uint32_t option) {
  return currentNumber(findForValue(parser, option, OptionType::Boolean));
}

int32_t __VeskGetIntegerOptionValue(uint32_t parser, uint32_t option) {
  return currentNumber(findForValue(parser, option, OptionType::Integer));
}

const char* __VeskGetStringOptionValue(uint32_t parser, uint32_t option) {
  return textValue(findForValue(parser, option), 1);
}

const char* __VeskGetPathOptionValue(uint32_t parser, uint32_t option) {
  return textValue(findForValue(parser, option, OptionType::Path), 1);
}

const char* __VeskGetStringOptionArgumentValue(uint32_t parser, uint32_t option, uint32_t index) {
  return textValue(findForValue(parser, option), index);
}

const char* __VeskGetPathOptionArgumentValue(uint32_t parser, uint32_t option, uint32_t index) {
  return textValue(findForValue(parser, option, OptionType::Path), index);
}

int32_t __VeskGetStringOptionEnumValue(uint32_t parser, uint32_t option) {
  const Option& found = findForValue(parser, option, OptionType::StringEnum);
  const char* const text = textValue(found, 1);
  const OptionValue* const valid = text != nullptr ? findValidText(found, text) : nullptr;
  return valid != nullptr ? valid->intValue : -1;
}

void __VeskProcessAppendOptionValues(uint32_t parser, uint32_t option, VeskOptionValueCallback callback,
                                     void* context) {
  const Option* const found = find(parser, option);
  if (found == nullptr) {
    __VeskLogFatalToolDefect(
        "A valid option id and parser id must be specified to check if an option is sets");
  }
  if (!found->append) {
    __VeskLogFatalToolDefect("A iterator can be applied only to string and path append options.");
  }
  // Counted first: the callback may add values.
  const OptionValue* value = &found->firstValue;
  for (std::uint32_t left = found->valueCount; left != 0; --left, value = value->next)
    callback(value->text, context);
}

int __VeskIsOptionSet(uint32_t parser, uint32_t option) {
  const Option* const found = find(parser, option);
  if (found == nullptr) {
    __VeskLogFatalToolDefect(
        "A valid option id and parser id must be specified to check if an option is set");
  }
  return isSet(*found);
}

uint32_t __VeskGetOptionNumberOfArguments(uint32_t parser, uint32_t option) {
  return option < VESK_MAX_OPTIONS ? registry.options[option].valueCount : 0;
}

const char* __VeskGetOptionName(uint32_t parser, uint32_t option) {
  const Option* const found = find(parser, option);
  return found != nullptr ? found->name : nullptr;
}

uint32_t __VeskGetOptionFlags(uint32_t parser, uint32_t option) {
  const Option* const found = find(parser, option);
  if (found == nullptr) {
    __VeskLogInternal(VESKLOG_SEVERITY_ERROR, VESKLOG_MSG_INTERNAL, 0,
                      "Invalid option parser id or option id used to get option flags");
    return VESK_INVALID_ID;
  }
  return found->flags;
}
