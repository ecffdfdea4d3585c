// The shared segment as another process may leave it: any count, any bytes, changed again while the callback
// runs. What the callback gets is what lay there at the draining, at most five records of it.
#include <cstring>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include "fuzz/input.h"
#include "fuzz/support.h"
#include "veskrt/command_handler.hpp"

namespace {

using fuzz::require;

struct Channel {
  CollectorCommandHandler handler;
  VeskCommandSegment* segment;
  int lock; // a descriptor of the lock file of its own, as another process has it
};

std::vector<VeskCommandRecord> expected;
std::size_t delivered;

void onCommand(int code, int p1, int p2, int p3, int p4, unsigned char* payload, void* context) {
  require(delivered < expected.size());
  const VeskCommandRecord& record = expected[delivered++];
  const std::int32_t parameters[] = {p1, p2, p3, p4};
  require(code == record.code && std::memcmp(parameters, record.parameters, sizeof parameters) == 0);
  require(std::memcmp(payload, record.payload, sizeof record.payload) == 0);
  require(payload[sizeof record.payload] == 0);
  std::memset(payload, 0xA5, sizeof record.payload + 1); // the callback's to change
  VeskCommandSegment& segment = *static_cast<Channel*>(context)->segment;
  std::memset(static_cast<void*>(&segment), 0x5A, sizeof segment);
  segment.pending = 0;
}

Channel* openChannel() {
  auto* const channel = new Channel{};
  char directory[] = "/tmp/fuzz_command_segment_XXXXXX";
  require(mkdtemp(directory) != nullptr);
  require(channel->handler.initializeCommandHandler(directory, onCommand, channel) == 1);
  const std::string path = std::string(directory) + "/" VESK_COMMAND_LOCK_FILE;
  channel->lock = open(path.c_str(), O_RDWR | O_CLOEXEC);
  VeskCommandLockFile file;
  require(pread(channel->lock, &file, sizeof file, 0) == sizeof file);
  void* const address = shmat(file.segmentIdentifier, nullptr, 0);
  require(address != reinterpret_cast<void*>(-1));
  channel->segment = static_cast<VeskCommandSegment*>(address);
  // Nothing stays behind, however this process ends.
  shmctl(file.segmentIdentifier, IPC_RMID, nullptr);
  semctl(semget(file.semaphoreKey, 1, 0), 0, IPC_RMID);
  unlink(path.c_str());
  rmdir(directory);
  return channel;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Channel* const channel = openChannel();
  VeskCommandSegment& segment = *channel->segment;
  fuzz::Input input(data, size);
  const bool locked = input.takeBool();
  segment.initialised = input.take<std::uint32_t>();
  segment.pending =
      input.takeBool() ? input.takeInRange(-1, VESK_MAX_PENDING_COMMANDS + 1) : input.take<std::int32_t>();
  const std::int32_t pending = segment.pending;
  auto* const bytes = reinterpret_cast<unsigned char*>(segment.records);
  std::memset(bytes, input.take<std::uint8_t>(), sizeof segment.records);
  while (input.left() > 0) {
    const auto at = input.takeInRange<std::size_t>(0, sizeof segment.records - 1);
    const std::string piece = input.takeBytes(std::min<std::size_t>(sizeof segment.records - at, 64));
    std::copy(piece.begin(), piece.end(), bytes + at);
  }

  const int valid = locked || pending < 0 ? 0 : std::min(pending, VESK_MAX_PENDING_COMMANDS);
  expected.assign(segment.records, segment.records + valid);
  delivered = 0;
  if (locked) require(flock(channel->lock, LOCK_EX | LOCK_NB) == 0);
  const int result = channel->handler.processCommands();
  if (locked) require(flock(channel->lock, LOCK_UN) == 0);
  require(delivered == expected.size());
  require(result == (pending == 0 ? 0 : locked ? 1 : 2));
  require(segment.pending == (locked ? pending : 0));
  return 0;
}
