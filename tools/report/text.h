// Texts for people, from numbers and from names that nobody has checked.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace report {

// The text with '?' for each byte or character that could not be UTF-8, would steer a terminal, or would turn
// the direction of writing.
std::string printable(std::string_view text);

// The characters of a printable text.
std::size_t characters(std::string_view text);

// A text of at most `most` characters, with "..." for what was left out of its middle.
std::string shortened(std::string_view text, std::size_t most);

std::string baseName(std::string_view path);

std::string readableSize(std::uint64_t bytes);  // 1536 as 1.5 KiB
std::string readableCount(std::uint64_t count); // 1234567 as 1,234,567
std::string hexadecimal(std::uint64_t value);   // 0x1f
std::string readableTime(std::uint64_t milliseconds);

// A C++ symbol as its source has it, with the usual name for the standard string and without the template
// arguments of containers that are nearly always the same; another one as it is.
std::string demangled(const char* symbol);

} // namespace report
