// Commands per second from one process to another in batches of five, beside the floor: one round trip of two
// semaphores between two processes, measured in the same run.
//
//     bench_command_channel [COMMANDS]        (100,000)
//
// A batch costs a controlling process one post and one look at whether it was taken, so a round trip of a
// semaphore is what it could cost at best. Every command is checked on arrival; a lost, doubled or displaced
// one fails the run.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <vector>

#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include "command_channel.h"
#include "veskrt/host.h"

namespace {

using namespace veskctl;
using Clock = std::chrono::steady_clock;

constexpr int kRounds = 100000;
constexpr double kPatience = 600; // seconds until a command that has not come is lost

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

void change(int set, unsigned short semaphore, short by) {
  sembuf operation = {semaphore, by, 0};
  if (semop(set, &operation, 1) != 0) _exit(1);
}

// Seconds for one post there and one back.
double semaphoreRoundTrip() {
  const int set = semget(IPC_PRIVATE, 2, 0600);
  const pid_t other = fork();
  if (other == 0) {
    for (int i = 0; i < kRounds; ++i) {
      change(set, 0, -1);
      change(set, 1, 1);
    }
    _exit(0);
  }
  const auto start = Clock::now();
  for (int i = 0; i < kRounds; ++i) {
    change(set, 0, 1);
    change(set, 1, -1);
  }
  const double seconds = secondsSince(start);
  waitpid(other, nullptr, 0);
  semctl(set, 0, IPC_RMID);
  return seconds / kRounds;
}

struct Shared {
  std::atomic<int> ready{0};
  std::atomic<int> received{0};
  std::atomic<int> displaced{0};
};

void onCommand(int code, int, int, int, int, unsigned char*, void* context) {
  Shared& shared = *static_cast<Shared*>(context);
  const int expected = shared.received.fetch_add(1, std::memory_order_relaxed) + 1;
  if (code != expected) shared.displaced.fetch_add(1, std::memory_order_relaxed);
}

[[noreturn]] void runCollector(Shared& shared, int control) {
  veskHostInstall();
  shared.ready = __VeskRegisterCommandHandler("", onCommand, &shared) != 0 ? 1 : -1;
  char byte;
  while (read(control, &byte, 1) > 0) {
  }
  __VeskShutdownCommandHandler();
  __VeskUnregisterCommandHandler(VESKCMDHDLR_CLEAN_COMPLETE);
  _exit(0);
}

bool sendAll(int commands) {
  CommandChannel channel("");
  std::vector<Command> batch(VESK_MAX_PENDING_COMMANDS);
  for (int next = 1; next <= commands; next += VESK_MAX_PENDING_COMMANDS) {
    for (std::size_t i = 0; i < batch.size(); ++i) batch[i].code = next + static_cast<int>(i);
    const Result result = channel.send(batch, Deadline(std::chrono::seconds(60)));
    if (result.outcome == Outcome::kDelivered) continue;
    std::fprintf(stderr, "%s\n", result.reason.c_str());
    return false;
  }
  return true;
}

} // namespace

int main(int argc, char** argv) {
  const int wanted = argc > 1 ? std::atoi(argv[1]) : 100000;
  const int batches = (wanted + VESK_MAX_PENDING_COMMANDS - 1) / VESK_MAX_PENDING_COMMANDS;
  const int commands = batches * VESK_MAX_PENDING_COMMANDS;
  std::string directory = std::filesystem::temp_directory_path() / "vesk-bench-XXXXXX";
  int control[2];
  if (mkdtemp(directory.data()) == nullptr || chdir(directory.c_str()) != 0 || pipe(control) != 0) return 1;
  void* memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  Shared& shared = *new (memory) Shared;

  const double floor = semaphoreRoundTrip();
  const pid_t collector = fork();
  if (collector == 0) {
    close(control[1]);
    runCollector(shared, control[0]);
  }
  close(control[0]);
  while (shared.ready == 0) usleep(1000);
  const auto start = Clock::now();
  const bool sent = shared.ready == 1 && sendAll(commands);
  while (sent && shared.received < commands && secondsSince(start) < kPatience) usleep(100);
  const double seconds = secondsSince(start);
  close(control[1]);
  waitpid(collector, nullptr, 0);
  std::filesystem::remove_all(directory);

  const double perBatch = seconds / batches;
  std::printf("%d of %d commands in order, %d displaced\n", shared.received.load(), commands,
              shared.displaced.load());
  std::printf("%.0f commands/s; a batch of %d takes %.1f us; a semaphore round trip %.1f us (%.1f of them)\n",
              commands / seconds, VESK_MAX_PENDING_COMMANDS, perBatch * 1e6, floor * 1e6, perBatch / floor);
  return sent && shared.received == commands && shared.displaced == 0 ? 0 : 1;
}
