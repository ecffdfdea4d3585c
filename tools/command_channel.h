// The controlling process's side of a collector's command channel.
//
//     CommandChannel channel("/run/mytool");
//     Result result = channel.send({command}, Deadline(10s));
//
// Nothing here trusts the directory: a file that does not lead to a segment of the channel's size and a
// semaphore under the file's own key is refused, and nothing in it is changed.
#pragma once

#include <array>
#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "veskrt/command_handler.h"

namespace veskctl {

struct Command {
  std::int32_t code = 0;
  std::array<std::int32_t, 4> parameters{};
  std::string payload; // at most VESK_COMMAND_PAYLOAD_SIZE bytes; the rest of the record is zeros
};

enum class Outcome {
  kDelivered, // the collector has taken every command of the batch
  kNoChannel, // there is none, or its collector is gone
  kNotQueued, // timed out with nothing of the batch in the channel
  kNotTaken,  // timed out with the whole batch in the channel: it is taken when the collector comes to it
  kFailed,    // the system refused something that is there
};

struct Result {
  Outcome outcome = Outcome::kDelivered;
  std::string reason; // what to tell a person; empty when delivered
};

class Deadline {
public:
  explicit Deadline(std::chrono::duration<double> fromNow)
      : end_(Clock::now() + std::chrono::duration_cast<Clock::duration>(fromNow)) {}
  bool passed() const { return Clock::now() >= end_; }

private:
  using Clock = std::chrono::steady_clock;
  Clock::time_point end_;
};

struct Status {
  pid_t collector = 0;      // the process that made the channel; 0 when it cannot be seen from here
  bool alive = false;       // is it still attached?
  bool initialised = false; // false while it is being set up
  std::int32_t pending = 0; // as it stands, also when out of range
  int posts = 0;            // posts of the semaphore that the command thread has not taken
  pid_t lockHolder = 0;     // 0 when nobody holds the lock file's flock
  std::vector<VeskCommandRecord> records;
};

class CommandChannel {
public:
  explicit CommandChannel(std::string directory);
  ~CommandChannel();
  CommandChannel(const CommandChannel&) = delete;
  CommandChannel& operator=(const CommandChannel&) = delete;

  const std::string& path() const { return path_; }

  // The process that made the channel last opened; 0 when it cannot be seen.
  pid_t collector() const;

  // Puts one to five commands into the channel, all or none of them, wakes the collector, and waits until it
  // has taken them.
  Result send(const std::vector<Command>& commands, const Deadline& deadline);

  // Looks without taking the lock, so that the collector is not kept from it. Sets `status` unless there is
  // no channel.
  Result inspect(Status& status);

private:
  std::optional<Result> open();
  void close();
  bool isCurrent() const;
  bool collectorIsAlive() const;
  std::optional<Result> lock(const Deadline& deadline);
  std::optional<Result> enqueue(const std::vector<VeskCommandRecord>& batch, const Deadline& deadline,
                                int& first);
  Result awaitTaken(const VeskCommandRecord& first, int index, const Deadline& deadline);
  bool wakeCollector() const;
  bool nudge() const;
  std::int32_t pending() const;
  pid_t lockHolder() const;

  std::string path_;
  int file_ = -1;
  VeskCommandLockFile names_{}; // what the lock file said when it was opened
  int semaphoreSet_ = -1;
  VeskCommandSegment* segment_ = nullptr;
};

} // namespace veskctl
