// Finding a program as the shell does, and telling beforehand why the host could not be preloaded into it.
#pragma once

#include <string>
#include <vector>

namespace veskrun {

// Exit statuses of a shell.
inline constexpr int kNotExecutable = 126;
inline constexpr int kNotFound = 127;

struct Program {
  std::string path;                   // what to execute
  std::vector<std::string> arguments; // the first included

  // When it cannot be run: a sentence for the user, and the exit status.
  std::string refusal;
  int status = 0;
};

// Takes the command as typed. A script is followed to its interpreter; where that is env, which would execute
// the true interpreter in its own place, env's part is done here.
Program findProgram(const std::vector<std::string>& command);

} // namespace veskrun
