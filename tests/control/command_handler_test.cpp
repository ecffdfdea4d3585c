// The collector's side of the channel: what it creates, refuses, delivers and removes.
#include "veskrt/command_handler.hpp"

#include <cstring>
#include <filesystem>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include "control/collector_process.h"
#include "support/child.h"
#include "support/thread_services.h"

namespace {

using namespace test;
using namespace veskctl;

const char* const kFile = VESK_COMMAND_LOCK_FILE;

VeskCommandLockFile namesIn(const std::string& path) {
  VeskCommandLockFile names{-1, -1};
  const std::string bytes = readFile(path);
  std::memcpy(&names, bytes.data(), std::min(bytes.size(), sizeof names));
  return names;
}

// The channel as another process has it, to write anything into.
struct RawChannel {
  explicit RawChannel(const std::string& path = kFile)
      : names(namesIn(path)), file(open(path.c_str(), O_RDWR)) {
    set = semget(names.semaphoreKey, 1, 0);
    segment = static_cast<VeskCommandSegment*>(shmat(names.segmentIdentifier, nullptr, 0));
  }
  ~RawChannel() {
    shmdt(segment);
    close(file);
  }
  void post() {
    sembuf one = {0, 1, 0};
    semop(set, &one, 1);
  }
  VeskCommandLockFile names;
  int file;
  int set;
  VeskCommandSegment* segment;
};

bool hasSegment(const VeskCommandLockFile& names) {
  shmid_ds segment{};
  return shmctl(names.segmentIdentifier, IPC_STAT, &segment) == 0;
}

bool hasSemaphore(const VeskCommandLockFile& names) { return semget(names.semaphoreKey, 1, 0) != -1; }

Outcome sendNumber(std::int32_t code) {
  return CommandChannel("").send({numberedCommand(code, 0, 1)}, Deadline(std::chrono::seconds(30))).outcome;
}

class CommandHandlerTest : public ChannelTest {
protected:
  Journal& journal = newJournal();
  int registerIn(const char* directory) {
    return __VeskRegisterCommandHandler(directory, recordDelivery, &journal);
  }
};

TEST_F(CommandHandlerTest, CreatesTheChannelAndRemovesAsMuchAsAsked) {
  std::filesystem::create_directories("a/b");
  const int before = open("a/b/zvrcmds.dat", O_RDWR | O_CREAT, 0600);
  ASSERT_EQ(write(before, "from an earlier run", 19), 19);
  close(before);

  installThreadServices();
  ASSERT_EQ(registerIn("a//b"), 1);
  const std::string path = std::string("a/b/") + kFile;
  const RawChannel raw(path);
  EXPECT_EQ(readFile(path).substr(8), "earlier run");
  EXPECT_EQ(raw.names.semaphoreKey, ftok(path.c_str(), 0));
  EXPECT_EQ(semctl(raw.set, 0, GETVAL), 0);
  shmid_ds segment{};
  ASSERT_EQ(shmctl(raw.names.segmentIdentifier, IPC_STAT, &segment), 0);
  EXPECT_EQ(segment.shm_segsz, 21868u);
  EXPECT_EQ(segment.shm_perm.mode & 0777, 0600);
  EXPECT_EQ(raw.segment->initialised, 1u);
  EXPECT_EQ(raw.segment->pending, 0);
  EXPECT_EQ(flock(raw.file, LOCK_EX | LOCK_NB), 0) << "registration has left the lock held";
  flock(raw.file, LOCK_UN);
  EXPECT_EQ(registerIn("a"), 0) << "a second handler";
  EXPECT_EQ(threadsCreated(), 1);

  // A fork of the process may run the same ending, and must not end its parent's channel.
  EXPECT_EQ(statusOf(forkHelper([] {
              runExitCallbacks();
              __VeskUnregisterCommandHandler(VESKCMDHDLR_CLEAN_COMPLETE);
            })),
            0);
  EXPECT_TRUE(hasSegment(raw.names) && hasSemaphore(raw.names));

  runExitCallbacks();
  __VeskShutdownCommandHandler();
  EXPECT_EQ(threadsEnded(), 1);
  __VeskUnregisterCommandHandler(VESKCMDHDLR_CLEAN_PARTIAL);
  EXPECT_TRUE(std::filesystem::exists(path) && hasSemaphore(raw.names));
  EXPECT_EQ(shmctl(raw.names.segmentIdentifier, IPC_STAT, &segment), 0); // attached here, so it lives, but...
  EXPECT_TRUE(segment.shm_perm.mode & SHM_DEST);

  ASSERT_EQ(registerIn("a/b/"), 1) << "after everything has been taken down";
  const VeskCommandLockFile names = namesIn(path);
  __VeskShutdownCommandHandler();
  __VeskUnregisterCommandHandler(7);
  EXPECT_FALSE(std::filesystem::exists(path) || hasSegment(names) || hasSemaphore(names));
}

TEST_F(CommandHandlerTest, RefusesAndLeavesNothing) {
  EXPECT_EQ(registerIn(""), 0) << "without thread services";
  __VeskShutdownCommandHandler();
  __VeskUnregisterCommandHandler(VESKCMDHDLR_CLEAN_COMPLETE);
  installThreadServices();
  EXPECT_EQ(__VeskRegisterCommandHandler("", nullptr, nullptr), 0);
  EXPECT_EQ(registerIn(nullptr), 0);
  EXPECT_EQ(registerIn("missing"), 0);
  std::string longest = ".";
  while (longest.size() < 4083) longest += "/.";
  EXPECT_EQ(registerIn((longest + "/.").c_str()), 0);
  EXPECT_TRUE(std::filesystem::is_empty("."));
  await([] { return threadsEnded() == 4; });

  ASSERT_EQ(registerIn(longest.c_str()), 1) << "the longest directory that fits, after failures";
  EXPECT_EQ(sendNumber(1), Outcome::kDelivered);
  __VeskShutdownCommandHandler();
  EXPECT_EQ(journal.count, 1u);
  __VeskUnregisterCommandHandler(VESKCMDHDLR_CLEAN_COMPLETE);
}

TEST_F(CommandHandlerTest, HoldsTheThreadUntilTheChannelIsThere) {
  const int file = open(kFile, O_RDWR | O_CREAT, 0600);
  ASSERT_EQ(flock(file, LOCK_EX), 0);
  std::thread release([&] {
    usleep(50000);
    flock(file, LOCK_UN);
  });
  installThreadServices(true); // the thread runs well before registration goes on
  ASSERT_EQ(registerIn(""), 1);
  release.join();
  EXPECT_EQ(sendNumber(1), Outcome::kDelivered);
  __VeskShutdownCommandHandler();
  EXPECT_EQ(journal.count, 1u);
  __VeskUnregisterCommandHandler(VESKCMDHDLR_CLEAN_COMPLETE);
  close(file);
}

TEST_F(CommandHandlerTest, KeepsOffTheStandardStreamsAndOutOfStartedPrograms) {
  const ChildResult result = runInChild([&] {
    const int out = dup(1);
    for (int low = 0; low <= 2; ++low) close(low);
    installThreadServices();
    const bool registered = registerIn("") == 1;
    int file = -1;
    for (int each = 0; each < 64; ++each) {
      char target[4096] = {};
      if (readlink(("/proc/self/fd/" + std::to_string(each)).c_str(), target, sizeof target - 1) > 0 &&
          std::strstr(target, kFile) != nullptr) {
        file = each;
      }
    }
    const bool lowFree = fcntl(0, F_GETFD) == -1 && fcntl(1, F_GETFD) == -1 && fcntl(2, F_GETFD) == -1;
    dprintf(out, "%d %d %d %d", registered, file > 2, lowFree, fcntl(file, F_GETFD) & FD_CLOEXEC);
    __VeskShutdownCommandHandler();
    __VeskUnregisterCommandHandler(VESKCMDHDLR_CLEAN_COMPLETE);
  });
  EXPECT_EQ(result.output, "1 1 1 1");
}

TEST_F(CommandHandlerTest, LeavesCommandsPendingWhileTheLockIsBusy) {
  CollectorCommandHandler handler;
  EXPECT_EQ(handler.processCommands(), -1);
  EXPECT_EQ(handler.processHeartbeat(), -1);
  ASSERT_EQ(handler.initializeCommandHandler("", recordDelivery, &journal), 1);
  EXPECT_EQ(handler.initializeCommandHandler("", recordDelivery, &journal), 0);
  RawChannel raw;
  EXPECT_EQ(handler.processCommands(), 0);
  raw.segment->pending = 2;
  ASSERT_EQ(flock(raw.file, LOCK_EX), 0);
  EXPECT_EQ(handler.processCommands(), 1);
  EXPECT_EQ(raw.segment->pending, 2);
  flock(raw.file, LOCK_UN);
  EXPECT_EQ(handler.processCommands(), 2);
  EXPECT_EQ(raw.segment->pending, 0);
  EXPECT_EQ(handler.processHeartbeat(), 2);
  EXPECT_EQ(journal.count, 3u);
  EXPECT_EQ(journal.deliveries[2].code, 69648);

  handler.cleanupCommandHandler(VESKCMDHDLR_CLEAN_COMPLETE);
  EXPECT_FALSE(hasSemaphore(raw.names) || std::filesystem::exists(kFile));
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
    while (!working) std::this_thread::yield();
    usleep(round);
    handler.cleanupCommandHandler(VESKCMDHDLR_CLEAN_COMPLETE);
    worker.join();
  }
}

TEST_F(CommandHandlerTest, SurvivesRubbishAndDelivers) {
  CollectorProcess collector(1);
  {
    RawChannel raw;
    std::uint32_t state = 1;
    for (const std::int32_t pending : {1000000, -7, 6, INT32_MAX, INT32_MIN}) {
      auto* words = reinterpret_cast<std::uint32_t*>(raw.segment);
      for (std::size_t i = 0; i < sizeof *raw.segment / 4; ++i)
        words[i] = state = state * 1103515245u + 12345u;
      raw.segment->pending = pending;
      raw.post();
      await([&] { return std::atomic_ref(raw.segment->pending) == 0; });
    }
    EXPECT_EQ(sendNumber(7), Outcome::kDelivered);
    await([&] { return collector.journal.count >= 16; });
    EXPECT_EQ(collector.journal.deliveries[15].code, 7)
        << "five records for each count above five, and this one";
    EXPECT_TRUE(collector.journal.deliveries[15].intact);
    await([&] { return collector.journal.count >= 17; });
    EXPECT_EQ(collector.journal.deliveries[16].code, VESK_COMMAND_HEARTBEAT);

    guard.remember();
    unlink(kFile);
    shmctl(raw.names.segmentIdentifier, IPC_RMID, nullptr);
    semctl(raw.set, 0, IPC_RMID);
  }
  EXPECT_EQ(sendNumber(8), Outcome::kNoChannel);
  EXPECT_EQ(collector.stop(), 0) << "with everything removed from under it";
}

} // namespace
