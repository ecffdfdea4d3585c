// The collector's side of the channel: what it creates, refuses, delivers and removes.
#include "veskrt/command_handler.hpp"

#include <cstring>
#include <thread>

#include <sys/file.h>

#include "control/collector_process.h"
#include "support/child.h"

namespace {

using namespace test;
using veskctl::Outcome;

const char* const kFile = VESK_COMMAND_LOCK_FILE;

// The channel as another process has it, to write anything into.
struct RawChannel {
  explicit RawChannel(const std::string& path = kFile) : file(open(path.c_str(), O_RDWR | O_CLOEXEC)) {
    const std::string bytes = readFile(path);
    std::memcpy(&names, bytes.data(), std::min(bytes.size(), sizeof names));
    set = semget(names.semaphoreKey, 1, 0);
    segment = static_cast<VeskCommandSegment*>(shmat(names.segmentIdentifier, nullptr, 0));
  }
  ~RawChannel() {
    shmdt(segment);
    close(file);
  }
  bool hasSemaphore() const { return semget(names.semaphoreKey, 1, 0) == set && set != -1; }
  shmid_ds facts() const {
    shmid_ds facts{};
    EXPECT_EQ(shmctl(names.segmentIdentifier, IPC_STAT, &facts), 0); // attached here, so it is there
    return facts;
  }
  bool segmentRemoved() const { return (facts().shm_perm.mode & SHM_DEST) != 0; }

  int file;
  int set;
  VeskCommandLockFile names{-1, -1};
  VeskCommandSegment* segment;
};

Outcome sendNumber(std::int32_t code) {
  veskctl::CommandChannel channel("");
  return sendTo(channel, numberedBatch(code, 1));
}

class CommandHandlerTest : public ChannelTest {
protected:
  Journal& journal = Journal::make();
  int registerIn(const char* directory) {
    return __VeskRegisterCommandHandler(directory, Journal::record, &journal);
  }
};

TEST_F(CommandHandlerTest, CreatesTheChannelAndRemovesAsMuchAsAsked) {
  std::filesystem::create_directories("a/b");
  const std::string path = std::string("a/b/") + kFile;
  std::ofstream(path) << "from an earlier run";
  veskHostInstall();
  ASSERT_EQ(registerIn("a//b"), 1);
  {
    const RawChannel raw(path);
    EXPECT_EQ(readFile(path).substr(8), "earlier run");
    EXPECT_EQ(raw.names.semaphoreKey, ftok(path.c_str(), 0));
    EXPECT_EQ(raw.facts().shm_segsz, 21868u);
    EXPECT_EQ(raw.facts().shm_perm.mode & 0777, 0600);
    EXPECT_TRUE(raw.segment->initialised == 1 && raw.segment->pending == 0 &&
                semctl(raw.set, 0, GETVAL) == 0);
    EXPECT_EQ(flock(raw.file, LOCK_EX | LOCK_NB), 0) << "registration has left the lock held";
    flock(raw.file, LOCK_UN);
    EXPECT_EQ(registerIn("a"), 0) << "a second handler";

    // A fork may run the same ending, and must not end its parent's channel.
    const auto end = [] {
      __VeskShutdownCommandHandler();
      __VeskUnregisterCommandHandler(VESKCMDHDLR_CLEAN_COMPLETE);
    };
    EXPECT_EQ(statusOf(forkHelper(end)), 0);
    EXPECT_TRUE(raw.hasSemaphore() && !raw.segmentRemoved());
    __VeskShutdownCommandHandler();
    __VeskShutdownCommandHandler();
    __VeskUnregisterCommandHandler(VESKCMDHDLR_CLEAN_PARTIAL);
    EXPECT_TRUE(std::filesystem::exists(path) && raw.hasSemaphore() && raw.segmentRemoved());
  }
  ASSERT_EQ(registerIn("a/b/"), 1) << "after everything has been taken down";
  const RawChannel raw(path);
  __VeskShutdownCommandHandler();
  __VeskUnregisterCommandHandler(7);
  EXPECT_FALSE(std::filesystem::exists(path) || raw.hasSemaphore() || !raw.segmentRemoved());
}

TEST_F(CommandHandlerTest, RefusesAndLeavesNothingAndKeepsOffTheStandardStreams) {
  const ChildResult result = runInChild([&] {
    const int withoutServices = registerIn("");
    veskHostInstall();
    std::string longest = ".";
    while (longest.size() < 4083) longest += "/.";
    const int refused = __VeskRegisterCommandHandler("", nullptr, nullptr) + registerIn(nullptr) +
                        registerIn("missing") + registerIn((longest + "/.").c_str()) +
                        std::filesystem::exists(kFile);
    const int out = dup(1);
    for (int low = 0; low <= 2; ++low) close(low);
    const int registered = registerIn(longest.c_str()); // the longest that fits, after failures
    bool lowFree = true;
    for (int low = 0; low <= 2; ++low) lowFree &= fcntl(low, F_GETFD) == -1;
    const bool delivered = sendNumber(1) == Outcome::kDelivered;
    __VeskShutdownCommandHandler();
    __VeskUnregisterCommandHandler(VESKCMDHDLR_CLEAN_COMPLETE);
    dprintf(out, "%d %d %d %d %d %zu", withoutServices, refused, registered, lowFree, delivered,
            journal.count.load());
  });
  EXPECT_EQ(result.output, "0 0 1 1 1 1");
}

TEST_F(CommandHandlerTest, HoldsTheThreadUntilTheChannelIsThere) {
  const int file = open(kFile, O_RDWR | O_CREAT, 0600);
  ASSERT_EQ(flock(file, LOCK_EX), 0);
  std::thread release([&] {
    usleep(100000); // the command thread runs meanwhile
    close(file);
  });
  veskHostInstall();
  ASSERT_EQ(registerIn(""), 1);
  release.join();
  EXPECT_EQ(sendNumber(1), Outcome::kDelivered);
  __VeskShutdownCommandHandler();
  EXPECT_EQ(journal.count, 1u);
  __VeskUnregisterCommandHandler(VESKCMDHDLR_CLEAN_COMPLETE);
}

TEST_F(CommandHandlerTest, LeavesCommandsPendingWhileTheLockIsBusy) {
  CollectorCommandHandler handler;
  EXPECT_TRUE(handler.processCommands() == -1 && handler.processHeartbeat() == -1);
  ASSERT_EQ(handler.initializeCommandHandler("", Journal::record, &journal), 1);
  RawChannel raw;
  EXPECT_EQ(handler.processCommands(), 0);
  raw.segment->pending = 2;
  ASSERT_EQ(flock(raw.file, LOCK_EX), 0);
  EXPECT_EQ(handler.processCommands(), 1);
  EXPECT_EQ(raw.segment->pending, 2);
  flock(raw.file, LOCK_UN);
  EXPECT_EQ(handler.processCommands(), 2);
  EXPECT_EQ(raw.segment->pending, 0);
  EXPECT_EQ(journal.count, 2u);
  handler.cleanupCommandHandler(VESKCMDHDLR_CLEAN_COMPLETE);
}

TEST_F(CommandHandlerTest, IsTakenDownUnderTheHandsOfAThreadAtWork) {
  for (int round = 0; round < 100; ++round) {
    CollectorCommandHandler handler;
    const auto ignore = [](int, int, int, int, int, unsigned char*, void*) {};
    ASSERT_EQ(handler.initializeCommandHandler("", ignore, nullptr), 1);
    RawChannel raw;
    std::atomic<bool> working{false};
    std::thread worker([&] {
      do {
        std::atomic_ref(raw.segment->pending).store(5);
        working = true;
        usleep(10);
      } while (handler.processCommands() != -1);
    });
    await([&] { return working.load(); });
    usleep(round);
    handler.cleanupCommandHandler(VESKCMDHDLR_CLEAN_COMPLETE);
    worker.join();
  }
}

TEST_F(CommandHandlerTest, SurvivesRubbishAndDelivers) {
  CollectorProcess collector(1);
  const Delivery* deliveries = collector.journal.deliveries;
  RawChannel raw;
  for (const std::int32_t pending : {1000000, -7, 6, INT32_MAX, INT32_MIN}) {
    std::memset(raw.segment, 0x5A, sizeof *raw.segment);
    raw.segment->pending = pending;
    sembuf post = {0, 1, 0};
    semop(raw.set, &post, 1);
    await([&] { return std::atomic_ref(raw.segment->pending) == 0; });
  }
  EXPECT_EQ(sendNumber(7), Outcome::kDelivered);
  await(
      [&] { return collector.journal.count >= 17; }); // five for each count above five, this one, a heartbeat
  EXPECT_TRUE(deliveries[14].code == 0x5A5A5A5A && deliveries[15].code == 7 && deliveries[15].intact);
  EXPECT_EQ(deliveries[16].code, 69648);

  shmctl(raw.names.segmentIdentifier, IPC_RMID, nullptr);
  semctl(raw.set, 0, IPC_RMID);
  unlink(kFile);
  EXPECT_EQ(sendNumber(8), Outcome::kNoChannel);
  EXPECT_EQ(collector.stop(), 0) << "with everything removed from under it";
}

} // namespace
