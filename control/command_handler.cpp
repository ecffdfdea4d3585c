// The channel's objects, and the way of a command from the segment to the callback.
//
// Two locks guard what processCommands() looks at. The lock file's flock keeps controlling processes out
// while records are copied. The channel guard keeps a thread of this process from detaching the segment, or
// closing the lock file, in the middle of that copy; it is the outer one, and neither is held while a
// callback runs.
//
// Whatever is in the segment another process wrote: the count is read once, and records are used from private
// copies only.
//
// The program may close any descriptor, and open a file of its own under the number. So before the descriptor
// is used it is looked at, and the lock file opened again if it is gone.
#include "veskrt/command_handler.hpp"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include "control/safe_open.h"
#include "runtime/atomic.h"
#include "runtime/once_guard.h"
#include "veskrt/text.h"

using namespace vesk;

static_assert(sizeof(VeskCommandRecord) == 4372);
static_assert(sizeof(VeskCommandSegment) == 21868 && offsetof(VeskCommandSegment, records) == 8);
static_assert(sizeof(VeskCommandLockFile) == 8);

namespace {

constinit std::uint32_t channelGuard = 0;

// A record in this process's memory, its payload followed by a zero.
struct PrivateRecord {
  VeskCommandRecord record;
  unsigned char terminator;
};

struct Batch {
  int count;
  PrivateRecord records[VESK_MAX_PENDING_COMMANDS];
};

VeskCommandSegment& segmentAt(unsigned char* address) {
  return *reinterpret_cast<VeskCommandSegment*>(address);
}

// Moves the pending records out of the segment, under its lock.
void drainCommands(VeskCommandSegment& segment, Batch& batch) {
  const std::int32_t pending = loadRelaxed(segment.pending);
  batch.count = pending < 1 ? 0 : pending < VESK_MAX_PENDING_COMMANDS ? pending : VESK_MAX_PENDING_COMMANDS;
  for (int i = 0; i < batch.count; ++i) {
    std::memcpy(&batch.records[i].record, &segment.records[i], sizeof(VeskCommandRecord));
    batch.records[i].terminator = 0;
  }
  storeRelease(segment.pending, 0);
}

// Says whether the path fits.
bool buildLockFilePath(const char* directory, char (&path)[4096]) {
  constexpr std::size_t kNameSize = sizeof VESK_COMMAND_LOCK_FILE; // with its terminator
  std::size_t length = strnlen(directory, sizeof path);
  const bool separated = length == 0 || directory[length - 1] == '/';
  if (length + (separated ? 0 : 1) + kNameSize > sizeof path) return false;
  std::memcpy(path, directory, length + 1);
  if (!separated) std::memcpy(path + length, "/", 2);
  __VeskSanitizePath(path);
  length = std::strlen(path);
  std::memcpy(path + length, VESK_COMMAND_LOCK_FILE, kNameSize);
  return true;
}

// Waits for the exclusive lock however long it takes, through signals as well.
bool waitForLock(int file) {
  while (flock(file, LOCK_EX) != 0) {
    if (errno != EINTR) return false;
  }
  return true;
}

bool namesSegment(int file, int segment) {
  int named;
  return pread(file, &named, sizeof named, 0) == sizeof named && named == segment;
}

// By its place, and where it was removed or the working directory changed, by what it says.
bool isLockFile(int file, const char* path, int segment) {
  struct stat own;
  struct stat named;
  if (fstat(file, &own) != 0) return false;
  if (stat(path, &named) == 0 && own.st_dev == named.st_dev && own.st_ino == named.st_ino) return true;
  return S_ISREG(own.st_mode) && namesSegment(file, segment);
}

// Opens the lock file of a channel that exists; -1 when it is not there any more.
[[gnu::noinline]] int reopenLockFile(const char* path, int segment) {
  const int file = safeOpen(path, O_RDWR | O_CLOEXEC | O_NOFOLLOW, 0);
  if (file == -1 || namesSegment(file, segment)) return file;
  close(file);
  return -1;
}

// The lock file's descriptor, which is never one of the program's.
int ownDescriptor(std::int32_t& lockFile, const char* path, int segment) {
  int file = loadRelaxed(lockFile);
  if (file == -1 || isLockFile(file, path, segment)) [[likely]]
    return file;
  file = reopenLockFile(path, segment);
  storeRelaxed(lockFile, file);
  return file;
}

bool append(int file, const void* word) { return write(file, word, 4) == 4; }

} // namespace

CollectorCommandHandler::CollectorCommandHandler()
    : segmentAddress_(nullptr), lockFilePath_{}, callback_(nullptr), context_(nullptr), lockFile_(-1),
      segmentIdentifier_(-1), semaphoreSet_(-1) {}

CollectorCommandHandler::~CollectorCommandHandler() {}

int CollectorCommandHandler::initializeCommandHandler(const char* directory, VeskCommandCallback callback,
                                                      void* context) {
  const bool hasChannel = segmentAddress_ != nullptr || lockFile_ != -1;
  if (callback == nullptr || directory == nullptr || hasChannel) return 0;
  if (!buildLockFilePath(directory, lockFilePath_)) return 0;
  if (createSharedMemoryAndLockFile() == 0) return 0;

  std::memset(segmentAddress_, 0, sizeof(VeskCommandSegment));
  storeRelease(segmentAt(segmentAddress_).initialised, 1);
  releaseLock();
  callback_ = callback;
  context_ = context;
  return 1;
}

int CollectorCommandHandler::createSharedMemoryAndLockFile() {
  const auto fail = [this] {
    destroySharedMemoryAndLockFile(VESKCMDHDLR_CLEAN_COMPLETE);
    return 0;
  };

  // A set that a partial clean-up has left is no part of this channel until it is found again under its key.
  storeRelaxed(semaphoreSet_, -1);
  const int file = safeOpen(lockFilePath_, O_RDWR | O_CREAT, 0600);
  storeRelaxed(lockFile_, file);
  if (file == -1) return 0;
  // A program started by this process must not keep the file, and with it the lock, open.
  fcntl(file, F_SETFD, FD_CLOEXEC);
  if (!waitForLock(file)) return fail();

  const int segment = shmget(IPC_PRIVATE, sizeof(VeskCommandSegment), IPC_CREAT | 0600);
  storeRelaxed(segmentIdentifier_, segment);
  if (segment == -1 || !append(file, &segment)) return fail();

  const key_t key = ftok(lockFilePath_, 0);
  if (key == -1) return fail(); // somebody has removed the file meanwhile
  const int set = semget(key, 1, IPC_CREAT | 0666);
  if (set < 0) return fail();
  storeRelaxed(semaphoreSet_, set);
  semctl(set, 0, SETVAL, 0);
  if (!append(file, &key)) return fail();

  void* address = shmat(segment, nullptr, 0);
  if (address == reinterpret_cast<void*>(-1)) return fail();
  storeRelaxed(segmentAddress_, static_cast<unsigned char*>(address));
  return 1;
}

void CollectorCommandHandler::destroySharedMemoryAndLockFile(_VESKCMDHDLRCLEANEXTENT extent) {
  ScopedOnceGuard guard(channelGuard);
  if (unsigned char* address = loadRelaxed(segmentAddress_); address != nullptr) {
    shmdt(address);
    storeRelaxed(segmentAddress_, nullptr);
  }
  const int segment = loadRelaxed(segmentIdentifier_);
  const int file = ownDescriptor(lockFile_, lockFilePath_, segment);
  if (segment != -1) {
    shmctl(segment, IPC_RMID, nullptr);
    storeRelaxed(segmentIdentifier_, -1);
  }
  if (const int set = loadRelaxed(semaphoreSet_); set != -1 && extent != VESKCMDHDLR_CLEAN_PARTIAL) {
    semctl(set, 0, IPC_RMID);
    storeRelaxed(semaphoreSet_, -1);
  }
  if (file != -1) {
    close(file);
    storeRelaxed(lockFile_, -1);
    if (extent != VESKCMDHDLR_CLEAN_PARTIAL) unlink(lockFilePath_);
  }
}

void CollectorCommandHandler::cleanupCommandHandler(_VESKCMDHDLRCLEANEXTENT extent) {
  destroySharedMemoryAndLockFile(extent);
}

int CollectorCommandHandler::acquireLock() {
  const int file = ownDescriptor(lockFile_, lockFilePath_, loadRelaxed(segmentIdentifier_));
  return flock(file, LOCK_EX | LOCK_NB) == 0;
}

int CollectorCommandHandler::releaseLock() { return flock(loadRelaxed(lockFile_), LOCK_UN); }

int CollectorCommandHandler::processCommands() {
  Batch batch;
  {
    ScopedOnceGuard guard(channelGuard);
    unsigned char* address = loadRelaxed(segmentAddress_);
    if (address == nullptr) return -1;
    VeskCommandSegment& segment = segmentAt(address);
    if (loadRelaxed(segment.pending) == 0) return 0;
    if (acquireLock() == 0) return 1;
    drainCommands(segment, batch);
    releaseLock();
  }
  for (int i = 0; i < batch.count; ++i) {
    VeskCommandRecord& record = batch.records[i].record;
    const std::int32_t(&p)[4] = record.parameters;
    callback_(record.code, p[0], p[1], p[2], p[3], record.payload, context_);
  }
  return 2;
}

int CollectorCommandHandler::processHeartbeat() {
  if (loadRelaxed(segmentAddress_) == nullptr) return -1;
  callback_(VESK_COMMAND_HEARTBEAT, 0, 0, 0, 0, nullptr, context_);
  return 2;
}
