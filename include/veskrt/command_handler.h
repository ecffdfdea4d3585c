/* The command channel: how another program talks to the collector while the analysed program runs.
 *
 * Choose it to have a running collector take a snapshot, reset its figures, pause: whatever its codes mean.
 * The collector names a directory; a controlling process that knows the directory finds the channel there and
 * needs nothing else. Commands come to one callback, one at a time, on a thread that the host engine makes
 * for the library (veskrt/runtime.h, __VeskSetThreadProcs).
 *
 *     static void onCommand(int code, int p1, int p2, int p3, int p4, unsigned char* payload, void* tool) {
 *       if (code == VESK_COMMAND_HEARTBEAT) flushFigures(tool);
 *       if (code == 1) writeSnapshot(tool, (const char*)payload);
 *     }
 *
 *     if (!__VeskRegisterCommandHandlerWithHeartbeat("/run/mytool", onCommand, &tool, 60)) ...
 *     ...
 *     __VeskShutdownCommandHandler();
 *     __VeskUnregisterCommandHandler(VESKCMDHDLR_CLEAN_COMPLETE);
 *
 * The channel is three objects that live longer than a process which does not remove them: the lock file, a
 * System V shared memory segment and a System V semaphore set of one semaphore.
 *
 *     lock file "zvrcmds.dat"
 *     | segmentIdentifier | ----> | initialised | pending | record 0 | ... | record 4 |
 *     | semaphoreKey      | ----> semaphore, posted after each change
 *     its flock guards `pending` and the records
 *
 * A controlling process sends like this (the program veskctl does it for you):
 *   1. Open the lock file, take flock(LOCK_EX), read a VeskCommandLockFile from offset 0; find the segment
 *      with shmat and the semaphore with semget(key, 1, 0).
 *   2. Write records from index `pending` on. Then raise `pending`, with one store and never above 5: in this
 *      order, a process killed at any point leaves either its whole batch or nothing.
 *   3. Release the flock, then add 1 to the semaphore.
 *
 * The collector takes the lock without waiting. If it is busy, the records wait for the next post: so whoever
 * has held the lock while commands were pending posts after its release. The callback runs without the lock,
 * on copies. */
#ifndef VESKRT_COMMAND_HANDLER_H
#define VESKRT_COMMAND_HANDLER_H

#include "veskrt/base.h"

VESK_BEGIN_DECLS

/* ---- What the two processes share; integers in the machine's byte order ---- */

#define VESK_COMMAND_LOCK_FILE "zvrcmds.dat"
#define VESK_MAX_PENDING_COMMANDS 5
#define VESK_COMMAND_PAYLOAD_SIZE 4352

/* One command. Its meaning is between the controlling process and the collector. */
typedef struct VeskCommandRecord {
  int32_t code;
  int32_t parameters[4];
  unsigned char payload[VESK_COMMAND_PAYLOAD_SIZE];
} VeskCommandRecord;

/* The shared memory segment, 21,868 bytes. */
typedef struct VeskCommandSegment {
  uint32_t initialised; /* 1 once the collector has zeroed the segment; the collector never reads it */
  /* Valid records, 0 to 5. Raised by controlling processes, zeroed by the collector, under the flock. */
  int32_t pending;
  /* The first `pending` are valid. Written by controlling processes, under the flock. */
  VeskCommandRecord records[VESK_MAX_PENDING_COMMANDS];
} VeskCommandSegment;

/* The first 8 bytes of the lock file; what follows them means nothing. Written by the collector, under the
 * flock. */
typedef struct VeskCommandLockFile {
  int32_t segmentIdentifier; /* as of shmget */
  int32_t semaphoreKey;      /* as of ftok(path of the lock file, 0) */
} VeskCommandLockFile;

/* ---- The collector's side ---- */

/* The handler's own code: a whole heartbeat period without a command. Parameters 0, payload null. */
#define VESK_COMMAND_HEARTBEAT 0x11010

/* Runs on the command thread, without any lock. `payload` has VESK_COMMAND_PAYLOAD_SIZE bytes and a zero
 * behind them, so that text in it is always terminated; it is the callback's to change and valid until it
 * returns. */
typedef void (*VeskCommandCallback)(int code, int parameter1, int parameter2, int parameter3, int parameter4,
                                    unsigned char* payload, void* context);

/* What is left of the channel. Every value but 1 means COMPLETE. */
typedef enum _VESKCMDHDLRCLEANEXTENT {
  VESKCMDHDLR_CLEAN_COMPLETE = 0, /* nothing: segment, semaphore set and lock file are removed */
  VESKCMDHDLR_CLEAN_PARTIAL = 1   /* the semaphore set and the lock file; the segment is removed */
} _VESKCMDHDLRCLEANEXTENT;

/* Creates the channel in `directory` ("" is the working directory) and starts the command thread. Returns 1,
 * or 0 with nothing of a channel left, after which registering may be tried again. It is 0 when
 *   - the host has not installed all four thread services, or cannot create the thread;
 *   - the directory is null, cannot be written, or is too long: the lock file's path has 4,096 bytes;
 *   - the callback is null;
 *   - the system has no segment or semaphore set left;
 *   - this process has a channel already.
 *
 * Waits while another process holds the lock file's flock. With `heartbeatSeconds` above 0, every such period
 * without a post calls the callback with VESK_COMMAND_HEARTBEAT; 0 means none; with a negative period the
 * thread ends at once. The lock file gets permission bits 0600 and is closed in programs that this process
 * starts.
 *
 * After a complete shutdown and unregistration a process may register once more, but the new thread ends at
 * its first wake-up: a stopped handler stays stopped. */
VESK_API int __VeskRegisterCommandHandlerWithHeartbeat(const char* directory, VeskCommandCallback callback,
                                                       void* context, int heartbeatSeconds);
VESK_API int __VeskRegisterCommandHandler(const char* directory, VeskCommandCallback callback, void* context);

/* Stops the command thread and waits for it, 1,000 ms at most: a callback that is running may take longer.
 * The channel's objects stay. Does nothing when there is no thread, so calling it twice is fine. The host's
 * end of the process does the same. */
VESK_API void __VeskShutdownCommandHandler(void);

/* Takes the channel down as far as `extent` says (a value of _VESKCMDHDLRCLEANEXTENT). May come before the
 * shutdown, and from inside the callback: after COMPLETE the thread ends by itself.
 *
 * The channel is the registering process's. In a fork of it, which has no command thread, this and the
 * shutdown do nothing. */
VESK_API void __VeskUnregisterCommandHandler(int extent);

VESK_END_DECLS

#endif
