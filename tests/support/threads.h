// Runs a piece of a test on several threads at once.
#pragma once

#include <functional>
#include <thread>
#include <vector>

namespace test {

// Calls body(0), ..., body(count - 1), each on a thread of its own, and returns when all have.
inline void runThreads(int count, const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  for (int t = 0; t < count; ++t) threads.emplace_back(body, t);
  for (auto& thread : threads) thread.join();
}

} // namespace test
