#include <algorithm>
#include <atomic>
#include <ctime>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <printf.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/child.h"
#include "support/test_host.h"
#include "support/threads.h"
#include "veskrt/log.h"
#include "veskrt/memory.h"
#include "veskrt/runtime.h"

namespace {

const std::string kRoot = "\n<log version='2.0' source='veskrt'>";

// A log from the root's tag on, with each element of a time as "T".
std::string log(const std::string& path = "vesklog.log") {
  std::string text = test::readFile(path);
  text.erase(0, std::min(text.size(), text.find("\n<log")));
  for (std::size_t at = 0; (at = text.find("<timestamp>", at)) != std::string::npos; ++at) {
    std::tm time = {};
    const char* const value = text.c_str() + at + 11;
    const char* const end = strptime(value, "%a %b %d %H:%M:%S %Y", &time);
    if (end == value + 24 && text.compare(at + 35, 12, "</timestamp>") == 0) text.replace(at, 47, "T");
  }
  return text;
}

std::string record(int id, const char* source, const char* type, const char* severity,
                   const std::string& content) {
  return "\n\t<msg id='" + std::to_string(id) + "' " + source + ">\n\t\t<type>" + type +
         "</type>\n\t\t<severity>" + severity + "</severity>\n\t\tT" + content + "\n\t</msg>";
}

void note(const char* text) { __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0, "%s", text); }

} // namespace

TEST(Logger, WritesEveryFormOfRecord) {
  test::installHost();
  note("too early");
  EXPECT_EQ(__VeskCreateLogger("tool", "tool.log", 0), 0);
  EXPECT_EQ(__VeskGetLoggerHandle("tool"), -1);
  test::startRuntime();
  EXPECT_EQ(__VeskReopenLogger(), 0);
  __VeskLogInternal(VESKLOG_SEVERITY_ERROR, VESKLOG_MSG_BAD_OPTION, 0, VESKLOG_ARG_STRING, "-foo");
  const char* names[] = {"a", "b", "c", "d", "e", nullptr};
  const LogMessageDefinition definition = {"ALL", names, VESKLOG_FLAG_NO_DISPLAY,
                                           __VeskGetLoggerHandle("tool")};
  const uint32_t all = __VeskRegisterLogMessage2(&definition);
  __VeskLogInternal(VESKLOG_SEVERITY_WARNING, all, 0, VESKLOG_ARG_POINTER, nullptr, VESKLOG_ARG_INT,
                    INT32_MIN, VESKLOG_ARG_STRING, "<&>", VESKLOG_ARG_POINTER, reinterpret_cast<void*>(0xabc),
                    VESKLOG_ARG_STRING, nullptr);
  __VeskLogInternal(VESKLOG_SEVERITY_INFO, all, 1, VESKLOG_ARG_INT, 1, 99, VESKLOG_ARG_INT, 2);
  __VeskLogInternal(3, VESKLOG_MSG_INTERNAL, 1, "%s--%d", "text", 1);
  __VeskLogInternal(VESKLOG_SEVERITY_ERROR, VESKLOG_MSG_OUT_OF_MEMORY, 0, VESKLOG_ARG_STRING, "ignored");
  note("note");
  __VeskLogInternal(VESKLOG_SEVERITY_INFO, 77, 0, "no such type: %s", "x");
  __VeskLogInternal(VESKLOG_SEVERITY_INFO, 77, 0, VESKLOG_ARG_POINTER, nullptr);
  EXPECT_EQ(log(),
            kRoot +
                record(1, "source='veskrt'", "BAD_OPTION", "ERROR", "\n\t\t<arg name='option'>-foo</arg>") +
                record(2, "display='false' source='tool'", "ALL", "WARNING",
                       "\n\t\t<arg name='a'>(nil)</arg>\n\t\t<arg name='b'>-2147483648</arg>"
                       "\n\t\t<arg name='c'>&lt;&amp;&gt;</arg>\n\t\t<arg name='d'>0xabc</arg>"
                       "\n\t\t<arg name='e'></arg>") +
                record(3, "display='false' source='tool'", "ALL", "INFO",
                       "\n\t\t<arg name='a'>1</arg>\n\t\t<arg name='b'></arg>\n\t\t<arg name='c'></arg>"
                       "\n\t\t<arg name='d'></arg>\n\t\t<arg name='e'></arg>") +
                record(4, "display='false' source='veskrt'", "INTERNAL", "INFO", "\n\t\t<!-- text-1 -->") +
                record(5, "source='veskrt'", "OUT_OF_MEMORY", "ERROR", "") +
                "\n\t<!-- note -->\n\t<!-- no such type: x -->\n\t<!--  -->");
}

// One thread is inside the allocator, with its lock held and nothing to be had; another creates the log
// meanwhile.
TEST(Logger, WritesWhileThereIsNoMemory) {
  test::startRuntime();
  const test::ChildResult child = test::runInChild([] {
    bool first = true;
    test::host().allow = [&](std::uint64_t) {
      if (std::exchange(first, false)) {
        std::thread(note, "outside").join();
        note("inside");
      }
      return false;
    };
    __VeskMalloc(0, 100000, 0);
  });
  EXPECT_EQ(child.exitStatus, 255);
  EXPECT_EQ(log(), kRoot + "\n\t<!-- outside -->\n\t<!-- inside -->" +
                       record(1, "source='veskrt'", "OUT_OF_MEMORY", "ERROR", "") +
                       record(2, "source='veskrt'", "ABNORMAL_TERMINATE", "ERROR", ""));
}

// The host is asked for the thread's id in the middle of the creation, and has something to report.
TEST(Logger, AThreadThatCreatesTheLogMayReport) {
  test::startRuntime();
  for (int n = 1; n <= 10; ++n) {
    const test::ChildResult child = test::runInChild([&] {
      static int callsLeft;
      callsLeft = n;
      __VeskSetGetNativeThreadIdProc([] {
        if (--callsLeft == 0) note("inner");
        return test::threadId();
      });
      note("outer");
    });
    EXPECT_EQ(child.exitStatus, 0) << n;
    EXPECT_NE(log().find("<!-- outer -->"), std::string::npos) << log();
  }
}

TEST(Logger, FirstRecordsThatRaceAreAllKept) {
  test::startRuntime();
  constexpr int kThreads = 8;
  constexpr int kRecords = 50;
  std::atomic<int> arrived{0};
  test::runThreads(kThreads, [&](int t) {
    for (++arrived; arrived < kThreads;) std::this_thread::yield();
    for (int i = 0; i < kRecords; ++i) {
      __VeskLogInternal(VESKLOG_SEVERITY_ERROR, VESKLOG_MSG_INTERNAL, 0, "%d/%d", t, i);
    }
  });
  const std::string text = log();
  std::size_t size = kRoot.size();
  for (int n = 0; n < kThreads * kRecords; ++n) {
    const std::string comment =
        "\n\t\t<!-- " + std::to_string(n % kThreads) + "/" + std::to_string(n / kThreads) + " -->";
    const std::string whole = record(n + 1, "source='veskrt'", "INTERNAL", "ERROR", comment);
    EXPECT_NE(text.find(whole.substr(whole.find("source"))), std::string::npos)
        << comment; // with whichever id
    EXPECT_NE(text.find("<msg id='" + std::to_string(n + 1) + "'"), std::string::npos);
    size += whole.size();
  }
  EXPECT_EQ(text.size(), size);
}

TEST(Logger, HandlesRunOutAndGiveTheirNamesBack) {
  test::startRuntime();
  ASSERT_EQ(__VeskCreateLogger("tool", "tool.log", 0), 1);
  std::atomic<int> sum{0};
  test::runThreads(4, [&](int) { // the last five are refused
    for (int i = 0; i < 5; ++i) sum += __VeskGetLoggerHandle("tool");
  });
  EXPECT_EQ(sum, 15 * 16 / 2 - 5);

  const LogMessageDefinition definition = {"MINE", nullptr, 0, 3};
  const uint32_t type = __VeskRegisterLogMessage2(&definition);
  for (const int32_t handle : {0, -1, 16}) EXPECT_EQ(__VeskReleaseLoggerHandle(handle, "veskrt"), 0);
  EXPECT_EQ(__VeskReleaseLoggerHandle(3, "too"), 0);
  std::atomic<int> released{0};
  test::runThreads(3, [&](int t) { // one reads the name while the others release it
    for (int i = 0; i < 20; ++i) {
      if (t != 0) released += __VeskReleaseLoggerHandle(3, "tool-x");
      __VeskLogInternal(VESKLOG_SEVERITY_INFO, type, 0, nullptr);
    }
  });
  EXPECT_EQ(released, 1);
  EXPECT_NE(log("tool.log").find("<msg id='60' source=''>"), std::string::npos);
  EXPECT_EQ(__VeskGetLoggerHandle("tool"), -1);
}

TEST(Logger, ClosesAndReplacesTheFile) {
  test::startRuntime();
  EXPECT_EQ(__VeskCreateLogger("a", nullptr, 0), 0);
  EXPECT_EQ(__VeskCreateLogger("a", "no/such/directory", 0), 0);
  EXPECT_EQ(__VeskCreateLogger("a", "a.log", 0), 1);
  note("1");
  EXPECT_EQ(__VeskReopenLogger(), 1);
  __VeskCloseLogger();
  __VeskCloseLogger();
  note("2");
  EXPECT_EQ(__VeskCreateLogger("b", "b.log", 1), 1);
  note("3");
  EXPECT_EQ(log("a.log"), "\n<log version='2.0' source='a'>\n\t<!-- 1 -->\n</log>\n</log>\n<!-- 2 -->");
  EXPECT_EQ(test::readFile("b.log"), "\n\t<!-- 3 -->");
}

// A child finds the log free, whichever thread was writing a record.
TEST(Logger, AChildOfAForkGoesOnLogging) {
  test::startRuntime();
  note("first");
  constexpr std::size_t kChildren = 40;
  std::atomic<bool> stop{false};
  std::atomic<std::size_t> written{0};
  test::runThreads(3, [&](int t) {
    for (; t != 0 && !stop; ++written) {
      __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_INTERNAL, 0, "parent");
      usleep(10); // the lock is not fair
    }
    for (std::size_t i = 0; t == 0 && i < kChildren; ++i) {
      const pid_t pid = fork();
      if (pid == 0) {
        alarm(20);
        note("child");
        _exit(0);
      }
      int status = -1;
      waitpid(pid, &status, 0);
      EXPECT_EQ(status, 0);
    }
    stop = true;
  });
  EXPECT_EQ(test::logged("\n\t<!-- child -->"), kChildren);
  EXPECT_EQ(test::logged("<msg "), written);
  EXPECT_EQ(test::logged("\n\t\t<!-- parent -->\n\t</msg>"), written);
}

// A conversion of the program's own logs while the library formats a record with it.
TEST(Logger, ARecordFromInsideARecordIsDropped) {
  test::startRuntime();
  register_printf_specifier(
      'W',
      [](FILE* stream, const printf_info*, const void* const*) {
        note("inner");
        return fprintf(stream, "outer");
      },
      [](const printf_info*, size_t, int*, int*) { return 0; });
  const char* volatile format = "%W";
  __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0, format);
  EXPECT_EQ(log(), kRoot + "\n\t<!-- outer -->");
}
