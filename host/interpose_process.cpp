// The ways out of the program: _exit, quick_exit, exec; and what starts other programs. exit itself needs no
// interposition: a handler that is registered before the C library's start-up registers its own runs after
// all others.
//
// The child of a vfork runs here too, in its parent's memory: it is told apart by its process id, and leaves
// nothing changed but an environment that it has used, which its parent gives back at its next call.
//
// What the C library starts from within (system, popen, wordexp) does not pass here: it is not followed.
#include <cstdarg>
#include <cstdlib>

#include <sys/syscall.h>
#include <unistd.h>

#include "host/descriptors.h"
#include "host/environment.h"
#include "host/modules.h"
#include "host/next.h"

using namespace veskhost;

namespace {

constinit std::atomic<int> quickStatus{0};

// An environment for what is to be executed: the given one, with the settings put back when children are
// followed.
class ChildEnvironment {
public:
  explicit ChildEnvironment(char* const* given) noexcept : environment_(given) {
    if (self.execEnvironment != nullptr) {
      veskHostFree(self.execEnvironment);
      self.execEnvironment = nullptr;
    }
    if (!watching() || self.mark == Mark::kCollector || !veskHostFollowsChildren()) return;
    if (char** own = environmentForChild(given)) {
      environment_ = own;
      self.execEnvironment = own;
    }
  }
  ~ChildEnvironment() {
    if (self.execEnvironment != environment_ || self.execEnvironment == nullptr) return;
    veskHostFree(self.execEnvironment);
    self.execEnvironment = nullptr;
  }
  ChildEnvironment(const ChildEnvironment&) = delete;
  ChildEnvironment& operator=(const ChildEnvironment&) = delete;

  operator char* const*() const noexcept { return environment_; }

private:
  char* const* environment_;
};

void tellExec() noexcept {
  if (!isOwnProcess() || !hears(&VeskHostEvents::processEnding)) return;
  Event event;
  lookForModules(event);
  if (event->processEnding != nullptr) event->processEnding(VESK_END_EXEC, 0);
}

// Calls execute(), which returns only if it fails.
template <class Execute>
int tellingExec(Execute execute) noexcept {
  tellExec();
  const int result = execute();
  if (isOwnProcess() && hears(&VeskHostEvents::execFailed)) {
    Event event;
    CollectorOpensFiles opening;
    if (event->execFailed != nullptr) event->execFailed();
  }
  return result;
}

[[noreturn]] void leave(int status) noexcept {
  processEnds(VESK_END_QUICK, status);
  next().exit(status);
  for (;;) syscall(SYS_exit_group, status);
}

int executePath(const char* path, char* const* arguments, char* const* environment) noexcept {
  return tellingExec([=] { return next().execve(path, arguments, ChildEnvironment(environment)); });
}

int executeFile(const char* file, char* const* arguments, char* const* environment) noexcept {
  return tellingExec([=] { return next().execvpe(file, arguments, ChildEnvironment(environment)); });
}

// Calls execute(arguments) with the arguments of a list, which is left behind the null that ends them. They
// lie on the stack: the child of a vfork must leave nothing in its parent's memory.
template <class Execute>
[[gnu::noinline]] int withArguments(const char* first, va_list list, Execute execute) noexcept {
  va_list again;
  va_copy(again, list);
  std::size_t count = 1;
  for (const char* argument = first; argument != nullptr; argument = va_arg(again, const char*)) ++count;
  va_end(again);
  auto** arguments = static_cast<char**>(__builtin_alloca(count * sizeof(char*)));
  char** place = arguments;
  for (const char* argument = first; argument != nullptr; argument = va_arg(list, const char*)) {
    *place++ = const_cast<char*>(argument);
  }
  *place = nullptr;
  return execute(arguments);
}

} // namespace

namespace veskhost {

// quick_exit runs its own handlers, last first; registered first, this one is the last.
void tellQuickExit() noexcept { processEnds(VESK_END_QUICK, quickStatus.load()); }

} // namespace veskhost

extern "C" {

VESK_API void _exit(int status) { leave(status); }
VESK_API void _Exit(int status) noexcept { leave(status); }

VESK_API void quick_exit(int status) noexcept {
  quickStatus.store(status);
  next().quickExit(status);
  leave(status);
}

VESK_API pid_t _Fork() noexcept {
  prepareObservedFork();
  prepareFork();
  const pid_t pid = next().fork();
  if (pid == 0) {
    forkedInChild();
    observedForkInChild();
  } else {
    forkedInParent();
    observedForkInParent();
  }
  return pid;
}

VESK_API int execve(const char* path, char* const* arguments, char* const* environment) noexcept {
  return executePath(path, arguments, environment);
}

VESK_API int execv(const char* path, char* const* arguments) noexcept {
  return executePath(path, arguments, environ);
}

VESK_API int execvpe(const char* file, char* const* arguments, char* const* environment) noexcept {
  return executeFile(file, arguments, environment);
}

VESK_API int execvp(const char* file, char* const* arguments) noexcept {
  return executeFile(file, arguments, environ);
}

VESK_API int execveat(int directory, const char* path, char* const* arguments, char* const* environment,
                      int flags) noexcept {
  return tellingExec(
      [=] { return next().execveat(directory, path, arguments, ChildEnvironment(environment), flags); });
}

VESK_API int fexecve(int file, char* const* arguments, char* const* environment) noexcept {
  return tellingExec([=] { return next().fexecve(file, arguments, ChildEnvironment(environment)); });
}

VESK_API int execl(const char* path, const char* first, ...) noexcept {
  va_list list;
  va_start(list, first);
  const int result =
      withArguments(first, list, [=](char** arguments) { return executePath(path, arguments, environ); });
  va_end(list);
  return result;
}

VESK_API int execlp(const char* file, const char* first, ...) noexcept {
  va_list list;
  va_start(list, first);
  const int result =
      withArguments(first, list, [=](char** arguments) { return executeFile(file, arguments, environ); });
  va_end(list);
  return result;
}

VESK_API int execle(const char* path, const char* first, ...) noexcept {
  va_list list;
  va_start(list, first);
  const int result = withArguments(first, list, [path, &list](char** arguments) {
    return executePath(path, arguments, va_arg(list, char* const*)); // the environment stands behind them
  });
  va_end(list);
  return result;
}

VESK_API int posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                         const posix_spawnattr_t* attributes, char* const* arguments,
                         char* const* environment) {
  return next().posixSpawn(pid, path, actions, attributes, arguments, ChildEnvironment(environment));
}

VESK_API int posix_spawnp(pid_t* pid, const char* file, const posix_spawn_file_actions_t* actions,
                          const posix_spawnattr_t* attributes, char* const* arguments,
                          char* const* environment) {
  return next().posixSpawnp(pid, file, actions, attributes, arguments, ChildEnvironment(environment));
}

} // extern "C"
