/* Lock files between cooperating processes, and starting a program.
 *
 * A lock file holds one record of 8 bytes, whose meaning is the callers', under a lock on the whole file.
 * Choose it where several processes hand each other a number, such as who is the first of a group, or what to
 * attach to:
 *
 *     int file = __VeskCreateLockFile("/run/mytool/leader", 0);
 *     uint64_t leader = 0;
 *     if (__VeskLockFile(file) == 0) {
 *       if (__VeskReadLockFile(file, &leader) < 8) {
 *         leader = (uint64_t)getpid();
 *         __VeskWriteLockFile(file, &leader);
 *       }
 *       __VeskUnlockFile(file);
 *     }
 *     __VeskCloseLockFile(file);
 *
 * The lock is a POSIX record lock: it belongs to the process, so that it keeps other processes out but not
 * other threads of this one, is not inherited over fork, and is gone as soon as this process closes *any*
 * descriptor of the file. It does not exclude a flock on the same file. No call here takes a lock of the
 * library, except when it logs. */
#ifndef VESKRT_LOCK_FILE_H
#define VESKRT_LOCK_FILE_H

#include "veskrt/base.h"

VESK_BEGIN_DECLS

#define VESK_LOCK_FILE_RECORD_SIZE 8

/* Opens the file, creating it if needed (permission bits 0777 less the umask); a nonzero `truncate` empties
 * it. Writes to it reach the disk before they return. Returns the descriptor, which programs started later
 * inherit unless the caller sets FD_CLOEXEC. That the file cannot be opened is a tool defect: the process
 * ends. */
VESK_API int __VeskCreateLockFile(const char* path, int truncate);

/* Takes the lock on the whole file, waiting until it is granted. Returns 0; -1 with errno when fcntl fails,
 * also because a signal handler ran (EINTR) or a deadlock was found (EDEADLK): the lock is not held then. */
VESK_API int __VeskLockFile(int descriptor);

/* Gives the lock back. Returns fcntl's result. */
VESK_API int __VeskUnlockFile(int descriptor);

/* Reads the record into 8 bytes at `record`, wherever the descriptor's offset was. Returns the bytes read, 0
 * to 8; a new file has none, and what was not read stays as it was. A failing read ends the process as a tool
 * defect. */
VESK_API int __VeskReadLockFile(int descriptor, void* record);

/* Writes the 8 bytes at `record`. Returns the bytes written; what lies behind them in the file is never
 * touched. A failing write ends the process as a tool defect. */
VESK_API int __VeskWriteLockFile(int descriptor, const void* record);

/* Closes the descriptor, and with it gives the lock back; the file stays. Returns close's result. */
VESK_API int __VeskCloseLockFile(int descriptor);

/* What a child exits with that could not start its program. */
#define VESK_LAUNCH_FAILED_STATUS 127

/* Starts the program at the path argv[0] in a child process, with the null-terminated `argv` and an empty
 * environment. It inherits descriptors and the calling thread's signal mask. Returns at once, with the
 * child's id, or -1 when there can be none (nothing is logged). The caller waits for the child.
 *
 * That the program could not be started shows only in the child: it logs "failed to launch process ..." and
 * ends with status VESK_LAUNCH_FAILED_STATUS, running no exit handler and flushing no stream of this process.
 * Create the log first: a child that finds none creates the default one anew. */
VESK_API int32_t __VeskCreateProcess(char** argv);

VESK_END_DECLS

#endif
