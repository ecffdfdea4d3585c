// veskrun: runs a program with the host and a collector in it.
//
// The program runs as a child, so that its end can be told in an exit status; all else is as if it had been
// started directly. It stays in veskrun's process group, keeps its descriptors (of which veskrun holds no
// copies), its signal mask and its terminal.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#include "program_check.h"

namespace {

using veskrun::Program;

constexpr int kUsageError = 2;

constexpr char kUsage[] =
    R"(usage: veskrun [options] [collector options] -- program [arguments]
       veskrun [options] program [arguments]

Runs a program and observes it with a collector: the heap profiler, if no other is named.

  -collector NAME    the collector to load: one of those below, or the path of a shared object
  --help             this text and the collector's options (also -help)
  --version          the version

Whatever else stands before "--" goes to the collector. Without collector options "--" may be left out.

The exit status is the program's own, or 128 + the signal that ended it. It is 2 for a wrong use of veskrun or of
the collector's options, 126 for a program that cannot be observed or executed, 127 for one that is not found.

Collectors:)";

struct CommandLine {
  std::string collector;
  std::vector<std::string> collectorArguments;
  std::vector<std::string> program;
  bool help = false;
  bool version = false;
};

[[noreturn]] void fail(int status, const std::string& text) {
  std::fprintf(stderr, "veskrun: %s\n", text.c_str());
  std::exit(status);
}

CommandLine parse(int argc, char** argv) {
  CommandLine line;
  int index = 1;
  for (; index < argc; ++index) {
    const std::string_view argument = argv[index];
    if (argument == "--") {
      ++index;
      break;
    }
    if (argument == "--help") {
      line.help = true;
    } else if (argument == "--version") {
      line.version = true;
    } else if (argument == "-collector" || argument == "--collector") {
      if (++index == argc) fail(kUsageError, std::string(argument) + " needs a name");
      line.collector = argv[index];
    } else if (argument.starts_with("--")) {
      fail(kUsageError, "there is no option " + std::string(argument) + " (see veskrun --help)");
    } else if (line.collectorArguments.empty() && !argument.starts_with('-')) {
      break;
    } else {
      line.collectorArguments.emplace_back(argument);
      if (index + 1 < argc) continue;
      if (line.collectorArguments == std::vector<std::string>{"-help"}) {
        line.help = true;
      } else {
        fail(kUsageError,
             "\"--\" must stand between the collector's options and the program (see veskrun --help)");
      }
    }
  }
  line.program.assign(argv + index, argv + argc);
  return line;
}

// The host lies beside veskrun, as it is built, or in a directory of its own with the collectors, as it is installed.
std::filesystem::path findHost() {
  const std::filesystem::path here = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  std::error_code ignored;
  for (const char* place : {".", VESK_COLLECTOR_DIRECTORY}) {
    auto candidate = (here / place / "libveskhost.so").lexically_normal();
    if (std::filesystem::exists(candidate, ignored)) return candidate;
  }
  fail(kUsageError,
       "libveskhost.so is neither beside " + here.string() + "/veskrun nor in " VESK_COLLECTOR_DIRECTORY);
}

// Collectors lie beside the host, each as libvesk and its name.
constexpr std::string_view kCollectorPrefix = "libvesk";
constexpr std::string_view kCollectorSuffix = ".so";

std::string findCollector(const std::filesystem::path& directory, const std::string& name) {
  if (name.find('/') != std::string::npos) return std::filesystem::absolute(name);
  return directory / (std::string(kCollectorPrefix) + name + std::string(kCollectorSuffix));
}

void listCollectors(const std::filesystem::path& directory) {
  std::vector<std::string> names;
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(directory, ignored)) {
    std::string name = entry.path().filename();
    if (!name.starts_with(kCollectorPrefix) || !name.ends_with(kCollectorSuffix)) continue;
    name =
        name.substr(kCollectorPrefix.size(), name.size() - kCollectorPrefix.size() - kCollectorSuffix.size());
    if (name != "host" && name != "rt") names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) std::printf(" %s", name.c_str());
  std::puts("");
}

// A directory with a link to the host, where LD_PRELOAD could not name it: there a blank or a colon ends a
// path.
struct LinkToHost {
  std::string directory;

  std::string make(const std::string& host) {
    directory = "/tmp/veskrun-XXXXXX";
    if (mkdtemp(directory.data()) == nullptr) fail(kUsageError, directory + ": " + std::strerror(errno));
    std::string link = directory + "/libveskhost.so";
    if (symlink(host.c_str(), link.c_str()) != 0) fail(kUsageError, link + ": " + std::strerror(errno));
    return link;
  }
  void remove() const {
    if (directory.empty()) return;
    unlink((directory + "/libveskhost.so").c_str());
    rmdir(directory.c_str());
  }
};

void prepareEnvironment(const std::string& program, const std::string& host, const std::string& collector,
                        const std::vector<std::string>& arguments) {
  // What a veskrun around this one has left is not for this collector.
  std::vector<std::string> stale;
  for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
    const std::string_view text = *variable;
    if (text.starts_with("VESK_HOST_")) stale.emplace_back(text.substr(0, text.find('=')));
  }
  for (const std::string& name : stale) unsetenv(name.c_str());

  // A shell says in "_" what it has started.
  std::error_code ignored;
  const char* started = std::getenv("_");
  if (started != nullptr && std::filesystem::equivalent(started, "/proc/self/exe", ignored)) {
    setenv("_", program.c_str(), 1);
  }
  const char* preload = std::getenv("LD_PRELOAD");
  setenv("LD_PRELOAD", preload != nullptr ? (host + ":" + preload).c_str() : host.c_str(), 1);
  setenv("VESK_HOST_LIBRARY", host.c_str(), 1);
  setenv("VESK_HOST_COLLECTOR", collector.c_str(), 1);
  for (std::size_t index = 0; index < arguments.size(); ++index) {
    setenv(("VESK_HOST_ARGUMENT_" + std::to_string(index)).c_str(), arguments[index].c_str(), 1);
  }
}

// ---- The child ----

pid_t child = 0;

// Signals that somebody may send to veskrun and mean the program.
constexpr int kForwarded[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2, SIGALRM, SIGWINCH, SIGCONT};

// The terminal's signals reach the program by themselves: they go to the whole group.
void forward(int signal, siginfo_t* info, void*) {
  const int saved = errno;
  if (info->si_code != SI_KERNEL) kill(child, signal);
  errno = saved;
}

[[noreturn]] void execute(const Program& program) {
  std::vector<char*> arguments;
  for (const std::string& argument : program.arguments)
    arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  execv(program.path.c_str(), arguments.data());
  const int error = errno;
  std::fprintf(stderr, "veskrun: %s: %s\n", program.path.c_str(), std::strerror(error));
  _exit(error == ENOENT ? veskrun::kNotFound : veskrun::kNotExecutable);
}

int exitStatus(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

int waitForChild() {
  for (;;) {
    int status;
    if (waitpid(child, &status, WUNTRACED) < 0) {
      if (errno == EINTR) continue;
      return EXIT_FAILURE;
    }
    if (!WIFSTOPPED(status)) return exitStatus(status);
    // A program that stops itself stops the job. After a stop by the terminal, which has stopped veskrun too,
    // the program is about to continue as veskrun has.
    usleep(20000);
    if (waitpid(child, &status, WCONTINUED | WNOHANG) == 0) {
      raise(SIGSTOP);
      kill(child, SIGCONT);
    } else if (!WIFCONTINUED(status)) {
      return exitStatus(status);
    }
  }
}

int run(const Program& program) {
  std::fflush(nullptr);
  sigset_t forwarded;
  sigset_t before;
  sigemptyset(&forwarded);
  for (const int signal : kForwarded) sigaddset(&forwarded, signal);
  sigprocmask(SIG_BLOCK, &forwarded, &before);
  const auto children =
      std::signal(SIGCHLD, SIG_DFL); // where they are ignored there is no status to wait for
  child = fork();
  if (child < 0) fail(kUsageError, std::string("cannot start a process: ") + std::strerror(errno));
  if (child == 0) {
    std::signal(SIGCHLD, children);
    sigprocmask(SIG_SETMASK, &before, nullptr);
    execute(program);
  }
  // A pipe that the program closes must be closed.
  close_range(0, ~0u, 0);
  struct sigaction action = {};
  action.sa_sigaction = forward;
  action.sa_flags = SA_SIGINFO | SA_RESTART;
  for (const int signal : kForwarded) sigaction(signal, &action, nullptr);
  sigprocmask(SIG_SETMASK, &before, nullptr);
  sigprocmask(SIG_UNBLOCK, &forwarded, nullptr);
  return waitForChild();
}

} // namespace

int main(int argc, char** argv) {
  CommandLine line = parse(argc, argv);
  if (line.version) {
    std::printf("veskrun %s\n", VESK_VERSION);
    return 0;
  }
  const std::filesystem::path host = findHost();
  const std::string collector =
      findCollector(host.parent_path(), line.collector.empty() ? "heap" : line.collector);
  std::error_code ignored;
  const bool haveCollector = std::filesystem::exists(collector, ignored);

  Program program;
  if (line.help) {
    std::fputs(kUsage, stdout);
    listCollectors(host.parent_path());
    std::fflush(stdout);
    if (!haveCollector) return 0;
    // The collector tells its options itself, in any program; it ends that before it begins.
    line.collectorArguments = {"-help"};
    program.path = std::filesystem::read_symlink("/proc/self/exe");
    program.arguments = {"veskrun", "--version"};
  } else {
    if (line.program.empty()) fail(kUsageError, "no program is given (see veskrun --help)");
    if (!haveCollector) fail(kUsageError, "there is no collector " + collector);
    program = veskrun::findProgram(line.program);
    if (program.status != 0) fail(program.status, program.refusal);
  }

  LinkToHost link;
  const bool preloadable = host.string().find_first_of(" :$") == std::string::npos;
  prepareEnvironment(program.path, preloadable ? host.string() : link.make(host), collector,
                     line.collectorArguments);
  const int status = run(program);
  link.remove();
  return status;
}
