// Annotation sections of any bytes at all, placed against a guard page: nothing outside is read, and the walk
// ends. What a callback gets lies inside as well.
#include <cstring>

#include <sys/mman.h>

#include "fuzz/support.h"
#include "veskrt/annotations.h"

namespace {

constexpr size_t kPage = 4096;
constexpr size_t kMostBytes = 16 * kPage;

unsigned char* guardedEnd() {
  static unsigned char* const end = [] {
    void* base =
        mmap(nullptr, kMostBytes + kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    fuzz::require(base != MAP_FAILED);
    auto* guard = static_cast<unsigned char*>(base) + kMostBytes;
    fuzz::require(mprotect(guard, kPage, PROT_NONE) == 0);
    return guard;
  }();
  return end;
}

uint64_t visit(VESK_QEL_RECORD* record, uint64_t context) {
  const auto* start = reinterpret_cast<const unsigned char*>(context);
  const auto* name = reinterpret_cast<const unsigned char*>(record->name);
  const unsigned char* end = guardedEnd();
  fuzz::require(name >= start && name < end && record->expression >= start && record->expression < end);
  fuzz::require(std::memchr(name, 0, static_cast<size_t>(end - name)) != nullptr);
  fuzz::require(record->hasLocation == 1 && record->location.isRegister <= 1);
  return 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kMostBytes) return -1;
  fuzz::startRuntime();
  unsigned char* section = guardedEnd() - size;
  std::memcpy(section, data, size);
  __VeskQELParseAndProcessRecords(0x1000, section, size, visit, section);
  fuzz::takeLog();
  return 0;
}
