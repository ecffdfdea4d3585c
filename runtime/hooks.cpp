// The hook words, their setters, and the wrappers that ask the host or fall back.
//
// The words are stored without a lock: a host installs them before the threads that use them start, and may
// still replace or empty them later.
#include "runtime/hooks.h"

#include "runtime/thread_services.h"

using namespace vesk;

VeskGetCurrentThreadIdProc __veskGetCurrentThreadIdProc = nullptr;
VeskGetNativeThreadIdProc __veskGetNativeThreadIdProc = nullptr;
VeskGetNativeParentThreadIdProc __veskGetNativeParentThreadIdProc = nullptr;
VeskTlsAllocProc __veskTlsAllocProc = nullptr;
VeskTlsFreeProc __veskTlsFreeProc = nullptr;
VeskTlsGetValueProc __veskTlsGetValueProc = nullptr;
VeskTlsSetValueProc __veskTlsSetValueProc = nullptr;

namespace {

constinit VeskGetPidProc pidProc = nullptr;
constinit ThreadServices services = {};

// The installed procedure's answer, or the fallback while the word is empty.
template <class Proc, class Result, class... Arguments>
[[gnu::always_inline]] inline Result ask(const Proc& word, Result fallback, Arguments... arguments) {
  const Proc proc = loadRelaxed(word);
  return proc != nullptr ? proc(arguments...) : fallback;
}

} // namespace

namespace vesk {

ThreadServices threadServices() noexcept {
  return {loadRelaxed(services.createThread), loadRelaxed(services.endThread),
          loadRelaxed(services.waitForThread), loadRelaxed(services.addExitCallback)};
}

} // namespace vesk

void __VeskSetGetCurrentThreadIdProc(VeskGetCurrentThreadIdProc proc) {
  storeRelaxed(__veskGetCurrentThreadIdProc, proc);
}
void __VeskSetGetNativeThreadIdProc(VeskGetNativeThreadIdProc proc) {
  storeRelaxed(__veskGetNativeThreadIdProc, proc);
}
void __VeskSetGetNativeParentThreadIdProc(VeskGetNativeParentThreadIdProc proc) {
  storeRelaxed(__veskGetNativeParentThreadIdProc, proc);
}
void __VeskSetTlsAllocProc(VeskTlsAllocProc proc) { storeRelaxed(__veskTlsAllocProc, proc); }
void __VeskSetTlsFreeProc(VeskTlsFreeProc proc) { storeRelaxed(__veskTlsFreeProc, proc); }
void __VeskSetTlsGetValueProc(VeskTlsGetValueProc proc) { storeRelaxed(__veskTlsGetValueProc, proc); }
void __VeskSetTlsSetValueProc(VeskTlsSetValueProc proc) { storeRelaxed(__veskTlsSetValueProc, proc); }
void __VeskSetGetPidProc(VeskGetPidProc proc) { storeRelaxed(pidProc, proc); }

int __VeskSetThreadProcs(VeskCreateThreadProc createThreadProc, VeskEndThreadProc endThreadProc,
                         VeskWaitForThreadProc waitForThreadProc,
                         VeskAddExitCallbackProc addExitCallbackProc) {
  storeRelaxed(services.createThread, createThreadProc);
  storeRelaxed(services.endThread, endThreadProc);
  storeRelaxed(services.waitForThread, waitForThreadProc);
  storeRelaxed(services.addExitCallback, addExitCallbackProc);
  return 1;
}

uint64_t __VeskGetCurrentThreadId() { return ask(__veskGetCurrentThreadIdProc, uint64_t{0}); }
uint32_t __VeskGetNativeThreadId() { return ask(__veskGetNativeThreadIdProc, uint32_t{0}); }
uint64_t __VeskGetNativeParentThreadId() { return ask(__veskGetNativeParentThreadIdProc, uint64_t{0}); }
uint32_t __VeskTlsAlloc() { return ask(__veskTlsAllocProc, VESK_INVALID_ID); }
int __VeskTlsFree(uint32_t slot) { return ask(__veskTlsFreeProc, 0, slot); }
void* __VeskTlsGetValue(uint32_t slot) {
  return ask(__veskTlsGetValueProc, static_cast<void*>(nullptr), slot);
}
int __VeskTlsSetValue(uint32_t slot, void* value) { return ask(__veskTlsSetValueProc, 0, slot, value); }
int32_t __VeskGetPid() { return ask(pidProc, int32_t{-1}); }
