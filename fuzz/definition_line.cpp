// Definition lines of any bytes, each in a block of its own size: nothing around it is touched, whatever is
// kept is freed, and a line that counts as whole has all that a whole line has.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "veskrt/annotations.h"
#include "veskrt/memory.h"

namespace {

// Each block from the C library, so that the sanitizer sees the bounds of what the parser copies into.
void* allocate(uint64_t bytes) { return std::aligned_alloc(16, (bytes + 15) / 16 * 16); }

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool ready = (__VeskInitializeSubAllocator(allocate, std::free), true);
  auto* line = static_cast<char*>(std::malloc(size + 1));
  if (!ready || line == nullptr) std::abort();
  std::memcpy(line, data, size);
  line[size] = '\0';
  VESK_QEL_DEFINITION definition = {};
  const int whole = __VeskQELParseDefinition(line, &definition);
  if (whole == 1 && (definition.name == nullptr || definition.modulePath == nullptr ||
                     definition.hasValue != 1 || definition.location == nullptr)) {
    std::abort();
  }
  if (definition.modulePath != nullptr && std::strstr(definition.modulePath, "//") != nullptr) std::abort();
  __VeskFree(definition.name);
  __VeskFree(definition.modulePath);
  __VeskFree(definition.location);
  std::free(line);
  return 0;
}
