// The beginning: takes the settings, starts the library and the collector, before any of the program's code
// runs.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <dlfcn.h>
#include <unistd.h>

#include "host/descriptors.h"
#include "host/environment.h"
#include "host/modules.h"
#include "host/next.h"

namespace veskhost {

void tellQuickExit() noexcept; // interpose_process.cpp

namespace {

constinit char programPath[4096] = "";
constinit std::atomic<int> followsChildren{0};

constexpr int kCannotStart = 2;

// Before the program's code has run, and so without the handlers that it has not registered.
[[noreturn]] void endBeforeStart(int status) noexcept {
  std::fflush(nullptr);
  next().exit(status);
  __builtin_trap();
}

[[noreturn]] void refuse(const char* what, const char* detail) noexcept {
  std::fprintf(stderr, "veskhost: %s: %s\n", what, detail != nullptr ? detail : "unknown error");
  endBeforeStart(kCannotStart);
}

void findProgramPath(const char* firstArgument) noexcept {
  const ssize_t length = readlink("/proc/self/exe", programPath, sizeof programPath - 1);
  if (length > 0) {
    programPath[length] = '\0';
  } else if (firstArgument != nullptr) {
    std::strncpy(programPath, firstArgument, sizeof programPath - 1);
  }
}

// What the collector links to stays its own: RTLD_LOCAL.
VeskHostEvents startCollector(const Settings& settings) noexcept {
  void* collector = dlopen(settings.collector, RTLD_NOW | RTLD_LOCAL);
  if (collector == nullptr) refuse("cannot load the collector", dlerror());
  const auto start = reinterpret_cast<VeskCollectorStart>(dlsym(collector, VESK_COLLECTOR_START_NAME));
  if (start == nullptr) refuse("this is no collector", settings.collector);
  fatalHook = [](int) noexcept { refuse("the collector cannot start", "its log says why"); };
  VeskHostEvents events = {};
  CollectorOpensFiles opening;
  const int status = start(settings.argumentCount, settings.arguments, &events);
  if (status != 0) endBeforeStart(status == VESK_COLLECTOR_DONE ? 0 : status);
  return events;
}

// Run by the dynamic loader, after the constructors of what the program links to and before its own.
[[gnu::constructor]] void start(int, char** arguments, char** environment) {
  findNext();
  takeSettings(environment);
  if (environ != environment && environ != nullptr) takeSettings(environ);
  if (settings().collector == nullptr) return;
  self.mark = Mark::kCollector;
  watchingFlag.store(true, std::memory_order_relaxed);
  findProgramPath(arguments[0]);
  install();
  const VeskHostEvents events = startCollector(settings());
  listen(events);
  on_exit([](int status, void*) { processEnds(VESK_END_EXIT, status); }, nullptr);
  static_cast<void>(at_quick_exit([] { tellQuickExit(); }));
  self.mark = Mark::kProgram;
  lookForModules();
}

} // namespace

} // namespace veskhost

using namespace veskhost;

const char* veskHostProgramPath() { return programPath; }
int veskHostFollowsChildren() { return followsChildren.load(std::memory_order_relaxed); }
void veskHostSetFollowChildren(int follow) { followsChildren.store(follow != 0, std::memory_order_relaxed); }
