// Runs shell commands, for tests of whole programs. The test program defines VESK_BINARIES, where the build's
// programs lie.
#pragma once

#include <cstdio>
#include <string>

#include <sys/wait.h>

namespace test {

struct Outcome {
  int status = -1; // as the shell has it: 128 + signal for a death by signal
  std::string output;
  bool operator==(const Outcome&) const = default;
};

inline void PrintTo(const Outcome& outcome, std::ostream* stream) {
  *stream << "status " << outcome.status << ", output:\n" << outcome.output;
}

// Standard output; add "2>&1" for the rest.
inline Outcome shell(const std::string& command) {
  Outcome outcome;
  std::fflush(nullptr);
  FILE* pipe = popen(("( " + command + "\n)").c_str(), "r");
  char buffer[4096];
  while (const std::size_t got = std::fread(buffer, 1, sizeof buffer, pipe))
    outcome.output.append(buffer, got);
  outcome.status = WEXITSTATUS(pclose(pipe));
  return outcome;
}

inline const std::string kBinaries = VESK_BINARIES;

// What stands in front of a program to have the events collector write to `file`.
inline std::string observed(const std::string& options = "") {
  return kBinaries + "/veskrun -collector " + kBinaries + "/libevent_collector.so -out events " + options +
         " -- ";
}

} // namespace test
