// veskctl commands the heap collector of a running program.
#include <csignal>

#include "collectors/heap_result.h"
#include "support/channel_test.h"
#include "support/child.h"

namespace {

namespace fs = std::filesystem;
using namespace test;

constexpr std::uint64_t kMarked = 123457; // the size of the blocks that the program takes when told to

// The program, told what to do through pipes.
class CommandedProgram {
public:
  explicit CommandedProgram(const std::string& options) {
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) std::abort();
    fs::create_directory("ch");
    process_ = fork();
    if (process_ == 0) {
      dup2(in[0], 0);
      dup2(out[1], 1);
      const std::string command =
          std::string("exec " VESKRUN " -out r.xml -commands ch ") + options + " -- " PROGRAM " obey 2>err";
      execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    in_ = in[1];
    out_ = out[0];
  }
  ~CommandedProgram() {
    if (process_ > 0) kill(process_, SIGKILL);
  }

  void tell(char order) {
    char answer = 0;
    ASSERT_EQ(write(in_, &order, 1), 1);
    ASSERT_EQ(read(out_, &answer, 1), 1) << readFile("err");
    ASSERT_EQ(answer, order);
  }
  int end(char order) {
    EXPECT_EQ(write(in_, &order, 1), 1);
    const int status = statusOf(process_);
    process_ = 0;
    return status;
  }

private:
  pid_t process_;
  int in_;
  int out_;
};

int control(const std::string& words) {
  return std::system((VESKCTL " " + words + " >/dev/null").c_str()) >> 8;
}

// The answers in the log: "command: answer".
std::vector<std::string> answers() {
  const std::string log = readFile("r.log");
  std::vector<std::string> found;
  const auto argument = [&log](const std::string& name, std::size_t from) {
    const std::string tag = "<arg name='" + name + "'>";
    const std::size_t begin = log.find(tag, from) + tag.size();
    return log.substr(begin, log.find("</arg>", begin) - begin);
  };
  for (std::size_t at = 0; (at = log.find("<type>COMMAND</type>", at)) != std::string::npos; ++at) {
    found.push_back(argument("command", at) + ": " + argument("answer", at));
  }
  return found;
}

// Commands are carried out after veskctl has seen them taken; their answer comes last.
Result snapshot() {
  static std::size_t number = 0;
  const std::size_t before = answers().size();
  EXPECT_EQ(control("heap snapshot ch"), 0);
  await([before] { return answers().size() == before + 1; });
  const Result result = readResult("r.snapshot" + std::to_string(++number) + ".xml");
  EXPECT_EQ(result.end, "snapshot");
  return result;
}

std::size_t stacksOfMarked(const Result& result) {
  return std::count_if(result.stacks.begin(), result.stacks.end(),
                       [](const Stack& stack) { return stack.allocatedBytes == kMarked * stack.calls; });
}

using HeapCommands = ChannelTest;

TEST_F(HeapCommands, AreCarriedOutWhileTheProgramRuns) {
  CommandedProgram program("-heartbeat 1 -debug commands");
  program.tell('a');
  EXPECT_EQ(snapshot().ofSize(kMarked).liveBlocks, 1000u);

  EXPECT_EQ(control("heap pause ch"), 0);
  await([] { return answers().size() == 2; });
  program.tell('a');
  program.tell('x'); // an exec that fails opens the channel anew
  Result paused = snapshot();
  EXPECT_EQ(paused.ofSize(kMarked).calls, 1000u);
  EXPECT_EQ(snapshot().totals["calls"], paused.totals["calls"]);

  EXPECT_EQ(control("ch send 4 + 2 + 99"), 0);
  await([] { return answers().size() == 7; });
  EXPECT_EQ(stacksOfMarked(snapshot()), 0u);
  program.tell('f'); // older than the reset
  program.tell('c'); // the channel's descriptor among them
  program.tell('a');
  Result anew = snapshot();
  EXPECT_EQ(anew.ofSize(kMarked).liveBlocks, 1000u);
  EXPECT_LT(anew.totals["releases"], anew.totals["calls"]);

  EXPECT_EQ(control("ch send 1 + 1 + 1 + 2 + 1"), 0);
  await([] { return answers().size() == 14; });
  for (int i = 6; i <= 9; ++i) readResult("r.snapshot" + std::to_string(i) + ".xml");
  await([] { return readFile("r.log").find("<type>HEARTBEAT</type>") != std::string::npos; });

  EXPECT_EQ(program.end('q'), 3);
  EXPECT_EQ(readResult("r.xml").end, "exit");
  EXPECT_NE(readFile("r.log").find("<!-- [COMMANDS]"), std::string::npos);
  EXPECT_TRUE(fs::is_empty("ch"));
  const std::vector<std::string> expected = {"snapshot: written",
                                             "pause: paused",
                                             "snapshot: written",
                                             "snapshot: written",
                                             "resume: counting again",
                                             "reset: counting from zero",
                                             "99: no command of this collector",
                                             "snapshot: written",
                                             "snapshot: written",
                                             "snapshot: written",
                                             "snapshot: written",
                                             "snapshot: written",
                                             "reset: counting from zero",
                                             "snapshot: written"};
  EXPECT_EQ(answers(), expected);
}

TEST_F(HeapCommands, LeaveNoChannelBehindAnExec) {
  CommandedProgram program("");
  program.tell('a');
  EXPECT_TRUE(fs::exists("ch/zvrcmds.dat"));
  EXPECT_EQ(program.end('e'), 0);
  EXPECT_EQ(readResult("r.xml").end, "exec");
  EXPECT_TRUE(fs::is_empty("ch"));

  // Where children are followed, each program has a channel of its own.
  const std::string ran = "test -e ch/\\$\\$/zvrcmds.dat && sh -c 'test -e ch/\\$\\$/zvrcmds.dat'";
  EXPECT_EQ(std::system((VESKRUN " -commands ch -follow -- sh -c \"" + ran + "; exit \\$?\" 2>err").c_str()),
            0)
      << readFile("err");
  EXPECT_TRUE(fs::is_empty("ch"));
}

TEST_F(HeapCommands, AreRefusedWithoutAChannel) {
  for (const char* options : {"-commands nowhere", "-heartbeat 1", "-debug nonsense", "-commands"}) {
    EXPECT_EQ(std::system((VESKRUN " " + std::string(options) + " -- touch ran 2>err").c_str()) >> 8, 2);
    EXPECT_NE(readFile("err").find(std::string(options).substr(0, 6)), std::string::npos);
  }
  EXPECT_FALSE(fs::exists("ran"));
}

} // namespace
