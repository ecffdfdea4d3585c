// The table of the top sites, on the terminal.
#pragma once

#include <cstdint>

#include "collectors/heap/report.h"

namespace heap {

// Writes up to `top` rows to standard error as it is now, in one piece; nothing if that is closed or `top` is
// 0. The path of the result may be null: there is none. `category` is where the memory for it comes from.
void writeSummary(const Report& report, std::uint32_t top, const char* resultPath, std::uint32_t category);

} // namespace heap
