// For tests that open command channels.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include "veskrt/command_handler.h"

namespace test {

// What a child exits with; 128 + the signal that it died of.
inline int statusOf(pid_t child) {
  int status = 0;
  waitpid(child, &status, 0);
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

inline void await(const std::function<bool()>& condition) {
  while (!condition()) usleep(200);
}

// However its process ends, no System V object of a channel below the working directory outlives it: another
// process waits for its end, and removes what lock files lead to. That one is no descendant, since what kills
// a test kills its whole tree.
class ChannelTest : public testing::Test {
protected:
  ChannelTest() {
    int watched[2], swept[2];
    if (pipe2(watched, O_CLOEXEC) != 0 || pipe2(swept, O_CLOEXEC) != 0) std::abort();
    const pid_t launcher = fork();
    if (launcher == 0) {
      if (fork() != 0) _exit(0);
      setsid();
      close(watched[1]);
      sweepAfter(watched[0]);
      _exit(0);
    }
    statusOf(launcher);
    close(watched[0]);
    close(swept[1]);
    watched_ = watched[1];
    swept_ = swept[0];
    alarm(270); // a test that waits for what does not come
  }
  ~ChannelTest() override {
    close(watched_);
    char byte;
    while (read(swept_, &byte, 1) > 0) {
    }
  }

private:
  static void sweepAfter(int watched) {
    char byte;
    while (read(watched, &byte, 1) > 0) {
    }
    for (const auto& each : std::filesystem::recursive_directory_iterator(".")) {
      VeskCommandLockFile names{-1, -1};
      if (each.path().filename() != VESK_COMMAND_LOCK_FILE) continue;
      std::ifstream(each.path(), std::ios::binary).read(reinterpret_cast<char*>(&names), sizeof names);
      shmctl(names.segmentIdentifier, IPC_RMID, nullptr);
      semctl(semget(names.semaphoreKey, 1, 0), 0, IPC_RMID);
    }
  }

  int watched_;
  int swept_;
};

} // namespace test
