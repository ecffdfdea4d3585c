// Mappings, the module map and the dynamic loader.
//
// The module map is a skip list ordered by start address, circular at every level:
//
//   level 2   head ------------------------------> C ------> head
//   level 1   head ----------> B ----------------> C ------> head
//   level 0   head --> A ----> B --> ... --------> C ------> head
//
// The head has links for every level there can be. An entry has them for the levels that were in use when it
// was made, so that every entry met at a level has a link for it: the level in use falls only once nothing is
// left on it.
#include "veskrt/modules.h"

#include <cstdio>
#include <cstdlib>
#include <span>

#include <dlfcn.h>

#include "platform/line_reader.h"
#include "runtime/once_guard.h"
#include "veskrt/memory.h"
#include "veskrt/text.h"

using namespace vesk;

namespace {

struct Region {
  std::uint64_t start;
  std::uint64_t end; // 0 when there is no region
};

// Held for a reading of the map file.
constinit std::uint32_t regionGuard = 0;

Region findProcessRegion(std::uint64_t address) noexcept {
  char path[32];
  __VeskSnprintf(path, sizeof path, "/proc/%d/maps", __VeskGetPid());
  ScopedOnceGuard guard(regionGuard);
  LineReader<4176> map(path);
  if (!map.isOpen()) return {};
  while (const char* line = map.next()) {
    void* low;
    void* high;
    if (std::sscanf(line, "%p-%p", &low, &high) != 2) continue;
    const Region region = {reinterpret_cast<std::uint64_t>(low), reinterpret_cast<std::uint64_t>(high)};
    if (region.start <= address && address <= region.end) return region;
  }
  return {};
}

constexpr std::int32_t kHighestLevel = 10;
constexpr int kRaiseBelow = 214748364; // of RAND_MAX: one entry in ten raises the level

struct Module {
  std::uint64_t handle;
  std::uint64_t start;
  std::uint64_t end;
  Module* next[]; // one for each level
};

constinit Module* head = nullptr;
constinit std::int32_t currentLevel = 0;

using Path = Module * [kHighestLevel + 1];

Module* newModule(std::int32_t highestLevel) noexcept {
  const auto links = static_cast<std::uint32_t>(highestLevel + 1);
  return static_cast<Module*>(
      __VeskMalloc(VESK_MEMORY_CATEGORY_MISC, sizeof(Module) + links * sizeof(void*), 0));
}

// The last module below the key, which is the head if there is none.
Module* lastBelow(std::uint64_t key, Path* path) noexcept {
  Module* module = head;
  for (std::int32_t level = currentLevel; level >= 0; --level) {
    while (module->next[level] != head && module->next[level]->start < key) module = module->next[level];
    if (path != nullptr) (*path)[level] = module;
  }
  return module;
}

} // namespace

uint64_t __VeskGetModuleAddressRange(uint64_t address, uint64_t* end) {
  if (end == nullptr) return 0;
  const Region region = findProcessRegion(address);
  if (region.end == 0) return 0;
  *end = region.end;
  return region.start;
}

uint64_t __VeskGetThreadStackBaseAndSize(uint64_t address, uint64_t* base) {
  const Region region = findProcessRegion(address);
  *base = region.end;
  return region.end - region.start;
}

void* __VeskLoadModule(uint64_t moduleHandle, uint64_t start, uint64_t end) {
  if (head == nullptr) {
    head = newModule(kHighestLevel);
    for (Module*& link : std::span(head->next, kHighestLevel + 1)) link = head;
  }
  Path path;
  Module* const following = lastBelow(start, &path)->next[0];
  if (following != head && following->start == start) return following;

  if (currentLevel < kHighestLevel && std::rand() < kRaiseBelow) path[++currentLevel] = head;
  Module* const module = newModule(currentLevel);
  module->handle = moduleHandle;
  module->start = start;
  module->end = end;
  for (std::int32_t level = 0; level <= currentLevel; ++level) {
    module->next[level] = path[level]->next[level];
    path[level]->next[level] = module;
  }
  return module;
}

void __VeskUnloadModule(uint64_t moduleHandle, uint64_t start) {
  if (head == nullptr) return;
  Path path;
  Module* const module = lastBelow(start, &path)->next[0];
  if (module == head || module->start != start) return;

  for (std::int32_t level = 0; level <= currentLevel && path[level]->next[level] == module; ++level) {
    path[level]->next[level] = module->next[level];
  }
  __VeskFree(module);
  while (currentLevel > 0 && head->next[currentLevel] == head) --currentLevel;
}

uint64_t __VeskGetModuleForVariable(uint64_t address, uint64_t* moduleHandle) {
  if (head == nullptr) return 0;
  const Module* const module = lastBelow(address, nullptr);
  if (module == head || address >= module->end) return 0;
  *moduleHandle = module->handle;
  return module->start;
}

void* __VeskRtLoadImage(const char* path) { return dlopen(path, RTLD_NOW); }

void* __VeskRtGetSymbol(void* handle, const char* name) {
  if (handle == nullptr) return nullptr;
  dlerror();
  void* const symbol = dlsym(handle, name);
  return dlerror() == nullptr ? symbol : nullptr;
}
