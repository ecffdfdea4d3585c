// Runs a piece of a test in a child process, for what ends the process or changes it for good.
#pragma once

#include <functional>
#include <string>

namespace test {

struct ChildResult {
  int exitStatus = -1; // as of exit; -1 for a death by signal
  int signal = 0;      // 0, or the signal it died of
  std::string output;  // what it wrote to standard output and standard error
};

// Forks; the child runs `body` in the test's directory and leaves with status 0 if it returns. A child that
// takes longer than 60 seconds is killed.
ChildResult runInChild(const std::function<void()>& body);

// The whole of a file; empty when there is none.
std::string readFile(const std::string& path);

// How often a piece is in a text, and in the log that nobody gave another name.
std::size_t occurrences(const std::string& text, const std::string& piece);
std::size_t logged(const std::string& piece);

} // namespace test
