// Commands on their way between two processes, also between processes that die.
#include <random>

#include <sys/file.h>

#include "control/collector_process.h"
#include "support/child.h"

namespace {

using namespace test;
using namespace veskctl;
using CommandSending = ChannelTest;

// The real program, in the test's directory.
int ctl(const std::string& arguments) {
  return WEXITSTATUS(std::system((VESKCTL " " + arguments + " >output 2>&1").c_str()));
}

TEST_F(CommandSending, TheProgramSendsShowsAndTellsWhy) {
  EXPECT_EQ(ctl("nowhere status"), 3);
  std::ofstream(VESK_COMMAND_LOCK_FILE) << "something else altogether";
  EXPECT_EQ(ctl(". send 1"), 3);
  std::remove(VESK_COMMAND_LOCK_FILE);

  CollectorProcess collector;
  Journal& journal = collector.journal;
  const Command numbered = numberedBatch(42, 1).front();
  std::ofstream("payload", std::ios::binary) << numbered.payload;
  EXPECT_EQ(ctl(". send -7 1 0x20 --payload text + 42 0 1 " + std::to_string(numbered.parameters[2]) +
                " --payload-file payload + 9"),
            0);
  EXPECT_EQ(ctl("heap pause . --timeout 20"), 0);
  await([&] { return journal.count == 4; });
  EXPECT_TRUE(journal.deliveries[0].code == -7 && journal.deliveries[0].size == 0x20);
  EXPECT_TRUE(journal.deliveries[1].code == 42 && journal.deliveries[1].intact);
  EXPECT_EQ(journal.deliveries[3].code, 3);
  std::ofstream("payload", std::ios::app) << '.';
  for (const char* wrong : {". send", ". send x", ". send 1 2 3 4 5 6", ". send 1 + 2 + 3 + 4 + 5 + 6",
                            ". send 1 +", ". send 1 --payload-file payload", "send 1", "heap stop ."}) {
    EXPECT_EQ(ctl(wrong), 2) << wrong;
  }

  journal.blocked = true;
  EXPECT_EQ(ctl(". send 10"), 0) << "taken, though the collector is still at it";
  EXPECT_EQ(ctl(". send 11 --timeout 0.05"), 5);
  EXPECT_EQ(ctl(". send 12 + 13 + 14 + 15 + 16 --timeout 0.05"), 4) << "no room for the whole batch";
  const int file = open(VESK_COMMAND_LOCK_FILE, O_RDWR | O_CLOEXEC);
  flock(file, LOCK_EX);
  EXPECT_EQ(ctl(". send 17 --timeout 0"), 4);
  EXPECT_EQ(ctl(". status"), 0);
  for (const std::string& part :
       {std::to_string(collector.process) + " (", "held by process " + std::to_string(getpid()),
        std::string("1 of 5 commands"), std::string("code 11, ")}) {
    EXPECT_NE(readFile("output").find(part), std::string::npos) << part << " in\n" << readFile("output");
  }
  close(file);
  journal.blocked = false;
  await([&] { return journal.count == 6; });
  kill(collector.process, SIGKILL);
  EXPECT_EQ(collector.stop(), 128 + SIGKILL);
  EXPECT_EQ(ctl(". send 1"), 3) << "left behind";
}

TEST_F(CommandSending, AnotherUsersFileIsNoChannel) {
  if (geteuid() != 0) GTEST_SKIP() << "takes another user";
  std::ofstream(VESK_COMMAND_LOCK_FILE) << "12345678";
  ASSERT_EQ(chmod(VESK_COMMAND_LOCK_FILE, 0666), 0);
  ASSERT_EQ(chmod(".", 0755), 0);
  const pid_t child = forkHelper([] {
    if (seteuid(65534) != 0) _exit(1);
    CommandChannel channel(".");
    const veskctl::Result result =
        channel.send(numberedBatch(1, 1), veskctl::Deadline(std::chrono::seconds(1)));
    _exit(result.reason.ends_with("belongs to another user") ? 9 : 2);
  });
  EXPECT_EQ(statusOf(child), 9);
}

TEST_F(CommandSending, ManyCommandsFromTwoProcessesArriveInOrder) {
  constexpr std::int32_t kBatches = 1000;
  CollectorProcess collector;
  const auto sendAll = [&](std::int32_t sender) {
    CommandChannel channel("");
    for (std::int32_t i = 0; i < kBatches; ++i) {
      if (sendTo(channel, numberedBatch(1 + 5 * i, 5, sender)) != Outcome::kDelivered) return 1;
    }
    return 0;
  };
  const pid_t other = forkHelper([&] { _exit(sendAll(1)); });
  EXPECT_EQ(sendAll(2), 0);
  EXPECT_EQ(statusOf(other), 0);
  EXPECT_EQ(collector.stop(), 0);
  EXPECT_EQ(collector.journal.checkedBatches(), std::size_t{2 * kBatches});
}

// A sender is killed anywhere in its loop; whoever comes after it finds the channel in order.
TEST_F(CommandSending, AKilledSenderHarmsNothing) {
  constexpr std::size_t kRounds = 1000;
  CollectorProcess collector;
  Journal& journal = collector.journal;
  std::mt19937 random(20240229);
  CommandChannel own("");
  for (std::size_t round = 0; round < kRounds; ++round) {
    const pid_t sender = forkHelper([&] {
      for (CommandChannel channel("");; ++journal.confirmed) {
        const std::int32_t size = 1 + journal.next % VESK_MAX_PENDING_COMMANDS;
        if (sendTo(channel, numberedBatch(journal.next.fetch_add(size), size)) != Outcome::kDelivered)
          _exit(1);
      }
    });
    usleep(random() % 1500);
    kill(sender, SIGKILL);
    ASSERT_EQ(statusOf(sender), 128 + SIGKILL);
    ASSERT_EQ(sendTo(own, numberedBatch(journal.next.fetch_add(1), 1)), Outcome::kDelivered)
        << "round " << round;
  }
  EXPECT_EQ(collector.stop(), 0);
  const std::size_t batches = journal.checkedBatches();
  EXPECT_GE(batches, kRounds + journal.confirmed) << "a batch that was reported as delivered is missing";
  EXPECT_GT(journal.confirmed, 0u) << "no sender lived long enough for its death to tell anything";
}

} // namespace
