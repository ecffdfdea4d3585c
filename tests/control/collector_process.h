// A collector with a command channel in a process of its own, and numbered commands to send to it.
#pragma once

#include <atomic>
#include <csignal>
#include <functional>
#include <vector>

#include <sys/mman.h>
#include <sys/prctl.h>

#include "command_channel.h"
#include "support/channel_test.h"
#include "veskrt/host.h"

namespace test {

// Forks a process that dies with this one.
inline pid_t forkHelper(const std::function<void()>& body) {
  const pid_t process = fork();
  if (process != 0) return process;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  body();
  _exit(0);
}

inline std::int32_t checksum(int code, int index, int size, const void* payload) {
  std::uint32_t hash = static_cast<std::uint32_t>(code) * 31 + static_cast<std::uint32_t>(index) * 7 +
                       static_cast<std::uint32_t>(size);
  for (int i = 0; i < VESK_COMMAND_PAYLOAD_SIZE; ++i) {
    hash = (hash ^ static_cast<const unsigned char*>(payload)[i]) * 16777619u;
  }
  return static_cast<std::int32_t>(hash);
}

// Commands with ascending codes; in the parameters index, size, checksum of the whole, sender (0 to 3).
inline std::vector<veskctl::Command> numberedBatch(int firstCode, int size, int sender = 0) {
  std::vector<veskctl::Command> batch(size);
  for (int i = 0; i < size; ++i) {
    batch[i].code = firstCode + i;
    batch[i].payload.assign(VESK_COMMAND_PAYLOAD_SIZE, static_cast<char>(batch[i].code % 255 + 1));
    batch[i].parameters = {i, size, checksum(batch[i].code, i, size, batch[i].payload.data()), sender};
  }
  return batch;
}

inline veskctl::Outcome sendTo(veskctl::CommandChannel& channel, const std::vector<veskctl::Command>& batch) {
  return channel.send(batch, veskctl::Deadline(std::chrono::seconds(60))).outcome;
}

struct Delivery {
  int code, index, size, sender;
  bool intact; // as numberedBatch has made it, and terminated
};

// What a callback has seen, in memory shared with forked processes.
struct Journal {
  static constexpr std::size_t kCapacity = 1 << 18;
  std::atomic<int> registered{-1};       // what registration returned
  std::atomic<std::size_t> count{0};     // of deliveries
  std::atomic<bool> blocked{false};      // the callback waits while it is set
  std::atomic<int> next{1};              // for senders: a number not used yet
  std::atomic<std::size_t> confirmed{0}; // by senders: batches that were reported as delivered
  Delivery deliveries[kCapacity];

  static Journal& make() {
    void* memory = mmap(nullptr, sizeof(Journal), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return *new (memory) Journal;
  }

  static void record(int code, int p1, int p2, int p3, int p4, unsigned char* payload, void* context) {
    Journal& journal = *static_cast<Journal*>(context);
    await([&] { return !journal.blocked; });
    if (journal.count == kCapacity) std::abort();
    const bool intact = payload != nullptr && p3 == checksum(code, p1, p2, payload) &&
                        payload[VESK_COMMAND_PAYLOAD_SIZE] == 0;
    journal.deliveries[journal.count] = {code, p1, p2, p4, intact};
    ++journal.count;
  }

  // Every command intact, every batch whole, the codes of each sender ascending. Returns how many batches
  // there are.
  std::size_t checkedBatches() const {
    std::size_t batches = 0;
    int last[4] = {};
    for (std::size_t at = 0; at < count; ++batches) {
      const int size = deliveries[at].size;
      for (int i = 0; i < size; ++i, ++at) {
        const Delivery& each = deliveries[at];
        int& before = last[each.sender & 3];
        EXPECT_TRUE(at < count && each.intact && each.index == i && each.size == size) << at;
        EXPECT_TRUE(i == 0 ? each.code > before : each.code == before + 1)
            << each.code << " after " << before;
        if (testing::Test::HasFailure()) return 0;
        before = each.code;
      }
    }
    return batches;
  }
};

class CollectorProcess {
public:
  explicit CollectorProcess(int heartbeatSeconds = 0) {
    int control[2];
    if (pipe2(control, O_CLOEXEC) != 0) std::abort();
    process = forkHelper([&] {
      close(control[1]);
      veskHostInstall();
      journal.registered =
          __VeskRegisterCommandHandlerWithHeartbeat("", Journal::record, &journal, heartbeatSeconds);
      char byte;
      if (read(control[0], &byte, 1) != 0) _exit(2);
      __VeskShutdownCommandHandler();
      __VeskUnregisterCommandHandler(VESKCMDHDLR_CLEAN_COMPLETE);
    });
    close(control[0]);
    control_ = control[1];
    await([&] { return journal.registered != -1; });
    EXPECT_EQ(journal.registered, 1);
  }
  ~CollectorProcess() {
    if (control_ != -1) stop();
  }
  // Has it take the channel down; 0 if all was well.
  int stop() {
    close(control_);
    control_ = -1;
    return statusOf(process);
  }

  Journal& journal = Journal::make();
  pid_t process = 0;

private:
  int control_ = -1;
};

} // namespace test
