/* Programs that must not notice that they are observed, one for each exported function without arguments, by its
 * name. Each prints what it sees, and is compared with itself alone. The heap calls of most are known to the
 * byte: tests/host/preload_test.py and tests/collectors/heap_test.py have the numbers. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <malloc.h>
#include <pthread.h>
#include <setjmp.h>
#include <signal.h>
#include <spawn.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <threads.h>
#include <unistd.h>

extern char** environ;

static void* volatile keep; /* keeps calls alive */
static char module[4096];   /* the path of the shared object that comes with this program */

/* One call of each function, and those that must raise nothing. */
int heap(void) {
  void* block;
  void* more = NULL;
  errno = 77;
  free(malloc(1001));
  free(calloc(7, 143));
  block = realloc(NULL, 1003);
  keep = malloc(9012); /* so that the next one moves */
  block = realloc(block, 50003);
  keep = block = reallocarray(block, 5, 201);
  printf("reallocarray overflow %p errno %d\n", reallocarray(block, SIZE_MAX / 2, 3), errno == ENOMEM);
  printf("realloc failing %p errno %d\n", realloc(block, PTRDIFF_MAX), errno == ENOMEM);
  errno = 77;
  printf("realloc to nothing %p\n", realloc(block, 0));
  printf("bad alignment %d\n", posix_memalign(&more, 24, 1006));
  printf("alignment %d errno %d\n", posix_memalign(&more, 4096, 1006), errno);
  printf("aligned %d\n", (int)((uintptr_t)more % 4096));
  free(more);
  free(aligned_alloc(64, 1024));
  free(memalign(128, 1008));
  free(valloc(1009));
  free(pvalloc(1010));
  free(NULL);
  keep = malloc(PTRDIFF_MAX);
  printf("too much %p errno %d\n", keep, errno == ENOMEM);
  keep = malloc(1011);
  printf("usable %d\n", malloc_usable_size(keep) >= 1011);
  return 5;
}

void leaks(void) {
  for (int n = 0; n < 10; ++n) keep = malloc(100);
}
void temporaries(void) {
  for (int n = 0; n < 20; ++n) free(malloc(64));
  free(malloc(0));
}
void peak(void) {
  void* first = malloc(100000);
  void* second = malloc(50000);
  free(first);
  free(second);
}
int known(void) {
  leaks();
  temporaries();
  peak();
  return heap();
}
int releasesInside(void) {
  keep = (char*)malloc(10000) + 64;
  free(keep);
  return 0;
}

static void inFourThreads(void* (*function)(void*), int* arguments) {
  pthread_t ids[4];
  for (int n = 0; n < 4; ++n) pthread_create(&ids[n], NULL, function, &arguments[n]);
  for (int n = 0; n < 4; ++n) pthread_join(ids[n], NULL);
}

/* Four threads hand every block to the next one, which releases it; one in ten stays. */
static void* mailboxes[4];
static void* handOver(void* argument) {
  void** next = &mailboxes[*(int*)argument];
  for (int n = 0; n < 10000; ++n) {
    void* block = malloc(48);
    if (n % 10 != 0) free(__atomic_exchange_n(next, block, __ATOMIC_ACQ_REL));
  }
  return argument;
}
int handsOver(void) {
  inFourThreads(handOver, (int[]){1, 2, 3, 0});
  for (int n = 0; n < 4; ++n) free(mailboxes[n]);
  return 0;
}

static void* allocateMuch(void* argument) {
  for (int n = 0; n < 1000; ++n) free(malloc(2001));
  return argument;
}
static void* leaveEarly(void* argument) { pthread_exit(allocateMuch(argument)); }
static void* waitForCancel(void* argument) {
  for (;;) {
    free(malloc(2002));
    pthread_testcancel();
  }
  return argument;
}
static int standardThread(void* argument) { return (int)(intptr_t)allocateMuch(argument) + 1; }
static void freeLate(void* block) { free(block); }

static pthread_key_t key;
static void* setKey(void* argument) {
  pthread_setspecific(key, malloc(2003));
  return argument;
}

int threads(void) {
  pthread_t ids[6];
  thrd_t standard;
  void* result;
  int code;
  pthread_key_create(&key, freeLate);
  for (int n = 0; n < 4; ++n)
    pthread_create(&ids[n], NULL, n % 2 ? leaveEarly : allocateMuch, (void*)(intptr_t)n);
  pthread_create(&ids[4], NULL, waitForCancel, NULL);
  pthread_create(&ids[5], NULL, setKey, NULL);
  thrd_create(&standard, standardThread, (void*)40);
  pthread_cancel(ids[4]);
  for (int n = 0; n < 6; ++n) {
    pthread_join(ids[n], &result);
    printf("%d: %ld\n", n, (long)(intptr_t)result);
  }
  thrd_join(standard, &code);
  printf("standard %d\n", code);
  return 0;
}

int modules(void) {
  void* handle = dlopen(module, RTLD_NOW);
  printf("found %d\n", handle != NULL && dlsym(handle, "moduleFunction") != NULL);
  dlclose(handle);
  handle = dlmopen(LM_ID_NEWLM, module, RTLD_NOW);
  printf("in another namespace %d\n", handle != NULL);
  dlclose(handle);
  printf("not there %d\n", dlopen("libnosuchthing.so", RTLD_NOW) == NULL);
  /* The program's own search path, and nobody else's, holds it. */
  handle = dlopen("libsubject_module.so", RTLD_NOW);
  printf("by name %d\n", handle != NULL);
  return 0;
}

/* The second module lies where the first one was. */
static void allocateIn(const char* suffix, size_t bytes) {
  char path[4200];
  snprintf(path, sizeof path, "%.*s%s.so", (int)strlen(module) - 3, module, suffix);
  void* handle = dlopen(path, RTLD_NOW);
  void* (*const allocate)(void* (*)(size_t), size_t) =
      (void* (*)(void* (*)(size_t), size_t))dlsym(handle, "moduleAllocate");
  for (int n = 0; n < 3; ++n) keep = allocate(malloc, bytes);
  dlclose(handle);
}
int modulesInTurn(void) {
  allocateIn("", 1001);
  allocateIn("_b", 2002);
  allocateIn("", 3003);
  return 0;
}

static int status(pid_t pid) {
  int result = 0;
  return waitpid(pid, &result, 0) == pid ? result >> 8 : -1;
}

int forks(void) {
  char* const arguments[] = {(char*)"true", NULL};
  void* inherited = malloc(3000);
  pid_t pid;
  fflush(stdout);
  if ((pid = fork()) == 0) {
    free(inherited);
    keep = malloc(3001);
    exit(gettid() == getpid() ? 11 : 1);
  }
  printf("fork %d\n", status(pid));
  if ((pid = _Fork()) == 0) {
    free(malloc(3002));
    _exit(12);
  }
  printf("_Fork %d\n", status(pid));
  if ((pid = vfork()) == 0) _exit(13);
  printf("vfork %d\n", status(pid));
  if ((pid = vfork()) == 0) {
    execl("/nonexistent", "x", NULL);
    execlp("false", "false", NULL);
    _exit(14);
  }
  printf("vfork and exec %d\n", status(pid));
  printf("spawn %d", posix_spawnp(&pid, "true", NULL, NULL, arguments, environ));
  printf(" %d\n", status(pid));
  printf("system %d\n", WEXITSTATUS(system("exit 15")));
  fflush(stdout);
  execl("/nonexistent", "x", NULL);
  printf("exec failed %d\n", errno == ENOENT);
  fflush(stdout);
  execle("/bin/sh", "sh", "-c", "echo $A; exit 16", NULL, (char*[]){(char*)"A=a b", NULL});
  return 1;
}

static void late(void) { free(malloc(4001)); }
__attribute__((destructor)) static void later(void) { free(malloc(4002)); }

int exits(void) {
  atexit(late);
  return 21;
}
int quick(void) {
  at_quick_exit(late);
  quick_exit(22);
}
static void* exitHere(void* argument) {
  free(malloc(16)); // the others may not have come to it
  _exit(argument ? 23 : 0);
}
static void* allocateForever(void* argument) {
  for (;;) free(malloc(16));
  return argument;
}
static int manyThreads(void* (*function)(void*)) {
  pthread_t id;
  for (int n = 0; n < 4; ++n) pthread_create(&id, NULL, n < 3 ? allocateForever : function, module);
  usleep(20000);
  return 24;
}
int exitFromThread(void) { return manyThreads(exitHere) + (int)sleep(60); }
int exitWhileBusy(void) { return manyThreads(allocateForever); }
static void* forkHere(void* argument) {
  for (int n = 0; n < 20; ++n) {
    const pid_t pid = fork();
    if (pid == 0) {
      free(malloc(3003));
      if (n % 2 == 0) exit(1);
      _exit(1);
    }
    *(int*)argument += status(pid);
  }
  return argument;
}
int forkWhileBusy(void) {
  int sum = 0;
  manyThreads(allocateForever);
  forkHere(&sum);
  printf("children %d\n", sum);
  return 0;
}
static void* leaveLast(void* argument) {
  usleep(20000);
  free(malloc(4003));
  return argument;
}
int mainLeaves(void) {
  pthread_t id;
  pthread_create(&id, NULL, leaveLast, NULL);
  pthread_exit(NULL);
}

/* Three, if none is open that is not the program's. */
static int closeAll(void) {
  int closed = 0;
  for (int fd = 0; fd < 1024; ++fd) closed += close(fd) == 0;
  return closed;
}
int closesAll(void) {
  const int closed = closeAll();
  return 10 * closed + chdir("/") + known();
}
/* Descriptors 0 to 2 may be closed, or be files of the program: what they hold must be its own. */
int standardFiles(void) {
  char line[16];
  int sum = 0;
  for (int fd = 0; fd < 3; ++fd) sum += (fcntl(fd, F_GETFD) >= 0) << fd;
  const int made = open("made", O_RDWR | O_CREAT | O_TRUNC, 0600);
  for (int n = 0; n < 100; ++n) keep = malloc(100);
  snprintf(line, sizeof line, "%d %d\n", sum, made);
  return write(made, line, strlen(line)) < 0 ? 1 : 32 + sum;
}
int ownEnvironment(void) {
  for (char** variable = environ; *variable != NULL; ++variable) puts(*variable);
  return system("env | grep -c VESK_") >= 0 ? 0 : 1;
}

static void onAlarm(int number) { keep = malloc((size_t)number); }
static void onAlarmExit(int number) { exit(27 + number); }
int allocateInHandler(void) {
  signal(SIGALRM, onAlarm);
  ualarm(100, 100);
  for (int n = 0; n < 300000; ++n) getpid();
  ualarm(0, 0);
  return 0;
}
int raises(void) {
  signal(SIGUSR1, onAlarm);
  return raise(SIGUSR1);
}
int exitInHandler(void) {
  signal(SIGALRM, onAlarmExit);
  ualarm(30000, 0);
  return allocateForever(NULL) != NULL;
}
int aborts(void) {
  fflush(stdout);
  abort();
}

/* ---- Hostile ---- */

/* Files that come after every descriptor was closed hold what the program writes, and nothing else. */
int reusesDescriptors(void) {
  char name[32];
  closeAll();
  for (int n = 0; n < 40; ++n) {
    snprintf(name, sizeof name, "reused%d", n);
    const int made = open(name, O_RDWR | O_CREAT | O_TRUNC, 0600);
    if (made != n || write(made, name, strlen(name)) < 0) return 1;
  }
  for (size_t n = 0; n < 300000; ++n) keep = malloc(n % 500); /* until the collector has something to say */
  forks();                                                    /* children, and the exec of another program */
  return 33;
}
int forkInThread(void) {
  pthread_t id;
  int sum = 0;
  manyThreads(allocateForever);
  pthread_create(&id, NULL, forkHere, &sum);
  pthread_join(id, NULL);
  printf("children %d\n", sum);
  return 0;
}
int spawnsWhileBusy(void) {
  char* const arguments[] = {(char*)"sh", (char*)"-c", (char*)"exit 3", NULL};
  pid_t pid;
  static int sum = 0;
  manyThreads(allocateForever);
  for (int n = 0; n < 10; ++n) {
    if ((pid = vfork()) == 0) {
      execvp(arguments[0], arguments);
      _exit(1);
    }
    sum += status(pid);
    if (posix_spawnp(&pid, arguments[0], NULL, NULL, arguments, environ) == 0) sum += status(pid);
  }
  printf("children %d\n", sum);
  return 0;
}
static void* loadOften(void* argument) {
  for (int n = 0; n < 200; ++n) {
    void* handle = dlopen(module, RTLD_NOW);
    free(malloc(6000 + (size_t)n));
    *(int*)argument += handle != NULL && dlsym(handle, "moduleFunction") != NULL;
    dlclose(handle);
  }
  return argument;
}
int loadsStorm(void) {
  int counts[4] = {0};
  inFourThreads(loadOften, counts);
  printf("loaded %d\n", counts[0] + counts[1] + counts[2] + counts[3]);
  return 0;
}
static long descend(long depth) {
  volatile char space[40];
  space[0] = (char)depth;
  if (depth % 1000 == 0) free(malloc(7000));
  return depth == 0 ? space[0] : descend(depth - 1) + 1;
}
int deepRecursion(void) {
  printf("%ld\n", descend(60000));
  return 0;
}
static volatile sig_atomic_t handled;
static void onAlternateStack(int number) {
  const int saved = errno;
  char* block = malloc(7100);
  memset(block, number, 7100);
  free(block);
  ++handled;
  errno = saved;
}
/* A handler on a small stack of its own, from a timer; the program is in its own code, or in a heap function that the
 * handler does not disturb. */
int alternateStack(void) {
  static char space[32768];
  const stack_t stack = {.ss_sp = space, .ss_size = sizeof space};
  struct sigaction action = {.sa_handler = onAlternateStack, .sa_flags = SA_ONSTACK};
  sigset_t alarms;
  sigaltstack(&stack, NULL);
  sigaction(SIGALRM, &action, NULL);
  sigemptyset(&alarms);
  sigaddset(&alarms, SIGALRM);
  ualarm(200, 200);
  while (handled < 100) {
    sigprocmask(SIG_BLOCK, &alarms, NULL);
    free(malloc(7200));
    sigprocmask(SIG_UNBLOCK, &alarms, NULL);
  }
  ualarm(0, 0);
  printf("handled %d\n", handled >= 100);
  return 0;
}
static sigjmp_buf back;
static volatile sig_atomic_t mayJump;
static void jumpBack(int number) {
  keep = malloc(7300);
  if (mayJump || number != SIGALRM) siglongjmp(back, 1);
}
/* Out of a handler, from faults and from a timer; blocks that the handler took stay behind. */
int jumpsOutOfHandlers(void) {
  volatile int faults = 0, alarms = 0;
  int* volatile nowhere = NULL;
  signal(SIGSEGV, jumpBack);
  while (faults < 500) {
    if (sigsetjmp(back, 1) == 0) *nowhere = 1;
    ++faults;
  }
  signal(SIGALRM, jumpBack);
  ualarm(300, 300);
  while (alarms < 100) {
    if (sigsetjmp(back, 1) == 0) {
      mayJump = 1;
      for (;;) getppid();
    }
    mayJump = 0;
    ++alarms;
  }
  ualarm(0, 0);
  printf("%d %d\n", faults, alarms);
  return 0;
}
/* Modules whose thread-local storage must be in every thread's static block, until there is no room. */
int staticStorage(void) {
  char path[4200];
  char command[9000];
  int loaded = 0;
  for (int n = 0; n < 40; ++n) {
    snprintf(path, sizeof path, "./static%d.so", n);
    snprintf(command, sizeof command, "cp %.*s_static.so %s", (int)strlen(module) - 3, module, path);
    if (system(command) != 0) return 1;
    loaded += dlopen(path, RTLD_NOW) != NULL;
    remove(path);
    free(malloc(7400));
  }
  printf("loaded some %d, not all %d\n", loaded > 0, loaded < 40);
  return 0;
}
/* On stacks as small as they may be. */
static pthread_barrier_t allThere;
static void* meet(void* argument) {
  free(malloc(7500));
  pthread_barrier_wait(&allThere);
  free(malloc(7501));
  return argument;
}
int veryManyThreads(void) {
  enum { COUNT = 1000 };
  static pthread_t ids[COUNT];
  pthread_attr_t attributes;
  int made = 0;
  pthread_attr_init(&attributes);
  printf("set %d\n", pthread_attr_setstacksize(&attributes, PTHREAD_STACK_MIN));
  pthread_barrier_init(&allThere, NULL, COUNT);
  for (int n = 0; n < COUNT; ++n) made += pthread_create(&ids[n], &attributes, meet, NULL) == 0;
  printf("made %d\n", made);
  fflush(stdout);
  for (int n = 0; n < COUNT; ++n) pthread_join(ids[n], NULL);
  return 0;
}

/* Does what it is told by standard input, a byte each, and answers with the same byte, while four threads are
 * busy on the heap. */
static void* noise(void* argument) {
  void* block = NULL;
  for (size_t n = 0; argument != NULL; ++n) {
    block = realloc(block, 200 + n % 300 * 40);
    free(malloc(n % 100));
  }
  return block;
}
int obeys(void) {
  static void* blocks[2][1000];
  int batch = 0;
  char order;
  manyThreads(noise);
  while (read(0, &order, 1) == 1 && order != 'q') {
    for (int n = 0; n < 1000; ++n) {
      if (order == 'a') blocks[batch][n] = malloc(123457);
      if (order == 'f') free(blocks[0][n]);
      if (order == 'f') free(blocks[1][n]);
    }
    if (order == 'a') ++batch;
    if (order == 'f') batch = 0;
    if (order == 'c') closefrom(3);
    if (order == 'x') execl("/nonexistent", "x", NULL);
    if (order == 'e') execl("/bin/true", "true", NULL);
    if (write(1, &order, 1) != 1) abort();
  }
  return 3;
}

/* ---- For the long runs ---- */

/* Takes a block behind one of as many stacks as 2 to the power of `depth`. */
static void* behind(unsigned path, int depth, size_t bytes) {
  void* block;
  if (depth == 0) return malloc(bytes);
  if (path % 2 == 0) return behind(path / 2, depth - 1, bytes);
  block = behind(path / 2, depth - 1, bytes);
  __asm__ volatile(""); /* so that there are two places to call from */
  return block;
}

/* Says who it is when it has many call stacks, waits for a byte, and ends. */
int manyStacks(void) {
  for (unsigned path = 0; path < 4096; ++path) keep = behind(path, 12, path % 100);
  printf("%d\n", (int)getpid());
  fflush(stdout);
  return getchar() == EOF;
}

/* A server of four threads, at a steady pace until standard input ends, whose sessions live for random times. */
enum { SESSIONS = 2000, HISTORY = 8 };
struct Session {
  void* state;
  void* history[HISTORY];
  int count;
};
static volatile int closing;
static void* waitForEnd(void* argument) {
  while (getchar() != EOF) continue;
  closing = 1;
  return argument;
}
static void* serve(void* argument) {
  int* requests = argument;
  unsigned random = (unsigned)*requests;
  struct Session* sessions = calloc(SESSIONS, sizeof *sessions);
  while (!closing) {
    const unsigned chosen = (unsigned)rand_r(&random);
    const unsigned bytes = (unsigned)rand_r(&random) % (rand_r(&random) % 20 == 0 ? 60000 : 900) + 1;
    struct Session* session = &sessions[chosen % SESSIONS];
    free(session->state);
    session->state = behind(chosen, 3, bytes);
    session->history[session->count++] = behind(bytes, 3, bytes % 500 + 20);
    if (session->count == HISTORY || bytes % 5 == 0) {
      while (session->count > 0) free(session->history[--session->count]);
      free(session->state);
      session->state = NULL;
    }
    if (++*requests % 3 == 0) usleep(2000);
  }
  return argument;
}
int serves(void) {
  int requests[4] = {1, 2, 3, 4};
  pthread_t id;
  pthread_create(&id, NULL, waitForEnd, NULL);
  inFourThreads(serve, requests);
  printf("%d requests\n", requests[0] + requests[1] + requests[2] + requests[3]);
  return 0;
}

int main(int argc, char** argv) {
  static char buffer[65536]; /* so that output allocates nothing */
  const char* slash;
  if (argc < 2) return 2;
  setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
  slash = strrchr(argv[0], '/');
  snprintf(module, sizeof module, "%.*s/plugins/libsubject_module.so", (int)(slash - argv[0]), argv[0]);
  int (*const program)(void) = (int (*)(void))dlsym(NULL, argv[1]);
  return program != NULL ? program() : 2;
}
