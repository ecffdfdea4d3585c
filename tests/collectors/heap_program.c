// A program whose heap calls are known to the byte. test_heap_runs.cpp has the numbers.
#include <dlfcn.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#define NOINLINE __attribute__((noinline))

static void* volatile kept[4096];
static int keptCount;

static void keep(void* block) { kept[keptCount++] = block; }

NOINLINE static void leaks(void) {
  for (int i = 0; i < 10; ++i) keep(malloc(100));
}

NOINLINE static void temporaries(void) {
  for (int i = 0; i < 20; ++i) free(malloc(64));
}

NOINLINE static void peak(void) {
  void* first = malloc(100000);
  void* second = malloc(50000);
  free(first);
  free(second);
}

NOINLINE static void reallocations(void) {
  char* block = malloc(10);
  block = realloc(block, 1000);
  block = realloc(block, 20);
  if (realloc(block, SIZE_MAX / 2) != NULL) abort();
  keep(calloc(7, 13));
  free(block);
  void* none = realloc(realloc(NULL, 30), 0);
  if (none != NULL) abort();
  keep(reallocarray(NULL, 3, 5));
}

NOINLINE static void alignments(void) {
  void* block;
  if (posix_memalign(&block, 64, 256) != 0) abort();
  keep(aligned_alloc(64, 128));
  keep(memalign(32, 96));
  free(block);
  if (malloc(SIZE_MAX / 2) != NULL) abort();
  free(malloc(0));
}

static void known(void) {
  leaks();
  temporaries();
  peak();
  reallocations();
  alignments();
}

// Four threads hand every block to the next one, which releases it; one in ten stays.
enum { THREADS = 4, ROUNDS = 10000 };
static void* _Atomic mailbox[THREADS];

static void* threadMain(void* argument) {
  const int self = (int)(intptr_t)argument;
  for (int i = 0; i < ROUNDS; ++i) {
    void* block = malloc(48);
    if (i % 10 != 0)
      block = __atomic_exchange_n(&mailbox[(self + 1) % THREADS], block, __ATOMIC_ACQ_REL);
    else
      block = NULL;
    free(block);
  }
  return NULL;
}

static void threads(void) {
  pthread_t all[THREADS];
  for (intptr_t i = 0; i < THREADS; ++i) pthread_create(&all[i], NULL, threadMain, (void*)i);
  for (int i = 0; i < THREADS; ++i) pthread_join(all[i], NULL);
  for (int i = 0; i < THREADS; ++i) free(mailbox[i]);
}

// Ends while a thread is busy on the heap.
static void* busyMain(void* argument) {
  for (;;) free(malloc(77));
  return argument;
}

static void busy(void) {
  pthread_t thread;
  for (int i = 0; i < 3; ++i) pthread_create(&thread, NULL, busyMain, NULL);
  usleep(20000);
}

typedef void* (*ModuleAllocate)(void* (*)(size_t), size_t);

NOINLINE static void allocateIn(const char* path, size_t bytes) {
  void* module = dlopen(path, RTLD_NOW);
  if (module == NULL) abort();
  const ModuleAllocate allocate = (ModuleAllocate)(intptr_t)dlsym(module, "moduleAllocate");
  for (int i = 0; i < 3; ++i) keep(allocate(malloc, bytes));
  dlclose(module);
}

NOINLINE static void descend(int depth) {
  if (depth == 0)
    keep(malloc(11));
  else
    descend(depth - 1);
  __asm__ volatile("" ::: "memory");
}

static void slowly(void) {
  const struct timespec pause = {0, 2000000};
  for (int i = 0; i < 100; ++i) {
    keep(malloc(10));
    nanosleep(&pause, NULL);
  }
}

static void childAllocates(void) {
  void* inherited = malloc(500);
  const pid_t child = fork();
  if (child == 0) {
    free(inherited);
    keep(malloc(7000));
    exit(0);
  }
  keep(malloc(300));
  waitpid(child, NULL, 0);
}

// Forks while other threads are busy on the heap.
static void forkAmidThreads(void) {
  pthread_t thread;
  for (int i = 0; i < 3; ++i) pthread_create(&thread, NULL, busyMain, NULL);
  for (int i = 0; i < 5; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      for (int k = 0; k < 100; ++k) keep(malloc(19));
      exit(0);
    }
    int status;
    waitpid(child, &status, 0);
    if (status != 0) abort();
  }
}

// Does what it is told by standard input, a byte each, and answers with the same byte, while three threads
// are busy on the heap.
static void* noise(void* argument) {
  void* block = NULL;
  for (size_t i = 0; i < 1u << 31; ++i) {
    block = realloc(block, 200 + i % 300 * 40);
    free(malloc(i % 100));
  }
  return block;
}

NOINLINE static void obey(char** argv) {
  static void* blocks[2][1000];
  int batch = 0;
  char order;
  pthread_t thread;
  for (int i = 0; i < 3; ++i) pthread_create(&thread, NULL, noise, NULL);
  while (read(0, &order, 1) == 1 && order != 'q') {
    for (int i = 0; i < 1000; ++i) {
      if (order == 'a') blocks[batch][i] = malloc(123457);
      if (order == 'f') free(blocks[0][i]), free(blocks[1][i]);
    }
    if (order == 'a') ++batch;
    if (order == 'f') batch = 0;
    if (order == 'c') closefrom(3);
    if (order == 'x') execl("/nonexistent/program", argv[0], (char*)NULL);
    if (order == 'e') execl("/bin/true", "true", (char*)NULL);
    if (write(1, &order, 1) != 1) abort();
  }
}

static void onSignal(int number) { keep(malloc(13)); }

int main(int argc, char** argv) {
  const char* what = argv[1];
  if (strcmp(what, "known") == 0)
    known();
  else if (strcmp(what, "threads") == 0)
    threads();
  else if (strcmp(what, "busy") == 0)
    busy();
  else if (strcmp(what, "modules") == 0) {
    allocateIn(argv[2], 1001);
    allocateIn(argv[3], 2002);
    allocateIn(argv[2], 3003);
  } else if (strcmp(what, "deep") == 0)
    descend(60);
  else if (strcmp(what, "slowly") == 0)
    slowly();
  else if (strcmp(what, "forks") == 0)
    forkAmidThreads();
  else if (strcmp(what, "fork") == 0)
    childAllocates();
  else if (strcmp(what, "exec") == 0) {
    keep(malloc(900));
    execl(argv[0], argv[0], "known", (char*)NULL);
  } else if (strcmp(what, "signal") == 0) {
    signal(SIGUSR1, onSignal);
    raise(SIGUSR1);
  } else if (strcmp(what, "obey") == 0)
    obey(argv);
  else if (strcmp(what, "closed") == 0) {
    if (chdir("/") != 0) abort();
    for (int i = 0; i < 64; ++i) close(i);
    known();
  }
  return 3;
}
