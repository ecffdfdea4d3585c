#include <cerrno>
#include <clocale>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

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
      if (stream == nullptr || fileno(stream) <= 2) _exit(1);
      if (fputs("text", stream) < 0 || __VeskFclose(stream) != 0) _exit(2);
      if (openDescriptors() != before) _exit(3);
      if (__VeskFopen("no/such/file", "r", &error) != nullptr || error != ENOENT) _exit(4);
      // The second opening fails, of a file that must not be there yet.
      const std::string fresh = "fresh" + std::to_string(closed);
      FILE* const exclusive = __VeskFopen(fresh.c_str(), "wx", &error);
      if ((exclusive == nullptr) != (closed != 0) || (exclusive == nullptr && error != EEXIST)) _exit(5);
      if (exclusive != nullptr) __VeskFclose(exclusive);
      if (openDescriptors() != before) _exit(6);
      // No descriptor above the standard ones is to be had.
      const rlimit none = {3, 3};
      setrlimit(RLIMIT_NOFILE, &none);
      error = 0;
      if (__VeskFopen("file", "r", &error) != nullptr || error != EMFILE) _exit(7);
      if (openDescriptors() != before) _exit(8);
      _exit(0);
    });
    EXPECT_EQ(child.exitStatus, 0) << closed;
    EXPECT_EQ(test::readFile("file"), "text");
  }
}

TEST(Text, CopiesAndPaths) {
  test::startRuntime();
  char buffer[8];
  std::memset(buffer, 'x', sizeof buffer);
  EXPECT_EQ(__VeskStrncpy(buffer, "abcdef", 4), buffer);
  EXPECT_EQ(std::string(buffer, 8), std::string("abc\0xxxx", 8));
  __VeskStrSCncpy(buffer, "a", 6);
  EXPECT_EQ(std::string(buffer, 8), std::string("a\0\0\0\0\0xx", 8));
  __VeskStrncpy(buffer, "zz", 0);
  EXPECT_EQ(buffer[0], 'a');
  EXPECT_EQ(__VeskSnprintf(buffer, 4, "%d", 123456), 6);
  EXPECT_STREQ(buffer, "123");
  EXPECT_EQ(taken(__VeskStrdup("copy")), "copy");
  EXPECT_EQ(__VeskStrdup(nullptr), nullptr);

  const char* const baseNames[][2] = {{"dir/sub/file.txt", "file.txt"},
                                      {"dir/", ""},
                                      {"file", "file"},
                                      {"/name", "/name"},
                                      {"/", "/"},
                                      {"//", ""},
                                      {"/a/b", "b"},
                                      {"", "(null)"}};
  for (const auto& [path, name] : baseNames) EXPECT_EQ(taken(__VeskGetBaseName(path)), name) << path;
  EXPECT_EQ(taken(__VeskGetSCBaseName("a/b")), "b");

  const char* const sane[][2] = {{"a///b//c", "a/b/c"}, {"///", "/"}, {"/a/", "/a/"}, {"", ""}};
  for (const auto& [given, result] : sane) {
    std::string path = given;
    __VeskSanitizePath(path.data());
    EXPECT_STREQ(path.c_str(), result);
  }
  const char* const stripped[][2] = {{"   \t", ""}, {" a b\n ", "a b"}, {"", ""}, {"\xa0x", "\xa0x"}};
  for (const auto& [given, result] : stripped) {
    std::string text = given;
    EXPECT_STREQ(__VeskStripWhiteSpaces(text.data()), result);
  }
  char mixed[] = "AbC\xc3\x84Z";
  __VeskConvertUtf8ToLowerCase(mixed);
  EXPECT_STREQ(mixed, "abc\xc3\x84z");
  __VeskSanitizePath(nullptr);
  __VeskConvertUtf8ToLowerCase(nullptr);
  EXPECT_EQ(__VeskStripWhiteSpaces(nullptr), nullptr);
}

TEST(Text, ConvertsBetweenMultibyteAndWide) {
  test::startRuntime();
  ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
  wchar_t wide[4] = {9, 9, 9, 9};
  EXPECT_EQ(__VeskUtf8ToWstring(wide, 15, "a\xc3\xa4z"), 0u);
  EXPECT_EQ(wide[0], 9);
  EXPECT_EQ(__VeskUtf8ToWstring(wide, 16, "a\xc3\xa4z"), 3u);
  EXPECT_STREQ(wide, L"a\u00e4z");
  EXPECT_EQ(__VeskUtf8ToWstring(wide, 16, ""), 0u);
  EXPECT_EQ(__VeskUtf8ToWstring(wide, 16, "\xff"), 0u);
  char narrow[5];
  EXPECT_EQ(__VeskWstringToUtf8(narrow, 4, wide), 0u);
  EXPECT_EQ(__VeskWstringToUtf8(narrow, 5, wide), 4u);
  EXPECT_STREQ(narrow, "a\xc3\xa4z");

  wchar_t* const copy = __VeskAllocateAndConvertUtf8ToWstring("\xe2\x82\xac");
  EXPECT_STREQ(copy, L"\u20ac");
  __VeskFreeWstring(copy);
  EXPECT_EQ(taken(__VeskAllocateAndConvertWstringToUtf8(L"")), "");
  EXPECT_EQ(__VeskAllocateAndConvertUtf8ToWstring("\xc3"), nullptr);
  const wchar_t surrogate[] = {0xD800, 0};
  EXPECT_EQ(__VeskAllocateAndConvertWstringToUtf8(surrogate), nullptr);

  int error = -1;
  FILE* const stream = __VeskWFopen(L"\u00e4", L"w", &error);
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(__VeskFprintf(stream, "%d", 7), 1);
  __VeskFclose(stream);
  EXPECT_EQ(test::readFile("\xc3\xa4"), "7");
  EXPECT_EQ(__VeskWFopen(surrogate, L"w", &error), nullptr);
}

TEST(Text, TheClockGivesEveryCallerAValueOfItsOwn) {
  EXPECT_EQ(__VeskUpdateTimestamp(0), 1u);
  EXPECT_EQ(__VeskUpdateTimestamp(-1), 0u);
  EXPECT_EQ(__VeskUpdateTimestamp(-1), UINT64_MAX);
  __VeskUpdateTimestamp(1);
  std::vector<std::vector<uint64_t>> values(4);
  std::vector<std::thread> threads;
  for (auto& mine : values) {
    threads.emplace_back([&mine] {
      for (int i = 0; i < 1000; ++i) mine.push_back(__VeskUpdateTimestamp(i % 2 * 3));
    });
  }
  for (auto& thread : threads) thread.join();
  std::set<uint64_t> distinct;
  for (const auto& mine : values) distinct.insert(mine.begin(), mine.end());
  EXPECT_EQ(distinct.size(), 4000u);
  EXPECT_EQ(*distinct.rbegin(), 8000u); // half of the steps count 1, half 3
}
