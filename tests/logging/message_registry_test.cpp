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

TEST(MessageRegistry, CopiesDefinitionsUntilTheTableIsFull) {
  test::startRuntime();
  EXPECT_EQ(VESKLOG_MSG_ABNORMAL_TERMINATE, 2u);
  EXPECT_EQ(VESKLOG_MSG_FAIL_READ_FILE_VERBOSE, 13u);
  char name[] = "name";
  const char* names[] = {name, nullptr};
  EXPECT_EQ(registerType(name, names), 14u);
  name[0] = '?';
  names[0] = nullptr;
  __VeskLogInternal(VESKLOG_SEVERITY_INFO, 14, 0, VESKLOG_ARG_INT, 5);

  // Everybody gets an identifier of his own, and loggers meet only whole types or none.
  std::atomic<uint32_t> given{0};
  std::atomic<int> refused{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      const char* who[] = {"who", nullptr};
      for (int i = 0; i < 32; ++i) {
        const uint32_t id = registerType("MINE", who);
        id == VESK_INVALID_ID ? ++refused : given += id;
        __VeskLogInternal(VESKLOG_SEVERITY_INFO, id + 1, 0, VESKLOG_ARG_STRING, "me");
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(refused, 15);
  EXPECT_EQ(given, (15u + 127u) * 113u / 2);
  __VeskLogInternal(VESKLOG_SEVERITY_INFO, 128, 0, "not a type");
  const std::string log = test::readFile("vesklog.log");
  EXPECT_NE(log.find("<type>name</type>"), std::string::npos);
  EXPECT_NE(log.find("<arg name='name'>5</arg>"), std::string::npos);
  EXPECT_NE(log.find("\n\t<!-- not a type -->"), std::string::npos);
}

TEST(MessageRegistry, RefusesAnInvalidDefinition) {
  test::startRuntime();
  for (const int32_t handle : {-1, 1, 16}) EXPECT_EQ(registerType("T", nullptr, handle), VESK_INVALID_ID);
  EXPECT_EQ(registerType(nullptr), VESK_INVALID_ID);
  EXPECT_EQ(registerType("NEXT"), 14u);
  const std::string log = test::readFile("vesklog.log");
  EXPECT_NE(log.find("<!-- A valid message must be specified to register it with VESKRT -->\n\t</msg>"),
            std::string::npos);
  EXPECT_NE(log.find("<msg id='4'"), std::string::npos);
}

// The twelve do not fit, start-up goes on without them, and what the library reports comes out as comments.
TEST(MessageRegistry, StartsWithoutItsOwnTypesWhenTheTableIsTaken) {
  test::installHost();
  for (int i = 0; i < 120; ++i) registerType("T");
  const test::ChildResult child = test::runInChild([] {
    test::startRuntime();
    __VeskLogInternal(VESKLOG_SEVERITY_ERROR, VESKLOG_MSG_BAD_OPTION, 0, VESKLOG_ARG_STRING, "-x");
    __VeskLogFatalToolDefect("%s", "defect");
  });
  EXPECT_EQ(child.exitStatus, 255);
  const std::string log = test::readFile("vesklog.log");
  EXPECT_NE(log.find("'veskrt'>\n\t<!--  -->\n\t<msg id='1'"), std::string::npos);
  EXPECT_NE(log.find("\n\t\t<!-- defect -->\n\t</msg>\n\t<!--  -->"), std::string::npos);
}
