// The preloaded host: what the collector hears of programs whose calls are known, none of which may notice.
#include <algorithm>
#include <map>
#include <sstream>
#include <vector>

#include <gtest/gtest.h>

#include "support/child.h"
#include "support/command.h"

namespace {

using test::kBinaries;
using test::observed;
using test::Outcome;
using test::shell;

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// Runs a program of subject.c with the host; it must come out as without. Returns the events.
std::vector<std::string> eventsOf(const std::string& program, const std::string& options = "") {
  const std::string command = kBinaries + "/" + program + " 2>&1";
  const Outcome without = shell(command);
  EXPECT_NE(without.status, 2) << "no such program";
  EXPECT_EQ(shell(observed(options) + command), without);
  return linesOf(test::readFile("events"));
}

long count(const std::vector<std::string>& events, const std::string& beginning) {
  return std::count_if(events.begin(), events.end(),
                       [&beginning](const std::string& line) { return line.starts_with(beginning); });
}

long countEnding(const std::vector<std::string>& events, const std::string& ending) {
  return std::count_if(events.begin(), events.end(),
                       [&ending](const std::string& line) { return line.ends_with(ending); });
}

std::size_t place(const std::vector<std::string>& events, const std::string& beginning) {
  return static_cast<std::size_t>(
      std::find_if(events.begin(), events.end(),
                   [&beginning](const std::string& line) { return line.starts_with(beginning); }) -
      events.begin());
}

// The program's own events, with blocks by the order of their coming.
std::vector<std::string> ownHeapEvents(const std::vector<std::string>& events) {
  std::vector<std::string> own;
  std::map<std::string, int> names;
  for (const std::string& line : events) {
    if (!line.ends_with(" program")) continue;
    std::istringstream words(line);
    std::string renamed;
    for (std::string word; words >> word && word != "program";) {
      if (word.starts_with("0x")) {
        word =
            "#" + std::to_string(names.try_emplace(word, static_cast<int>(names.size()) + 1).first->second);
      }
      renamed += (renamed.empty() ? "" : " ") + word;
    }
    if (renamed.starts_with("free")) names.clear(); // an address may come again
    own.push_back(renamed);
  }
  return own;
}

TEST(Preload, HearsEachHeapFunctionOnce) {
  const auto events = eventsOf("subject heap");
  const std::vector<std::string> expected = {"malloc 1001 #1",
                                             "free #1",
                                             "calloc 1001 #1",
                                             "free #1",
                                             "realloc 1003 #1",
                                             "malloc 9012 #2",
                                             "realloc #1 #3 50003 0",
                                             "reallocarray #3 #3 1005 0",
                                             "realloc #3 (nil) 9223372036854775807 0",
                                             "realloc #3 (nil) 0 1",
                                             "posix_memalign 1006 #4",
                                             "free #4",
                                             "aligned_alloc 1024 #1",
                                             "free #1",
                                             "memalign 1008 #1",
                                             "free #1",
                                             "valloc 1009 #1",
                                             "free #1",
                                             "pvalloc 1010 #1",
                                             "free #1",
                                             "malloc 1011 #1",
                                             "malloc 4002 #2",
                                             "free #2"};
  EXPECT_EQ(ownHeapEvents(events), expected);
  EXPECT_EQ(events.back(), "end exit 5");
}

TEST(Preload, HearsThreadsComeAndGo) {
  const auto events = eventsOf("subject threads");
  EXPECT_EQ(count(events, "thread+"), 7);
  EXPECT_EQ(count(events, "thread-"), 7);
  EXPECT_EQ(count(events, "malloc 2001 "), 5000);
  EXPECT_EQ(count(events, "malloc 2003 "), 1);
  EXPECT_GT(count(events, "malloc 2002 "), 0);
  // Each block that came has gone, also the one that a thread's own destructor gave back.
  EXPECT_EQ(countEnding(events, " program") % 2, 0);
}

TEST(Preload, HearsModulesBeforeTheirCodeRuns) {
  const auto events = eventsOf("subject modules");
  const std::string loaded = "module+ " + kBinaries + "/plugins/libsubject_module.so 20";
  EXPECT_EQ(count(events, loaded), 3);
  EXPECT_EQ(count(events, "module- " + kBinaries + "/plugins/libsubject_module.so"), 2);
  EXPECT_LT(place(events, loaded), place(events, "malloc 777 "));
  EXPECT_EQ(count(events, "malloc 777 "), 2); // the other namespace has a heap of its own
  EXPECT_EQ(count(events, "module+ " + kBinaries + "/subject "), 1);
  EXPECT_EQ(count(events, "module+ [vdso] "), 1);
}

TEST(Preload, ChildrenAreLeftAloneUnlessFollowed) {
  auto events = eventsOf("subject forks");
  EXPECT_EQ(count(events, "malloc 300"), 0);
  EXPECT_EQ(count(events, "end exec"), 2); // the one that failed, and the one that did not
  EXPECT_EQ(events.back(), "end exec 0");
  EXPECT_EQ(shell("ls events.*").output, "");

  events = eventsOf("subject forks", "-follow");
  EXPECT_EQ(shell("grep -l '^malloc 3001 ' events.*; grep -l '^malloc 3002 ' events.*").output,
            shell("grep -l '^fork' $(grep -lE 'end (exit 11|quick 12)' events.*)").output);
  EXPECT_EQ(shell("cat events.* | grep '^end' | sort | uniq -c | sed 's/^ *//'").output,
            "1 end exit 0\n1 end exit 1\n1 end exit 11\n1 end quick 12\n1 end quick 16\n");
}

TEST(Preload, TheEndComesAfterThePrograms) {
  struct Case {
    const char* program;
    const char* before; // an event of the program's own end
    const char* end;
  };
  for (const Case& each :
       {Case{"exits", "malloc 4001 ", "end exit 21"}, Case{"exits", "malloc 4002 ", "end exit 21"},
        Case{"quick", "malloc 4001 ", "end quick 22"}, Case{"exit-from-thread", "thread+", "end quick 23"},
        Case{"exit-while-busy", "thread+", "end exit 24"}, Case{"main-leaves", "malloc 4003 ", "end exit 0"},
        Case{"closes-all", "module+", "end exit 31"}, Case{"small-stack", "malloc 5001 ", "end exit 0"},
        Case{"fork-while-busy", "malloc 16 ", "end exit 0"},
        Case{"allocate-in-handler", "malloc 14 ", "end exit 0"},
        Case{"exit-in-handler", "malloc 16 ", "end exit 41"}}) {
    SCOPED_TRACE(each.program);
    const auto events = eventsOf(std::string("subject ") + each.program);
    ASSERT_FALSE(events.empty());
    EXPECT_GT(count(events, each.before), 0);
    EXPECT_EQ(events.back(), each.end);
    EXPECT_EQ(count(events, "end "), 1);
    shell("rm -f events");
  }
}

TEST(Preload, DeathBySignalIsTheProgramsOwn) {
  for (const char* program : {"aborts", "killed"}) {
    EXPECT_TRUE(eventsOf(std::string("subject ") + program).empty());
  }
}

TEST(Preload, ForksOfBusyProgramsAreFollowed) {
  eventsOf("subject fork-while-busy", "-follow");
  EXPECT_EQ(shell("cat events.* | grep -c '^malloc 3003 '").output, "20\n");
}

TEST(Preload, ClosedStandardDescriptorsStayClosed) {
  for (const char* closed : {"<&-", ">&-", "2>&-", "<&- >&-", "<&- >&- 2>&-"}) {
    SCOPED_TRACE(closed);
    const std::string command = kBinaries + "/subject standard-files " + closed;
    const Outcome without = shell(command + "; echo $?; cat made");
    EXPECT_EQ(shell(observed() + command + "; echo $?; cat made"), without);
    EXPECT_EQ(shell("tail -n 1 events").output.substr(0, 8), "end exit");
    shell("rm -f events");
  }
}

TEST(Preload, EnvironmentIsTheOneThatVeskrunWasGiven) {
  eventsOf("subject environment");
  for (const std::string preload : {"LD_PRELOAD=", "LD_PRELOAD=libm.so.6"}) {
    const std::string subject = kBinaries + "/subject environment";
    EXPECT_EQ(shell(preload + " " + observed() + subject), shell(preload + " " + subject));
  }
}

TEST(Preload, HeapFunctionsOfTheProgramStandInFront) {
  const auto events = eventsOf("wrapper_subject");
  EXPECT_EQ(count(events, "malloc 60"), 100);
}

} // namespace
