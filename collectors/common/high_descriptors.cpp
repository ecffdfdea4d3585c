#include "collectors/common/high_descriptors.h"

#include <algorithm>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace common {

namespace {

constexpr int kLeftAbove = 32; // below the limit on numbers

} // namespace

HighDescriptors::HighDescriptors() noexcept {
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  const int high = static_cast<int>(std::min<rlim_t>(limit.rlim_cur, kNumbers)) - kLeftAbove;
  const int source = open("/dev/null", O_RDONLY | O_CLOEXEC);
  int number = source;
  for (; number >= 0 && number < high; number = fcntl(source, F_DUPFD_CLOEXEC, 0)) plugged_[number] = true;
  if (number < 0) return;
  first_ = number;
  close(number);
}

HighDescriptors::~HighDescriptors() {
  for (int number = 0; number < kNumbers; ++number) {
    if (plugged_[number]) close(number);
  }
  if (first_ >= 0) fcntl(first_, F_SETFD, FD_CLOEXEC);
}

} // namespace common
