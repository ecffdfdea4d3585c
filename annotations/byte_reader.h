// Bytes that nobody vouches for, read from front to back and never past their end.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace vesk {

static_assert(std::endian::native == std::endian::little, "integers are read as they lie in memory");

class ByteReader {
public:
  ByteReader(const unsigned char* data, std::uint64_t size) noexcept : at_(data), left_(size) {}

  const unsigned char* at() const noexcept { return at_; }
  std::uint64_t left() const noexcept { return left_; }

  // Each of these moves on only if all that it reads is there, and says whether it was.

  bool skip(std::uint64_t bytes) noexcept {
    if (bytes > left_) return false;
    at_ += bytes;
    left_ -= bytes;
    return true;
  }

  // A little-endian integer.
  template <class T>
  bool read(T& value) noexcept {
    if (sizeof(T) > left_) return false;
    std::memcpy(&value, at_, sizeof(T));
    return skip(sizeof(T));
  }

  // LEB128 numbers of any length, of which the low 32 bits count. A signed one that fills fewer takes its
  // sign from bit 6 of its last byte.
  bool readUnsignedLeb128(std::uint32_t& value) noexcept {
    unsigned bits;
    unsigned char last;
    return readLeb128(value, bits, last);
  }
  bool readSignedLeb128(std::int32_t& value) noexcept {
    std::uint32_t word;
    unsigned bits;
    unsigned char last;
    if (!readLeb128(word, bits, last)) return false;
    if (bits < 32 && (last & 0x40) != 0) word |= ~std::uint32_t{0} << bits;
    value = static_cast<std::int32_t>(word);
    return true;
  }

private:
  bool readLeb128(std::uint32_t& value, unsigned& bits, unsigned char& last) noexcept {
    value = 0;
    bits = 0;
    do {
      if (!read(last)) return false;
      if (bits < 32) {
        value |= static_cast<std::uint32_t>(last & 0x7F) << bits;
        bits += 7;
      }
    } while ((last & 0x80) != 0);
    return true;
  }

  const unsigned char* at_;
  std::uint64_t left_;
};

} // namespace vesk
