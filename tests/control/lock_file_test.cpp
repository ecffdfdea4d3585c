#include "veskrt/lock_file.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/child.h"
#include "support/test_host.h"
#include "veskrt/log.h"
#include "veskrt/runtime.h"

namespace {

using namespace test;

TEST(LockFile, HoldsOneRecordAtItsStart) {
  umask(022);
  std::ofstream("file") << "0123456789abcdef";
  const int kept = __VeskCreateLockFile("file", 0);
  char record[9] = "........";
  EXPECT_EQ(__VeskReadLockFile(kept, record), 8);
  EXPECT_STREQ(record, "01234567");
  lseek(kept, 3, SEEK_SET);
  EXPECT_EQ(__VeskWriteLockFile(kept, "ABCDEFGH"), 8);
  EXPECT_EQ(readFile("file"), "ABCDEFGH89abcdef");
  EXPECT_EQ(fcntl(kept, F_GETFL) & (O_ACCMODE | O_DSYNC), O_RDWR | O_DSYNC);

  const int emptied = __VeskCreateLockFile("file", 1);
  EXPECT_EQ(__VeskReadLockFile(emptied, record), 0);
  EXPECT_STREQ(record, "01234567") << "changed, though nothing was read";
  EXPECT_EQ(write(emptied, "abc", 3), 3);
  EXPECT_EQ(__VeskReadLockFile(kept, record), 3);
  EXPECT_STREQ(record, "abc34567");
  EXPECT_EQ(__VeskCloseLockFile(kept), 0);
  EXPECT_EQ(__VeskCloseLockFile(kept), -1);
  EXPECT_EQ(__VeskLockFile(kept), -1);

  const int created = __VeskCreateLockFile("new", 0);
  struct stat status {};
  fstat(created, &status);
  EXPECT_EQ(status.st_mode & 0777, 0755u);
}

TEST(LockFile, KeepsOtherProcessesOut) {
  constexpr int kProcesses = 4, kRounds = 200;
  __VeskSetGetPidProc([] { return static_cast<std::int32_t>(getpid()); });
  std::vector<pid_t> children;
  for (int i = 0; i < kProcesses; ++i) {
    children.push_back(fork());
    if (children.back() != 0) continue;
    const int file = __VeskCreateLockFile("counter", 0);
    for (int round = 0; round < kRounds; ++round) {
      std::uint64_t counter = 0;
      if (__VeskLockFile(file) != 0) _exit(1);
      __VeskReadLockFile(file, &counter);
      ++counter;
      if (round % 16 == 0) usleep(100);
      __VeskWriteLockFile(file, &counter);
      if (__VeskUnlockFile(file) != 0) _exit(1);
    }
    _exit(0);
  }
  for (const pid_t child : children) {
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
  }
  std::uint64_t counter = 0;
  __VeskReadLockFile(__VeskCreateLockFile("counter", 0), &counter);
  EXPECT_EQ(counter, std::uint64_t{kProcesses * kRounds});
}

TEST(LockFile, DefectsEndTheProcess) {
  startRuntime();
  const auto endsWith = [](const char* text, const std::function<void()>& body) {
    EXPECT_EQ(runInChild(body).exitStatus, 255);
    EXPECT_NE(readFile("vesklog.log").find(text), std::string::npos) << text;
    std::remove("vesklog.log");
  };
  endsWith("Could not open lock file no/file (error 2)", [] { __VeskCreateLockFile("no/file", 0); });
  char record[8];
  endsWith("failed to read from lock file", [&] { __VeskReadLockFile(-1, record); });
  endsWith("failed to write to lock file", [&] { __VeskWriteLockFile(-1, record); });
}

TEST(ProcessLaunch, StartsAProgramWithItsArgumentsAndNoEnvironment) {
  const char* argv[] = {
      "/bin/sh", "-c",      "/usr/bin/env | grep -v -e ^PWD= -e ^_= -e ^SHLVL= >env; echo \"$1\" >args",
      "sh",      "one two", nullptr};
  const pid_t child = __VeskCreateProcess(const_cast<char**>(argv));
  ASSERT_GT(child, 0);
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(readFile("args"), "one two\n");
  EXPECT_EQ(readFile("env"), "");
}

TEST(ProcessLaunch, AFailedChildLogsAndIsNoSecondParent) {
  const ChildResult result = runInChild([] {
    startRuntime();
    __VeskCreateLogger("test", "vesklog.log", 0);
    std::atexit([] { std::puts("exit handler"); });
    std::vector<int> descriptors;
    while (descriptors.size() < 900) descriptors.push_back(dup(0));
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
      threads.emplace_back([&] {
        while (!done) std::free(std::malloc(100));
      });
    }
    std::printf("written once;");
    int failed = 0;
    for (int i = 0; i < 20; ++i) {
      const char* argv[] = {"/no/such/program", nullptr};
      const pid_t child = __VeskCreateProcess(const_cast<char**>(argv));
      int status = -1;
      waitpid(child, &status, 0);
      failed += WIFEXITED(status) && WEXITSTATUS(status) == VESK_LAUNCH_FAILED_STATUS;
    }
    done = true;
    for (std::thread& each : threads) each.join();
    std::printf("%d failed", failed);
  });
  EXPECT_EQ(result.output, "written once;20 failed");
  const std::string log = readFile("vesklog.log");
  int records = 0;
  const char* const text = "failed to launch process /no/such/program ";
  for (std::size_t at = 0; (at = log.find(text, at)) != std::string::npos; ++at) ++records;
  EXPECT_EQ(records, 20);
}

// While other threads write the log, a child may be forked in the middle of a record, and must end all the
// same.
TEST(ProcessLaunch, AFailedChildEndsWhateverOtherThreadsHeld) {
  const ChildResult result = runInChild([] {
    startRuntime();
    std::atomic<bool> done{false};
    std::thread writer([&] {
      while (!done) __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0, "a line");
    });
    const char* argv[] = {"/no/such/program", nullptr};
    std::vector<pid_t> children;
    for (int i = 0; i < 6; ++i) children.push_back(__VeskCreateProcess(const_cast<char**>(argv)));
    for (const pid_t child : children) {
      int status = -1;
      waitpid(child, &status, 0);
      const bool logged = WIFEXITED(status) && WEXITSTATUS(status) == VESK_LAUNCH_FAILED_STATUS;
      const bool gaveUp = WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM;
      if (!logged && !gaveUp) std::printf("status %x;", status);
    }
    done = true;
    writer.join();
  });
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.exitStatus, 0);
}

} // namespace
