// A collector with a command channel in a process of its own, and what keeps tests from leaving System V
// objects behind.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include <gtest/gtest.h>
#include <sys/types.h>

#include "command_channel.h"

namespace test {

// Removes, when it or its process ends in whatever way, the objects that lock files below the working
// directory lead to.
class ChannelGuard {
public:
  ChannelGuard();
  ~ChannelGuard();
  // For a test that deletes lock files: these are found already now.
  void remember();

private:
  int pipe_ = -1;
  pid_t process_ = 0;
};

class ChannelTest : public testing::Test {
protected:
  ChannelGuard guard;
};

// Forks; the child dies with its parent.
pid_t forkHelper(const std::function<void()>& body);

// The status that a child exits with; 128 + the signal that it died of.
int statusOf(pid_t child);

// Waits as long as the test may run for something that has to come true.
void await(const std::function<bool()>& condition);

// A command that carries checksums of itself: number `code`, `index` of a batch of `size`.
veskctl::Command numberedCommand(std::int32_t code, std::int32_t index, std::int32_t size);
std::vector<veskctl::Command> numberedBatch(std::int32_t firstCode, std::int32_t size);

struct Delivery {
  std::int32_t code;
  std::int32_t parameters[4];
  bool intact; // checksums of numberedCommand agree, and the payload is terminated
};

// Memory shared with forked processes.
struct Journal {
  static constexpr std::size_t kCapacity = 1 << 18;
  std::atomic<std::size_t> count{0};
  std::atomic<bool> blocked{false}; // the callback waits while it is set
  Delivery deliveries[kCapacity];
  std::atomic<std::int32_t> next{1}; // numbers for senders
  std::atomic<std::size_t> confirmed{0};
};

class CollectorProcess {
public:
  explicit CollectorProcess(int heartbeatSeconds = 0);
  ~CollectorProcess();
  // Has it shut down and unregister; returns its exit status, 0 if all was well.
  int stop();

  pid_t process = 0;
  Journal& journal;

private:
  int control_ = -1;
};

// A callback with a Journal as its context.
void recordDelivery(int code, int p1, int p2, int p3, int p4, unsigned char* payload, void* journal);
Journal& newJournal();

} // namespace test
