#include "support/child.h"

#include <fstream>
#include <sstream>

#include <sys/wait.h>
#include <unistd.h>

namespace test {

ChildResult runInChild(const std::function<void()>& body) {
  const std::string path = "child-output";
  std::remove(path.c_str());
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    if (freopen(path.c_str(), "w", stdout) == nullptr || dup2(1, 2) != 2) _exit(125);
    alarm(60);
    body();
    std::fflush(nullptr);
    _exit(0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  ChildResult result;
  if (WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  result.output = readFile(path);
  return result;
}

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

std::size_t occurrences(const std::string& text, const std::string& piece) {
  std::size_t count = 0;
  for (std::size_t at = 0; (at = text.find(piece, at)) != std::string::npos; ++at) ++count;
  return count;
}

std::size_t logged(const std::string& piece) { return occurrences(readFile("vesklog.log"), piece); }

} // namespace test
