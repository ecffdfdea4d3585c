// The hook words as the inline fast paths read them.
#pragma once

#include "runtime/atomic.h"
#include "veskrt/runtime.h"

namespace vesk {

// The identity under which locks record their owner: 0 while no hook is installed.
[[gnu::always_inline]] inline std::uint64_t nativeThreadId() noexcept {
  const VeskGetNativeThreadIdProc proc = loadRelaxed(__veskGetNativeThreadIdProc);
  return proc != nullptr ? proc() : 0;
}

inline bool onOneProcessor() noexcept { return loadRelaxed(__veskNumberOfProcessors) == 1; }

} // namespace vesk
