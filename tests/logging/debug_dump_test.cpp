#include <string>

#include <gtest/gtest.h>

#include "support/child.h"
#include "support/test_host.h"
#include "veskrt/debug.h"
#include "veskrt/runtime.h"

namespace {

// What one message adds to the log.
std::string dump(uint32_t category, const std::string& text = "x") {
  const std::size_t before = test::readFile("vesklog.log").size();
  __VeskDbgMessageDumpInternal(category, "%s", text.c_str());
  return test::readFile("vesklog.log").substr(before);
}

// The enabled bits, asked through the categories of the default map that have one each.
uint32_t enabled() {
  uint32_t mask = 0;
  uint32_t bit = 1;
  for (uint32_t category = 1; category < 25; ++category) {
    if (category == 10 || category == 19) continue;
    if (!dump(category).empty()) mask |= bit;
    bit <<= 1;
  }
  return mask;
}

} // namespace

TEST(DebugDump, TheOptionTextSelectsCategories) {
  test::startRuntime();
  // Nothing is enabled before, unless the text begins with '+', which is not part of it.
  const auto parsed = [](const char* text, int result) {
    const bool goesOn = *text == '+';
    if (!goesOn) __VeskParseDbgDumpOption("0x0");
    EXPECT_EQ(__VeskParseDbgDumpOption(text + goesOn), result) << text;
    return enabled();
  };
  EXPECT_EQ(parsed("0X1fZ", 1), 0x1fu);
  EXPECT_EQ(parsed("0xg", 0), 0u);
  EXPECT_EQ(parsed("010", 0), 0u);
  EXPECT_EQ(parsed("vEsKcOrE,NO-qel", 1), 0x17Fu);
  EXPECT_EQ(parsed("dotnet", 1), 0x20000u); // the first of that beginning
  EXPECT_EQ(parsed("all", 1), 0x3FFFFFu);
  EXPECT_EQ(parsed("+no-dotnet_m,no-vesket", 1), 0x3FFFFFu & ~0x80000u & ~0x1FE00u);
}

TEST(DebugDump, WritesMessagesOfEnabledCategories) {
  test::startRuntime();
  __VeskSetGetNativeThreadIdProc([] { return 1234u; });
  __VeskParseDbgDumpOption("0x3ffffe");
  EXPECT_NE(dump(2), "");
  for (const uint32_t category : {0u, 1u, 27u, UINT32_MAX}) EXPECT_EQ(dump(category), "");
  __VeskParseDbgDumpOption("0x1");
  EXPECT_EQ(dump(1, "text"), "\n\t<!-- [API ] [1234 ] text -->");
  EXPECT_EQ(dump(1, std::string(2000, 'x')), "\n\t<!-- [API ] [1234 ] " + std::string(1022, 'x') + " -->");

  const DbgMapEntry map[] = {{0x1, "one"}, {uint64_t{1} << 40, "high"}, {0, nullptr}, {0x1, "behind"}};
  EXPECT_EQ(__VeskDbgRegisterDbgMap(nullptr), 0);
  EXPECT_EQ(__VeskDbgRegisterDbgMap(map), 1);
  EXPECT_EQ(__VeskParseDbgDumpOption("0x0"), 1);
  EXPECT_EQ(__VeskParseDbgDumpOption("ONE,high"), 1); // beyond the mask, and no reason to clear it
  EXPECT_NE(dump(0), "");
  EXPECT_EQ(dump(1), "");
  EXPECT_EQ(dump(3), "");
}
