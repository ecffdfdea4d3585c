// Command lines of any arguments, against a registry with options of every type and a second parse that keeps
// its own account of what each option then holds.
#include <csetjmp>
#include <cstring>
#include <iterator>
#include <vector>

#include "fuzz/input.h"
#include "fuzz/support.h"
#include "options/records.h"
#include "veskrt/options.h"
#include "veskrt/runtime.h"

namespace {

using fuzz::require;

enum class Type { Boolean, Integer, String, Enum, Path };

struct Declaration {
  const char* name;
  Type type;
  bool append;
  std::vector<const char*> valid; // texts, or numbers
};

const Declaration kDeclarations[] = {
    {"-flag", Type::Boolean, false, {}},
    {"-no-flag", Type::Boolean, false, {}},
    {"-", Type::Boolean, false, {}},
    {"-count", Type::Integer, false, {}},
    {"-level", Type::Integer, false, {"1", "2", "16"}},
    {"-name", Type::String, false, {}},
    {"-names", Type::String, true, {}},
    {"-word", Type::String, false, {"alpha", "al", "beta"}},
    {"-mode", Type::Enum, false, {nullptr, "full", "fast", "none"}},
    {"-free", Type::Enum, false, {}},
    {"-path", Type::Path, false, {}},
    {"-paths", Type::Path, true, {}},
    {"-flag", Type::String, false, {}}, // the first of a name is meant
};
constexpr std::size_t kOptions = std::size(kDeclarations);

const char* const kNames[] = {"-no-no-flag", "-no-", "-no-count", "-other", "-no-other", ""};
const char* const kNumbers[] = {"0x10",
                                "010",
                                "16",
                                "1",
                                "2",
                                "0b1",
                                "08",
                                "0x",
                                "0XbB",
                                " 5",
                                "+5",
                                "5 ",
                                " -0",
                                " -5",
                                "-0",
                                "12abc",
                                "2147483647",
                                "2147483648",
                                "4294967297",
                                "9223372036854775808",
                                "18446744073709551617"};
const char* const kTexts[] = {"a//b", "fa", "fast", "full", "f", "al", "alphabet", "beta", ""};

// Mostly an option with a value of its type, since the first that is refused ends the parse.
void takeArgument(fuzz::Input& input, std::vector<std::string>& arguments) {
  const int kind = input.takeInRange(0, 7);
  if (kind == 0) {
    arguments.emplace_back(input.takeText(40).c_str());
  } else if (kind == 1) {
    arguments.emplace_back(input.pick(kNames));
  } else {
    const Declaration& declared = input.pick(kDeclarations);
    arguments.emplace_back(declared.name);
    if (declared.type == Type::Boolean || kind == 2) return;
    arguments.emplace_back(declared.type == Type::Integer ? input.pick(kNumbers) : input.pick(kTexts));
  }
}

// What an option is set to.
struct Setting {
  std::uint32_t settings = 0;
  std::int32_t number = 0;
  std::vector<std::string> texts;
};

enum class Outcome { Accepted, Refused, Fatal };

// ---- The second parse ----

bool readNumber(const char* text, std::int32_t& number) {
  while (*text == ' ' || (*text >= '\t' && *text <= '\r')) ++text;
  const bool negative = *text == '-';
  if (*text == '-' || *text == '+') ++text;
  unsigned base = 10;
  const auto digit = [](char c) -> unsigned {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : 16;
  };
  if (*text == '0') {
    const bool prefixed = (text[1] == 'x' || text[1] == 'X') && digit(text[2]) < 16;
    base = prefixed ? 16 : 8;
    if (prefixed) text += 2;
  }
  std::uint64_t value = 0;
  if (*text == '\0') return false;
  for (; *text != '\0'; ++text) {
    if (digit(*text) >= base) return false;
    value = std::min<std::uint64_t>(value * base + digit(*text), std::uint64_t{1} << 32);
  }
  if (value > INT32_MAX || (negative && value != 0)) return false;
  number = static_cast<std::int32_t>(value);
  return true;
}

std::string folded(const std::string& path) {
  std::string result;
  for (const char character : path) {
    if (character != '/' || result.empty() || result.back() != '/') result += character;
  }
  return result;
}

bool isValid(const Declaration& declared, const std::string& text, std::int32_t number) {
  for (const char* const valid : declared.valid) {
    if (valid == nullptr) continue; // matches no text
    if (declared.type == Type::Integer ? std::atoi(valid) == number : std::string(valid).starts_with(text))
      return true;
  }
  return declared.valid.empty();
}

Outcome apply(const Declaration& declared, Setting& setting, const std::string& text) {
  std::int32_t number = -1;
  if (declared.type == Type::Integer && !readNumber(text.c_str(), number)) return Outcome::Refused;
  if (!isValid(declared, text, number)) return Outcome::Fatal;
  if (declared.type == Type::Integer) {
    setting = {1, number, {}};
    return Outcome::Accepted;
  }
  if (!declared.append) setting.texts.clear();
  setting.texts.push_back(declared.type == Type::Path ? folded(text) : text);
  setting.settings = static_cast<std::uint32_t>(setting.texts.size());
  return Outcome::Accepted;
}

Outcome parse(const std::vector<std::string>& arguments, Setting (&settings)[kOptions]) {
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const bool negated = arguments[i].starts_with("-no-");
    const std::string name = negated ? arguments[i].substr(3) : arguments[i];
    std::size_t option = 0;
    while (option < kOptions && name != kDeclarations[option].name) ++option;
    if (option == kOptions) return Outcome::Refused; // which no argument without '-' escapes
    const Declaration& declared = kDeclarations[option];
    if (declared.type == Type::Boolean) {
      settings[option] = {1, !negated, {}};
      continue;
    }
    if (negated || i + 1 == arguments.size() || arguments[i + 1].starts_with('-')) return Outcome::Refused;
    const Outcome outcome = apply(declared, settings[option], arguments[++i]);
    if (outcome != Outcome::Accepted) return outcome;
  }
  return Outcome::Accepted;
}

// ---- The registry ----

std::jmp_buf fatal;

void leave(std::int32_t) { std::longjmp(fatal, 1); }

void declare(std::uint32_t parser) {
  for (std::uint32_t id = 0; id < kOptions; ++id) {
    const auto& [name, type, append, valid] = kDeclarations[id];
    std::uint32_t registered = VESK_INVALID_ID;
    switch (type) {
    case Type::Boolean:
      registered = __VeskRegisterBooleanOption(parser, name, "", 0, 0, 1);
      break;
    case Type::Integer:
      registered = __VeskRegisterIntegerOption(parser, name, "", 7, 0, 1);
      break;
    case Type::String:
      registered = __VeskRegisterStringOption(parser, name, "", nullptr, 0, append, 1);
      break;
    case Type::Enum:
      registered = __VeskRegisterStringEnumOption(parser, name, "", "full", 0, 1);
      break;
    case Type::Path:
      registered = __VeskRegisterPathOption(parser, name, "", "a//b", 0, append, 1);
      break;
    }
    require(registered == id);
    for (std::size_t i = 0; i < valid.size(); ++i) {
      if (type == Type::Integer) {
        __VeskSetValidIntegerOptionArgument(parser, id, std::atoi(valid[i]));
      } else {
        __VeskSetValidStringOptionArgumentWithEnum(parser, id, valid[i], static_cast<std::int32_t>(i));
      }
    }
  }
}

Outcome parseForReal(std::uint32_t parser, const std::vector<std::string>& arguments) {
  std::vector<const char*> pointers;
  for (const std::string& argument : arguments) pointers.push_back(argument.c_str());
  if (setjmp(fatal) != 0) return Outcome::Fatal;
  return __VeskParseOptions2(parser, static_cast<std::uint32_t>(pointers.size()), pointers.data()) == 1
             ? Outcome::Accepted
             : Outcome::Refused;
}

int collect(const char* text, void* context) {
  static_cast<std::vector<std::string>*>(context)->emplace_back(text);
  return 0;
}

std::int32_t enumerationOf(const Declaration& declared, const std::string& text) {
  for (std::size_t i = 0; i < declared.valid.size(); ++i) {
    const char* const valid = declared.valid[i];
    if (valid != nullptr && std::string(valid).starts_with(text)) return static_cast<std::int32_t>(i);
  }
  return -1;
}

void compare(std::uint32_t parser, std::uint32_t id, const Setting& setting) {
  const Declaration& declared = kDeclarations[id];
  const bool isSet = setting.settings != 0;
  require(__VeskIsOptionSet(parser, id) == isSet);
  require(__VeskGetOptionNumberOfArguments(parser, id) == setting.settings);
  if (declared.type == Type::Boolean)
    return require(__VeskGetBooleanOptionValue(parser, id) == (isSet ? setting.number : 0));
  if (declared.type == Type::Integer)
    return require(__VeskGetIntegerOptionValue(parser, id) == (isSet ? setting.number : 7));
  for (std::uint32_t i = 0; i < setting.texts.size(); ++i)
    require(__VeskGetStringOptionArgumentValue(parser, id, i + 1) == setting.texts[i]);
  if (declared.type == Type::Enum) {
    const std::string text = isSet ? setting.texts[0] : "full";
    require(__VeskGetStringOptionEnumValue(parser, id) == enumerationOf(declared, text));
  }
  if (declared.append) {
    std::vector<std::string> texts;
    __VeskProcessAppendOptionValues(parser, id, collect, &texts);
    require(texts == setting.texts);
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::startRuntime();
  __VeskSetExitHandler(leave);
  const std::int64_t before = fuzz::liveBlocks();
  fuzz::Input input(data, size);
  std::vector<std::string> arguments;
  while (input.left() > 0 && arguments.size() < 64) takeArgument(input, arguments);

  const std::uint32_t parser = __VeskGetOptionParser("tool");
  declare(parser);
  const std::uint32_t neighbour = __VeskGetOptionParser("neighbour");
  const std::uint32_t other = __VeskRegisterBooleanOption(neighbour, "-other", "", 0, 0, 1);
  Setting settings[kOptions];
  require(parseForReal(parser, arguments) == parse(arguments, settings));
  for (std::uint32_t id = 0; id < kOptions; ++id) compare(parser, id, settings[id]);
  require(__VeskIsOptionSet(neighbour, other) == 0);
  __VeskLogToolOptionValues(parser);
  fuzz::takeLog();

  require(__VeskReleaseOptionParserHandle(parser, "tool") == 1);
  require(__VeskReleaseOptionParserHandle(neighbour, "neighbour") == 1);
  require(fuzz::liveBlocks() == before);
  vesk::options::registry = {}; // ids are handed out once in a process: begin again
  return 0;
}
