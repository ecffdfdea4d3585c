// The module map against std::map: modules in slots of eight bytes, which come, go and are looked for.
#include <cstdlib>
#include <map>
#include <utility>

#include "fuzz/input.h"
#include "fuzz/support.h"
#include "veskrt/modules.h"

namespace {

using fuzz::require;

constexpr std::uint64_t kBase = 0x10000;

struct Module {
  std::uint64_t end;
  std::uint64_t handle;
};
using Model = std::map<std::uint64_t, Module>; // by start

void load(Model& model, std::uint64_t start, std::uint64_t size) {
  static std::uint64_t handle = 0;
  require(__VeskLoadModule(++handle, start, start + size) != nullptr);
  model.try_emplace(start, Module{start + size, handle}); // the first registration stands
}

void unload(Model& model, std::uint64_t start) {
  __VeskUnloadModule(0, start);
  model.erase(start);
}

void lookUp(const Model& model, std::uint64_t address) {
  std::uint64_t handle = 0;
  auto below = model.lower_bound(address); // a module's first address is not inside it
  const bool found = below != model.begin() && (--below)->second.end > address;
  require(__VeskGetModuleForVariable(address, &handle) == (found ? below->first : 0));
  require(handle == (found ? below->second.handle : 0));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The map keeps its first block.
  __VeskLoadModule(0, kBase, kBase + 1);
  __VeskUnloadModule(0, kBase);
  const std::int64_t before = fuzz::liveBlocks();
  fuzz::Input input(data, size);
  std::srand(input.take<std::uint8_t>()); // which decides about the map's levels
  Model model;
  while (input.left() > 0) {
    const std::uint64_t start = kBase + input.takeInRange<std::uint64_t>(0, 300) * 8;
    switch (input.takeInRange(0, 7)) {
    case 0:
    case 1:
      load(model, start, input.takeInRange<std::uint64_t>(1, 8));
      break;
    case 2: // many at once, so that the map grows high
      for (std::uint64_t i = 0; i < 60; ++i) load(model, kBase + (start - kBase + i * 24) % 2400, 5);
      break;
    case 3:
    case 4:
      unload(model, start);
      break;
    case 5: // all but a few
      while (model.size() > 3) unload(model, std::next(model.begin())->first);
      break;
    default:
      lookUp(model, start + input.takeInRange<std::uint64_t>(0, 8));
      break;
    }
    lookUp(model, start);
  }
  for (std::uint64_t at = kBase; at < kBase + 2500; at += 3) lookUp(model, at);
  while (!model.empty()) unload(model, model.begin()->first);
  require(fuzz::liveBlocks() == before);
  return 0;
}
