#include "program_check.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <optional>
#include <string_view>

#include <elf.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace veskrun {

namespace {

constexpr int kMaxScripts = 5; // as the kernel has it

struct Refusal {
  int status;
  std::string text;
};

// The path that the shell would execute; or nothing, with the reason.
std::optional<std::string> search(const std::string& name, Refusal& refusal) {
  if (name.find('/') != std::string::npos) return name;
  const char* variable = std::getenv("PATH");
  std::string_view path = variable != nullptr ? variable : "/bin:/usr/bin";
  refusal = {kNotFound, name + ": command not found"};
  for (;;) {
    const std::size_t colon = path.find(':');
    const std::string_view directory = path.substr(0, colon);
    const std::string candidate = directory.empty() ? name : std::string(directory) + "/" + name;
    struct stat status;
    if (!name.empty() && stat(candidate.c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
      if (access(candidate.c_str(), X_OK) == 0)
        return candidate.find('/') != std::string::npos ? candidate : "./" + candidate;
      refusal = {kNotExecutable, candidate + ": " + std::strerror(errno)};
    }
    if (colon == std::string_view::npos) return std::nullopt;
    path.remove_prefix(colon + 1);
  }
}

std::optional<Refusal> checkFile(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) {
    return Refusal{errno == ENOENT || errno == ENOTDIR ? kNotFound : kNotExecutable,
                   path + ": " + std::strerror(errno)};
  }
  if (S_ISDIR(status.st_mode)) return Refusal{kNotExecutable, path + ": is a directory"};
  if (access(path.c_str(), X_OK) != 0) return Refusal{kNotExecutable, path + ": " + std::strerror(errno)};
  const bool otherUser = (status.st_mode & S_ISUID) != 0 && status.st_uid != geteuid();
  const bool otherGroup = (status.st_mode & S_ISGID) != 0 && status.st_gid != getegid();
  if (otherUser || otherGroup) {
    return Refusal{kNotExecutable, path + ": is set-user-id or set-group-id, and so cannot be observed"};
  }
  if (geteuid() != 0 && getxattr(path.c_str(), "security.capability", nullptr, 0) > 0) {
    return Refusal{kNotExecutable, path + ": has file capabilities, and so cannot be observed"};
  }
  return std::nullopt;
}

// The host is preloaded by the dynamic loader that a program names; it is built for one kind of program.
std::optional<Refusal> checkElf(const std::string& path, std::ifstream& file) {
  Elf64_Ehdr header = {};
  file.seekg(0);
  file.read(reinterpret_cast<char*>(&header), sizeof header);
  if (!file || header.e_ident[EI_CLASS] != ELFCLASS64 || header.e_machine != EM_X86_64) {
    return Refusal{kNotExecutable, path + ": is not a program for 64-bit x86"};
  }
  for (unsigned index = 0; index < header.e_phnum; ++index) {
    Elf64_Phdr part = {};
    file.seekg(static_cast<std::streamoff>(header.e_phoff + std::uint64_t{index} * header.e_phentsize));
    file.read(reinterpret_cast<char*>(&part), sizeof part);
    if (!file) break;
    if (part.p_type == PT_INTERP) return std::nullopt;
  }
  return Refusal{kNotExecutable,
                 path + ": is statically linked: only dynamically linked programs can be observed"};
}

// A "#!" line: the interpreter and, as one word, what follows it.
struct Interpreter {
  std::string path;
  std::string argument;
};

Interpreter readInterpreter(std::ifstream& file) {
  constexpr std::string_view kBlanks = " \t";
  std::string line;
  file.seekg(2);
  std::getline(file, line);
  line.erase(0, line.find_first_not_of(kBlanks));
  line.erase(line.find_last_not_of(kBlanks) + 1);
  const std::size_t end = line.find_first_of(kBlanks);
  if (end == std::string::npos) return {line, ""};
  return {line.substr(0, end), line.substr(line.find_first_not_of(kBlanks, end))};
}

bool isEnv(const Interpreter& interpreter) {
  const std::string_view path = interpreter.path;
  return path.substr(path.rfind('/') + 1) == "env" && !interpreter.argument.empty() &&
         interpreter.argument.find_first_of("-= \t") == std::string::npos;
}

} // namespace

Program findProgram(const std::vector<std::string>& command) {
  Program program;
  program.arguments = command;
  Refusal refusal;
  const auto refuse = [&program](const Refusal& why) {
    program.refusal = why.text;
    program.status = why.status;
    return program;
  };
  const auto found = search(command[0], refusal);
  if (!found) return refuse(refusal);
  program.path = *found;

  std::string checked = program.path;
  bool executesItself = true; // the kernel, given `path`, comes to `checked`
  for (int scripts = 0; scripts < kMaxScripts; ++scripts) {
    if (const auto why = checkFile(checked)) return refuse(*why);
    std::ifstream file(checked, std::ios::binary);
    char magic[4] = {};
    file.read(magic, sizeof magic);
    if (std::memcmp(magic, ELFMAG, SELFMAG) == 0) {
      if (const auto why = checkElf(checked, file)) return refuse(*why);
      return program;
    }
    file.clear();
    if (std::string_view(magic, 2) != "#!") {
      // A file without a kind is a script for the shell, if anything; execute it as execvp would.
      if (!executesItself || !file) return program;
      program.arguments.insert(program.arguments.begin(), "/bin/sh");
      program.arguments[1] = program.path;
      program.path = "/bin/sh";
      return program;
    }
    const Interpreter interpreter = readInterpreter(file);
    if (executesItself && isEnv(interpreter)) {
      const auto target = search(interpreter.argument, refusal);
      if (!target) return refuse(refusal);
      program.arguments[0] = checked;
      program.arguments.insert(program.arguments.begin(), interpreter.argument);
      program.path = checked = *target;
    } else {
      executesItself = false;
      checked = interpreter.path;
    }
  }
  return program;
}

} // namespace veskrun
