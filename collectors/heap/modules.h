// The modules that the program has, or had, in its address space.
//
// A module that goes stays known: stacks that lead through it were resolved when they were first seen.
// Everything here is called under the stacks' lock.
#pragma once

#include <cstdint>

#include "veskrt/host.h"

namespace heap {

struct Module {
  const char* path;
  const char* buildId; // hexadecimal digits; empty when it has none
  std::uint64_t base;
  std::uint64_t start;
  std::uint64_t end;
  bool unloaded;
};

inline constexpr std::uint32_t kNoModule = ~std::uint32_t{0};

void startModules(std::uint32_t category);

// Both say whether `unloaded` of a module has changed: one goes; one lies where a new one now is; or one is
// back, at its old place and with its old build id, and is the same module again.
bool addModule(const VeskHostModule& module);
bool retireModule(const VeskHostModule& module);

// The module that an address lies in now.
std::uint32_t moduleAt(std::uint64_t address);

// In the order of their arrival.
std::uint32_t moduleCount();
const Module& moduleByIndex(std::uint32_t index);

} // namespace heap
