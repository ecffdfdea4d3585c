#include <algorithm>
#include <atomic>
#include <ctime>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <printf.h>
#include <sys/wait.h>
#include <unistd.h>

#include "logging/system_writes.h"
#include "support/child.h"
#include "support/test_host.h"
#include "veskrt/log.h"
#include "veskrt/memory.h"
#include "veskrt/runtime.h"

namespace {

// A log from the root's tag on, with each element of a time as "T".
std::string log(const std::string& path = "vesklog.log") {
  std::string text = test::readFile(path);
  text.erase(0, std::min(text.size(), text.find("\n<log")));
  const std::string opening = "<timestamp>";
  const std::string closing = "</timestamp>";
  for (std::size_t at = 0; (at = text.find(opening, at)) != std::string::npos; ++at) {
    std::tm time = {};
    const char* const value = text.c_str() + at + opening.size();
    const char* const end = strptime(value, "%a %b %d %H:%M:%S %Y", &time);
    if (end == value + 24 && closing.compare(0, std::string::npos, end, closing.size()) == 0) {
      text.replace(at, opening.size() + 24 + closing.size(), "T");
    }
  }
  return text;
}

std::string record(int id, const char* source, const char* type, const char* severity,
                   const std::string& content) {
  return "\n\t<msg id='" + std::to_string(id) + "' " + source + ">\n\t\t<type>" + type +
         "</type>\n\t\t<severity>" + severity + "</severity>\n\t\tT" + content + "\n\t</msg>";
}

uint32_t registerType(const char* type, std::vector<const char*> names, int32_t handle, uint32_t flags = 0) {
  names.push_back(nullptr);
  const LogMessageDefinition definition = {type, names.data(), flags, handle};
  return __VeskRegisterLogMessage2(&definition);
}

void runThreads(int count, const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  for (int t = 0; t < count; ++t) threads.emplace_back(body, t);
  for (auto& thread : threads) thread.join();
}

const std::string kRoot = "\n<log version='2.0' source='veskrt'>";

} // namespace

TEST(Logger, WritesEveryFormOfRecord) {
  test::installHost();
  __VeskLogInternal(VESKLOG_SEVERITY_ERROR, VESKLOG_MSG_INTERNAL, 0, "too early");
  EXPECT_EQ(__VeskCreateLogger("tool", "tool.log", 0), 0);
  EXPECT_EQ(__VeskGetLoggerHandle("tool"), -1);
  test::startRuntime();
  EXPECT_EQ(__VeskReopenLogger(), 0);
  __VeskCloseLogger();
  EXPECT_EQ(test::readFile("vesklog.log"), "");

  __VeskLogInternal(VESKLOG_SEVERITY_ERROR, VESKLOG_MSG_BAD_OPTION, 0, VESKLOG_ARG_STRING, "-foo");
  const int32_t tool = __VeskGetLoggerHandle("tool");
  const uint32_t all = registerType("ALL", {"a", "b", "c", "d", "e"}, tool, VESKLOG_FLAG_NO_DISPLAY);
  __VeskLogInternal(VESKLOG_SEVERITY_WARNING, all, 0, VESKLOG_ARG_POINTER, nullptr, VESKLOG_ARG_INT,
                    INT32_MIN, VESKLOG_ARG_STRING, "<&>", VESKLOG_ARG_POINTER, reinterpret_cast<void*>(0xabc),
                    VESKLOG_ARG_STRING, nullptr);
  __VeskLogInternal(VESKLOG_SEVERITY_INFO, all, 1, VESKLOG_ARG_INT, 1, 99, VESKLOG_ARG_INT, 2);
  __VeskLogInternal(3, VESKLOG_MSG_INTERNAL, 1, "%s--%d", "text", 1);
  __VeskLogInternal(VESKLOG_SEVERITY_ERROR, VESKLOG_MSG_OUT_OF_MEMORY, 0, VESKLOG_ARG_STRING, "ignored");
  __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0, "note %d", 1);
  __VeskLogInternal(VESKLOG_SEVERITY_INFO, 77, 0, "no such type: %s", "x");
  __VeskLogInternal(VESKLOG_SEVERITY_INFO, 77, 0, VESKLOG_ARG_POINTER, nullptr);
  __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0, nullptr);
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
                "\n\t<!-- note 1 -->\n\t<!-- no such type: x -->\n\t<!--  -->\n\t<!--  -->");
}

TEST(Logger, ARecordIsOneWriteAndTakesNoMemory) {
  test::startRuntime();
  test::host().allow = [](std::uint64_t) { return false; }; // also for the record that creates the log
  const std::uint64_t allocations = test::host().allocations;
  __VeskLogInternal(VESKLOG_SEVERITY_ERROR, VESKLOG_MSG_OUT_OF_MEMORY, 0, nullptr);
  const std::string longText(70000, 'x');
  const long before = test::systemWrites();
  ASSERT_GE(before, 0);
  __VeskLogInternal(VESKLOG_SEVERITY_ERROR, VESKLOG_MSG_FAIL_READ_FILE_VERBOSE, 0, VESKLOG_ARG_STRING, "a",
                    VESKLOG_ARG_STRING, longText.c_str());
  EXPECT_TRUE(test::systemWrites() == before + 1 || !test::kWritesAreOurs);
  EXPECT_EQ(test::host().allocations, allocations);
  const std::string names = "\n\t\t<arg name='filename'>a</arg>\n\t\t<arg name='srerror'>";
  EXPECT_TRUE(log() == kRoot + record(1, "source='veskrt'", "OUT_OF_MEMORY", "ERROR", "") +
                           record(2, "source='veskrt'", "FAIL_READ_FILE_VERBOSE", "ERROR",
                                  names + std::string(65535, 'x') + "</arg>"));
}

// One thread is inside the allocator with its lock held, and waits for a thread that creates the log.
TEST(Logger, IsCreatedWhileTheAllocatorsLockIsHeld) {
  test::startRuntime();
  const test::ChildResult child = test::runInChild([] {
    bool first = true;
    test::host().allow = [&](std::uint64_t) {
      if (std::exchange(first, false)) {
        std::thread([] {
          __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0, "outside");
        }).join();
        __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0, "inside");
      }
      return true;
    };
    __VeskFree(__VeskMalloc(0, 100000, 0));
  });
  EXPECT_EQ(child.exitStatus, 0);
  EXPECT_EQ(log(), kRoot + "\n\t<!-- outside -->\n\t<!-- inside -->");
}

// The host is asked for the thread's id in the middle of the creation, and has something to report.
TEST(Logger, AThreadThatCreatesTheLogMayReport) {
  test::startRuntime();
  const std::string outer = "\n\t<!-- outer -->";
  int dropped = 0;
  for (int n = 1; n <= 10; ++n) {
    const test::ChildResult child = test::runInChild([&] {
      static int callsLeft;
      callsLeft = n;
      __VeskSetGetNativeThreadIdProc([] {
        if (--callsLeft == 0) __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0, "inner");
        return test::threadId();
      });
      __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0, "outer");
    });
    EXPECT_EQ(child.exitStatus, 0) << n;
    const std::string text = log();
    dropped += text == kRoot + outer;
    EXPECT_TRUE(text == kRoot + outer || text == kRoot + "\n\t<!-- inner -->" + outer) << text;
  }
  EXPECT_GT(dropped, 0);
}

TEST(Logger, FirstRecordsThatRaceAreAllKept) {
  test::startRuntime();
  constexpr int kThreads = 8;
  constexpr int kRecords = 50;
  std::atomic<int> arrived{0};
  runThreads(kThreads, [&](int t) {
    for (++arrived; arrived < kThreads;) std::this_thread::yield();
    for (int i = 0; i < kRecords; ++i) {
      __VeskLogInternal(VESKLOG_SEVERITY_ERROR, VESKLOG_MSG_INTERNAL, 0, "%d/%d", t, i);
    }
  });
  std::string text = log();
  ASSERT_EQ(text.substr(0, kRoot.size()), kRoot);
  text.erase(0, kRoot.size());
  std::set<std::string> comments;
  for (int id = 1; id <= kThreads * kRecords; ++id) { // in the order of the file, and nothing between them
    const std::size_t comment = std::min(text.size(), text.find("\n\t\t<!-- "));
    const std::string found = text.substr(comment, text.find("\n\t</msg>") - comment);
    const std::string whole = record(id, "source='veskrt'", "INTERNAL", "ERROR", found);
    ASSERT_EQ(text.substr(0, whole.size()), whole);
    comments.insert(found);
    text.erase(0, whole.size());
  }
  EXPECT_EQ(text, "");
  EXPECT_EQ(comments.size(), std::size_t{kThreads * kRecords});
}

TEST(Logger, HandlesRunOutAndGiveTheirNamesBack) {
  test::startRuntime();
  ASSERT_EQ(__VeskCreateLogger("tool", "tool.log", 0), 1);
  EXPECT_EQ(__VeskGetLoggerHandle(nullptr), -1);
  std::atomic<int> sum{0};
  std::atomic<int> refused{0};
  runThreads(4, [&](int) {
    for (int i = 0; i < 5; ++i) {
      const int32_t handle = __VeskGetLoggerHandle("tool");
      handle > 0 ? sum += handle : ++refused;
    }
  });
  EXPECT_EQ(sum, 120); // 1 to 15
  EXPECT_EQ(refused, 5);
  EXPECT_EQ(registerType("T", {}, 16), VESK_INVALID_ID);

  const uint32_t type = registerType("MINE", {}, 3);
  for (const int32_t handle : {0, -1, 16}) EXPECT_EQ(__VeskReleaseLoggerHandle(handle, "veskrt"), 0);
  EXPECT_EQ(__VeskReleaseLoggerHandle(3, "too"), 0);
  EXPECT_EQ(__VeskReleaseLoggerHandle(3, nullptr), 0);
  std::atomic<int> released{0};
  runThreads(3, [&](int t) { // one reads the name while the others release it
    for (int i = 0; i < 20; ++i) {
      if (t != 0) {
        released += __VeskReleaseLoggerHandle(3, "tool-x");
      } else {
        __VeskLogInternal(VESKLOG_SEVERITY_INFO, type, 0, nullptr);
      }
    }
  });
  EXPECT_EQ(released, 1);
  __VeskLogInternal(VESKLOG_SEVERITY_INFO, type, 0, nullptr);
  const std::string text = log("tool.log");
  EXPECT_NE(text.find("<msg id='22' source=''>"),
            std::string::npos); // the first was about the type on handle 16
  EXPECT_EQ(__VeskGetLoggerHandle("tool"), -1);
}

TEST(Logger, ClosesContinuesAndReplacesTheFile) {
  test::startRuntime();
  EXPECT_EQ(__VeskCreateLogger(nullptr, "a.log", 0), 0);
  EXPECT_EQ(__VeskCreateLogger("a", nullptr, 0), 0);
  EXPECT_EQ(__VeskCreateLogger("a", "no/such/directory", 0), 0);
  EXPECT_EQ(__VeskCreateLogger("a", "a.log", 0), 1);
  const auto note = [](const char* text) {
    __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0, "%s", text);
  };
  note("1");
  EXPECT_EQ(__VeskReopenLogger(), 1);
  __VeskCloseLogger();
  __VeskCloseLogger();
  note("2");
  EXPECT_EQ(log("a.log"), "\n<log version='2.0' source='a'>\n\t<!-- 1 -->\n</log>\n</log>\n<!-- 2 -->");

  // Every record goes whole to one file or another.
  const std::size_t before = test::readFile("a.log").size();
  std::atomic<std::size_t> written{0};
  runThreads(4, [&](int t) {
    for (int i = 0; i < 10; ++i) {
      if (t == 0) {
        EXPECT_EQ(__VeskCreateLogger("b", "b.log", 1), 1);
      }
      note("3");
      ++written;
    }
  });
  std::string text = test::readFile("b.log");
  EXPECT_EQ((test::readFile("a.log").size() - before) / 11 + text.size() / 12, written);
  for (; !text.empty(); text.erase(0, 12)) ASSERT_EQ(text.substr(0, 12), "\n\t<!-- 3 -->");
}

TEST(Logger, ADefectIsLoggedAndEndsTheProcess) {
  test::startRuntime();
  const test::ChildResult child = test::runInChild([] { __VeskLogFatalToolDefect("defect %d", 7); });
  EXPECT_EQ(child.exitStatus, 255);
  EXPECT_EQ(log(), kRoot + record(1, "source='veskrt'", "INTERNAL", "ERROR", "\n\t\t<!-- defect 7 -->") +
                       record(2, "source='veskrt'", "ABNORMAL_TERMINATE", "ERROR", ""));
}

// A child finds the log free, whichever thread was writing a record.
TEST(Logger, AChildOfAForkGoesOnLogging) {
  test::startRuntime();
  ASSERT_EQ(__VeskCreateLogger("a", "a.log", 0), 1);
  std::atomic<bool> stop{false};
  std::atomic<int> written{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&] {
      for (; !stop; ++written) {
        __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_INTERNAL, 0, "parent");
        usleep(10); // the lock is not fair
      }
    });
  }
  constexpr int kChildren = 40;
  for (int i = 0; i < kChildren; ++i) {
    const pid_t pid = fork();
    if (pid == 0) {
      alarm(20);
      __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0, "child");
      _exit(0);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    EXPECT_EQ(status, 0);
  }
  stop = true;
  for (auto& thread : threads) thread.join();
  const std::string text = test::readFile("a.log");
  const auto count = [&](const std::string& part) {
    int n = 0;
    for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) ++n;
    return n;
  };
  EXPECT_EQ(count("\n\t<!-- child -->\n\t<"), kChildren);
  EXPECT_EQ(count("<msg "), written);
  EXPECT_EQ(count("\n\t\t<!-- parent -->\n\t</msg>"), written);
}

// A conversion of the program's own logs while the library formats a record with it.
TEST(Logger, ARecordFromInsideARecordIsDropped) {
  test::startRuntime();
  register_printf_specifier(
      'W',
      [](FILE* stream, const printf_info*, const void* const*) {
        __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0, "inner");
        return fprintf(stream, "outer");
      },
      [](const printf_info*, size_t, int*, int*) { return 0; });
  const char* volatile format = "%W";
  __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0, format);
  __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0, "next");
  EXPECT_EQ(log(), kRoot + "\n\t<!-- outer -->\n\t<!-- next -->");
}
