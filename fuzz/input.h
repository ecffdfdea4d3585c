// The bytes of an input, taken piece by piece: numbers from its end, texts from its beginning, zeros and empty
// texts when there are no more.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>

namespace fuzz {

class Input {
public:
  Input(const std::uint8_t* data, std::size_t size) : begin_(data), end_(data + size) {}

  std::size_t left() const { return static_cast<std::size_t>(end_ - begin_); }

  // Any of least..most, by as many bytes as it takes to tell them apart.
  template <class T>
  T takeInRange(T least, T most) {
    using Unsigned = std::make_unsigned_t<T>;
    const std::uint64_t span =
        static_cast<Unsigned>(static_cast<Unsigned>(most) - static_cast<Unsigned>(least));
    std::uint64_t number = 0;
    for (unsigned bits = 0; bits < 8 * sizeof(T) && span >> bits != 0 && begin_ != end_; bits += 8)
      number = number << 8 | *--end_;
    if (span != UINT64_MAX) number %= span + 1;
    return static_cast<T>(static_cast<Unsigned>(static_cast<Unsigned>(least) + number));
  }

  template <class T>
  T take() {
    return takeInRange(std::numeric_limits<T>::min(), std::numeric_limits<T>::max());
  }

  bool takeBool() { return (take<std::uint8_t>() & 1) != 0; }

  template <class T, std::size_t count>
  const T& pick(const T (&choices)[count]) {
    return choices[takeInRange<std::size_t>(0, count - 1)];
  }

  std::string takeBytes(std::size_t most) {
    const std::uint8_t* const start = begin_;
    begin_ += std::min(most, left());
    return std::string(start, begin_);
  }

  // Ends at a '\' with anything behind it but another '\', which stands for one.
  std::string takeText(std::size_t most) {
    std::string text;
    while (text.size() < most && begin_ != end_) {
      const std::uint8_t character = *begin_++;
      if (character == '\\' && begin_ != end_ && *begin_++ != '\\') break;
      text += static_cast<char>(character);
    }
    return text;
  }

private:
  const std::uint8_t* begin_;
  const std::uint8_t* end_;
};

} // namespace fuzz
