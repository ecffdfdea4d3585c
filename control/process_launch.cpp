#include <csignal>

#include <sys/syscall.h>
#include <unistd.h>

#include "veskrt/lock_file.h"
#include "veskrt/log.h"

namespace {

constexpr unsigned kSecondsToLog = 5;

// The log's lock may be held by a thread that the fork did not copy, and never be free again in this process.
void endEvenIfLoggingHangs() {
  std::signal(SIGALRM, SIG_DFL);
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGALRM);
  sigprocmask(SIG_UNBLOCK, &signals, nullptr);
  alarm(kSecondsToLog);
}

[[noreturn]] void failLaunch(const char* path) {
  endEvenIfLoggingHangs();
  __VeskLogInternal(VESKLOG_SEVERITY_ERROR, VESKLOG_MSG_INTERNAL, 0, "failed to launch process %s ", path);
  // Not even _exit, which a host may have put itself in front of to see its process end: this child never was
  // one.
  for (;;) syscall(SYS_exit_group, VESK_LAUNCH_FAILED_STATUS);
}

} // namespace

int32_t __VeskCreateProcess(char** argv) {
  const pid_t child = fork();
  if (child != 0) return child;
  execve(argv[0], argv, nullptr);
  failLaunch(argv[0]);
}
