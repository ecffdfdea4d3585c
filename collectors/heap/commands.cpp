// The commands run on the command thread, as work that a fork and the end of the program wait for. A snapshot
// needs no more than the locks that a report takes; only a reset holds the events back.
#include "collectors/heap/commands.h"

#include <cerrno>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

#include "collectors/common/high_descriptors.h"
#include "collectors/heap/counting.h"
#include "collectors/heap/debug_categories.h"
#include "collectors/heap/heap_commands.h"
#include "collectors/heap/lock.h"
#include "collectors/heap/report.h"
#include "collectors/heap/result.h"
#include "host/veskhost.h"
#include "veskrt/command_handler.h"
#include "veskrt/log.h"

namespace heap {

namespace {

constexpr std::uint32_t kPatienceForReset = 2000; // milliseconds

constinit std::uint32_t commandMessage = 0;
constinit std::uint32_t heartbeatMessage = 0;
constinit const Settings* settings = nullptr;
constinit const Files* files = nullptr;
constinit std::uint32_t category = 0;

constinit Path directory{}; // of this process; empty while there is no channel
constinit bool directoryIsOurs = false;
constinit bool inherited = false;      // by a fork, after which the library's handler is another process's
constinit Lock working;                // held while a command is carried out
constinit std::uint32_t snapshots = 0; // the number of the last one

void answer(std::uint32_t severity, const char* command, const char* text, const char* file = "") {
  __VeskLogInternal(severity, commandMessage, 0, VESKLOG_ARG_STRING, command, VESKLOG_ARG_STRING, text,
                    VESKLOG_ARG_STRING, file);
}

void done(const char* command, const char* text) { answer(VESKLOG_SEVERITY_INFO, command, text); }

void snapshot() {
  Path path;
  nameNumbered(path, files->result, "snapshot", snapshots);
  Report report = takeReport(category);
  const int error = writeResult(path.text(), report, {"snapshot", 0}, settings->depth, category);
  releaseReport(report);
  if (error == 0)
    answer(VESKLOG_SEVERITY_INFO, "snapshot", "written", path.text());
  else
    answer(VESKLOG_SEVERITY_ERROR, "snapshot", std::strerror(error), path.text());
}

void reset() {
  if (!veskHostHoldEvents(kPatienceForReset)) {
    answer(VESKLOG_SEVERITY_ERROR, "reset", "not done: a thread does not leave the collector");
    return;
  }
  restartCounting();
  veskHostReleaseEvents();
  done("reset", "counting from zero");
}

void pauseCounting() { done("pause", countingPaused.exchange(true) ? "was paused already" : "paused"); }

void resumeCounting() {
  done("resume", countingPaused.exchange(false) ? "counting again" : "was not paused");
}

void heartbeat() {
  Totals totals;
  std::uint64_t milliseconds;
  {
    StillAccounts accounts;
    totals = accounts.totals();
    milliseconds = accounts.nanoseconds() / 1'000'000;
  }
  Text<24> figures[5];
  const std::uint64_t values[] = {milliseconds, totals.calls, totals.liveBlocks, totals.liveBytes,
                                  totals.peakBytes};
  for (std::size_t i = 0; i < std::size(values); ++i) {
    figures[i].append("%llu", static_cast<unsigned long long>(values[i]));
  }
  __VeskLogInternal(VESKLOG_SEVERITY_INFO, heartbeatMessage, 0, VESKLOG_ARG_STRING, figures[0].text(),
                    VESKLOG_ARG_STRING, figures[1].text(), VESKLOG_ARG_STRING, figures[2].text(),
                    VESKLOG_ARG_STRING, figures[3].text(), VESKLOG_ARG_STRING, figures[4].text());
}

void unknown(int code) {
  Text<24> name;
  name.append("%d", code);
  answer(VESKLOG_SEVERITY_WARNING, name.text(), "no command of this collector");
}

void carryOut(int code) {
  switch (code) {
  case VESK_HEAP_COMMAND_SNAPSHOT:
    return snapshot();
  case VESK_HEAP_COMMAND_RESET:
    return reset();
  case VESK_HEAP_COMMAND_PAUSE:
    return pauseCounting();
  case VESK_HEAP_COMMAND_RESUME:
    return resumeCounting();
  case VESK_COMMAND_HEARTBEAT:
    return heartbeat();
  default:
    return unknown(code);
  }
}

void onCommand(int code, int p1, int p2, int p3, int p4, unsigned char* /*payload*/, void* /*context*/) {
  if (!veskHostBeginWork()) return; // the result is about to be written
  {
    Holding hold(working);
    __VeskDbgMessageDumpInternal(kDebugCommands, "command %d (%d %d %d %d)", code, p1, p2, p3, p4);
    const bool closedMeanwhile = directory.length() == 0;
    if (!closedMeanwhile) carryOut(code);
  }
  veskHostEndWork();
}

// Where children are followed, each process has a directory of its own, named by its id.
bool makeDirectory() {
  directory.clear();
  directory.append("%s", settings->commands.text());
  directoryIsOurs = veskHostFollowsChildren();
  if (!directoryIsOurs) return true;
  directory.append("/%d", __VeskGetPid());
  return mkdir(directory.text(), 0700) == 0 || errno == EEXIST;
}

bool openChannel() {
  const common::HighDescriptors scope; // for the channel's lock file
  errno = 0;
  if (makeDirectory() && __VeskRegisterCommandHandlerWithHeartbeat(directory.text(), onCommand, nullptr,
                                                                   static_cast<int>(settings->heartbeat))) {
    return true;
  }
  const int error = errno;
  tell("cannot open a command channel in %s%s%s", directory.text(), error != 0 ? ": " : "",
       error != 0 ? std::strerror(error) : "");
  if (directoryIsOurs) rmdir(directory.text());
  directory.clear();
  return false;
}

} // namespace

void registerCommandMessages() {
  const std::int32_t logger = __VeskGetLoggerHandle("veskheap");
  static constexpr const char* kAnswer[] = {"command", "answer", "file", nullptr};
  const LogMessageDefinition command = {"COMMAND", kAnswer, 0, logger};
  commandMessage = __VeskRegisterLogMessage2(&command);
  static constexpr const char* kFigures[] = {"milliseconds", "calls",     "liveBlocks",
                                             "liveBytes",    "peakBytes", nullptr};
  const LogMessageDefinition beat = {"HEARTBEAT", kFigures, 0, logger};
  heartbeatMessage = __VeskRegisterLogMessage2(&beat);
}

bool startCommands(const Settings& asked, const Files& processFiles, std::uint32_t snapshotCategory) {
  settings = &asked;
  files = &processFiles;
  category = snapshotCategory;
  return asked.commands.length() == 0 || inherited || openChannel();
}

void stopCommands() {
  if (directory.length() == 0) return;
  Holding hold(working);
  abandonCommands();
}

void abandonCommands() {
  if (directory.length() == 0) return;
  __VeskUnregisterCommandHandler(VESKCMDHDLR_CLEAN_COMPLETE);
  if (directoryIsOurs) rmdir(directory.text());
  directory.clear();
}

void leaveCommandsToParent() {
  inherited = true;
  directory.clear();
}

} // namespace heap
