#include "veskrt/lock_file.h"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

#include "veskrt/runtime.h"

namespace {

// Over the whole file, also what is yet to be written of it.
int changeLock(int descriptor, int command, short type) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_pid = __VeskGetPid();
  return fcntl(descriptor, command, &lock);
}

} // namespace

int __VeskCreateLockFile(const char* path, int truncate) {
  const int descriptor = open(path, O_RDWR | O_CREAT | O_DSYNC | (truncate != 0 ? O_TRUNC : 0), 0777);
  if (descriptor == -1) __VeskLogFatalToolDefect("Could not open lock file %s (error %d)", path, errno);
  return descriptor;
}

int __VeskLockFile(int descriptor) { return changeLock(descriptor, F_SETLKW, F_WRLCK); }

int __VeskUnlockFile(int descriptor) { return changeLock(descriptor, F_SETLK, F_UNLCK); }

int __VeskReadLockFile(int descriptor, void* record) {
  lseek(descriptor, 0, SEEK_SET);
  const ssize_t count = read(descriptor, record, VESK_LOCK_FILE_RECORD_SIZE);
  if (count == -1) __VeskLogFatalToolDefect("failed to read from lock file");
  return static_cast<int>(count);
}

int __VeskWriteLockFile(int descriptor, const void* record) {
  lseek(descriptor, 0, SEEK_SET);
  const ssize_t count = write(descriptor, record, VESK_LOCK_FILE_RECORD_SIZE);
  if (count == -1) __VeskLogFatalToolDefect("failed to write to lock file");
  return static_cast<int>(count);
}

int __VeskCloseLockFile(int descriptor) { return close(descriptor); }
