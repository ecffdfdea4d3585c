#include "collectors/heap/modules.h"

#include <algorithm>
#include <cstring>

#include "veskrt/memory.h"

namespace heap {

namespace {

constinit std::uint32_t category = 0;

// A growing array of modules, or of their indices.
template <class T>
struct List {
  T* items = nullptr;
  std::uint32_t count = 0;
  std::uint32_t capacity = 0;

  void insert(std::uint32_t position, T item) {
    if (count == capacity) grow();
    std::copy_backward(items + position, items + count, items + count + 1);
    items[position] = item;
    ++count;
  }

  void remove(std::uint32_t position) {
    std::copy(items + position + 1, items + count, items + position);
    --count;
  }

private:
  static constexpr std::size_t kItemSize =
      sizeof(T); // NOLINT(bugprone-sizeof-expression): T may be a pointer

  void grow() {
    capacity = capacity == 0 ? 64 : 2 * capacity;
    auto* bigger =
        static_cast<T*>(__VeskMalloc(category, static_cast<std::uint32_t>(capacity * kItemSize), 0));
    std::copy(items, items + count, bigger);
    __VeskFree(items);
    items = bigger;
  }
};

constinit List<Module*> all;
constinit List<std::uint32_t> present; // indices, in the order of the addresses

Module& moduleOf(std::uint32_t presentPosition) { return *all.items[present.items[presentPosition]]; }

char* newText(std::uint32_t size) { return static_cast<char*>(__VeskMalloc(category, size, 0)); }

const char* copyPath(const char* path) {
  const std::uint32_t size = static_cast<std::uint32_t>(std::strlen(path)) + 1;
  return static_cast<const char*>(std::memcpy(newText(size), path, size));
}

const char* hexadecimal(const std::uint8_t* bytes, std::uint32_t count) {
  char* text = newText(2 * count + 1);
  for (std::uint32_t i = 0; i < count; ++i) {
    text[2 * i] = "0123456789abcdef"[bytes[i] >> 4];
    text[2 * i + 1] = "0123456789abcdef"[bytes[i] & 15];
  }
  text[2 * count] = '\0';
  return text;
}

// The first module present that ends above the address.
std::uint32_t firstEndingAbove(std::uint64_t address) {
  const std::uint32_t* position =
      std::partition_point(present.items, present.items + present.count,
                           [address](std::uint32_t index) { return all.items[index]->end <= address; });
  return static_cast<std::uint32_t>(position - present.items);
}

void unload(std::uint32_t presentPosition) {
  moduleOf(presentPosition).unloaded = true;
  present.remove(presentPosition);
}

void forget(Module* module) {
  __VeskFree(const_cast<char*>(module->path));
  __VeskFree(const_cast<char*>(module->buildId));
  __VeskFree(module);
}

// The module that went and is now back; kNoModule when this is another.
std::uint32_t returned(const Module& arrived) {
  if (arrived.buildId[0] == '\0') return kNoModule;
  for (std::uint32_t i = all.count; i-- > 0;) {
    const Module& known = *all.items[i];
    if (known.unloaded && known.base == arrived.base && known.start == arrived.start &&
        known.end == arrived.end && std::strcmp(known.buildId, arrived.buildId) == 0 &&
        std::strcmp(known.path, arrived.path) == 0) {
      return i;
    }
  }
  return kNoModule;
}

bool samePlace(const Module& known, const VeskHostModule& module) {
  return known.start == module.start && known.base == module.base;
}

} // namespace

void startModules(std::uint32_t moduleCategory) { category = moduleCategory; }

bool addModule(const VeskHostModule& module) {
  const std::uint32_t position = firstEndingAbove(module.start);
  if (position < present.count && samePlace(moduleOf(position), module)) return false;

  bool changed = false;
  for (; position < present.count && moduleOf(position).start < module.end; changed = true) unload(position);

  auto* arrived = static_cast<Module*>(__VeskMalloc(category, sizeof(Module), 0));
  *arrived = {copyPath(module.path),
              hexadecimal(module.buildId, module.buildIdSize),
              module.base,
              module.start,
              module.end,
              false};
  std::uint32_t index = returned(*arrived);
  if (index == kNoModule) {
    index = all.count;
    all.insert(index, arrived);
  } else {
    forget(arrived);
    all.items[index]->unloaded = false;
    changed = true;
  }
  present.insert(position, index);
  return changed;
}

bool retireModule(const VeskHostModule& module) {
  const std::uint32_t position = firstEndingAbove(module.start);
  if (position == present.count || !samePlace(moduleOf(position), module)) return false;
  unload(position);
  return true;
}

std::uint32_t moduleAt(std::uint64_t address) {
  const std::uint32_t position = firstEndingAbove(address);
  if (position == present.count || moduleOf(position).start > address) return kNoModule;
  return present.items[position];
}

std::uint32_t moduleCount() { return all.count; }
const Module& moduleByIndex(std::uint32_t index) { return *all.items[index]; }

} // namespace heap
