#include <atomic>
#include <string>

#include <gtest/gtest.h>

#include "support/child.h"
#include "support/test_host.h"
#include "support/threads.h"
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
  test::runThreads(4, [&](int) {
    const char* who[] = {"who", nullptr};
    for (int i = 0; i < 32; ++i) {
      const uint32_t id = registerType("MINE", who);
      id == VESK_INVALID_ID ? ++refused : given += id;
      __VeskLogInternal(VESKLOG_SEVERITY_INFO, id + 1, 0, VESKLOG_ARG_STRING, "me");
    }
  });
  EXPECT_EQ(refused, 15);
  EXPECT_EQ(given, (15u + 127u) * 113u / 2);
  __VeskLogInternal(VESKLOG_SEVERITY_INFO, 128, 0, "not a type");
  EXPECT_EQ(test::logged("<type>name</type>"), 1u);
  EXPECT_EQ(test::logged("<arg name='name'>5</arg>"), 1u);
  EXPECT_EQ(test::logged("\n\t<!-- not a type -->"), 1u);
}

TEST(MessageRegistry, RefusesAnInvalidDefinition) {
  test::startRuntime();
  for (const int32_t handle : {-1, 1, 16}) EXPECT_EQ(registerType("T", nullptr, handle), VESK_INVALID_ID);
  EXPECT_EQ(registerType(nullptr), VESK_INVALID_ID);
  EXPECT_EQ(registerType("NEXT"), 14u);
  EXPECT_EQ(test::logged("<!-- A valid message must be specified to register it with VESKRT -->\n\t</msg>"),
            4u);
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
  EXPECT_EQ(test::logged("'veskrt'>\n\t<!--  -->\n\t<msg id='1'"), 1u);
  EXPECT_EQ(test::logged("\n\t\t<!-- defect -->\n\t</msg>\n\t<!--  -->"), 1u);
}
