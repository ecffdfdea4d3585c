// The heap collector: its start, the events of the program, and its end.
//
// An event of the heap takes the stack, finds it among those known, enters or takes out the block, and
// counts; see stacks.h, blocks.h and accounts.h for each. What belongs to a thread hangs on one thread-local
// word.
#include <cstring>

#include "collectors/heap/accounts.h"
#include "collectors/heap/backtrace.h"
#include "collectors/heap/blocks.h"
#include "collectors/heap/commands.h"
#include "collectors/heap/counting.h"
#include "collectors/heap/debug_categories.h"
#include "collectors/heap/large_blocks.h"
#include "collectors/heap/modules.h"
#include "collectors/heap/report.h"
#include "collectors/heap/result.h"
#include "collectors/heap/settings.h"
#include "collectors/heap/stacks.h"
#include "collectors/heap/summary.h"
#include "veskrt/host.h"
#include "veskrt/log.h"
#include "veskrt/memory.h"
#include "veskrt/runtime.h"

namespace heap {

namespace {

constinit Settings settings{};
constinit Files files{};
constinit std::uint32_t reportCategory = 0;
constinit std::uint32_t invalidRelease = 0; // a message

// ---- The state of a thread ----

struct ThreadWord {
  ThreadState* state;
  bool ended; // what comes after the thread's end has been told does without a state
};
constinit thread_local ThreadWord own [[gnu::tls_model("initial-exec")]] = {};

[[gnu::noinline]] ThreadState* firstCall() {
  if (own.ended) return nullptr;
  own.state = beginThread();
  __VeskDbgMessageDumpInternal(kDebugThreads, "thread %u calls the heap", __VeskGetNativeThreadId());
  return own.state;
}

ThreadState* thisThread() {
  ThreadState* state = own.state;
  return state != nullptr ? state : firstCall();
}

// ---- Heap events ----

Site& siteOfCall(const void* caller, ThreadState* thread) {
  Trace trace;
  captureBacktrace(trace, caller, settings.depth);
  return siteOf(findStack(trace, thread));
}

// Enters a block. What is still there under its address has been given back without notice.
void enter(const void* block, const Site& site, std::uint64_t bytes) {
  const BlockWord lost = putBlock(block, {site.stack->id, bytes});
  addLargeBlock(block, {site.stack->id, bytes});
  if (lost == 0) [[likely]]
    return;
  const Block old = openBlock(lost);
  accountRelease(siteById(old.site), old.bytes, false);
}

// Whether the thread's last heap call handed this block out.
bool isTemporary(ThreadState* thread, const void* block) {
  return thread != nullptr && thread->lastBlock == block;
}

void setLastBlock(ThreadState* thread, const void* block) {
  if (thread != nullptr) thread->lastBlock = block;
}

// A block that was known under this address has been given back without notice.
[[gnu::noinline]] void handedOutWhilePaused(const void* block) {
  const BlockWord lost = takeBlock(block);
  if (lost == 0) return;
  const Block old = openBlock(lost);
  removeLargeBlock(block, old.bytes);
  accountRelease(siteById(old.site), old.bytes, false);
}

void allocated(void* block, std::size_t bytes, VeskHeapFunction function, const void* caller) {
  ThreadState* thread = thisThread();
  if (countingIsPaused()) [[unlikely]] {
    setLastBlock(thread, nullptr);
    return handedOutWhilePaused(block);
  }
  Site& site = siteOfCall(caller, thread);
  enter(block, site, bytes);
  accountAllocation(site, bytes, function);
  setLastBlock(thread, block);
}

// The block is older than the collector, or it is none. If it points into a block, the program is wrong, and about to be
// told so by its allocator: the log then says which block it was.
[[gnu::noinline]] void releasingUnknown(const void* block) {
  LargeBlock around;
  if (!findLargeBlock(block, around)) return;
  Text<24> bytes;
  bytes.append("%llu", static_cast<unsigned long long>(around.bytes));
  __VeskLogInternal(VESKLOG_SEVERITY_WARNING, invalidRelease, 0, VESKLOG_ARG_POINTER, block,
                    VESKLOG_ARG_POINTER, reinterpret_cast<void*>(around.start), VESKLOG_ARG_STRING,
                    bytes.text(), VESKLOG_ARG_INT, static_cast<int>(around.site));
}

void releasing(void* block, const void* /*caller*/) {
  ThreadState* thread = thisThread();
  const bool temporary = isTemporary(thread, block);
  setLastBlock(thread, nullptr);
  const BlockWord word = takeBlock(block);
  if (word == 0) [[unlikely]]
    return releasingUnknown(block);
  const Block old = openBlock(word);
  removeLargeBlock(block, old.bytes);
  accountRelease(siteById(old.site), old.bytes, temporary);
}

// The block is taken out beforehand: once the program's allocator has it, its address may be another
// thread's.
std::uint64_t reallocating(void* oldBlock, const void* /*caller*/) {
  const BlockWord word = takeBlock(oldBlock);
  if (word != 0) removeLargeBlock(oldBlock, peekBlock(word).bytes);
  return stampToken(word);
}

void reallocated(std::uint64_t token, void* oldBlock, void* newBlock, std::size_t bytes, int released,
                 VeskHeapFunction function, const void* caller) {
  const bool failed = newBlock == nullptr && !released;
  const BlockWord word = openToken(token);
  const bool known = word != 0;
  ThreadState* thread = thisThread();
  if (failed) {
    setLastBlock(thread, nullptr);
    if (known) {
      addLargeBlock(oldBlock, peekBlock(word));
      putBack(oldBlock, word);
    }
    return;
  }
  const bool temporary = isTemporary(thread, oldBlock);
  const Block old = known ? openBlock(word) : Block{};
  const bool paused = countingIsPaused();
  setLastBlock(thread, paused ? nullptr : newBlock);
  if (newBlock == nullptr || paused) {
    if (known) accountRelease(siteById(old.site), old.bytes, temporary);
    if (newBlock != nullptr) handedOutWhilePaused(newBlock);
    return;
  }
  Site& site = siteOfCall(caller, thread);
  enter(newBlock, site, bytes);
  accountReallocation(known ? &siteById(old.site) : nullptr, old.bytes, temporary, site, bytes, function);
}

// ---- Other events ----

void logModule(const char* what, const VeskHostModule& module) {
  __VeskDbgMessageDumpInternal(kDebugModules, "%s %s at %#llx", what, module.path,
                               static_cast<unsigned long long>(module.base));
}

void moduleLoaded(const VeskHostModule* module) {
  logModule("loaded", *module);
  if (moduleCame(*module)) forgetCode();
}

void moduleUnloaded(const VeskHostModule* module) {
  logModule("unloaded", *module);
  forgetCode();
  moduleWent(*module);
}

void threadEnded(std::uint32_t threadId) {
  __VeskDbgMessageDumpInternal(kDebugThreads, "thread %u ends", threadId);
  if (own.state != nullptr) endThread(own.state);
  own = {nullptr, true};
}

// Points into a live block: its start, its size and the stack that took it.
void registerMessages() {
  static constexpr const char* kArguments[] = {"address", "block", "bytes", "stack", nullptr};
  const LogMessageDefinition definition = {"INVALID_RELEASE", kArguments, 0,
                                           __VeskGetLoggerHandle("veskheap")};
  invalidRelease = __VeskRegisterLogMessage2(&definition);
  registerCommandMessages();
}

void logStart() {
  __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0, "Program: %s", veskHostProgramPath());
  logSettings(files);
}

// The child counts from zero, and what it has inherited is older than its collector.
void forkedInChild() {
  leaveCommandsToParent();
  restartCounting();
  if (own.state != nullptr) own.state->lastBlock = nullptr;
  nameFiles(files, settings);
  if (!__VeskCreateLogger("veskheap", files.log.text(), 0)) {
    tell("process %d cannot create its log %s", __VeskGetPid(), files.log.text());
  }
  logStart();
}

// ---- The end ----

// With children followed, the program that an exec starts writes a result of its own under the same process
// id. What was counted before goes beside it, under a number.
void nameResultBeforeExec(Path& path) {
  if (!veskHostFollowsChildren()) {
    path.append("%s", files.result.text());
    return;
  }
  std::uint32_t number = 0;
  nameNumbered(path, files.result, "exec", number);
}

const char* nameOf(VeskProcessEnd how) {
  switch (how) {
  case VESK_END_EXIT:
    return "exit";
  case VESK_END_QUICK:
    return "quick exit";
  case VESK_END_EXEC:
    return "exec";
  case VESK_END_FATAL:
    return "fatal";
  }
  return "unknown";
}

void processEnding(VeskProcessEnd how, int status) {
  // Memory may be exhausted, and this thread may hold any lock. The log, which needs neither, has the reason.
  if (how == VESK_END_FATAL) return abandonCommands();

  stopCommands();
  Path path;
  if (how == VESK_END_EXEC)
    nameResultBeforeExec(path);
  else
    path.append("%s", files.result.text());

  Report report = takeReport(reportCategory);
  const int error = writeResult(path.text(), report, {nameOf(how), status}, settings.depth, reportCategory);
  if (how != VESK_END_EXEC || !veskHostFollowsChildren()) {
    writeSummary(report, settings.top, error == 0 ? path.text() : nullptr, reportCategory);
  }
  releaseReport(report);

  // The program may have put another file in the place of the log, by system calls of its own.
  if (how != VESK_END_EXEC) __VeskCreateLogger("veskheap", files.log.text(), 1);
  if (error == 0) {
    __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0, "Result: %s", path.text());
  } else {
    tell("cannot write the result %s: %s", path.text(), std::strerror(error));
    __VeskLogInternal(VESKLOG_SEVERITY_ERROR, VESKLOG_MSG_FAIL_OPEN_FILE, 0, VESKLOG_ARG_STRING, path.text());
  }
  if (how == VESK_END_EXEC)
    endLogBeforeExec(files);
  else
    __VeskCloseLogger();
}

void execFailed() {
  continueLog(files);
  startCommands(settings, files, reportCategory);
}

// ---- The start ----

bool createFiles() {
  const int error = checkResultFile(files.result.text());
  if (error != 0) {
    tell("cannot create the result file %s: %s", files.result.text(), std::strerror(error));
    return false;
  }
  if (__VeskCreateLogger("veskheap", files.log.text(), 0)) return true;
  tell("cannot create the log file %s", files.log.text());
  return false;
}

void startParts() {
  reportCategory = __VeskRegisterMemoryCategory("HEAP_REPORT");
  startBlocks(__VeskRegisterMemoryCategory("HEAP_BLOCKS"));
  startLargeBlocks(__VeskRegisterMemoryCategory("HEAP_LARGE_BLOCKS"));
  startModules(__VeskRegisterMemoryCategory("HEAP_MODULES"));
  startStacks({.stacks = __VeskRegisterMemoryCategory("HEAP_STACKS"),
               .sites = __VeskRegisterMemoryCategory("HEAP_SITES"),
               .threads = __VeskRegisterMemoryCategory("HEAP_THREADS")});
  startBacktraces();
  startAccounts(settings.timelineMilliseconds, __VeskRegisterMemoryCategory("HEAP_TIMELINE"));
}

} // namespace

} // namespace heap

extern "C" VESK_API int veskCollectorStart(std::uint32_t argc, const char* const* argv,
                                           VeskHostEvents* events) {
  using namespace heap;
  constexpr int kRefused = 2;
  __VeskEnableMemoryStatisticsCollection();
  switch (readSettings(settings, argc, argv)) {
  case Parsed::kHelpGiven:
    return VESK_COLLECTOR_DONE;
  case Parsed::kRefused:
    return kRefused;
  case Parsed::kGoOn:
    break;
  }
  nameFiles(files, settings);
  if (!createFiles()) return kRefused;
  registerMessages();
  logStart();
  startParts();
  events->allocated = allocated;
  events->releasing = releasing;
  events->reallocating = reallocating;
  events->reallocated = reallocated;
  events->moduleLoaded = moduleLoaded;
  events->moduleUnloaded = moduleUnloaded;
  events->threadEnded = threadEnded;
  events->forkedInChild = forkedInChild;
  events->processEnding = processEnding;
  events->execFailed = execFailed;
  return startCommands(settings, files, reportCategory) ? 0 : kRefused;
}
