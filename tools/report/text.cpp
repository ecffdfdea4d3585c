#include "report/text.h"

#include <cstdio>
#include <cstdlib>
#include <memory>

#include <cxxabi.h>

namespace report {

namespace {

struct Character {
  char32_t code;
  std::size_t length; // 0: not UTF-8
};

Character characterAt(std::string_view text) {
  const auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  if (lead < 0x80) return {lead, 1};
  const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || text.size() < length) return {0, 0};
  char32_t code = lead & (0x7F >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return {0, 0};
    code = code << 6 | (byte(i) & 0x3F);
  }
  constexpr char32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
  return code < kLeast[length] || code > 0x10FFFF || surrogate ? Character{0, 0} : Character{code, length};
}

bool isHarmless(char32_t code) {
  const bool control = code < 0x20 || (code >= 0x7F && code < 0xA0) || code == 0x2028 || code == 0x2029;
  const bool direction = (code >= 0x202A && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069) ||
                         code == 0x200E || code == 0x200F || code == 0x061C;
  return !control && !direction && code != 0xFFFE && code != 0xFFFF;
}

std::string format(const char* pattern, auto... values) {
  char text[64];
  std::snprintf(text, sizeof text, pattern, values...);
  return text;
}

// The position of the character `count` characters after `from`.
std::size_t advance(std::string_view text, std::size_t from, std::size_t count) {
  while (from < text.size() && count > 0) {
    ++from;
    while (from < text.size() && (text[from] & 0xC0) == 0x80) ++from;
    --count;
  }
  return from;
}

void replaceAll(std::string& text, std::string_view from, std::string_view to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
    text.replace(at, from.size(), to);
  }
}

// Erases template arguments that begin so, up to the bracket that closes them.
void eraseArguments(std::string& text, std::string_view beginning) {
  for (std::size_t at = 0; (at = text.find(beginning, at)) != std::string::npos;) {
    std::size_t end = at + beginning.size();
    for (int open = 1; open > 0 && end < text.size(); ++end) open += (text[end] == '<') - (text[end] == '>');
    text.erase(at, end - at);
  }
}

} // namespace

std::string printable(std::string_view text) {
  std::string clean;
  clean.reserve(text.size());
  while (!text.empty()) {
    const Character character = characterAt(text);
    const std::size_t length = character.length == 0 ? 1 : character.length;
    if (character.length != 0 && isHarmless(character.code))
      clean += text.substr(0, length);
    else
      clean += '?';
    text.remove_prefix(length);
  }
  return clean;
}

std::size_t characters(std::string_view text) {
  std::size_t count = 0;
  for (const char byte : text) count += (byte & 0xC0) != 0x80;
  return count;
}

std::string shortened(std::string_view text, std::size_t most) {
  const std::size_t length = characters(text);
  if (length <= most) return std::string(text);
  if (most <= 3) return std::string("...").substr(0, most);
  const std::size_t end = (most - 3) / 3;
  const std::size_t start = most - 3 - end;
  return std::string(text.substr(0, advance(text, 0, start))) + "..." +
         std::string(text.substr(advance(text, 0, length - end)));
}

std::string baseName(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::string readableSize(std::uint64_t bytes) {
  constexpr const char* kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < 1024) return std::to_string(bytes) + " B";
  double value = static_cast<double>(bytes) / 1024;
  std::size_t unit = 0;
  for (; value >= 1023.95; ++unit) value /= 1024;
  return format("%.1f %s", value, kUnits[unit]);
}

std::string readableCount(std::uint64_t count) {
  const std::string digits = std::to_string(count);
  std::string text;
  for (std::size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) text += ',';
    text += digits[i];
  }
  return text;
}

std::string hexadecimal(std::uint64_t value) {
  return format("0x%llx", static_cast<unsigned long long>(value));
}

std::string readableTime(std::uint64_t milliseconds) {
  return format("%llu.%03llu s", static_cast<unsigned long long>(milliseconds / 1000),
                static_cast<unsigned long long>(milliseconds % 1000));
}

std::string demangled(const char* symbol) {
  int status = -1;
  const std::unique_ptr<char, decltype(&std::free)> name(
      abi::__cxa_demangle(symbol, nullptr, nullptr, &status), std::free);
  // Without "_Z" it would read a C function's name as a type.
  if (status != 0 || std::string_view(symbol).substr(0, 2) != "_Z") return symbol;
  std::string text = name.get();
  replaceAll(text, "std::__cxx11::", "std::");
  replaceAll(text, "std::basic_string<char, std::char_traits<char>, std::allocator<char> >", "std::string");
  replaceAll(text, "std::basic_string_view<char, std::char_traits<char> >", "std::string_view");
  for (const char* usual : {", std::allocator<", ", std::less<", ", std::char_traits<"})
    eraseArguments(text, usual);
  replaceAll(text, " >", ">");
  return text;
}

} // namespace report
