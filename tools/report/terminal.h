// What the report is printed to.
#pragma once

#include <cstddef>
#include <string>

namespace report {

enum class Style { kPlain, kStrong, kFaint, kGrowth, kShrinkage };

struct Terminal {
  static constexpr std::size_t kEndless = ~std::size_t{0};

  std::size_t width = kEndless; // of a line
  bool colours = false;

  std::string styled(Style style, const std::string& text) const;
};

// Of standard output.
Terminal findTerminal();

} // namespace report
