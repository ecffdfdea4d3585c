// Every part of the library that threads share, under all of them at once, for the given number of minutes in the
// working directory. Built with the thread sanitizer, and checked round by round: what went in must come out.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <sys/resource.h>

#include "runtime/once_guard.h"
#include "veskrt/hash_table.h"
#include "veskrt/host.h"
#include "veskrt/log.h"
#include "veskrt/memory.h"
#include "veskrt/options.h"
#include "veskrt/queue.h"
#include "veskrt/shared_lock.h"

namespace {

constexpr int kThreads = 4;
constexpr std::chrono::seconds kRound(2);
constexpr std::uint64_t kKeys = 20000;
constexpr std::size_t kMailboxes = 64;

void need(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "stress: FAILED: %s\n", what);
  std::_Exit(1);
}

// ---- What the threads of a round share ----

struct Item {
  std::uint64_t key;
  std::atomic<int> references;
};

struct Round {
  VeskHashTable* table;
  std::atomic<std::uint64_t> inserted{0}, removed{0};
  VeskSharedExclusiveLock lock;
  std::uint64_t halves[2] = {0, 0}; // equal whenever the lock is not held exclusive
  std::atomic<std::uint64_t> writes{0};
  Queue* queue;
  std::atomic<std::uint64_t> produced{0}, consumed{0}; // sums of values
  std::atomic<unsigned char*> mailboxes[kMailboxes] = {};
  std::uint32_t onceGuard = 0;
  std::uint64_t once = 0; // under the guard
  std::atomic<std::uint64_t> onceTaken{0};
  std::atomic<std::uint64_t> records{0};
};

struct Worker {
  Round& round;
  std::uint32_t index;
  std::mt19937_64 random;
  std::uint64_t sequence = 0;        // of its records and its values in the queue
  std::uint64_t seen[kThreads] = {}; // the last value of each producer that it took from the queue
  std::uint64_t operations = 0;
};

std::uint32_t blockCategory, tableCategory, queueCategory, message;
std::uint32_t parser, options[kThreads], texts;

// ---- Hash table: growth, look-ups, removals, scans that remove ----

void drop(Item* item) {
  if (--item->references == 0) __VeskFree(item);
}

void useTable(Worker& worker) {
  VeskHashTable* table = worker.round.table;
  const std::uint64_t key = worker.random() % kKeys + 1;
  switch (worker.random() % 64) {
  case 0: {
    static constexpr auto kSelect = [](void* data, void* context) -> std::uint32_t {
      return static_cast<Item*>(data)->key % 64 == *static_cast<std::uint64_t*>(context);
    };
    static constexpr auto kRelease = [](void* data) -> std::uint32_t {
      drop(static_cast<Item*>(data));
      return 1;
    };
    std::uint64_t which = key % 64;
    std::uint32_t count = 0;
    worker.round.removed += __VeskScanHashTable(table, kSelect, &which, 1, kRelease, &count);
    return;
  }
  case 1 ... 20:
    if (auto* item = static_cast<Item*>(__VeskRemoveHashTableEntry(table, key))) {
      need(item->key == key, "the table removed another key");
      ++worker.round.removed;
      drop(item);
    }
    return;
  case 21 ... 42: {
    auto* mine = new (__VeskMalloc(tableCategory, sizeof(Item), 0)) Item{key, {1}};
    if (__VeskInsertHashTableEntry(table, key, mine) == mine) {
      ++worker.round.inserted;
    } else {
      drop(mine);
    }
    return;
  }
  default: {
    void* data = nullptr;
    static constexpr auto kAcquire = [](void* found) -> std::uint32_t {
      return static_cast<std::uint32_t>(++static_cast<Item*>(found)->references);
    };
    __VeskLookupAndAcquireHashTableDataItem(table, key, kAcquire, &data);
    if (auto* item = static_cast<Item*>(data)) {
      need(item->key == key, "the table found another key");
      drop(item);
    }
  }
  }
}

// ---- Shared lock: readers, writers, nested holds, attempts after a shared hold ----

void write(Worker& worker) {
  Round& round = worker.round;
  __VeskAcquireSharedLock(&round.lock); // which does nothing for the holder
  ++round.halves[0];
  if (worker.random() % 4 == 0) {
    __VeskAcquireExclusiveLock(&round.lock);
    __VeskReleaseExclusiveLock(&round.lock);
  }
  ++round.halves[1];
  ++round.writes;
  __VeskReleaseSharedLock(&round.lock);
  __VeskReleaseExclusiveLock(&round.lock);
}

void useLock(Worker& worker) {
  Round& round = worker.round;
  if (worker.random() % 8 == 0) {
    __VeskAcquireExclusiveLock(&round.lock);
    return write(worker);
  }
  __VeskAcquireSharedLock(&round.lock);
  need(round.halves[0] == round.halves[1], "a reader saw half a write");
  __VeskReleaseSharedLock(&round.lock);
  if (worker.random() % 4 == 0 && __VeskTryToAcquireExclusiveLock(&round.lock, 3) != 0) write(worker);
}

// ---- Queue: the values of each producer come out in their order ----

void useQueue(Worker& worker) {
  if (worker.random() % 2 == 0) {
    const std::uint64_t value = ++worker.sequence << 2 | worker.index;
    worker.round.produced += value;
    return __VeskEnqueue(worker.round.queue, value);
  }
  const std::uint64_t value = __VeskDequeue(worker.round.queue);
  if (value == 0) return;
  worker.round.consumed += value;
  std::uint64_t& before = worker.seen[value & 3];
  need(value >> 2 > before, "the queue changed the order");
  before = value >> 2;
}

// ---- Allocator: blocks that one thread fills, and another one checks and gives back ----

void release(unsigned char* block) {
  if (block == nullptr) return;
  std::uint32_t size;
  std::memcpy(&size, block, sizeof size);
  for (std::uint32_t n = sizeof size; n < size; n += 97)
    need(block[n] == (size & 255), "a block was overwritten");
  __VeskFree(block);
}

void useAllocator(Worker& worker) {
  // Of some classes, so that the slab that each keeps does not hide a leak, and large ones.
  const bool large = worker.random() % 32 == 0;
  const auto size = static_cast<std::uint32_t>(worker.random() % 600 + (large ? 40000 : 4));
  auto* block = static_cast<unsigned char*>(__VeskMalloc(blockCategory, size, 0));
  std::memset(block, static_cast<int>(size & 255), size);
  std::memcpy(block, &size, sizeof size);
  release(worker.round.mailboxes[worker.random() % kMailboxes].exchange(block));
}

// ---- Log, once-only guard, option values ----

void useLog(Worker& worker) {
  ++worker.round.records;
  __VeskLogInternal(VESKLOG_SEVERITY_INFO, message, 0, VESKLOG_ARG_INT, static_cast<int>(worker.index),
                    VESKLOG_ARG_INT, static_cast<int>(++worker.sequence));
}

void useGuard(Worker& worker) {
  const vesk::ScopedOnceGuard guard(worker.round.onceGuard);
  ++worker.round.once;
  ++worker.round.onceTaken;
}

void readOptions(Worker& worker) {
  const auto number = static_cast<std::uint32_t>(__VeskGetIntegerOptionValue(parser, options[0]));
  for (const std::uint32_t option : options)
    need(static_cast<std::uint32_t>(__VeskGetIntegerOptionValue(parser, option)) == number,
         "an option differs");
  need(std::to_string(number) == __VeskGetStringOptionValue(parser, texts), "a text differs from its number");
}

// ---- Rounds ----

using Use = void (*)(Worker&);
// By how often each is used.
constexpr Use kUses[] = {useTable,     useTable,     useTable, useTable,   useTable, useLock,
                         useLock,      useLock,      useQueue, useQueue,   useQueue, useAllocator,
                         useAllocator, useAllocator, useGuard, readOptions};

void work(Worker& worker) {
  const auto end = std::chrono::steady_clock::now() + kRound;
  while (std::chrono::steady_clock::now() < end) {
    for (int n = 0; n < 200; ++n, ++worker.operations) kUses[worker.random() % std::size(kUses)](worker);
    for (int n = 0; n < 5; ++n, ++worker.operations) useLog(worker);
  }
}

// Every record whole, numbered in order, and in the order of its thread.
void checkLog(std::uint64_t records, std::uint64_t& nextId) {
  std::ifstream log("log");
  std::uint64_t opened = 0, closed = 0, last[kThreads] = {}, thread = 0;
  for (std::string line; std::getline(log, line);) {
    unsigned long long number;
    if (std::sscanf(line.c_str(), "\t<msg id='%llu' source='stress'>", &number) == 1) {
      need(opened++ == closed, "a record begins inside another one");
      need(number == nextId++, "a record's number is not the next one");
    } else if (std::sscanf(line.c_str(), "\t\t<arg name='thread'>%llu</arg>", &number) == 1) {
      thread = number;
    } else if (std::sscanf(line.c_str(), "\t\t<arg name='sequence'>%llu</arg>", &number) == 1) {
      need(thread < kThreads && number > last[thread], "a thread's records are out of order");
      last[thread] = number;
    } else if (line == "\t</msg>") {
      need(++closed == opened, "a record ends twice");
    }
  }
  need(opened == records && closed == records, "the log misses records");
}

std::uint64_t runRound(std::uint64_t seed, std::uint64_t& nextId) {
  Round round;
  round.table = __VeskCreateHashTable(0, nullptr, 2, nullptr, nullptr, tableCategory, 0);
  round.queue = __VeskCreateQueue(VESK_QUEUE_THREAD_SAFE, queueCategory);
  __VeskInitializeSharedExclusiveLockAndSpinCount(&round.lock, 20);
  need(__VeskCreateLogger("stress", "log", 0) == 1, "no log");
  const auto number = static_cast<std::int32_t>(seed);
  for (const std::uint32_t option : options) __VeskSetIntegerOption(parser, option, number);
  __VeskSetStringOption(parser, texts, std::to_string(number).c_str());

  std::vector<Worker> workers;
  for (std::uint32_t n = 0; n < kThreads; ++n)
    workers.push_back({round, n, std::mt19937_64(seed * kThreads + n), 0, {}, 0});
  std::vector<std::thread> threads;
  for (Worker& worker : workers) threads.emplace_back(work, std::ref(worker));
  for (std::thread& thread : threads) thread.join();

  __VeskCloseLogger();
  checkLog(round.records, nextId);
  std::uint32_t left = 0;
  static constexpr auto kRelease = [](void* data) -> std::uint32_t {
    need(static_cast<Item*>(data)->references == 1, "an item is still referred to");
    drop(static_cast<Item*>(data));
    return 1;
  };
  need(__VeskScanAndEmptyHashTable(round.table, kRelease, &left) == round.inserted - round.removed,
       "the table does not hold what was put into it and not taken out");
  __VeskDestroyHashTable(round.table, nullptr);
  while (const std::uint64_t value = __VeskDequeue(round.queue)) round.consumed += value;
  need(round.produced == round.consumed, "the queue lost a value");
  __VeskDestroyQueue(round.queue);
  __VeskFree(round.queue);
  need(round.halves[0] == round.writes && round.halves[1] == round.writes, "a write was lost");
  need(round.once == round.onceTaken, "the guard let two in");
  for (auto& mailbox : round.mailboxes) release(mailbox);
  std::uint64_t operations = 0;
  for (const Worker& worker : workers) operations += worker.operations;
  return operations;
}

} // namespace

int main(int argc, char** argv) {
  const auto begin = std::chrono::steady_clock::now();
  const auto end = begin + std::chrono::seconds(static_cast<long>(std::atof(argc > 1 ? argv[1] : "10") * 60));
  // Each round's log stays open behind the next one's.
  rlimit files;
  getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  setrlimit(RLIMIT_NOFILE, &files);

  veskHostInstall();
  __VeskEnableMemoryStatisticsCollection();
  need(__VeskCreateLogger("stress", "log", 0) == 1, "no log");
  static constexpr const char* kNames[] = {"thread", "sequence", nullptr};
  const LogMessageDefinition definition = {"STRESS", kNames, 0, __VeskGetLoggerHandle("stress")};
  message = __VeskRegisterLogMessage2(&definition);
  parser = __VeskGetOptionParser("stress");
  std::vector<std::thread> threads;
  for (std::uint32_t n = 0; n < kThreads; ++n) {
    threads.emplace_back([n] {
      options[n] = __VeskRegisterIntegerOption(parser, ("-o" + std::to_string(n)).c_str(), "", 0, 0, 1);
    });
  }
  for (std::thread& thread : threads) thread.join();
  texts = __VeskRegisterStringOption(parser, "-text", "", "0", 0, 0, 1);
  blockCategory = __VeskRegisterMemoryCategory("BLOCKS");
  tableCategory = __VeskRegisterMemoryCategory("TABLE");
  queueCategory = __VeskRegisterMemoryCategory("QUEUE");

  std::uint64_t rounds = 0, operations = 0, nextId = 1, held = 0;
  for (; rounds == 0 || std::chrono::steady_clock::now() < end; ++rounds) {
    operations += runRound(rounds + 1, nextId);
    if (rounds == 4) held = veskHostMemoryInUse().bytes;
  }
  const std::uint64_t heldAtEnd = veskHostMemoryInUse().bytes;
  // Each round's log keeps its record of some 140,000 bytes.
  need(rounds < 5 || heldAtEnd <= held + rounds * 150000 + (4 << 20), "memory is not given back");
  const double minutes = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count() / 60;
  std::printf(
      "stress: %.1f minutes, %lu rounds of %d threads, %lu operations, %lu records; every result right; "
      "%lu bytes held after the first rounds, %lu at the end\n",
      minutes, rounds, kThreads, operations, nextId - 1, held, heldAtEnd);
  return 0;
}
