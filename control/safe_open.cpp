#include "control/safe_open.h"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

namespace vesk {

namespace {

constexpr int kHighestStandard = 2;

} // namespace

int safeOpen(const char* path, int flags, int mode) {
  const int low = open(path, flags, mode);
  if (low == -1 || low > kHighestStandard) return low;

  // Duplicates fill the low descriptors, so that the second open lands above them.
  int fillers[kHighestStandard + 1];
  int filled = 0;
  int result;
  for (;;) {
    result = dup(low);
    if (result == -1) break;
    if (result > kHighestStandard) {
      close(result);
      result = open(path, flags, mode);
      break;
    }
    fillers[filled++] = result;
  }
  const int error = errno;
  while (filled > 0) close(fillers[--filled]);
  close(low);
  errno = error;
  return result;
}

} // namespace vesk
