// The flags word of a table: creation flags, with the memory category and the slab-size shift placed among them.
#pragma once

#include <cstdint>

namespace vesk {

[[gnu::always_inline]] inline std::uint32_t categoryOf(std::uint32_t flags) { return flags >> 8 & 0xFF; }
[[gnu::always_inline]] inline std::uint32_t slabShiftOf(std::uint32_t flags) { return flags >> 16 & 0xF; }

inline std::uint32_t tableFlags(std::uint32_t flags, std::uint32_t category, std::uint32_t shift) {
  return (flags & ~0xFFF00u) | (category & 0xFF) << 8 | (shift & 0xF) << 16;
}

} // namespace vesk
