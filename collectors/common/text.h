// Text in a buffer that never grows: what does not fit is left out.
#pragma once

#include <cstdarg>
#include <cstdint>

#include "veskrt/text.h"

namespace common {

template <std::uint32_t Size>
class Text {
public:
  void append(const char* format, ...) VESK_PRINTF(2, 3) {
    va_list arguments;
    va_start(arguments, format);
    const int added = __VeskVsnprintf(text_ + length_, Size - length_, format, arguments);
    va_end(arguments);
    if (added <= 0) return;
    const std::uint32_t room = Size - 1 - length_;
    length_ += static_cast<std::uint32_t>(added) < room ? static_cast<std::uint32_t>(added) : room;
  }

  void clear() {
    length_ = 0;
    text_[0] = '\0';
  }

  const char* text() const { return text_; }
  std::uint32_t length() const { return length_; }
  static constexpr std::uint32_t capacity() { return Size - 1; }

private:
  std::uint32_t length_ = 0;
  char text_[Size] = {};
};

} // namespace common
