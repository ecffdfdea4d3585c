#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "veskrt/command_handler.hpp"
#include "veskrt/hash_table.h"
#include "veskrt/host.h"
#include "veskrt/memory.h"

int main() {
  veskHostInstall();
  const std::uint32_t category = __VeskRegisterMemoryCategory("OUTSIDE");
  VeskHashTable* table = __VeskCreateHashTable(0, nullptr, 1, nullptr, nullptr, category, 0);
  std::vector<std::thread> threads;
  for (std::uint64_t first = 1; first <= 2; ++first) {
    threads.emplace_back([=] {
      for (std::uint64_t key = first; key <= 1000; key += 2) {
        __VeskInsertHashTableEntry(table, key, reinterpret_cast<void*>(key));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::uint64_t sum = 0;
  for (std::uint64_t key = 1; key <= 1000; ++key) {
    sum += reinterpret_cast<std::uint64_t>(__VeskLookupHashTable(table, key));
  }
  CollectorCommandHandler handler;
  std::printf("%llu %d\n", static_cast<unsigned long long>(sum), handler.processCommands());
  __VeskDestroyHashTable(table, nullptr);
  return veskHostMemoryInUse().bytes > 0 ? 0 : 1;
}
