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
  for (std::string line; std::getline(stream, line);) {
    if (!line.empty()) lines.push_back(line);
  }
  return lines;
}

// Runs a program of subject.c with the host; it must come out as without. Returns the events.
std::vector<std::string> eventsOf(const std::string& program, const std::string& options = "") {
  const std::string command = kBinaries + "/" + program + " 2>&1";
  const Outcome without = shell("rm -f events*; " + command);
  EXPECT_NE(without.status, 2) << "no such program";
  EXPECT_EQ(shell(observed(options) + command), without);
  return linesOf(test::readFile("events"));
}

long count(const std::vector<std::string>& events, const std::string& beginning) {
  return std::count_if(events.begin(), events.end(),
                       [&beginning](const std::string& line) { return line.starts_with(beginning); });
}

// The program's own heap events, with blocks by the order of their coming, from one release to the next.
std::string ownHeapEvents(const std::vector<std::string>& events) {
  std::string own;
  std::map<std::string, std::size_t> names;
  for (const std::string& line : events) {
    if (!line.ends_with(" program")) continue;
    std::istringstream words(line);
    for (std::string word; words >> word && word != "program";) {
      const bool block = word.starts_with("0x");
      own += (block ? "#" + std::to_string(names.try_emplace(word, names.size() + 1).first->second) : word) +
             " ";
    }
    if (line.starts_with("free")) names.clear();
    own += "; ";
  }
  return own;
}

TEST(Preload, HearsEachHeapFunctionOnce) {
  const auto events = eventsOf("subject heap");
  EXPECT_EQ(ownHeapEvents(events),
            "malloc 1001 #1 ; free #1 ; calloc 1001 #1 ; free #1 ; realloc 1003 #1 ; malloc 9012 #2 ; "
            "realloc #1 #3 50003 0 ; reallocarray #3 #3 1005 0 ; realloc #3 (nil) 9223372036854775807 0 ; "
            "realloc #3 (nil) 0 1 ; posix_memalign 1006 #4 ; free #4 ; aligned_alloc 1024 #1 ; free #1 ; "
            "memalign 1008 #1 ; free #1 ; valloc 1009 #1 ; free #1 ; pvalloc 1010 #1 ; free #1 ; "
            "malloc 1011 #1 ; malloc 4002 #2 ; free #2 ; ");
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
  EXPECT_EQ(std::count_if(events.begin(), events.end(),
                          [](const std::string& line) { return line.ends_with(" program"); }),
            2 * (count(events, "malloc 200") + count(events, "malloc 4002 ")));
}

TEST(Preload, HearsModulesBeforeTheirCodeRuns) {
  const auto events = eventsOf("subject modules");
  const std::string loaded = "module+ " + kBinaries + "/plugins/libsubject_module.so 20";
  EXPECT_EQ(count(events, loaded), 3);
  EXPECT_EQ(count(events, "module- " + kBinaries + "/plugins/libsubject_module.so"), 2);
  const auto constructor = std::find_if(
      events.begin(), events.end(), [](const std::string& line) { return line.starts_with("malloc 777 "); });
  EXPECT_EQ(count({events.begin(), constructor}, loaded), 1);
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
        Case{"quick", "malloc 4001 ", "end quick 22"}, Case{"exitFromThread", "thread+", "end quick 23"},
        Case{"exitWhileBusy", "thread+", "end exit 24"}, Case{"mainLeaves", "malloc 4003 ", "end exit 0"},
        Case{"closesAll", "module+", "end exit 31"}, Case{"smallStack", "malloc 5001 ", "end exit 0"},
        Case{"forkWhileBusy", "malloc 16 ", "end exit 0"},
        Case{"allocateInHandler", "malloc 14 ", "end exit 0"},
        Case{"exitInHandler", "malloc 16 ", "end exit 41"}, Case{"forkInThread", "malloc 16 ", "end exit 0"},
        Case{"spawnsWhileBusy", "malloc 16 ", "end exit 0"}, Case{"loadsStorm", "malloc 6199 ", "end exit 0"},
        Case{"deepRecursion", "malloc 7000 ", "end exit 0"},
        Case{"alternateStack", "malloc 7100 ", "end exit 0"},
        Case{"jumpsOutOfHandlers", "malloc 7300 ", "end exit 0"},
        Case{"staticStorage", "malloc 7400 ", "end exit 0"},
        Case{"veryManyThreads", "malloc 7501 ", "end exit 0"}}) {
    SCOPED_TRACE(each.program);
    const auto events = eventsOf(std::string("subject ") + each.program);
    ASSERT_FALSE(events.empty());
    EXPECT_GT(count(events, each.before), 0);
    EXPECT_EQ(events.back(), each.end);
    EXPECT_EQ(count(events, "end "), 1);
  }
}

TEST(Preload, DeathBySignalIsTheProgramsOwn) { EXPECT_TRUE(eventsOf("subject aborts").empty()); }

TEST(Preload, ForksOfBusyProgramsAreFollowed) {
  eventsOf("subject forkWhileBusy", "-follow");
  EXPECT_EQ(shell("cat events.* | grep -c '^malloc 3003 '").output, "20\n");
}

TEST(Preload, ClosedStandardDescriptorsStayClosed) {
  for (const char* closed : {"<&-", ">&-", "2>&-", "<&- >&-", "<&- >&- 2>&-"}) {
    SCOPED_TRACE(closed);
    const std::string command = kBinaries + "/subject standardFiles " + closed;
    const Outcome without = shell(command + "; echo $?; cat made");
    EXPECT_EQ(shell(observed() + command + "; echo $?; cat made"), without);
    EXPECT_EQ(shell("tail -n 1 events").output.substr(0, 8), "end exit");
    shell("rm -f events");
  }
}

TEST(Preload, EnvironmentIsTheOneThatVeskrunWasGiven) {
  eventsOf("subject ownEnvironment");
  for (const std::string preload : {"LD_PRELOAD=", "LD_PRELOAD=libm.so.6"}) {
    const std::string subject = kBinaries + "/subject ownEnvironment";
    EXPECT_EQ(shell(preload + " " + observed() + subject), shell(preload + " " + subject));
  }
}

TEST(Preload, HeapFunctionsOfTheProgramStandInFront) {
  const auto events = eventsOf("wrapper_subject");
  EXPECT_EQ(count(events, "malloc 60"), 100);
}

} // namespace
