#include "report/progress.h"

#include <cstdio>

#include <unistd.h>

namespace report {

namespace {

using namespace std::chrono_literals;

constexpr auto kFirst = 300ms;
constexpr auto kBetween = 100ms;
constexpr char kEraseLine[] = "\r\033[K";

} // namespace

Progress::Progress() : terminal_(isatty(STDERR_FILENO) != 0), next_(Clock::now() + kFirst) {}

void Progress::show(const std::string& what, std::uint64_t done, std::uint64_t whole) {
  if (!terminal_) return;
  const auto now = Clock::now();
  if (now < next_) return;
  next_ = now + kBetween;
  shown_ = true;
  std::fprintf(stderr, "%s%s", kEraseLine, what.c_str());
  if (whole != 0) {
    std::fprintf(stderr, ": %.0f %%", 100.0 * static_cast<double>(done) / static_cast<double>(whole));
  }
}

void Progress::clear() {
  if (shown_) std::fputs(kEraseLine, stderr);
  shown_ = false;
}

} // namespace report
