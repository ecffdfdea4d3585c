// veskctl: sends commands to the collector of a running program.
#include <cstdio>
#include <fstream>
#include <iterator>

#include <CLI/CLI.hpp>

#include "collectors/heap/heap_commands.h"
#include "command_channel.h"

namespace {

using namespace veskctl;

constexpr double kDefaultTimeout = 10;

enum ExitCode {
  kDone = 0,
  kFailure = 1,
  kUsage = 2,
  kNoChannelFound = 3,
  kTimedOutUnsent = 4,
  kTimedOutSent = 5
};

constexpr const char* kFooter =
    R"(Batches: up to five commands, separated by a lone +, go to the collector together, all or none:
  veskctl /run/mytool send 7 1 2 --payload "heap of run 3" + 8 + 9 -1
Integers are written as in C: 10, -1, 0x1f. A payload that begins with - or is a + is given as --payload=TEXT.

Exit status:
  0  done: the collector has taken every command (it may still be working on them); status: there is a live channel
  1  the system refused something (permissions, for example)
  2  the command line is wrong; nothing was sent
  3  there is no channel in the directory, or its collector is gone
  4  timed out; nothing was sent
  5  timed out; the commands are in the channel and are taken when the collector comes to them)";

int exitCode(Outcome outcome) {
  switch (outcome) {
  case Outcome::kDelivered:
    return kDone;
  case Outcome::kNoChannel:
    return kNoChannelFound;
  case Outcome::kNotQueued:
    return kTimedOutUnsent;
  case Outcome::kNotTaken:
    return kTimedOutSent;
  case Outcome::kFailed:
    break;
  }
  return kFailure;
}

int report(const Result& result) {
  if (result.outcome != Outcome::kDelivered) std::fprintf(stderr, "veskctl: %s\n", result.reason.c_str());
  return exitCode(result.outcome);
}

int send(const std::string& directory, const std::vector<Command>& commands, double timeout) {
  CommandChannel channel(directory);
  const Result result = channel.send(commands, Deadline(std::chrono::duration<double>(timeout)));
  if (result.outcome == Outcome::kDelivered) {
    std::printf("process %d has taken %zu command%s\n", static_cast<int>(channel.collector()),
                commands.size(), commands.size() == 1 ? "" : "s");
  }
  return report(result);
}

// What a terminal may be shown of a payload: its text, up to where it ends or gets long.
std::string preview(const unsigned char* payload) {
  constexpr std::size_t kLongest = 48;
  std::string text;
  for (std::size_t i = 0; i < VESK_COMMAND_PAYLOAD_SIZE && payload[i] != 0; ++i) {
    if (text.size() == kLongest) return text + "...";
    text += payload[i] >= 0x20 && payload[i] < 0x7f ? static_cast<char>(payload[i]) : '?';
  }
  return text;
}

std::string processName(pid_t process) {
  std::string name;
  std::ifstream file("/proc/" + std::to_string(process) + "/comm");
  std::getline(file, name);
  return name.empty() ? "" : " (" + name + ")";
}

int showStatus(const std::string& directory) {
  CommandChannel channel(directory);
  Status status;
  const Result result = channel.inspect(status);
  if (result.outcome == Outcome::kDelivered || status.collector != 0) {
    std::printf("channel    %s\n", channel.path().c_str());
    std::printf("collector  process %d%s, %s%s\n", static_cast<int>(status.collector),
                processName(status.collector).c_str(), status.alive ? "alive" : "gone",
                status.initialised ? "" : ", setting the channel up");
    const std::string holder =
        "held by process " + std::to_string(status.lockHolder) + processName(status.lockHolder);
    std::printf("lock       %s\n", status.lockHolder == 0 ? "free" : holder.c_str());
    std::printf("pending    %d of %d commands, %d wake-ups not taken\n", status.pending,
                VESK_MAX_PENDING_COMMANDS, status.posts);
    for (const VeskCommandRecord& record : status.records) {
      const std::int32_t* p = record.parameters;
      std::printf("           code %d, parameters %d %d %d %d, payload \"%s\"\n", record.code, p[0], p[1],
                  p[2], p[3], preview(record.payload).c_str());
    }
  }
  return report(result);
}

std::string readPayload(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string bytes(VESK_COMMAND_PAYLOAD_SIZE + 1, '\0'); // one more than may be there
  file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (file.bad() || (!file.eof() && file.gcount() == 0)) throw CLI::ValidationError(path, "cannot be read");
  bytes.resize(static_cast<std::size_t>(file.gcount()));
  return bytes;
}

CLI::Option* addTimeout(CLI::App& app, double& timeout) {
  return app
      .add_option(
          "--timeout", timeout,
          "Seconds to wait until the collector has taken the commands (10; 0 looks once and does not wait)")
      ->check(CLI::Range(0.0, 1e9));
}

// One command of a batch: CODE [P1 [P2 [P3 [P4]]]] [--payload TEXT | --payload-file FILE].
Command parseCommand(std::vector<std::string> words, double& timeout) {
  Command command;
  std::vector<std::int32_t> parameters;
  std::string payloadFile;
  CLI::App group;
  group.set_help_flag();
  group.add_option("CODE", command.code)->required();
  group.add_option("P", parameters)->expected(0, 4);
  auto* text = group.add_option("--payload", command.payload);
  auto* file = group.add_option("--payload-file", payloadFile)->excludes(text);
  addTimeout(group, timeout);
  std::reverse(words.begin(), words.end()); // as CLI11 takes them
  group.parse(words);

  std::copy(parameters.begin(), parameters.end(), command.parameters.begin());
  if (*file) command.payload = readPayload(payloadFile);
  if (command.payload.size() > VESK_COMMAND_PAYLOAD_SIZE) {
    throw CLI::ValidationError("payload",
                               "longer than " + std::to_string(VESK_COMMAND_PAYLOAD_SIZE) + " bytes");
  }
  return command;
}

std::vector<Command> parseBatch(const std::vector<std::string>& words, double& timeout) {
  std::vector<Command> batch;
  for (auto begin = words.begin();;) {
    const auto end = std::find(begin, words.end(), "+");
    batch.push_back(parseCommand({begin, end}, timeout));
    if (end == words.end()) break;
    begin = end + 1;
  }
  if (batch.size() > VESK_MAX_PENDING_COMMANDS) {
    throw CLI::ValidationError("send", "more than " + std::to_string(VESK_MAX_PENDING_COMMANDS) +
                                           " commands in a batch");
  }
  return batch;
}

struct HeapCommand {
  const char* name;
  VeskHeapCommand code;
  const char* help;
};

constexpr HeapCommand kHeapCommands[] = {
    {"snapshot", VESK_HEAP_COMMAND_SNAPSHOT, "Write a result file of the heap as it is now"},
    {"reset", VESK_HEAP_COMMAND_RESET, "Count from zero"},
    {"pause", VESK_HEAP_COMMAND_PAUSE, "Count no more calls until resumed"},
    {"resume", VESK_HEAP_COMMAND_RESUME, "Count again"},
};

int parseAndRun(CLI::App& app, int argc, char** argv) {
  std::string directory;
  double timeout = kDefaultTimeout;
  app.add_option("DIRECTORY", directory, "Where the collector has its channel");
  addTimeout(app, timeout);
  app.require_subcommand(1);
  app.footer(kFooter);
  app.set_version_flag("--version", "veskctl " VESK_VERSION);

  auto* sendCommand =
      app.add_subcommand("send", "CODE [P1 [P2 [P3 [P4]]]] [--payload TEXT | --payload-file FILE] [+ ...]");
  sendCommand->prefix_command(true);
  sendCommand->footer(kFooter);
  auto* status = app.add_subcommand(
      "status", "Show whether there is a channel, its collector, lock and pending commands");
  auto* heap = app.add_subcommand("heap", "The heap collector's commands: veskctl heap snapshot DIRECTORY");
  heap->require_subcommand(1);
  for (const HeapCommand& command : kHeapCommands) {
    auto* sub = heap->add_subcommand(command.name, command.help);
    sub->add_option("DIRECTORY", directory, "Where the collector has its channel")->required();
    addTimeout(*sub, timeout);
  }
  app.parse(argc, argv);

  if (*heap) {
    const std::string name = heap->get_subcommands().front()->get_name();
    const auto* command = std::find_if(std::begin(kHeapCommands), std::end(kHeapCommands),
                                       [&](const HeapCommand& each) { return name == each.name; });
    Command toSend;
    toSend.code = command->code;
    return send(directory, {toSend}, timeout);
  }
  if (directory.empty()) throw CLI::RequiredError("DIRECTORY");
  if (*status) return showStatus(directory);
  const std::vector<Command> batch = parseBatch(sendCommand->remaining(), timeout);
  return send(directory, batch, timeout);
}

int run(int argc, char** argv) {
  CLI::App app("Sends commands to the collector of a running program.", "veskctl");
  try {
    return parseAndRun(app, argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kDone : kUsage;
  }
}

} // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "veskctl: %s\n", error.what());
    return kFailure;
  }
}
