// Which modules are loaded, and what has become of them since the last look.
#pragma once

#include <atomic>
#include <cstdint>

#include "host/events.h"

namespace veskhost {

// The dynamic loader's own code. A heap call from there says that modules may be coming or going: the loader
// takes a module's records from the program's heap before the module runs, and gives them back after it is
// gone. So dlopen needs no interposition, under which it would mistake this library for its caller, whose
// search path it goes by.
[[gnu::visibility("hidden")]] extern constinit std::uintptr_t loaderStart;
[[gnu::visibility("hidden")]] extern constinit std::uintptr_t loaderSize;

[[gnu::always_inline]] inline bool calledByLoader(const void* caller) noexcept {
  return reinterpret_cast<std::uintptr_t>(caller) - loaderStart < loaderSize;
}

// Tells of modules that are new or gone. A thread that finds another at it leaves it to that one.
void lookForModules(const Event& event) noexcept;

// The same from a thread that need not be observed, or be inside.
void lookForModules() noexcept;

} // namespace veskhost
