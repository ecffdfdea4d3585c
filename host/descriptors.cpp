#include "host/descriptors.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host/events.h"
#include "host/next.h"

namespace veskhost {

namespace {

constexpr unsigned kUsualLimit = 1024;
constexpr unsigned kMost = 32;

// Which file it is that the collector has there; inode 0: none.
struct Kept {
  std::atomic<std::uint64_t> device;
  std::atomic<std::uint64_t> inode;
};

constinit std::atomic<unsigned> firstKept{INT_MAX}; // once the collector has one, it stays
constinit Kept kept[kMost] = {};

constexpr unsigned kWordBits = 8 * sizeof(unsigned long);

// Scripts name descriptors of their own choice, seldom as high as this.
unsigned firstNumber() noexcept {
  const unsigned known = firstKept.load(std::memory_order_relaxed);
  if (known != INT_MAX) return known;
  rlimit limit = {kUsualLimit, kUsualLimit};
  getrlimit(RLIMIT_NOFILE, &limit);
  const unsigned end = limit.rlim_cur < kUsualLimit ? static_cast<unsigned>(limit.rlim_cur) : kUsualLimit;
  return end > 2 * kMost ? end - kMost : end / 2;
}

[[gnu::noinline]] bool isStillKept(Kept& place, int descriptor) noexcept {
  const std::uint64_t inode = place.inode.load(std::memory_order_relaxed);
  if (inode == 0 || !isOwnProcess()) return false;
  struct stat status;
  if (fstat(descriptor, &status) == 0 && status.st_ino == inode &&
      status.st_dev == place.device.load(std::memory_order_relaxed)) {
    return true;
  }
  place.inode.store(0, std::memory_order_relaxed); // the collector has closed it
  return false;
}

bool isCollectors(int descriptor) noexcept {
  const unsigned index = static_cast<unsigned>(descriptor) - firstKept.load(std::memory_order_relaxed);
  return index < kMost && isStillKept(kept[index], descriptor);
}

// From `first` to `last`, around what is the collector's.
int closeRange(unsigned first, unsigned last, int flags) noexcept {
  const unsigned base = firstKept.load(std::memory_order_relaxed);
  for (unsigned number = base < first ? first : base; number < base + kMost && number <= last; ++number) {
    if (!isCollectors(static_cast<int>(number))) continue;
    if (number > first && nextFunctions.closeRange(first, number - 1, flags) != 0) return -1;
    first = number + 1;
  }
  return first > last ? 0 : nextFunctions.closeRange(first, last, flags);
}

} // namespace

CollectorOpensFiles::CollectorOpensFiles() noexcept : first_(firstNumber()) {
  for (unsigned index = 0; index < kMost; ++index) {
    if (fcntl(static_cast<int>(first_ + index), F_GETFD) >= 0) inherited_ |= 1u << index;
  }
  probe_ = open("/", O_PATH | O_CLOEXEC);
  int number = probe_;
  while (number >= 0 && static_cast<unsigned>(number) < first_) {
    taken_[static_cast<unsigned>(number) / kWordBits] |= 1ul << static_cast<unsigned>(number) % kWordBits;
    number = fcntl(probe_, F_DUPFD_CLOEXEC, 0);
  }
  if (number >= 0) nextFunctions.close(number);
}

CollectorOpensFiles::~CollectorOpensFiles() {
  for (unsigned number = 0; number < first_; ++number) {
    const bool taken = taken_[number / kWordBits] >> number % kWordBits & 1;
    if (taken) nextFunctions.close(static_cast<int>(number));
  }
  for (unsigned index = 0; index < kMost; ++index) {
    if ((inherited_ >> index & 1) != 0) continue;
    struct stat status;
    const int descriptor = static_cast<int>(first_ + index);
    const int flags = fcntl(descriptor, F_GETFD);
    if (flags < 0 || fstat(descriptor, &status) != 0) continue;
    fcntl(descriptor, F_SETFD, flags | FD_CLOEXEC);
    kept[index].device.store(status.st_dev, std::memory_order_relaxed);
    kept[index].inode.store(status.st_ino, std::memory_order_relaxed);
  }
  firstKept.store(first_, std::memory_order_relaxed);
}

} // namespace veskhost

using namespace veskhost;

extern "C" {

VESK_API int close(int descriptor) {
  if (!isCollectors(descriptor)) [[likely]]
    return nextFunctions.close(descriptor);
  errno = EBADF;
  return -1;
}

VESK_API int dup2(int from, int to) noexcept {
  if (!isCollectors(to)) [[likely]]
    return nextFunctions.dup2(from, to);
  errno = EBADF;
  return -1;
}

VESK_API int dup3(int from, int to, int flags) noexcept {
  if (!isCollectors(to)) [[likely]]
    return nextFunctions.dup3(from, to, flags);
  errno = EBADF;
  return -1;
}

VESK_API int close_range(unsigned first, unsigned last, int flags) noexcept {
  return closeRange(first, last, flags);
}

VESK_API void closefrom(int first) noexcept {
  const unsigned from = first < 0 ? 0 : static_cast<unsigned>(first);
  if (closeRange(from, UINT_MAX, 0) == 0) return;
  for (long number = from, end = sysconf(_SC_OPEN_MAX); number < end; ++number)
    close(static_cast<int>(number));
}

} // extern "C"
