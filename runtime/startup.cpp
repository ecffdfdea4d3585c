// Start-up: once, whoever calls and however many at a time.
#include "runtime/once_guard.h"
#include "veskrt/log.h"
#include "veskrt/runtime.h"
#include "veskrt/system.h"

using namespace vesk;

int32_t __veskRtStarted = 0;
int32_t __veskNumberOfProcessors = 1;

namespace {

constinit std::uint32_t startupGuard = 0;

} // namespace

uint32_t __VeskRtStartup() {
  ScopedOnceGuard guard(startupGuard);
  if (loadRelaxed(__veskRtStarted) == 0) {
    storeRelaxed(__veskNumberOfProcessors, static_cast<int32_t>(__VeskGetNProcs()));
    // Without its messages the library's records come out as comments; that is no reason not to start.
    __VeskRegisterInternalVESKRTLogMessages();
    storeRelease(__veskRtStarted, 1);
  }
  return VESK_VERSION_CODE;
}

void __VeskRtShutdown() {}
