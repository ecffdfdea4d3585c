#include <atomic>
#include <string>

#include <gtest/gtest.h>

#include "support/child.h"
#include "support/test_host.h"
#include "support/threads.h"
#include "veskrt/options.h"

namespace {

bool logHolds(const char* text) { return test::logged(text) != 0; }

uint32_t newBoolean(uint32_t p) { return __VeskRegisterBooleanOption(p, "-b", "", 5, 0, 1); }
uint32_t newInteger(uint32_t p) { return __VeskRegisterIntegerOption(p, "-i", "", 7, 0, 1); }
uint32_t newString(uint32_t p, const char* n = "-s") {
  return __VeskRegisterStringOption(p, n, "", 0, 42, 0, 1);
}
uint32_t newEnum(uint32_t p) { return __VeskRegisterStringEnumOption(p, "-m", "", nullptr, 0, 1); }
uint32_t newPaths(uint32_t p) { return __VeskRegisterPathOption(p, "-p", "", "x//y///z", 0, 1, 1); }

} // namespace

TEST(Values, AreTheDefaultUntilSet) {
  test::startRuntime();
  const uint32_t p = __VeskGetOptionParser("tool"), s = newString(p), paths = newPaths(p);
  EXPECT_STREQ(__VeskGetPathOptionValue(p, paths), "x/y/z");
  __VeskSetStringOption(p, s, "first and last");
  __VeskSetStringOption(p, s, __VeskGetStringOptionValue(p, s) + 10); // out of what it replaces
  EXPECT_STREQ(__VeskGetStringOptionValue(p, s), "last");
  EXPECT_EQ(__VeskGetStringOptionArgumentValue(p, s, 2), nullptr);
  EXPECT_TRUE(logHolds("<!-- Option -s does not have an argument #2 -->"));

  std::string seen;
  const auto visit = [](const char* text, void* context) {
    *static_cast<std::string*>(context) += std::string(text) + ";";
    return 1 - __VeskSetPathOption(0, 1, "more"); // comes too late for this round
  };
  __VeskProcessAppendOptionValues(p, paths, visit, &seen);
  EXPECT_EQ(seen, "") << "the default is no value";
  for (const char* text : {"a//b", "c//", "a//b"}) __VeskSetStringOption(p, paths, text);
  __VeskProcessAppendOptionValues(p, paths, visit, &seen);
  EXPECT_EQ(seen, "a/b;c/;a/b;");
  EXPECT_EQ(__VeskGetOptionNumberOfArguments(p, paths), 6u);
}

TEST(Misuse, EndsTheProcessAndSaysWhyInTheLog) {
  const auto dies = [](const std::string& text, void (*misuse)(uint32_t parser)) {
    const auto child = test::runInChild([&] {
      test::startRuntime();
      misuse(__VeskGetOptionParser("tool"));
    });
    EXPECT_EQ(child.exitStatus, 255) << text;
    EXPECT_TRUE(logHolds(text.c_str())) << text << test::readFile("vesklog.log");
  };
  dies("name, description and parser handle must be", [](auto p) { newString(p + 1); });
  dies("name starting with '-' must be", [](auto p) { newString(p, "s"); });
  dies("to register an option argument", [](auto p) { __VeskSetValidIntegerOptionArgument(p, 256, 1); });
  dies("append options is not currenctly",
       [](auto p) { __VeskSetValidIntegerOptionArgument(p, newPaths(p), 1); });
  dies("Only string and integer", [](auto p) { __VeskSetValidIntegerOptionArgument(p, newBoolean(p), 1); });
  dies("to get the value of the option", [](auto p) { __VeskSetIntegerOption(p, newBoolean(p), 1); });
  dies("Null string used to set", [](auto p) { __VeskSetStringOption(p, newEnum(p), nullptr); });
  dies("<!-- Invalid argument [fullest, -1] used to set Option -s -->", [](auto p) {
    __VeskSetValidStringOptionArgument(p, newString(p), "full");
    __VeskSetStringOption(p, 0, "fullest");
  });
  dies("<!-- Invalid argument [\"\", 4] used to set Option -i -->", [](auto p) {
    __VeskSetValidIntegerOptionArgument(p, newInteger(p), 5);
    __VeskSetIntegerOption(p, 0, 5);
    __VeskSetIntegerOption(p, 0, 4);
  });
  dies("to check if an option is set -->", [](auto p) { __VeskIsOptionSet(p, 0); });
  dies("if an option is sets -->", [](auto p) { __VeskProcessAppendOptionValues(p, 0, nullptr, nullptr); });
  dies("A iterator can", [](auto p) { __VeskProcessAppendOptionValues(p, newString(p), nullptr, nullptr); });
}

TEST(Tables, HandOutEachSlotOnceToAnyNumberOfThreads) {
  test::startRuntime();
  std::atomic<uint32_t> parsers{0}, options{0}, lost{0};
  test::runThreads(4, [&](int t) {
    for (int i = 0; i < 70; ++i) {
      if (__VeskGetOptionParser("tool") != VESK_INVALID_ID) ++parsers;
      const std::string name = "-" + std::to_string(t) + "." + std::to_string(i);
      if (newString(0, name.c_str()) == VESK_INVALID_ID) continue;
      ++options;
      const char* const argv[] = {name.c_str(), "c"}; // looks through what the others are registering
      if (__VeskParseOptions2(0, 2, argv) != 1) ++lost;
    }
  });
  EXPECT_EQ(parsers, 16u);
  EXPECT_EQ(options, 256u);
  EXPECT_EQ(lost, 0u);
  EXPECT_EQ(newInteger(3), VESK_INVALID_ID);
  for (const uint32_t id : {256u, VESK_INVALID_ID}) EXPECT_EQ(__VeskGetOptionNumberOfArguments(0, id), 0u);
  for (const uint32_t id : {256u, VESK_INVALID_ID}) EXPECT_EQ(__VeskGetOptionFlags(0, id), VESK_INVALID_ID);
  EXPECT_TRUE(logHolds("<!-- Invalid option parser id or option id used to get option flags -->"));
}

TEST(Release, GivesEverythingBackAndDetachesTheOptions) {
  test::startRuntime();
  __VeskGetOptionFlags(0, 0); // creates the log, which takes memory
  const std::string large = "-" + std::string(40000, 'x'), more = large + "x";
  const char* const text = large.c_str(); // each copy is a block of the host's
  int64_t held = 0;
  for (uint32_t p = 0; p < 3; ++p) {
    ASSERT_EQ(__VeskGetOptionParser(text), p);
    bool early = false; // an option that is still being filled answers nobody
    test::host().allow = [&](uint64_t) { return early |= __VeskGetOptionName(p, 2 * p) != nullptr, true; };
    const uint32_t paths = __VeskRegisterPathOption(p, text, text, text, 0, 1, 1), m = newEnum(p);
    EXPECT_FALSE(early);
    test::host().allow = nullptr;
    for (int k = 0; k < 3000; ++k) __VeskSetPathOption(p, paths, k < 3 ? text : "a");
    for (int k = 0; k < 3000; ++k) __VeskSetValidStringOptionArgument(p, m, k < 3 ? text : "b");
    for (int k = 0; k < 3; ++k) __VeskSetStringOption(p, m, text);

    EXPECT_EQ(__VeskReleaseOptionParserHandle(p, "-xxx"), 0) << "only the beginning of the name";
    EXPECT_EQ(__VeskReleaseOptionParserHandle(p, more.c_str()), 1);
    EXPECT_EQ(__VeskReleaseOptionParserHandle(p, more.c_str()), 0);
    if (held == 0) held = test::host().liveBytes; // what slabs keep
    EXPECT_EQ(test::host().liveBytes, held) << p;

    for (const uint32_t parser : {p, VESK_INVALID_ID}) { // the mark of a released option is no parser
      EXPECT_EQ(__VeskGetOptionName(parser, m), nullptr);
      EXPECT_EQ(__VeskParseOptions(parser, 1, &text), 0);
      __VeskLogToolOptionValues(parser);
      __VeskPrintHelp(parser, 1);
    }
  }
}
