// What veskrun tells the host, and its way through the environment.
//
//   VESK_HOST_LIBRARY=path       the part of LD_PRELOAD that is this library's
//   VESK_HOST_COLLECTOR=path     the collector to load; without it the host does nothing
//   VESK_HOST_ARGUMENT_n=text    the collector's arguments, from 0 on; numbered, since a shell in between may
//   sort them
//
// They go before the program's code runs: the program, and what it starts, see the environment that veskrun
// was given. For children that are followed they are put back.
#pragma once

#include <cstdint>

namespace veskhost {

struct Settings {
  const char* collector; // null when there is none
  std::uint32_t argumentCount;
  const char* const* arguments;
};

// Keeps the settings, when called first, and takes them out of the environment.
void takeSettings(char** environment) noexcept;
const Settings& settings() noexcept;

// An environment with the settings put back, from veskHostAllocate; the given one's strings are used in
// place. Null when there is no memory.
char** environmentForChild(char* const* environment) noexcept;

} // namespace veskhost
