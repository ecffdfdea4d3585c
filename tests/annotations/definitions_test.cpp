#include <fstream>
#include <sstream>
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

uint64_t addText(VESK_QEL_RECORD* record, uint64_t context) {
  std::ostringstream text;
  text << record->name << ' ' << std::hex << record->address;
  if (record->hasLocation != 0) text << " =" << std::dec << record->location.value;
  EXPECT_EQ(record->expression, nullptr);
  reinterpret_cast<std::vector<std::string>*>(context)->push_back(text.str());
  return 1;
}

std::vector<std::string> deliver(const char* module, uint64_t base) {
  std::vector<std::string> texts;
  __VeskQELProcessExternalRecords(module, base, addText, &texts);
  return texts;
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

  EXPECT_EQ(test::logged("<!-- qel_file_parser: Unexpected number of annotation arguments: 4 -->"), 1u);
  EXPECT_EQ(test::logged("<type>FAIL_OPEN_FILE</type>"), 1u);
  EXPECT_EQ(test::logged("<arg name='filename'>missing</arg>"), 1u);

  EXPECT_EQ(__VeskQELLoadExternalDefinitions("definitions"), 1); // appended
  EXPECT_EQ(deliver("/opt/app/lib.so", 0).size(), 10u);
  __VeskQELCleanupDefinitions();
  EXPECT_TRUE(deliver("/opt/app/lib.so", 0).empty());
}
