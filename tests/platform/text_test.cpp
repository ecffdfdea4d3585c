#include <cerrno>
#include <set>
#include <string>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include "support/child.h"
#include "support/test_host.h"
#include "veskrt/text.h"

namespace {

std::set<int> openDescriptors() {
  std::set<int> open;
  for (int i = 0; i < 64; ++i) {
    if (fcntl(i, F_GETFD) != -1) open.insert(i);
  }
  return open;
}

} // namespace

TEST(Text, FilesStayOffTheStandardDescriptors) {
  for (int closed = 0; closed < 8; ++closed) {
    const test::ChildResult child = test::runInChild([&] {
      for (int i = 0; i < 3; ++i) {
        if ((closed & 1 << i) != 0) close(i);
      }
      const std::set<int> before = openDescriptors();
      int error = -1;
      FILE* const stream = __VeskFopen("file", "w", &error);
      if (stream == nullptr || fileno(stream) <= 2 || __VeskFclose(stream) != 0) _exit(1);
      if (__VeskFopen("no/such/file", "r", &error) != nullptr || error != ENOENT) _exit(2);
      // The second opening fails, of a file that must not be there yet.
      FILE* const fresh = __VeskFopen(("fresh" + std::to_string(closed)).c_str(), "wx", &error);
      if ((fresh == nullptr) != (closed != 0) || (fresh == nullptr && error != EEXIST)) _exit(3);
      if (fresh != nullptr) __VeskFclose(fresh);
      const rlimit none = {3, 3}; // no descriptor above the standard ones is to be had
      setrlimit(RLIMIT_NOFILE, &none);
      if (__VeskFopen("file", "r", &error) != nullptr || error != EMFILE) _exit(4);
      _exit(openDescriptors() == before ? 0 : 5);
    });
    EXPECT_EQ(child.exitStatus, 0) << closed;
  }
}

TEST(Text, ANameThatHasNoBytesOpensNothing) {
  test::startRuntime();
  const wchar_t surrogate[] = {0xD800, 0};
  EXPECT_EQ(__VeskWFopen(surrogate, L"w", nullptr), nullptr);
}

TEST(Text, TheClockGivesEveryCallerAValueOfItsOwn) {
  EXPECT_EQ(__VeskUpdateTimestamp(0), 1u);
  EXPECT_EQ(__VeskUpdateTimestamp(-1), 0u);
  std::set<uint64_t> values[2];
  const auto use = [](std::set<uint64_t>& mine) {
    for (int i = 0; i < 1000; ++i) mine.insert(__VeskUpdateTimestamp(i % 2 * 3));
  };
  std::thread other(use, std::ref(values[0]));
  use(values[1]);
  other.join();
  values[0].merge(values[1]);
  EXPECT_EQ(values[0].size(), 2000u);
  EXPECT_EQ(*values[0].rbegin(), 4000u); // half of the steps count 1, half 3
}
