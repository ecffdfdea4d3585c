// Facts about the machine. The page size and the XSAVE size are asked for once; 0 in their cache means not
// known yet.
#include "veskrt/system.h"

#include <cpuid.h>
#include <unistd.h>

#include "platform/processor_count.h"
#include "runtime/atomic.h"

using namespace vesk;

namespace {

constexpr std::uint32_t kUsualPageSize = 4096;
constexpr std::uint32_t kXsaveLeaf = 13;
constexpr std::uint32_t kLegacyAreaSize = 512; // what FXSAVE needs

constinit std::uint32_t pageSize = 0;
constinit std::uint32_t xsaveAreaSize = 0;

VeskCpuid cpuid(std::uint32_t leaf, std::uint32_t subleaf) noexcept {
  VeskCpuid result;
  __cpuid_count(leaf, subleaf, result.eax, result.ebx, result.ecx, result.edx);
  return result;
}

[[gnu::noinline]] std::uint32_t findPageSize() noexcept {
  const long answer = sysconf(_SC_PAGESIZE);
  const std::uint32_t size = answer == -1 ? kUsualPageSize : static_cast<std::uint32_t>(answer);
  storeRelaxed(pageSize, size);
  return size;
}

[[gnu::noinline]] std::uint32_t findXsaveAreaSize() noexcept {
  std::uint32_t size = 0;
  // ECX counts every component that the processor supports; EBX only those that the system has enabled.
  if (cpuid(0, 0).eax >= kXsaveLeaf) size = cpuid(kXsaveLeaf, 0).ecx;
  if (size == 0) size = kLegacyAreaSize;
  compareAndSwap(xsaveAreaSize, 0, size);
  return size;
}

} // namespace

uint32_t __VeskGetNativePageSize() {
  const std::uint32_t known = loadRelaxed(pageSize);
  return known != 0 ? known : findPageSize();
}

uint32_t __VeskGetNProcs() { return countProcessors("/proc/stat", "/proc/cpuinfo"); }

void __VeskCpuidEx(uint32_t leaf, uint32_t subleaf, VeskCpuid* result) {
  if (result != nullptr) *result = cpuid(leaf, subleaf);
}

uint32_t __VeskGetXsaveAreaMaxSize() {
  const std::uint32_t known = loadRelaxed(xsaveAreaSize);
  return known != 0 ? known : findXsaveAreaSize();
}
