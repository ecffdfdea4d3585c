// Texts of a foreign program, as an XML file can carry them.
#pragma once

#include "collectors/common/text.h"

namespace common {

// Bytes of the character at `text`; 0 when it is one that the file cannot hold: a control character or no UTF-8.
std::uint32_t characterLength(const char* text);

// Appends with a '?' for every byte that the file cannot hold.
template <std::uint32_t Size>
void appendClean(Text<Size>& clean, const char* text) {
  while (*text != '\0') {
    const std::uint32_t length = characterLength(text);
    if (length == 0)
      clean.append("?");
    else
      clean.append("%.*s", static_cast<int>(length), text);
    text += length == 0 ? 1 : length;
  }
}

} // namespace common
