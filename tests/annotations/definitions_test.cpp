#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/child.h"
#include "support/test_host.h"
#include "veskrt/annotations.h"
#include "veskrt/memory.h"

namespace {

struct Definitions : testing::Test {
  void SetUp() override {
    test::startRuntime();
    __VeskQELLoadExternalDefinitions("missing"); // creates the log
  }
};

struct Delivered {
  std::vector<std::string> texts;
  static uint64_t add(VESK_QEL_RECORD* record, uint64_t context) {
    char text[256];
    std::snprintf(text, sizeof text, "%s %llx", record->name,
                  static_cast<unsigned long long>(record->address));
    std::string whole = text;
    if (record->hasLocation != 0) whole += " =" + std::to_string(record->location.value);
    EXPECT_EQ(record->expression, nullptr);
    reinterpret_cast<Delivered*>(context)->texts.push_back(whole);
    return 1;
  }
};

std::vector<std::string> deliver(const char* module, uint64_t base) {
  Delivered delivered;
  __VeskQELProcessExternalRecords(module, base, Delivered::add, &delivered);
  return delivered.texts;
}

} // namespace

TEST_F(Definitions, FileWithEveryKindOfLine) {
  std::ofstream("definitions", std::ios::binary) << "\n  \t \n"
                                                 << "start \"/opt//app/lib.so\" 1a2b 0x10\r\n"
                                                 << "\"two words\"\t\"/opt/app/lib.so\"   0xFFFFFFFF1 010  \n"
                                                 << "short \"/opt/app/lib.so\" 7\n"
                                                 << "many \"/opt/app/lib.so\" 8 9 10 11\n"
                                                 << "lonely\n"
                                                 << "bare / 1 2\n"
                                                 << "unbalanced \"/opt/app/lib.so 3 4\n"
                                                 << "other \"/opt/app/LIB.so\" 5 6\n"
                                                 << "\n"
                                                 << "last \"/opt/app/lib.so\" c 18446744073709551615";
  EXPECT_EQ(__VeskQELLoadExternalDefinitions("definitions"), 1);
  const std::vector<std::string> expected = {"start 7f0000001a2b =16", "\"two words\" 7f00fffffff1 =8",
                                             "short 7f0000000007", "many 7f0000000008 =9",
                                             "last 7f000000000c =-1"};
  EXPECT_EQ(deliver("//opt/app///lib.so", 0x7F0000000000), expected);
  EXPECT_EQ(deliver("/opt/app/LIB.so", 0).size(), 1u);
  EXPECT_TRUE(deliver("/opt/app", 0).empty());
  EXPECT_TRUE(deliver("", 0).empty());
  __VeskQELProcessExternalRecords("/opt/app/lib.so", 0, nullptr, nullptr);

  const std::string log = test::readFile("vesklog.log");
  EXPECT_NE(log.find("<!-- qel_file_parser: Unexpected number of annotation arguments: 4 -->"),
            std::string::npos);
  EXPECT_NE(log.find("<type>FAIL_OPEN_FILE</type>"), std::string::npos);
  EXPECT_NE(log.find("<arg name='filename'>missing</arg>"), std::string::npos);

  EXPECT_EQ(__VeskQELLoadExternalDefinitions("definitions"), 1); // appended
  EXPECT_EQ(deliver("/opt/app/lib.so", 0).size(), 10u);
  __VeskQELCleanupDefinitions();
  EXPECT_TRUE(deliver("/opt/app/lib.so", 0).empty());
}

TEST_F(Definitions, ParsingTellsWhetherTheLineWasWhole) {
  const auto parse = [](std::string line) {
    VESK_QEL_DEFINITION definition = {};
    return __VeskQELParseDefinition(line.data(), &definition);
  };
  EXPECT_EQ(parse("a \"b\" 1 2"), 1);
  EXPECT_EQ(parse("  a \"b\" 1 2 \n"), 1);
  EXPECT_EQ(parse("a \"\" 1 2"), 1);
  for (const char* line : {"", "  ", "a", "a \"b\"", "a \"b\" 1", "a \"b\" 1 2 3", "a b", "a \" 1 2"}) {
    EXPECT_EQ(parse(line), 0) << line;
  }
}

TEST_F(Definitions, LongLinesAndManyLines) {
  {
    std::ofstream file("long");
    file << std::string(65533, 'n') << " \"/m\" 1 2\n"; // two reads: the name, and a line of its own
    for (int i = 0; i < 200000; ++i) file << "n" << i << " \"/m\" " << std::hex << i << std::dec << " 1\n";
  }
  const int64_t before = test::host().liveBytes;
  EXPECT_EQ(__VeskQELLoadExternalDefinitions("long"), 1);
  const auto texts = deliver("/m", 0);
  ASSERT_EQ(texts.size(), 200000u);
  EXPECT_EQ(texts[199999], "n199999 30d3f =1");
  __VeskQELCleanupDefinitions();
  EXPECT_LT(test::host().liveBytes, before + 6 * 65536); // but for a last slab of each size
}
