// Commands on their way between two processes, also between processes that die.
#include <cstdio>
#include <fstream>
#include <random>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include "control/collector_process.h"

namespace {

using namespace test;
using namespace veskctl;

struct Ran {
  int status;
  std::string output;
};

// The real program, in the test's directory.
Ran ctl(const std::string& arguments) {
  FILE* pipe = popen((VESKCTL " " + arguments + " 2>&1").c_str(), "r");
  Ran ran;
  char buffer[4096];
  while (const std::size_t count = std::fread(buffer, 1, sizeof buffer, pipe))
    ran.output.append(buffer, count);
  ran.status = WEXITSTATUS(pclose(pipe));
  return ran;
}

using CommandSending = ChannelTest;

// Every delivery intact, numbers ascending, and batches whole. Returns how many batches there are.
std::size_t checkJournal(const Journal& journal) {
  std::size_t batches = 0;
  std::int32_t last = 0;
  const std::size_t count = journal.count;
  for (std::size_t at = 0; at < count; ++batches) {
    const std::int32_t size = journal.deliveries[at].parameters[1];
    for (std::int32_t i = 0; i < size; ++i, ++at) {
      const Delivery& each = journal.deliveries[at];
      EXPECT_TRUE(at < count && each.intact && each.parameters[0] == i && each.parameters[1] == size);
      EXPECT_TRUE(i == 0 ? each.code > last : each.code == last + 1) << each.code << " after " << last;
      if (testing::Test::HasFailure()) return batches;
      last = each.code;
    }
  }
  return batches;
}

TEST_F(CommandSending, TheProgramSendsShowsAndTellsWhy) {
  EXPECT_EQ(ctl(". send 1").status, 3);
  EXPECT_EQ(ctl("nowhere status").status, 3);
  std::ofstream(VESK_COMMAND_LOCK_FILE) << "something else altogether";
  EXPECT_EQ(ctl(". send 1").status, 3);
  std::remove(VESK_COMMAND_LOCK_FILE);

  CollectorProcess collector;
  Journal& journal = collector.journal;
  const Command numbered = numberedCommand(42, 0, 1);
  std::ofstream("payload", std::ios::binary) << numbered.payload;
  const auto* p = numbered.parameters.data();
  const std::string group =
      "42 0 1 " + std::to_string(p[2]) + " " + std::to_string(p[3]) + " --payload-file payload";
  EXPECT_EQ(ctl(". send -7 1 0x20 --payload text + " + group + " + 9").status, 0);
  EXPECT_EQ(ctl("heap pause . --timeout 20").status, 0);
  await([&] { return journal.count == 4; });
  EXPECT_EQ(journal.deliveries[0].code, -7);
  EXPECT_EQ(journal.deliveries[0].parameters[1], 0x20);
  EXPECT_TRUE(journal.deliveries[1].intact);
  EXPECT_EQ(journal.deliveries[3].code, 3);

  std::ofstream("payload", std::ios::app) << '.';
  for (const char* wrong : {". send", ". send x", ". send 1 2 3 4 5 6", ". send 1 + 2 + 3 + 4 + 5 + 6",
                            ". send 1 +", ". send 1 --payload-file payload", "send 1", "heap stop ."}) {
    EXPECT_EQ(ctl(wrong).status, 2) << wrong;
  }

  journal.blocked = true;
  EXPECT_EQ(ctl(". send 10").status, 0) << "taken, though the collector is still at it";
  EXPECT_EQ(ctl(". send 11 --timeout 0.05").status, 5);
  EXPECT_EQ(ctl(". send 12 + 13 + 14 + 15 + 16 --timeout 0.05").status, 4) << "no room for the whole batch";
  const int file = open(VESK_COMMAND_LOCK_FILE, O_RDWR | O_CLOEXEC);
  flock(file, LOCK_EX);
  EXPECT_EQ(ctl(". send 17 --timeout 0").status, 4);
  const Ran status = ctl(". status");
  EXPECT_EQ(status.status, 0);
  for (const std::string& part :
       {"process " + std::to_string(collector.process), "held by process " + std::to_string(getpid()),
        std::string("pending    1 of 5"), std::string("code 11, parameters 0 0 0 0, payload \"\""),
        std::string("alive")}) {
    EXPECT_NE(status.output.find(part), std::string::npos) << part << " in\n" << status.output;
  }
  close(file);
  journal.blocked = false;
  await([&] { return journal.count == 6; });
  EXPECT_EQ(journal.deliveries[5].code, 11);

  kill(collector.process, SIGKILL);
  EXPECT_EQ(collector.stop(), 128 + SIGKILL);
  EXPECT_EQ(ctl(". send 1").status, 3);
  EXPECT_EQ(ctl(". status").status, 3);
}

TEST_F(CommandSending, ManyCommandsFromTwoProcessesArriveInOrder) {
  constexpr std::int32_t kBatches = 1500;
  CollectorProcess collector;
  const auto sender = [&] {
    CommandChannel channel("");
    for (std::int32_t i = 0; i < kBatches; ++i) {
      if (channel.send(numberedBatch(1 + 5 * i, 5), Deadline(std::chrono::seconds(120))).outcome !=
          Outcome::kDelivered) {
        _exit(1);
      }
    }
  };
  const pid_t other = forkHelper(sender);
  sender();
  EXPECT_EQ(statusOf(other), 0);
  EXPECT_EQ(collector.stop(), 0);
  // Two ascending sequences of whole batches, interleaved.
  const Journal& journal = collector.journal;
  ASSERT_EQ(journal.count, std::size_t{2 * 5 * kBatches});
  std::int32_t expected[2] = {1, 1};
  for (std::size_t at = 0; at < journal.count; at += 5) {
    const int which = journal.deliveries[at].code == expected[0] ? 0 : 1;
    for (int i = 0; i < 5; ++i) {
      ASSERT_TRUE(journal.deliveries[at + i].intact);
      ASSERT_EQ(journal.deliveries[at + i].code, expected[which]++);
    }
  }
}

// A sender is killed anywhere in its loop; whoever comes after it finds the channel in order.
TEST_F(CommandSending, AKilledSenderHarmsNothing) {
  constexpr int kRounds = 1000;
  constexpr int kRoundsOfTheProgram = 40;
  CollectorProcess collector;
  Journal& journal = collector.journal;
  std::mt19937 random(20240229);
  CommandChannel own("");
  std::size_t sentHere = 0;
  for (int round = 0; round < kRounds + kRoundsOfTheProgram; ++round) {
    const bool program = round >= kRounds;
    const pid_t sender = forkHelper([&] {
      if (program) {
        const std::string code = std::to_string(1000000 + round);
        execl(VESKCTL, VESKCTL, ".", "send", code.c_str(), nullptr);
        _exit(1);
      }
      for (CommandChannel channel("");; ++journal.confirmed) {
        const std::int32_t size = 1 + journal.next % VESK_MAX_PENDING_COMMANDS;
        const std::int32_t first = journal.next.fetch_add(size);
        channel.send(numberedBatch(first, size), Deadline(std::chrono::hours(1)));
      }
    });
    usleep(random() % (program ? 6000 : 1500));
    kill(sender, SIGKILL);
    statusOf(sender);
    if (program) continue;
    ASSERT_EQ(own.send({numberedCommand(journal.next.fetch_add(1), 0, 1)}, Deadline(std::chrono::seconds(60)))
                  .outcome,
              Outcome::kDelivered)
        << "round " << round;
    ++sentHere;
  }
  ASSERT_EQ(own.send({numberedCommand(2000000, 0, 1)}, Deadline(std::chrono::seconds(60))).outcome,
            Outcome::kDelivered);
  EXPECT_EQ(collector.stop(), 0) << "the collector's process has come through all of it";

  // The program's commands carry no checksum: each at most once, in the order of the rounds.
  std::size_t numberedOnes = 0, ofTheProgram = 0;
  for (std::int32_t last = 0; numberedOnes + ofTheProgram < journal.count;) {
    const Delivery& each = journal.deliveries[numberedOnes + ofTheProgram];
    if (each.code < 1000000) {
      ++numberedOnes;
      continue;
    }
    EXPECT_GT(each.code, last);
    last = each.code;
    ++ofTheProgram;
  }
  EXPECT_EQ(journal.deliveries[journal.count - 1].code, 2000000);
  journal.count = numberedOnes;
  const std::size_t batches = checkJournal(journal);
  EXPECT_GE(batches, sentHere + journal.confirmed) << "a batch that was reported as delivered is missing";
  EXPECT_GT(batches, sentHere) << "no killed sender got anything through: the rounds tell nothing";
}

} // namespace
