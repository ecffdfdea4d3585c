// What -debug enables: messages about the collector's own work, as comments in its log.
#pragma once

#include <cstdint>

#include "veskrt/debug.h"

namespace heap {

enum DebugCategory : std::uint32_t { kDebugNone, kDebugCommands, kDebugModules, kDebugStacks, kDebugThreads };

inline constexpr DbgMapEntry kDebugMap[] = {{0x0, "NONE"},   {0x1, "COMMANDS"}, {0x2, "MODULES"},
                                            {0x4, "STACKS"}, {0x8, "THREADS"},  {0xF, "ALL"},
                                            {0, nullptr}};

} // namespace heap
