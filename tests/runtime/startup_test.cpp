// Hooks and their fallbacks, start-up from many threads, and the ways a process ends.
#include "veskrt/runtime.h"

#include <cstdlib>

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/child.h"
#include "support/test_host.h"
#include "support/threads.h"
#include "veskrt/log.h"
#include "veskrt/system.h"

TEST(Hooks, EmptyOnesFallBackAndInstalledOnesAnswer) {
  for (int round = 0; round < 2; ++round) { // the second round after the hooks have been emptied again
    EXPECT_EQ(__VeskGetCurrentThreadId(), 0u);
    EXPECT_EQ(__VeskGetNativeThreadId(), 0u);
    EXPECT_EQ(__VeskGetNativeParentThreadId(), 0u);
    EXPECT_EQ(__VeskTlsAlloc(), VESK_INVALID_ID);
    EXPECT_EQ(__VeskTlsFree(3), 0);
    EXPECT_EQ(__VeskTlsGetValue(3), nullptr);
    EXPECT_EQ(__VeskTlsSetValue(3, &round), 0);
    EXPECT_EQ(__VeskGetPid(), -1);

    static void* stored = nullptr;
    __VeskSetGetCurrentThreadIdProc([]() -> uint64_t { return 0x123456789AB; });
    __VeskSetGetNativeParentThreadIdProc([]() -> uint64_t { return 0xFEDCBA9876543210; });
    __VeskSetTlsAllocProc([]() -> uint32_t { return 7; });
    __VeskSetTlsFreeProc([](uint32_t slot) -> int { return slot == 3 ? 42 : 0; });
    __VeskSetTlsGetValueProc([](uint32_t slot) -> void* { return slot == 3 ? stored : nullptr; });
    __VeskSetTlsSetValueProc([](uint32_t, void* value) -> int { return stored = value, -5; });
    __VeskSetGetPidProc([]() -> int32_t { return 99; });
    __veskGetNativeThreadIdProc = []() -> uint32_t { return 0xFFFFFFFE; }; // the word itself, as a host may
    EXPECT_EQ(__VeskGetCurrentThreadId(), 0x123456789ABu);
    EXPECT_EQ(__VeskGetNativeThreadId(), 0xFFFFFFFEu);
    EXPECT_EQ(__VeskGetNativeParentThreadId(), 0xFEDCBA9876543210u);
    EXPECT_EQ(__VeskTlsAlloc(), 7u);
    EXPECT_EQ(__VeskTlsFree(3), 42);
    EXPECT_EQ(__VeskTlsSetValue(3, &round), -5);
    EXPECT_EQ(__VeskTlsGetValue(3), &round);
    EXPECT_EQ(__VeskGetPid(), 99);

    __VeskSetGetCurrentThreadIdProc(nullptr);
    __VeskSetGetNativeThreadIdProc(nullptr);
    __VeskSetGetNativeParentThreadIdProc(nullptr);
    __VeskSetTlsAllocProc(nullptr);
    __VeskSetTlsFreeProc(nullptr);
    __VeskSetTlsGetValueProc(nullptr);
    __VeskSetTlsSetValueProc(nullptr);
    __VeskSetGetPidProc(nullptr);
  }
  EXPECT_EQ(__VeskSetThreadProcs(nullptr, nullptr, nullptr, nullptr), 1);
}

TEST(Startup, RunsOnceForManyThreads) {
  test::installHost();
  EXPECT_EQ(__veskNumberOfProcessors, 1);
  EXPECT_EQ(__veskRtStarted, 0);
  std::atomic<int> whole{0}; // whoever returns finds the work done
  test::runThreads(
      8, [&](int) { whole += __VeskRtStartup() == 0x0D000000u && VESKLOG_MSG_FAIL_READ_FILE_VERBOSE == 13; });
  EXPECT_EQ(whole, 8);
  EXPECT_EQ(__veskNumberOfProcessors, static_cast<int32_t>(__VeskGetNProcs()));
  const LogMessageDefinition next = {"NEXT", nullptr, 0, 0};
  EXPECT_EQ(__VeskRegisterLogMessage2(&next), 14u); // the twelve were registered once
  __VeskRtShutdown();
  EXPECT_EQ(__VeskRtStartup(), VESK_VERSION_CODE);
}

TEST(Exit, HandlerFirstThenStatus255) {
  const auto handled = test::runInChild([] {
    __VeskSetExitHandler([](int32_t code) { dprintf(1, "handler %d", code); });
    __VeskExitHandler(7);
  });
  EXPECT_EQ(handled.exitStatus, 255);
  EXPECT_EQ(handled.output, "handler 7");

  const auto left = test::runInChild([] {
    __VeskSetExitHandler([](int32_t code) { _exit(code); });
    __VeskExitHandler(7);
  });
  EXPECT_EQ(left.exitStatus, 7);
}

TEST(Exit, FatalPathLogsBeforeTheHandlerRuns) {
  test::startRuntime();
  const auto end = test::runInChild([] {
    __VeskSetExitHandler([](int32_t code) {
      dprintf(1, "%d %s", code,
              test::logged("<type>ABNORMAL_TERMINATE</type>") == 1 ? "logged" : "too early");
    });
    __VeskLogFatalToolDefect("bad %s, %d times", "tool", 3);
  });
  EXPECT_EQ(end.exitStatus, 255);
  EXPECT_EQ(end.output, "-1 logged");
  const std::string log = test::readFile("vesklog.log");
  const auto text = log.find("<!-- bad tool, 3 times -->");
  EXPECT_LT(log.find("<type>INTERNAL</type>"), text);
  EXPECT_LT(text, log.find("<type>ABNORMAL_TERMINATE</type>"));
}
