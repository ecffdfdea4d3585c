#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "support/child.h"
#include "support/test_host.h"
#include "veskrt/debug.h"
#include "veskrt/runtime.h"

namespace {

// The text that one message adds to the log.
template <class... Arguments>
std::string dump(uint32_t category, const char* format, Arguments... arguments) {
  const std::size_t before = test::readFile("vesklog.log").size();
  __VeskDbgMessageDumpInternal(category, format, arguments...);
  return test::readFile("vesklog.log").substr(before);
}

// The enabled bits, asked through the categories of the default map that have one each.
uint32_t enabled() {
  uint32_t mask = 0;
  uint32_t bit = 1;
  for (uint32_t category = 1; category < 25; ++category) {
    if (category == 10 || category == 19) continue;
    if (!dump(category, "x").empty()) mask |= bit;
    bit <<= 1;
  }
  return mask;
}

} // namespace

TEST(DebugDump, TheOptionTextSelectsCategories) {
  test::startRuntime();
  EXPECT_EQ(enabled(), 0u);
  const struct {
    const char* text;
    int result;
    uint32_t mask; // afterwards; 0 before, unless the text begins with '+'
  } cases[] = {
      {"", 1, 0},
      {"API,MEM", 1, 0x5},
      {"+no-mem", 1, 0x1},
      {"+0x30", 1, 0x31},
      {"+0x0", 1, 0},
      {"0X1fZ", 1, 0x1f},
      {"0xg", 0, 0},
      {"0x", 0, 0},
      {"0", 0, 0},
      {"010", 0, 0},
      {"0xFFFFFFFF,no-api", 1, 0x3FFFFF}, // one number; what follows it is not read
      {"vEsKcOrE,NO-qel", 1, 0x17F},
      {"vesk", 1, 0x1FF},
      {"veske", 1, 0x1FE00},
      {"d", 1, 0x20000},
      {"dotnet", 1, 0x20000}, // the first of that beginning
      {"dotnet_", 1, 0x20000},
      {"all", 1, 0x3FFFFF},
      {"+no-dotnet_m,no-vesket", 1, 0x3FFFFF & ~0x80000 & ~0x1FE00},
      {"all,none", 1, 0},
      {"all,,api", 1, 0x1}, // an empty token is the first name
      {",", 1, 0},
      {"api,", 1, 0x1},
      {"api,bogus,mem", 0, 0x1},
      {"apix", 0, 0},
      {"api ", 0, 0},
      {"no", 1, 0}, // of NONE
      {"no-", 0, 0},
      {"all,no-x", 0, 0x3FFFFF},
      {"api,0x2", 0, 0x1},
  };
  for (const auto& [text, result, mask] : cases) {
    const bool goesOn = *text == '+';
    if (!goesOn) {
      ASSERT_EQ(__VeskParseDbgDumpOption("0x0"), 1);
    }
    EXPECT_EQ(__VeskParseDbgDumpOption(text + goesOn), result) << text;
    EXPECT_EQ(enabled(), mask) << text;
  }
  EXPECT_EQ(__VeskParseDbgDumpOption(nullptr), 0);
}

TEST(DebugDump, WritesAMessageOfAnEnabledCategory) {
  test::startRuntime();
  __VeskSetGetNativeThreadIdProc([] { return 1234u; });
  __VeskParseDbgDumpOption("0x2");
  EXPECT_EQ(dump(1, "dropped"), "");
  dump(2, "creates the log");
  __VeskParseDbgDumpOption("0x1");
  EXPECT_EQ(dump(1, "text %d", 5), "\n\t<!-- [API ] [1234 ] text 5 -->");
  EXPECT_EQ(dump(10, "core"), "\n\t<!-- [VESKCORE] [1234 ] core -->");
  EXPECT_EQ(dump(1, "%s", std::string(2000, 'x').c_str()),
            "\n\t<!-- [API ] [1234 ] " + std::string(1022, 'x') + " -->");
  __VeskParseDbgDumpOption("all");
  EXPECT_NE(dump(26, "x"), "");
  EXPECT_EQ(dump(0, "x"), ""); // of no bit
  EXPECT_EQ(dump(27, "x"), "");
  EXPECT_EQ(dump(UINT32_MAX, "x"), "");
}

TEST(DebugDump, TakesAToolsOwnMap) {
  test::startRuntime();
  EXPECT_EQ(__VeskDbgRegisterDbgMap(nullptr), 0);
  const DbgMapEntry map[] = {{0x1, "one"}, {uint64_t{1} << 40, "high"}, {0, nullptr}, {0x4, "behind"}};
  EXPECT_EQ(__VeskDbgRegisterDbgMap(map), 1);
  EXPECT_EQ(__VeskParseDbgDumpOption("ONE,high"), 1); // beyond the mask, and no reason to clear it
  EXPECT_EQ(__VeskParseDbgDumpOption("behind"), 0);
  EXPECT_NE(dump(0, "x"), "");
  EXPECT_EQ(dump(1, "x"), "");
  EXPECT_EQ(dump(3, "x"), "");

  DbgMapEntry full[33]; // without an end
  for (auto& entry : full) entry = {0x1, "name"};
  EXPECT_EQ(__VeskDbgRegisterDbgMap(full), 1);
  EXPECT_NE(dump(31, "x"), "");
  EXPECT_EQ(dump(32, "x"), "");

  const DbgMapEntry empty[] = {{0, nullptr}};
  EXPECT_EQ(__VeskDbgRegisterDbgMap(empty), 1);
  EXPECT_EQ(__VeskParseDbgDumpOption("one"), 0);
  EXPECT_EQ(__VeskParseDbgDumpOption("0x1"), 1);
  EXPECT_EQ(dump(0, "x"), "");
}
