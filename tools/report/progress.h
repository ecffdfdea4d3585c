// One line on standard error that tells how far long work is, on a terminal alone.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace report {

class Progress {
public:
  Progress();
  ~Progress() { clear(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Shows nothing in the first moments, nor more often than an eye follows. `whole` is 0 where it is not
  // known.
  void show(const std::string& what, std::uint64_t done, std::uint64_t whole);
  void clear();

private:
  using Clock = std::chrono::steady_clock;

  bool terminal_;
  bool shown_ = false;
  Clock::time_point next_;
};

} // namespace report
