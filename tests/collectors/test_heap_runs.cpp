// Real programs under veskrun with the heap collector, and what their result files say.
#include <cstdlib>

#include <sys/wait.h>

#include "collectors/heap_result.h"
#include "support/child.h"

namespace {

namespace fs = std::filesystem;
using test::readResult;
using test::Result;
using test::Stack;

struct Outcome {
  int status;
  std::string out;
  std::string err;
};

Outcome run(const std::string& options, const std::string& program) {
  const std::string command = std::string(VESKRUN) + " " + options + " -- " + program + " >out 2>err";
  const int status = std::system(command.c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, test::readFile("out"), test::readFile("err")};
}

Result profile(const std::string& options, const std::string& what) {
  const Outcome done = run("-out r.xml " + options, std::string(PROGRAM) + " " + what);
  EXPECT_EQ(done.status, 3) << done.err;
  return readResult("r.xml");
}

std::vector<std::string> resultFiles() {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(".")) {
    if (entry.path().extension() == ".xml") names.push_back(entry.path().filename());
  }
  return names;
}

void expectKnownNumbers(Result& result) {
  std::map<std::string, std::uint64_t>& totals = result.totals;
  // leaks 10, temporaries 20, peak 2, reallocations 3 + calloc + 1 + reallocarray, alignments 3 + malloc(0)
  EXPECT_EQ(totals["calls"], 42u);
  EXPECT_EQ(totals["allocatedBytes"], 1000u + 1280 + 150000 + 1030 + 91 + 30 + 15 + 256 + 128 + 96);
  EXPECT_EQ(totals["liveBlocks"], 14u);
  EXPECT_EQ(totals["liveBytes"], 1000u + 91 + 15 + 128 + 96);
  EXPECT_EQ(totals["peakBytes"], 151000u);
  // 20, malloc(10) and realloc(1000), the 30 bytes given back by realloc, malloc(0)
  EXPECT_EQ(totals["temporary"], 24u);
  const std::map<std::string, std::uint64_t> functions = {
      {"malloc", 34},        {"calloc", 1},        {"realloc", 3}, {"reallocarray", 1},
      {"posix_memalign", 1}, {"aligned_alloc", 1}, {"memalign", 1}};
  EXPECT_EQ(result.functions, functions);
  EXPECT_EQ(result.ofSize(100).liveBytes, 1000u);
  EXPECT_EQ(result.ofSize(100).peakBytes, 1000u);
  EXPECT_EQ(result.ofSize(100000).peakBytes, 100000u);
  EXPECT_EQ(result.ofSize(50000).peakBytes, 50000u);
  EXPECT_EQ(result.ofSize(64).temporary, 20u);
  EXPECT_EQ(result.ofSize(1000).liveBlocks, 0u);
  for (const Stack& stack : result.stacks) EXPECT_EQ(stack.modules.at(0), fs::path(PROGRAM).filename());
}

TEST(HeapRuns, CountsAreExact) {
  Result result = profile("-top 5", "known");
  expectKnownNumbers(result);
  EXPECT_EQ(result.end, "exit");
  EXPECT_EQ(result.status, 3);
  const std::string table = test::readFile("err");
  EXPECT_NE(table.find("42 heap calls"), std::string::npos) << table;
  EXPECT_NE(table.find("peak (heap_program)"), std::string::npos) << table;
  EXPECT_NE(table.find("97.7 KiB"), std::string::npos) << table;
  EXPECT_FALSE(fs::exists("vesklog.log"));
  EXPECT_NE(test::readFile("r.log").find("</log>"), std::string::npos);
}

TEST(HeapRuns, ThreadsReleaseEachOthersBlocks) {
  Result result = profile("", "threads");
  const Stack& stack = result.ofSize(48);
  EXPECT_EQ(stack.calls, 40000u);
  EXPECT_EQ(stack.liveBlocks, 4000u);
  EXPECT_EQ(stack.liveBytes, 4000u * 48);
}

TEST(HeapRuns, EndsWhileThreadsAreBusy) {
  Result result = profile("", "busy");
  std::uint64_t calls = 0;
  for (const Stack& stack : result.stacks)
    calls += stack.allocatedBytes == 77 * stack.calls ? stack.calls : 0;
  EXPECT_GT(calls, 0u);
  EXPECT_LE(result.totals["liveBlocks"], 64u);
}

// The second module lies where the first one was, with other frames behind the same return addresses. Each
// stack must name its own module and go on into the program.
TEST(HeapRuns, StacksKnowTheModulesOfTheirTime) {
  Result result = profile("", "modules " MODULE_A " " MODULE_B);
  for (const std::uint64_t bytes : {1001u, 2002u, 3003u}) {
    const Stack& stack = result.ofSize(bytes);
    EXPECT_EQ(stack.calls, 3u);
    ASSERT_GE(stack.modules.size(), 3u) << bytes;
    EXPECT_EQ(stack.modules[0], fs::path(bytes == 2002 ? MODULE_B : MODULE_A).filename());
    EXPECT_EQ(stack.modules[1], "heap_program");
    EXPECT_EQ(stack.modules[2], "heap_program");
  }
}

TEST(HeapRuns, DepthCutsStacks) {
  for (const std::size_t depth : {1u, 7u, 25u}) {
    Result result = profile("-depth " + std::to_string(depth), "deep");
    EXPECT_EQ(result.ofSize(11).modules.size(), depth);
    EXPECT_TRUE(result.ofSize(11).cut);
  }
}

TEST(HeapRuns, SignalHandlersHaveStacks) {
  Result result = profile("", "signal");
  const Stack& stack = result.ofSize(13);
  EXPECT_EQ(stack.modules.at(0), "heap_program");
  EXPECT_EQ(std::count(stack.modules.begin(), stack.modules.end(), "heap_program"),
            3); // handler, main, start
}

TEST(HeapRuns, TimelineFollowsTheInterval) {
  Result result = profile("-timeline 50", "slowly");
  const std::size_t samples = result.sampleTimes.size();
  EXPECT_GE(samples, 4u);
  EXPECT_LE(samples, 2 + result.sampleTimes.back() / 50 + 1);
  EXPECT_EQ(profile("-timeline 0", "slowly").sampleTimes.size(), 0u);
}

TEST(HeapRuns, ClosedDescriptorsAndAnotherDirectoryDoNotMatter) {
  Result result = profile("", "closed");
  EXPECT_EQ(result.ofSize(100).liveBytes, 1000u);
  EXPECT_EQ(test::readFile("err"), "");
}

TEST(HeapRuns, ChildrenAreFollowedWhenAsked) {
  EXPECT_EQ(run("", std::string(PROGRAM) + " fork").status, 3);
  ASSERT_EQ(resultFiles().size(), 1u);
  EXPECT_EQ(readResult(resultFiles()[0]).ofSize(300).liveBytes, 300u);
  fs::remove(resultFiles()[0]);

  EXPECT_EQ(run("-follow -out f.xml", std::string(PROGRAM) + " fork").status, 3);
  ASSERT_EQ(resultFiles().size(), 2u);
  Result parent = readResult(resultFiles()[0]);
  Result child = readResult(resultFiles()[1]);
  if (parent.stacks.size() < child.stacks.size()) std::swap(parent, child);
  EXPECT_EQ(parent.ofSize(500).liveBytes, 500u);
  EXPECT_EQ(parent.ofSize(300).liveBytes, 300u);
  ASSERT_EQ(child.stacks.size(), 1u); // what it inherited is not its own, and its release is none
  EXPECT_EQ(child.ofSize(7000).liveBytes, 7000u);
  EXPECT_EQ(child.totals["releases"], 0u);
}

TEST(HeapRuns, ChildrenOfBusyProcessesAreExact) {
  EXPECT_EQ(run("-follow -out f.xml", std::string(PROGRAM) + " forks").status, 3);
  ASSERT_EQ(resultFiles().size(), 6u);
  int children = 0;
  for (const std::string& file : resultFiles()) {
    Result result = readResult(file);
    if (result.status == 3) continue;
    ++children;
    EXPECT_EQ(result.totals["calls"], 100u);
    EXPECT_EQ(result.ofSize(19).liveBytes, 1900u);
  }
  EXPECT_EQ(children, 5);
}

TEST(HeapRuns, ProgramsThatReplaceThemselvesLeaveAResultEach) {
  EXPECT_EQ(run("-follow -out f.xml", std::string(PROGRAM) + " exec").status, 3);
  const std::vector<std::string> files = resultFiles();
  ASSERT_EQ(files.size(), 2u);
  for (const std::string& file : files) {
    Result result = readResult(file);
    if (file.find("exec1") != std::string::npos) {
      EXPECT_EQ(result.end, "exec");
      EXPECT_EQ(result.ofSize(900).liveBytes, 900u);
    } else {
      expectKnownNumbers(result);
    }
  }
}

TEST(HeapRuns, WrongOptionsAreToldBeforeTheProgramStarts) {
  fs::create_directory("directory");
  const std::pair<std::string, std::string> cases[] = {{"-nonsense", "'-nonsense'"},
                                                       {"-depth 0", "'0'"},
                                                       {"-depth 26", "from 1 to 25"},
                                                       {"-depth 1x", "'1x'"},
                                                       {"-depth", "-depth needs"},
                                                       {"-no-out", "'-no-out'"},
                                                       {"-top -1", "-top needs"},
                                                       {"-out nowhere/r.xml", "nowhere/r.xml: No such"},
                                                       {"-out directory", "Is a directory"},
                                                       {"-log nowhere/l.log", "nowhere/l.log"}};
  for (const auto& [options, message] : cases) {
    const Outcome done = run(options, "/bin/echo started");
    EXPECT_EQ(done.status, 2) << options;
    EXPECT_EQ(done.out, "") << options;
    EXPECT_NE(done.err.find(message), std::string::npos) << options << ": " << done.err;
    EXPECT_EQ(std::count(done.err.begin(), done.err.end(), '\n'), 1) << done.err;
  }
  EXPECT_TRUE(resultFiles().empty());
  const Outcome help = run("-help", "/bin/echo started");
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("-timeline"), std::string::npos);
  EXPECT_EQ(help.out.find("started"), std::string::npos);
}

TEST(HeapRuns, NamesThatXmlCannotCarryAreWrittenSafely) {
  const std::string odd = "a'b<c>&\"\x01\xff\xc3\xa9";
  fs::create_directory(odd);
  fs::copy_file(PROGRAM, odd + "/program");
  ::setenv("ODD", (odd + "/program").c_str(), 1);
  EXPECT_EQ(run("-out r.xml", "\"$ODD\" known").status, 3);
  readResult("r.xml");
  pugi::xml_document document;
  document.load_file("r.xml");
  const std::string path = document.child("heapProfile").child("process").child_value("program");
  EXPECT_NE(path.find("/a'b<c>&\"??\xc3\xa9/program"), std::string::npos) << path;
}

TEST(HeapRuns, ARealProgramAddsUp) {
  const std::string script =
      "'my %h; $h{$_} = \"v$_\" for 1..20000; delete $h{$_} for 1..5000; print scalar keys %h'";
  EXPECT_EQ(run("-out r.xml -top 3", "perl -e " + script).status, 0);
  EXPECT_EQ(test::readFile("out"), "15000");
  Result result = readResult("r.xml");
  EXPECT_GT(result.totals["calls"], 40000u);
  EXPECT_GT(result.stacks.size(), 50u);
  const std::string table = test::readFile("err");
  EXPECT_NE(table.find("Perl_"), std::string::npos) << table;
  EXPECT_NE(table.find("more call stacks"), std::string::npos) << table;
}

TEST(HeapRuns, AResultIsWholeOrTheOldOne) {
  fs::create_directory("full");
  EXPECT_EQ(run("-out full/r.xml", std::string(PROGRAM) + " known").status, 3);
  const std::string old = test::readFile("full/r.xml");
  // A limit on the size of files stands for a full disk.
  const std::string command = "sh -c 'ulimit -f 1; trap \"\" XFSZ; exec " PROGRAM " known'";
  EXPECT_EQ(run("-out full/r.xml -top 0", command).status, 3);
  EXPECT_EQ(test::readFile("full/r.xml"), old);
  EXPECT_NE(test::readFile("err").find("cannot write the result"), std::string::npos);
  EXPECT_EQ(std::distance(fs::directory_iterator("full"), {}), 2); // the result and its log
  // A link that somebody has put there is not written through.
  EXPECT_EQ(run("-out r.xml", "/bin/sh -c 'echo precious > victim; ln -s victim r.xml.$$.part'").status, 0);
  EXPECT_EQ(test::readFile("victim"), "precious\n");
  readResult("r.xml");
}

} // namespace
