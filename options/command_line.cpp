// From a tool's arguments to option values, and from options to the help and to the log.
#include "options/records.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "veskrt/log.h"

using namespace vesk;
using namespace vesk::options;

namespace {

// ---- Parsing ----

// Writes the record of a refused argument; the comment with the details follows from the caller.
void logRefusal(std::uint32_t message, const char* argument) noexcept {
  __VeskLogInternal(VESKLOG_SEVERITY_ERROR, message, 0, VESKLOG_ARG_STRING, argument);
}

template <class... Texts>
void logDetails(const char* format, Texts... texts) noexcept {
  __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0, format, texts...);
}

bool refuseOption(const char* format, const char* argument, std::uint32_t parser) noexcept {
  logRefusal(VESKLOG_MSG_BAD_OPTION, argument);
  logDetails(format, argument, shown(toolName(parser)));
  return false;
}

bool refuseMissingValue(const char* option) noexcept {
  logRefusal(VESKLOG_MSG_BAD_ARGUMENT, option);
  logDetails("No arguments for command line option: %s", option);
  return false;
}

bool refuseInteger(const char* value, const char* option) noexcept {
  logRefusal(VESKLOG_MSG_BAD_ARGUMENT, option);
  logDetails("Bad integer value: %s for command line option: %s", value, option);
  return false;
}

bool convertInteger(const char* text, std::int32_t& value) noexcept {
  char* end;
  errno = 0;
  const long number = std::strtol(text, &end, 0);
  if (errno != 0 || end == text || *end != '\0') return false;
  // Newer C libraries read "0b11" as well, whatever an older one makes of it: a 'b' counts in hexadecimal
  // only.
  if (std::strpbrk(text, "bB") != nullptr && std::strpbrk(text, "xX") == nullptr) return false;
  if (static_cast<unsigned long>(number) > INT32_MAX) return false;
  value = static_cast<std::int32_t>(number);
  return true;
}

struct Match {
  const Option* option = nullptr;
  std::uint32_t id = VESK_INVALID_ID;
};

Match findByName(std::uint32_t parser, const char* name) noexcept {
  Match match;
  forEachOption(parser, [&](const Option& option, std::uint32_t id) {
    if (std::strcmp(option.name, name) != 0) return true;
    match = {&option, id};
    return false;
  });
  return match;
}

bool setFromText(std::uint32_t parser, const Match& match, const char* argument, const char* text) noexcept {
  switch (match.option->type) {
  case OptionType::Integer: {
    std::int32_t value;
    if (!convertInteger(text, value)) return refuseInteger(text, argument);
    return __VeskSetIntegerOption(parser, match.id, value);
  }
  case OptionType::Path:
    return __VeskSetPathOption(parser, match.id, text);
  default:
    return __VeskSetStringOption(parser, match.id, text);
  }
}

// ---- Showing ----

const char* trueOrFalse(std::int32_t value) noexcept { return value != 0 ? "true" : "false"; }

void printDefault(const Option& option) noexcept {
  switch (option.type) {
  case OptionType::Boolean:
    std::printf("%s\n", trueOrFalse(option.defaultValue.intValue));
    return;
  case OptionType::Integer:
    std::printf("%i\n", option.defaultValue.intValue);
    return;
  case OptionType::String:
  case OptionType::StringEnum:
  case OptionType::Path:
    std::printf("%s\n", shown(option.defaultValue.text));
    return;
  }
  __VeskLogInternal(VESKLOG_SEVERITY_ERROR, VESKLOG_MSG_INTERNAL, 0, "UNKNOWN OPTION TYPE %s", option.name);
}

// A list of values as one text, cut where the room ends.
class JoinedValues {
public:
  explicit JoinedValues(const OptionValue* value) noexcept {
    for (; value != nullptr; value = value->next) {
      append(shown(value->text));
      append(", ");
    }
    text_[length_] = '\0';
  }
  const char* text() const noexcept { return text_; }

private:
  void append(std::string_view piece) noexcept {
    length_ += piece.copy(text_ + length_, sizeof text_ - 1 - length_);
  }

  char text_[2048];
  std::size_t length_ = 0;
};

void logValue(const Option& option) noexcept {
  switch (option.type) {
  case OptionType::Boolean:
    logDetails("%-33s  %s", option.name, trueOrFalse(option.values->intValue));
    return;
  case OptionType::Integer:
    logDetails("%-33s  %i", option.name, option.values->intValue);
    return;
  case OptionType::String:
  case OptionType::StringEnum:
  case OptionType::Path:
    if (option.append) {
      logDetails("%-33s  %s", option.name, JoinedValues(option.values).text());
    } else {
      logDetails("%-33s  %s", option.name, shown(option.values->text));
    }
    return;
  }
  __VeskLogInternal(VESKLOG_SEVERITY_ERROR, VESKLOG_MSG_INTERNAL, 0, "UNKNOWN OPTION TYPE for option %s",
                    option.name);
}

} // namespace

int __VeskParseOptions2(uint32_t parser, uint32_t argc, const char* const* argv) {
  for (std::uint32_t i = 0; i < argc; ++i) {
    const char* const argument = argv[i];
    if (argument[0] != '-')
      return refuseOption("Bad command line option: %s used with tool: %s", argument, parser);

    // The '-' behind "no" begins the name.
    const bool negated = std::string_view(argument).starts_with("-no-");
    const Match match = findByName(parser, negated ? argument + 3 : argument);
    if (match.option == nullptr) {
      return refuseOption("Invalid command line option: %s used with tool: %s", argument, parser);
    }
    if (match.option->type == OptionType::Boolean) {
      __VeskSetBooleanOption(parser, match.id, !negated);
      continue;
    }
    if (negated) {
      return refuseOption("Invalid negation for command line option: %s used with tool: %s", argument,
                          parser);
    }
    if (argc - i == 1 || argv[i + 1][0] == '-') return refuseMissingValue(argument);
    if (!setFromText(parser, match, argument, argv[++i])) return 0;
  }
  return 1;
}

int __VeskParseOptions(uint32_t parser, uint32_t argc, const char* const* argv) {
  return __VeskParseOptions2(parser, argc, argv);
}

void __VeskPrintHelp(uint32_t parser, int all) {
  if (const char* const tool = toolName(parser)) std::printf("\n%s tool options are the following:\n", tool);
  forEachOption(parser, [all](const Option& option, std::uint32_t) {
    if (option.visible != 0 || all != 0) {
      std::printf("   %-33s  %s default: ", option.name, option.description);
      printDefault(option);
    }
    return true;
  });
  std::fflush(stdout);
}

void __VeskPrintHelpAll(int all) {
  const std::uint32_t count = parserCount();
  for (std::uint32_t parser = 0; parser < count; ++parser) __VeskPrintHelp(parser, all);
}

void __VeskLogToolOptionValues(uint32_t parser) {
  if (const char* const tool = toolName(parser)) logDetails("%s's options are the following: ", tool);
  forEachOption(parser, [](const Option& option, std::uint32_t) {
    logValue(option);
    return true;
  });
}
