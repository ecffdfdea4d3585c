#include "veskrt/lock_file.h"

#include <thread>

#include "control/collector_process.h"
#include "support/child.h"
#include "support/test_host.h"
#include "veskrt/log.h"
#include "veskrt/runtime.h"

namespace {

using namespace test;

TEST(LockFile, HoldsOneRecordAtItsStart) {
  std::ofstream("file") << "0123456789abcdef";
  const int kept = __VeskCreateLockFile("file", 0);
  char record[9] = "........";
  EXPECT_EQ(__VeskReadLockFile(kept, record), 8);
  EXPECT_STREQ(record, "01234567");
  EXPECT_EQ(__VeskWriteLockFile(kept, "ABCDEFGH"), 8);
  EXPECT_EQ(readFile("file"), "ABCDEFGH89abcdef");
  EXPECT_EQ(fcntl(kept, F_GETFL) & (O_ACCMODE | O_DSYNC), O_RDWR | O_DSYNC);

  const int emptied = __VeskCreateLockFile("file", 1);
  EXPECT_EQ(__VeskReadLockFile(emptied, record), 0);
  EXPECT_EQ(write(emptied, "abc", 3), 3);
  EXPECT_EQ(__VeskReadLockFile(kept, record), 3);
  EXPECT_STREQ(record, "abc34567") << "what was not read has changed";
  EXPECT_EQ(__VeskCloseLockFile(kept), 0);
  EXPECT_TRUE(__VeskCloseLockFile(kept) == -1 && __VeskLockFile(kept) == -1);

  startRuntime();
  const auto endsWith = [](const char* text, const std::function<void()>& body) {
    EXPECT_EQ(runInChild(body).exitStatus, 255);
    EXPECT_EQ(logged(text), 1u) << text;
  };
  endsWith("Could not open lock file no/file (error 2)", [] { __VeskCreateLockFile("no/file", 0); });
  endsWith("failed to read from lock file", [&] { __VeskReadLockFile(-1, record); });
  endsWith("failed to write to lock file", [&] { __VeskWriteLockFile(-1, record); });
}

TEST(LockFile, KeepsOtherProcessesOut) {
  constexpr int kProcesses = 3, kRounds = 100;
  __VeskSetGetPidProc([] { return static_cast<std::int32_t>(getpid()); });
  std::uint64_t counter = 0;
  for (int i = 0; i < kProcesses; ++i) {
    if (fork() != 0) continue;
    const int file = __VeskCreateLockFile("counter", 0);
    for (int round = 0; round < kRounds; ++round) {
      if (__VeskLockFile(file) != 0) _exit(1);
      __VeskReadLockFile(file, &counter);
      ++counter;
      if (round % 16 == 0) usleep(100);
      __VeskWriteLockFile(file, &counter);
      if (__VeskUnlockFile(file) != 0) _exit(1);
    }
    _exit(0);
  }
  while (wait(nullptr) > 0) {
  }
  __VeskReadLockFile(__VeskCreateLockFile("counter", 0), &counter);
  EXPECT_EQ(counter, std::uint64_t{kProcesses * kRounds});
}

pid_t launch(std::vector<const char*> argv) {
  argv.push_back(nullptr);
  return __VeskCreateProcess(const_cast<char**>(argv.data()));
}

TEST(ProcessLaunch, StartsAProgramWithItsArgumentsAndNoEnvironment) {
  setenv("MARK", "inherited", 1);
  EXPECT_EQ(statusOf(launch({"/bin/sh", "-c", "echo \"$1:$MARK\" >out; exit 3", "sh", "one two"})), 3);
  EXPECT_EQ(readFile("out"), "one two:\n");
}

// From a process with many descriptors, an exit handler and unwritten output, while another thread writes the
// log: the child may be forked in the middle of a record.
TEST(ProcessLaunch, AFailedChildLogsAndIsNoSecondParent) {
  const ChildResult result = runInChild([] {
    startRuntime();
    __VeskCreateLogger("test", "vesklog.log", 0);
    std::atexit([] { std::puts("exit handler"); });
    for (int i = 0; i < 900; ++i) dup(0);
    std::atomic<bool> done{false};
    std::thread writer([&] {
      for (; !done; usleep(20)) __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0, "a line");
    });
    std::printf("written once;");
    int failed = 0;
    for (int i = 0; i < 100; ++i)
      failed += statusOf(launch({"/no/such/program"})) == VESK_LAUNCH_FAILED_STATUS;
    done = true;
    writer.join();
    std::printf("%d failed, %zu logged", failed, logged("failed to launch process /no/such/program "));
  });
  EXPECT_EQ(result.output, "written once;100 failed, 100 logged");
}

} // namespace
