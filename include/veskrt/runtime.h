/* Start-up, host hooks, waiting and the fatal exit.
 *
 * The library lives in a process that a host engine controls, beside a program that is not its own. Who a
 * thread is, where its thread-local values lie, what the process id is, how internal threads are made and how
 * the process ends, it asks the host, through procedures ("hooks") that the host installs before the threads
 * that use them start. Every hook may be empty; a wrapper then returns its fallback at once.
 *
 * A host starts the library like this:
 *
 *     __VeskInitializeSubAllocator(hostAllocate, hostFree);          // veskrt/memory.h
 *     __VeskSetGetNativeThreadIdProc(hostThreadId);                  // nonzero and distinct for every thread
 *     __VeskSetGetPidProc(hostPid);
 *     __VeskSetExitHandler(hostExit);
 *     __VeskSetThreadProcs(createThread, endThread, waitForThread, addExitCallback);
 *     __VeskRtStartup();
 *
 * Nothing here takes a lock, and everything may be called from any thread. */
#ifndef VESKRT_RUNTIME_H
#define VESKRT_RUNTIME_H

#include "veskrt/base.h"

VESK_BEGIN_DECLS

/* What __VeskRtStartup returns: the version, 13, in the top byte. */
#define VESK_VERSION_CODE 0x0D000000u

/* ---- Procedures that a host installs ---- */

typedef uint64_t (*VeskGetCurrentThreadIdProc)(void);      /* the host engine's id of the calling thread */
typedef uint32_t (*VeskGetNativeThreadIdProc)(void);       /* the system's id of it: distinct and never 0 */
typedef uint64_t (*VeskGetNativeParentThreadIdProc)(void); /* the system's id of the thread that created it */
typedef uint32_t (*VeskTlsAllocProc)(void);                /* reserves a thread-local slot */
typedef int (*VeskTlsFreeProc)(uint32_t slot);             /* gives a slot back; 1 on success */
typedef void* (*VeskTlsGetValueProc)(uint32_t slot);       /* the calling thread's value in a slot */
typedef int (*VeskTlsSetValueProc)(uint32_t slot, void* value); /* stores it; 1 on success */
typedef int32_t (*VeskGetPidProc)(void);                        /* the process id */
typedef void (*VeskExitHandler)(int32_t exitCode);              /* ends the process; may return */

typedef void (*VeskThreadFunction)(void* argument);
typedef void (*VeskExitCallback)(void* argument);

/* Starts an internal thread that runs function(argument) and stores its handle through `handle`. A stack size
 * of 0 is the host's default. Returns nonzero on success, 0 on failure. */
typedef int (*VeskCreateThreadProc)(VeskThreadFunction function, void* argument, size_t stackSize,
                                    void** handle);
/* The last act of an internal thread. Does not return. */
typedef void (*VeskEndThreadProc)(uint32_t exitCode);
/* Waits until the thread has ended, `milliseconds` at most; `exitCode` may be null. Returns nonzero once it
 * has ended. */
typedef int (*VeskWaitForThreadProc)(void** handle, uint32_t milliseconds, uint32_t* exitCode);
/* Has callback(argument) called when the analysed process ends. Returns nonzero on success. */
typedef int (*VeskAddExitCallbackProc)(VeskExitCallback callback, void* argument);

/* ---- The hook words ----
 *
 * A host may store into these directly; the setters below do the same. */

VESK_API extern VeskGetCurrentThreadIdProc __veskGetCurrentThreadIdProc;
VESK_API extern VeskGetNativeThreadIdProc __veskGetNativeThreadIdProc;
VESK_API extern VeskGetNativeParentThreadIdProc __veskGetNativeParentThreadIdProc;
VESK_API extern VeskTlsAllocProc __veskTlsAllocProc;
VESK_API extern VeskTlsFreeProc __veskTlsFreeProc;
VESK_API extern VeskTlsGetValueProc __veskTlsGetValueProc;
VESK_API extern VeskTlsSetValueProc __veskTlsSetValueProc;

/* ---- Setters: null empties the hook ---- */

VESK_API void __VeskSetGetCurrentThreadIdProc(VeskGetCurrentThreadIdProc proc);
VESK_API void __VeskSetGetNativeThreadIdProc(VeskGetNativeThreadIdProc proc);
VESK_API void __VeskSetGetNativeParentThreadIdProc(VeskGetNativeParentThreadIdProc proc);
VESK_API void __VeskSetTlsAllocProc(VeskTlsAllocProc proc);
VESK_API void __VeskSetTlsFreeProc(VeskTlsFreeProc proc);
VESK_API void __VeskSetTlsGetValueProc(VeskTlsGetValueProc proc);
VESK_API void __VeskSetTlsSetValueProc(VeskTlsSetValueProc proc);
VESK_API void __VeskSetGetPidProc(VeskGetPidProc proc);
VESK_API void __VeskSetExitHandler(VeskExitHandler handler);

/* Installs the four thread services together. Returns 1. */
VESK_API int __VeskSetThreadProcs(VeskCreateThreadProc createThreadProc, VeskEndThreadProc endThreadProc,
                                  VeskWaitForThreadProc waitForThreadProc,
                                  VeskAddExitCallbackProc addExitCallbackProc);

/* ---- Wrappers: the installed procedure's answer, untouched, or the fallback named here ---- */

VESK_API uint64_t __VeskGetCurrentThreadId(void); /* 0 */
VESK_API uint32_t __VeskGetNativeThreadId(void);  /* 0; the identity under which locks record their owner */
VESK_API uint64_t __VeskGetNativeParentThreadId(void);      /* 0 */
VESK_API uint32_t __VeskTlsAlloc(void);                     /* VESK_INVALID_ID */
VESK_API int __VeskTlsFree(uint32_t slot);                  /* 0 */
VESK_API void* __VeskTlsGetValue(uint32_t slot);            /* null */
VESK_API int __VeskTlsSetValue(uint32_t slot, void* value); /* 0 */
VESK_API int32_t __VeskGetPid(void);                        /* -1 */

/* ---- Start-up ---- */

/* 0 until start-up has completed, then 1 for good. */
VESK_API extern int32_t __veskRtStarted;

/* 1 until start-up has counted them. Locks spin only above 1. */
VESK_API extern int32_t __veskNumberOfProcessors;

/* Counts the processors, registers the library's own log messages and marks the runtime as started. Runs
 * once, however many threads call it; every call returns VESK_VERSION_CODE, after the work has been done. */
VESK_API uint32_t __VeskRtStartup(void);

/* Does nothing: no structure of the library is torn down at process end. */
VESK_API void __VeskRtShutdown(void);

/* ---- Waiting ---- */

/* Gives up the processor once; the result of sched_yield. */
VESK_API int __VeskYield(void);

/* Waits without a timer: count x 5,000,000 yields, the product taken modulo 2^32. */
VESK_API void __VeskSleep(uint32_t count);

/* ---- The end of the process ---- */

/* Calls the host's exit handler with the code; if there is none, or it returns, exit(-1). Never returns. */
VESK_API void __VeskExitHandler(int32_t exitCode) __attribute__((noreturn));

/* Logs VESKLOG_MSG_ABNORMAL_TERMINATE, then ends as __VeskExitHandler. */
VESK_API void __VeskFatalExit(int32_t exitCode) __attribute__((noreturn));

/* Misuse of the interface that a tool cannot go on from: logs the text as VESKLOG_MSG_INTERNAL, then
 * __VeskFatalExit(-1). */
VESK_API void __VeskLogFatalToolDefect(const char* format, ...) VESK_PRINTF(1, 2) __attribute__((noreturn));

VESK_END_DECLS

#endif
