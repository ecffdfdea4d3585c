// The end of the process: log, ask the host, exit.
#include <cstdarg>
#include <cstdlib>

#include "runtime/atomic.h"
#include "veskrt/log.h"
#include "veskrt/runtime.h"

using namespace vesk;

namespace {

constinit VeskExitHandler exitHandler = nullptr;

} // namespace

void __VeskSetExitHandler(VeskExitHandler handler) { storeRelaxed(exitHandler, handler); }

void __VeskExitHandler(int32_t exitCode) {
  const VeskExitHandler handler = loadRelaxed(exitHandler);
  if (handler != nullptr) handler(exitCode);
  std::exit(-1);
}

void __VeskFatalExit(int32_t exitCode) {
  __VeskLogInternal(VESKLOG_SEVERITY_ERROR, VESKLOG_MSG_ABNORMAL_TERMINATE, 0, nullptr);
  __VeskExitHandler(exitCode);
}
