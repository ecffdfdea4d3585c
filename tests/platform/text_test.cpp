#include <cerrno>
#include <clocale>
#include <set>
#include <string>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include "support/child.h"
#include "support/test_host.h"
#include "veskrt/memory.h"
#include "veskrt/text.h"

namespace {

std::set<int> openDescriptors() {
  std::set<int> open;
  for (int i = 0; i < 64; ++i) {
    if (fcntl(i, F_GETFD) != -1) open.insert(i);
  }
  return open;
}

std::string taken(char* text) {
  const std::string result = text != nullptr ? text : "(null)";
  __VeskFree(text);
  return result;
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

TEST(Text, CopiesAndPaths) {
  test::startRuntime();
  char buffer[] = "xxxxxxx";
  __VeskStrncpy(buffer, "abcdef", 4);
  EXPECT_EQ(std::string(buffer, 7), std::string("abc\0xxx", 7));
  __VeskStrSCncpy(buffer, "a", 6);
  EXPECT_EQ(std::string(buffer, 7), std::string("a\0\0\0\0\0x", 7));
  EXPECT_EQ(taken(__VeskGetBaseName("dir/sub/file.txt")), "file.txt");
  EXPECT_EQ(taken(__VeskGetBaseName("dir/")), "");
  EXPECT_EQ(taken(__VeskGetBaseName("/name")), "/name");
  EXPECT_EQ(__VeskGetBaseName(""), nullptr);
  char path[] = "///a///b//c/";
  __VeskSanitizePath(path);
  EXPECT_STREQ(path, "/a/b/c/");
  char blank[] = "   \t";
  EXPECT_STREQ(__VeskStripWhiteSpaces(blank), "");
  char text[] = " A b\xc3\x84\n ";
  __VeskConvertUtf8ToLowerCase(text);
  EXPECT_STREQ(__VeskStripWhiteSpaces(text), "a b\xc3\x84");
}

TEST(Text, ConvertsBetweenMultibyteAndWide) {
  test::startRuntime();
  ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
  wchar_t wide[4] = {9, 9, 9, 9};
  EXPECT_EQ(__VeskUtf8ToWstring(wide, 15, "a\xc3\xa4z"), 0u);
  EXPECT_EQ(wide[0], 9);
  EXPECT_EQ(__VeskUtf8ToWstring(wide, 16, "a\xc3\xa4z"), 3u);
  EXPECT_STREQ(wide, L"a\u00e4z");
  EXPECT_EQ(__VeskUtf8ToWstring(wide, 16, "\xff"), 0u);
  char narrow[5];
  EXPECT_EQ(__VeskWstringToUtf8(narrow, 4, wide), 0u);
  EXPECT_EQ(__VeskWstringToUtf8(narrow, 5, wide), 4u);
  EXPECT_EQ(taken(__VeskAllocateAndConvertWstringToUtf8(wide)), narrow);
  EXPECT_EQ(__VeskAllocateAndConvertUtf8ToWstring("\xc3"), nullptr);
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
