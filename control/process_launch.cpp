#include <sys/syscall.h>
#include <unistd.h>

#include "veskrt/lock_file.h"
#include "veskrt/log.h"

int32_t __VeskCreateProcess(char** argv) {
  const pid_t child = fork();
  if (child != 0) return child;
  execve(argv[0], argv, nullptr);
  // The log may be written here even if another thread was writing it at the fork: it prepares itself for forks.
  __VeskLogInternal(VESKLOG_SEVERITY_ERROR, VESKLOG_MSG_INTERNAL, 0, "failed to launch process %s ", argv[0]);
  // Not even _exit, which a host may have put itself in front of to see its process end: this child never was one.
  for (;;) syscall(SYS_exit_group, VESK_LAUNCH_FAILED_STATUS);
}
