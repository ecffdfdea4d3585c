#include "control/collector_process.h"

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/thread_services.h"

namespace test {

namespace {

std::vector<VeskCommandLockFile> lockFilesHere() {
  std::vector<VeskCommandLockFile> found;
  std::error_code ignored;
  for (const auto& each : std::filesystem::recursive_directory_iterator(".", ignored)) {
    VeskCommandLockFile names{};
    if (each.path().filename() != VESK_COMMAND_LOCK_FILE) continue;
    std::ifstream(each.path(), std::ios::binary).read(reinterpret_cast<char*>(&names), sizeof names);
    if (names.semaphoreKey != 0) found.push_back(names);
  }
  return found;
}

std::uint32_t checksum(const void* bytes, std::size_t size) {
  std::uint32_t hash = 2166136261u;
  for (std::size_t i = 0; i < size; ++i)
    hash = (hash ^ static_cast<const unsigned char*>(bytes)[i]) * 16777619u;
  return hash;
}

bool isIntact(const Delivery& delivery, const unsigned char* payload) {
  const std::uint32_t head = checksum(&delivery.code, 3 * sizeof(std::int32_t));
  const std::uint32_t body = checksum(payload, VESK_COMMAND_PAYLOAD_SIZE);
  return head == static_cast<std::uint32_t>(delivery.parameters[2]) &&
         body == static_cast<std::uint32_t>(delivery.parameters[3]) &&
         payload[VESK_COMMAND_PAYLOAD_SIZE] == 0;
}

} // namespace

ChannelGuard::ChannelGuard() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  pipe_ = ends[1];
  process_ = fork();
  if (process_ != 0) {
    close(ends[0]);
    return;
  }
  close(ends[1]);
  setpgid(0, 0); // what ends the test's process group does not end this
  std::vector<VeskCommandLockFile> all;
  VeskCommandLockFile names;
  while (read(ends[0], &names, sizeof names) == sizeof names) all.push_back(names);
  for (const VeskCommandLockFile& each : lockFilesHere()) all.push_back(each);
  for (const VeskCommandLockFile& each : all) {
    shmid_ds segment{};
    if (shmctl(each.segmentIdentifier, IPC_STAT, &segment) == 0 &&
        segment.shm_segsz == sizeof(VeskCommandSegment)) {
      shmctl(each.segmentIdentifier, IPC_RMID, nullptr);
    }
    semctl(semget(each.semaphoreKey, 1, 0), 0, IPC_RMID);
  }
  _exit(0);
}

ChannelGuard::~ChannelGuard() {
  close(pipe_);
  waitpid(process_, nullptr, 0);
}

void ChannelGuard::remember() {
  for (const VeskCommandLockFile& each : lockFilesHere()) EXPECT_EQ(write(pipe_, &each, sizeof each), 8);
}

pid_t forkHelper(const std::function<void()>& body) {
  const pid_t process = fork();
  if (process != 0) return process;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  body();
  _exit(0);
}

int statusOf(pid_t child) {
  int status = 0;
  waitpid(child, &status, 0);
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

void await(const std::function<bool()>& condition) {
  while (!condition()) usleep(200);
}

veskctl::Command numberedCommand(std::int32_t code, std::int32_t index, std::int32_t size) {
  veskctl::Command command;
  command.code = code;
  std::uint32_t state = static_cast<std::uint32_t>(code);
  command.payload.resize(VESK_COMMAND_PAYLOAD_SIZE);
  for (char& byte : command.payload)
    byte = static_cast<char>((state = state * 1664525u + 1013904223u) >> 24 | 1u);
  const std::int32_t head[] = {code, index, size};
  command.parameters = {index, size, static_cast<std::int32_t>(checksum(head, sizeof head)),
                        static_cast<std::int32_t>(checksum(command.payload.data(), command.payload.size()))};
  return command;
}

std::vector<veskctl::Command> numberedBatch(std::int32_t firstCode, std::int32_t size) {
  std::vector<veskctl::Command> batch;
  for (std::int32_t i = 0; i < size; ++i) batch.push_back(numberedCommand(firstCode + i, i, size));
  return batch;
}

Journal& newJournal() {
  void* memory = mmap(nullptr, sizeof(Journal), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return *new (memory) Journal;
}

void recordDelivery(int code, int p1, int p2, int p3, int p4, unsigned char* payload, void* context) {
  Journal& journal = *static_cast<Journal*>(context);
  await([&] { return !journal.blocked; });
  Delivery delivery = {code, {p1, p2, p3, p4}, false};
  delivery.intact = payload != nullptr && isIntact(delivery, payload);
  const std::size_t at = journal.count;
  if (at == Journal::kCapacity) _exit(3);
  journal.deliveries[at] = delivery;
  journal.count = at + 1;
}

CollectorProcess::CollectorProcess(int heartbeatSeconds) : journal(newJournal()) {
  int control[2], ready[2];
  if (pipe(control) != 0 || pipe(ready) != 0) throw std::runtime_error("pipe");
  process = forkHelper([&] {
    close(control[1]);
    installThreadServices();
    if (__VeskRegisterCommandHandlerWithHeartbeat("", recordDelivery, &journal, heartbeatSeconds) != 1)
      _exit(2);
    char byte = 0;
    if (write(ready[1], &byte, 1) != 1 || read(control[0], &byte, 1) != 0) _exit(2);
    __VeskShutdownCommandHandler();
    __VeskUnregisterCommandHandler(VESKCMDHDLR_CLEAN_COMPLETE);
  });
  close(control[0]);
  close(ready[1]);
  char byte;
  EXPECT_EQ(read(ready[0], &byte, 1), 1) << "the collector did not register";
  close(ready[0]);
  control_ = control[1];
  fcntl(control_, F_SETFD, FD_CLOEXEC);
}

CollectorProcess::~CollectorProcess() {
  if (control_ == -1) return;
  EXPECT_EQ(stop(), 0);
}

int CollectorProcess::stop() {
  close(control_);
  control_ = -1;
  journal.blocked = false;
  return statusOf(process);
}

} // namespace test
