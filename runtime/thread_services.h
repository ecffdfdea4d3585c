// The host's thread services, for the parts of the library that run a thread of their own.
#pragma once

#include "veskrt/runtime.h"

namespace vesk {

// Any of them may be null: the host need not install them.
struct ThreadServices {
  VeskCreateThreadProc createThread;
  VeskEndThreadProc endThread;
  VeskWaitForThreadProc waitForThread;
  VeskAddExitCallbackProc addExitCallback;
};

ThreadServices threadServices() noexcept;

} // namespace vesk
