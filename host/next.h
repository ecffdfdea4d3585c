// The program's own definitions of what the host stands in front of: those that the program would have called
// without it, from another preloaded library or from the C library.
#pragma once

#include <cstddef>

#include <pthread.h>
#include <spawn.h>
#include <sys/types.h>
#include <threads.h>

namespace veskhost {

struct Next {
  // Until the heap functions are looked up, functions that look them up: never null.
  void* (*malloc)(std::size_t);
  void* (*calloc)(std::size_t, std::size_t);
  void* (*realloc)(void*, std::size_t);
  void (*free)(void*);
  int (*posixMemalign)(void**, std::size_t, std::size_t);
  void* (*alignedAlloc)(std::size_t, std::size_t);
  void* (*memalign)(std::size_t, std::size_t);
  void* (*valloc)(std::size_t);
  void* (*pvalloc)(std::size_t);
  std::size_t (*usableSize)(void*);

  // Until they are looked up, the C library's.
  int (*close)(int);
  int (*closeRange)(unsigned, unsigned, int);
  int (*dup2)(int, int);
  int (*dup3)(int, int, int);

  int (*pthreadCreate)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) = nullptr;
  int (*pthreadCancel)(pthread_t) = nullptr;
  int (*thrdCreate)(thrd_t*, thrd_start_t, void*) = nullptr;
  int (*dlclose)(void*) = nullptr;
  pid_t (*fork)() = nullptr;   // _Fork
  void (*exit)(int) = nullptr; // _exit
  void (*quickExit)(int) = nullptr;
  int (*execve)(const char*, char* const*, char* const*) = nullptr;
  int (*execvpe)(const char*, char* const*, char* const*) = nullptr;
  int (*execveat)(int, const char*, char* const*, char* const*, int) = nullptr;
  int (*fexecve)(int, char* const*, char* const*) = nullptr;
  int (*posixSpawn)(pid_t*, const char*, const posix_spawn_file_actions_t*, const posix_spawnattr_t*,
                    char* const*, char* const*) = nullptr;
  int (*posixSpawnp)(pid_t*, const char*, const posix_spawn_file_actions_t*, const posix_spawnattr_t*,
                     char* const*, char* const*) = nullptr;
};

// Written once, by whichever call looks the functions up.
[[gnu::visibility("hidden")]] extern constinit Next nextFunctions;

// Looks all of them up, once; false while that goes on.
bool findNext() noexcept;

// For functions that may be called before the host's constructor has run.
inline const Next& next() noexcept {
  if (nextFunctions.exit == nullptr) [[unlikely]]
    findNext();
  return nextFunctions;
}

} // namespace veskhost
