// How a batch goes in. Under the lock file's flock the records are written behind those that are pending,
// then the count is raised with one store. A process killed before that store leaves nothing that anybody
// reads; one killed after it leaves a whole batch, which the next post delivers. The kernel gives the flock
// of a dead process back.
//
// The collector only tries the lock, and comes back for the next post. So every release here is followed by a
// post, and waiting is done with unlocked reads.
#include "command_channel.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace veskctl {

namespace {

using namespace std::chrono_literals;

// Yields while an answer may be there at any moment, then sleeps ever longer. On a busy machine a yield costs
// other processes' time slices, so the yielding ends by the clock: a sleeper is served sooner.
class Pause {
public:
  void take() {
    if (std::chrono::steady_clock::now() < endOfYielding_) {
      std::this_thread::yield();
      return;
    }
    std::this_thread::sleep_for(sleep_);
    sleep_ = std::min<std::chrono::microseconds>(sleep_ * 2, kLongestSleep);
  }
  // Sleeps have become long: time to look after more than the awaited word.
  bool isLong() const { return sleep_ >= kLongestSleep; }

private:
  static constexpr std::chrono::microseconds kLongestSleep = 5ms;
  std::chrono::steady_clock::time_point endOfYielding_ = std::chrono::steady_clock::now() + 100us;
  std::chrono::microseconds sleep_ = 50us;
};

Result noChannel(std::string reason) { return {Outcome::kNoChannel, std::move(reason)}; }

Result failure(const std::string& what) { return {Outcome::kFailed, what + ": " + std::strerror(errno)}; }

VeskCommandRecord toRecord(const Command& command) {
  VeskCommandRecord record{};
  record.code = command.code;
  std::copy(command.parameters.begin(), command.parameters.end(), record.parameters);
  std::memcpy(record.payload, command.payload.data(),
              std::min(command.payload.size(), sizeof record.payload));
  return record;
}

std::string describe(pid_t process) { return "process " + std::to_string(process); }

} // namespace

CommandChannel::CommandChannel(std::string directory) : path_(std::move(directory)) {
  if (!path_.empty() && path_.back() != '/') path_ += '/';
  path_ += VESK_COMMAND_LOCK_FILE;
}

CommandChannel::~CommandChannel() { close(); }

void CommandChannel::close() {
  if (segment_ != nullptr) shmdt(segment_);
  if (file_ != -1) ::close(file_);
  segment_ = nullptr;
  file_ = -1;
}

std::optional<Result> CommandChannel::open() {
  close();
  const auto refuse = [this](const std::string& why) { return noChannel(path_ + " " + why); };

  file_ = ::open(path_.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK);
  if (file_ == -1) {
    if (errno == ENOENT || errno == ENOTDIR) return noChannel("there is no " + path_);
    return failure(path_);
  }
  struct stat file {};
  if (fstat(file_, &file) != 0 || !S_ISREG(file.st_mode)) return refuse("is not a regular file");
  // Who owns the file says where the commands go.
  if (geteuid() != 0 && file.st_uid != geteuid()) return refuse("belongs to another user");
  if (pread(file_, &names_, sizeof names_, 0) != sizeof names_ ||
      names_.semaphoreKey != ftok(path_.c_str(), 0)) {
    return refuse("is not the lock file of a command channel");
  }
  semaphoreSet_ = semget(names_.semaphoreKey, 1, 0);
  if (semaphoreSet_ == -1) {
    if (errno == EACCES) return failure("the semaphore of " + path_);
    return refuse("was left behind: its semaphore is gone");
  }
  shmid_ds segment{};
  if (shmctl(names_.segmentIdentifier, IPC_STAT, &segment) != 0) {
    if (errno == EACCES) return failure("the shared memory of " + path_);
    return refuse("was left behind: its shared memory is gone");
  }
  if (segment.shm_segsz != sizeof(VeskCommandSegment)) return refuse("does not name a command segment");
  void* address = shmat(names_.segmentIdentifier, nullptr, 0);
  if (address == reinterpret_cast<void*>(-1)) return failure("the shared memory of " + path_);
  segment_ = static_cast<VeskCommandSegment*>(address);
  return std::nullopt;
}

// With the lock held: is this still the channel that was opened? A collector may have taken it down, or set a
// new one up in the same file or in a new one of the same name.
bool CommandChannel::isCurrent() const {
  struct stat opened {};
  struct stat named {};
  VeskCommandLockFile now{};
  return fstat(file_, &opened) == 0 && stat(path_.c_str(), &named) == 0 && opened.st_dev == named.st_dev &&
         opened.st_ino == named.st_ino && pread(file_, &now, sizeof now, 0) == sizeof now &&
         std::memcmp(&now, &names_, sizeof now) == 0;
}

pid_t CommandChannel::collector() const {
  shmid_ds segment{};
  return shmctl(names_.segmentIdentifier, IPC_STAT, &segment) == 0 ? segment.shm_cpid : 0;
}

bool CommandChannel::collectorIsAlive() const {
  shmid_ds segment{};
  if (shmctl(names_.segmentIdentifier, IPC_STAT, &segment) != 0) return false;
  const bool removed = (segment.shm_perm.mode & SHM_DEST) != 0;
  // This process's own attachment is one of them. A fork of the collector's process may be another, and
  // serves no commands.
  if (removed || segment.shm_nattch < 2) return false;
  return segment.shm_cpid <= 0 || kill(segment.shm_cpid, 0) == 0 || errno == EPERM;
}

std::int32_t CommandChannel::pending() const {
  return std::atomic_ref(segment_->pending).load(std::memory_order_acquire);
}

// Says whether there still is a semaphore. So many posts that it overflows wake the collector as well.
bool CommandChannel::wakeCollector() const {
  sembuf post = {0, 1, IPC_NOWAIT};
  return semop(semaphoreSet_, &post, 1) == 0 || errno == ERANGE || errno == EAGAIN;
}

// For commands that stay where they are: a collector that found the lock busy has used its post up. Says
// whether there still is a collector.
bool CommandChannel::nudge() const {
  const int posts = semctl(semaphoreSet_, 0, GETVAL);
  if (posts == 0) wakeCollector();
  return posts != -1 && collectorIsAlive();
}

// The lock table names the holder, so that nobody has to try the lock to find out.
pid_t CommandChannel::lockHolder() const {
  struct stat file {};
  if (fstat(file_, &file) != 0) return 0;
  std::ifstream locks("/proc/locks");
  std::string line;
  while (std::getline(locks, line)) {
    std::istringstream words(line);
    std::string number, kind, mode, access;
    unsigned major = 0, minor = 0;
    unsigned long inode = 0;
    pid_t holder = 0;
    char colon = 0;
    words >> number >> kind >> mode >> access >> holder >> std::hex >> major >> colon >> minor >> colon >>
        std::dec >> inode;
    if (words && kind == "FLOCK" && inode == file.st_ino && makedev(major, minor) == file.st_dev)
      return holder;
  }
  return 0;
}

std::optional<Result> CommandChannel::lock(const Deadline& deadline) {
  Pause pause;
  while (flock(file_, LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) return failure("locking " + path_);
    if (deadline.passed()) {
      const pid_t holder = lockHolder();
      return Result{Outcome::kNotQueued,
                    "timed out, nothing sent: " +
                        (holder > 0 ? describe(holder) : std::string("another process")) + " holds the lock"};
    }
    pause.take();
  }
  return std::nullopt;
}

std::optional<Result> CommandChannel::enqueue(const std::vector<VeskCommandRecord>& batch,
                                              const Deadline& deadline, int& first) {
  const auto size = static_cast<std::int32_t>(batch.size());
  const auto hasRoom = [&] { return pending() <= VESK_MAX_PENDING_COMMANDS - size; };
  for (Pause pause;; pause.take()) {
    if (segment_ == nullptr) {
      if (auto refused = open()) return refused;
    }
    if (hasRoom()) {
      if (!collectorIsAlive()) return noChannel(path_ + " was left behind: its collector is gone");
      if (auto refused = lock(deadline)) return refused;
      const bool current = isCurrent();
      const bool fits = current && hasRoom();
      if (fits) {
        first = std::max(pending(), 0);
        std::copy(batch.begin(), batch.end(), segment_->records + first);
        std::atomic_ref(segment_->pending).store(first + size, std::memory_order_release);
      }
      flock(file_, LOCK_UN);
      const bool woken = wakeCollector();
      if (fits) return woken ? std::nullopt : std::optional(noChannel(path_ + " was taken down"));
      if (!current) close();
    } else if (pause.isLong() && !nudge()) {
      return noChannel(path_ + " was taken down");
    }
    if (deadline.passed()) {
      return Result{Outcome::kNotQueued,
                    "timed out, nothing sent: the collector does not take the commands before it"};
    }
  }
}

Result CommandChannel::awaitTaken(const VeskCommandRecord& first, int index, const Deadline& deadline) {
  // Nobody writes below the count, so the record lies where it was put until the collector has taken it.
  const auto taken = [&] {
    return pending() <= index || std::memcmp(&segment_->records[index], &first, sizeof first) != 0;
  };
  Pause pause;
  while (!taken()) {
    if (pause.isLong() && !nudge() && !taken()) {
      return noChannel(path_ + " was taken down before its collector took the commands");
    }
    if (deadline.passed()) {
      return {Outcome::kNotTaken,
              "timed out: the commands are in the channel, but the collector has not taken them"};
    }
    pause.take();
  }
  return {};
}

Result CommandChannel::send(const std::vector<Command>& commands, const Deadline& deadline) {
  std::vector<VeskCommandRecord> batch(commands.size());
  std::transform(commands.begin(), commands.end(), batch.begin(), toRecord);
  int first = 0;
  if (auto refused = enqueue(batch, deadline, first)) return *refused;
  return awaitTaken(batch.front(), first, deadline);
}

Result CommandChannel::inspect(Status& status) {
  if (auto refused = open()) return *refused;
  status.collector = collector();
  status.alive = collectorIsAlive();
  status.initialised = std::atomic_ref(segment_->initialised).load(std::memory_order_relaxed) != 0;
  status.pending = pending();
  status.posts = semctl(semaphoreSet_, 0, GETVAL);
  status.lockHolder = lockHolder();
  const int valid = std::clamp<std::int32_t>(status.pending, 0, VESK_MAX_PENDING_COMMANDS);
  status.records.assign(segment_->records, segment_->records + valid);
  if (!status.alive) return noChannel(path_ + " was left behind: its collector is gone");
  return {};
}

} // namespace veskctl
