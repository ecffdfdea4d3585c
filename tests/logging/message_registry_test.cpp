#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/child.h"
#include "support/test_host.h"
#include "veskrt/log.h"
#include "veskrt/runtime.h"

namespace {

uint32_t registerType(const char* type, const char* const* names = nullptr, int32_t handle = 0) {
  const LogMessageDefinition definition = {type, names, 0, handle};
  return __VeskRegisterLogMessage(&definition);
}

} // namespace

TEST(MessageRegistry, BuiltInTypesComeFirstAndTheTableEndsAt128) {
  test::startRuntime();
  const uint32_t builtIn[] = {
      VESKLOG_MSG_ABNORMAL_TERMINATE, VESKLOG_MSG_OUT_OF_MEMORY,         VESKLOG_MSG_COLLECT_MEMORY,
      VESKLOG_MSG_MEMORY_IS_TIGHT,    VESKLOG_MSG_FREEING_RESERVES,      VESKLOG_MSG_BAD_OPTION,
      VESKLOG_MSG_BAD_ARGUMENT,       VESKLOG_MSG_FAIL_CONVERT_FILENAME, VESKLOG_MSG_FAIL_OPEN_FILE,
      VESKLOG_MSG_FAIL_SEEK_FILE,     VESKLOG_MSG_FAIL_READ_FILE,        VESKLOG_MSG_FAIL_READ_FILE_VERBOSE};
  for (uint32_t i = 0; i < std::size(builtIn); ++i) EXPECT_EQ(builtIn[i], i + 2);

  // Everybody gets an identifier of his own, and loggers meet only whole types or none.
  std::atomic<uint32_t> given{0};
  std::atomic<int> refused{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      const char* names[] = {"who", nullptr};
      for (int i = 0; i < 32; ++i) {
        const uint32_t id = registerType("MINE", names);
        if (id == VESK_INVALID_ID) {
          ++refused;
        } else {
          given += id;
          __VeskLogInternal(VESKLOG_SEVERITY_INFO, id + 1, 0, VESKLOG_ARG_STRING, "me");
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(refused, 128 - (128 - 14));
  EXPECT_EQ(given, (14u + 127u) * 114u / 2);
  EXPECT_EQ(registerType("LATE"), VESK_INVALID_ID);
  __VeskLogInternal(VESKLOG_SEVERITY_INFO, 128, 0, "not a type");
  EXPECT_NE(test::readFile("vesklog.log").find("\n\t<!-- not a type -->"), std::string::npos);
}

TEST(MessageRegistry, CopiesTheDefinitionAndRefusesAnInvalidOne) {
  test::startRuntime();
  char type[] = "TYPE";
  char name[] = "name";
  const char* names[] = {name, nullptr};
  const uint32_t id = registerType(type, names);
  EXPECT_EQ(id, 14u);
  type[0] = name[0] = '?';
  names[0] = nullptr;
  __VeskLogInternal(VESKLOG_SEVERITY_INFO, id, 0, VESKLOG_ARG_INT, 5);
  EXPECT_NE(test::readFile("vesklog.log").find("<arg name='name'>5</arg>"), std::string::npos);
  EXPECT_NE(test::readFile("vesklog.log").find("<type>TYPE</type>"), std::string::npos);

  EXPECT_EQ(__VeskRegisterLogMessage2(nullptr), VESK_INVALID_ID);
  EXPECT_EQ(registerType(nullptr), VESK_INVALID_ID);
  for (const int32_t handle : {-1, 1, 16}) EXPECT_EQ(registerType("T", nullptr, handle), VESK_INVALID_ID);
  const std::string log = test::readFile("vesklog.log");
  std::size_t messages = 0;
  for (std::size_t at = 0;
       (at = log.find("<!-- A valid message must be specified to register it with VESKRT -->", at)) !=
       std::string::npos;
       ++at) {
    ++messages;
  }
  EXPECT_EQ(messages, 5u);
  EXPECT_EQ(registerType("NEXT"), 15u);
}

// The twelve do not fit, start-up goes on without them, and what the library reports comes out as comments.
TEST(MessageRegistry, StartsWithoutItsOwnTypesWhenTheTableIsTaken) {
  test::installHost();
  for (int i = 0; i < 120; ++i) ASSERT_NE(registerType("T"), VESK_INVALID_ID);
  const test::ChildResult child = test::runInChild([] {
    test::startRuntime();
    EXPECT_EQ(VESKLOG_MSG_ABNORMAL_TERMINATE, 0u);
    __VeskLogInternal(VESKLOG_SEVERITY_ERROR, VESKLOG_MSG_BAD_OPTION, 0, VESKLOG_ARG_STRING, "-x");
    __VeskLogFatalToolDefect("%s", "defect");
  });
  EXPECT_EQ(child.exitStatus, 255);
  const std::string log = test::readFile("vesklog.log");
  EXPECT_NE(log.find("\n<log version='2.0' source='veskrt'>\n\t<!--  -->\n\t<msg id='1'"), std::string::npos);
  EXPECT_NE(log.find("\n\t\t<!-- defect -->\n\t</msg>\n\t<!--  -->"), std::string::npos);
}
