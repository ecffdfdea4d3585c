#include "collectors/heap/settings.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "collectors/heap/backtrace.h"
#include "collectors/heap/debug_categories.h"
#include "veskrt/host.h"
#include "veskrt/options.h"
#include "veskrt/runtime.h"

namespace heap {

namespace {

constexpr std::uint32_t kDefaultTop = 10;
constexpr std::uint32_t kDefaultTimeline = 10;

constexpr char kLogEnd[] = "\n</log>";
constexpr off_t kLogEndLength = sizeof kLogEnd - 1;

// The ids, once registered.
struct Options {
  std::uint32_t parser;
  std::uint32_t out;
  std::uint32_t log;
  std::uint32_t depth;
  std::uint32_t top;
  std::uint32_t timeline;
  std::uint32_t commands;
  std::uint32_t heartbeat;
  std::uint32_t debug;
  std::uint32_t follow;
  std::uint32_t help;
};

constinit Options options{};

// What the parser does not say: which argument it refused, and what would have been taken.
enum class Kind { kBoolean, kInteger, kPath, kText };
struct Rule {
  const char* name;
  Kind kind;
  long least;
  long most;
};

constexpr Rule kRules[] = {
    {"-out", Kind::kPath, 0, 0},
    {"-log", Kind::kPath, 0, 0},
    {"-depth", Kind::kInteger, 1, kMaxDepth},
    {"-top", Kind::kInteger, 0, 1000},
    {"-timeline", Kind::kInteger, 0, 3'600'000},
    {"-commands", Kind::kPath, 0, 0},
    {"-heartbeat", Kind::kInteger, 0, 1'000'000},
    {"-debug", Kind::kText, 0, 0},
    {"-follow", Kind::kBoolean, 0, 0},
    {"-help", Kind::kBoolean, 0, 0},
};

void registerOptions() {
  const std::uint32_t parser = __VeskGetOptionParser("veskheap");
  options.parser = parser;
  options.out = __VeskRegisterPathOption(parser, "-out", "result file", "veskheap.PID.xml", 0, 0, 1);
  options.log = __VeskRegisterPathOption(parser, "-log", "log file", "veskheap.PID.log", 0, 0, 1);
  options.depth =
      __VeskRegisterIntegerOption(parser, "-depth", "frames of a call stack, 1 to 25", kMaxDepth, 0, 1);
  options.top = __VeskRegisterIntegerOption(parser, "-top", "rows of the table at the end, 0 to 1000",
                                            kDefaultTop, 0, 1);
  options.timeline = __VeskRegisterIntegerOption(
      parser, "-timeline", "milliseconds between samples over time, 0 for none", kDefaultTimeline, 0, 1);
  options.commands = __VeskRegisterPathOption(
      parser, "-commands", "directory of the command channel, for veskctl; without it there is none", "", 0,
      0, 1);
  options.heartbeat = __VeskRegisterIntegerOption(
      parser, "-heartbeat", "seconds without a command after which the log notes the figures, 0 for never", 0,
      0, 1);
  options.debug = __VeskRegisterStringOption(
      parser, "-debug", "what to log of the profiler itself: COMMANDS, MODULES, STACKS, THREADS, ALL", "", 0,
      0, 1);
  options.follow = __VeskRegisterBooleanOption(parser, "-follow", "watch the program's children, too",
                                               veskHostFollowsChildren(), 0, 1);
  options.help = __VeskRegisterBooleanOption(parser, "-help", "this list", 0, 0, 1);
}

bool isNegated(const char* argument) { return std::strncmp(argument, "-no-", 4) == 0; }

const Rule* ruleFor(const char* name) {
  for (const Rule& rule : kRules) {
    if (std::strcmp(rule.name, name) == 0) return &rule;
  }
  return nullptr;
}

bool isInteger(const char* text, long least, long most) {
  char* end;
  errno = 0;
  const long value = std::strtol(text, &end, 0);
  return errno == 0 && end != text && *end == '\0' && value >= least && value <= most;
}

bool acceptValue(const Rule& rule, const char* value) {
  if (value == nullptr || value[0] == '-') {
    tell("option %s needs a value (-help lists the options)", rule.name);
    return false;
  }
  if (rule.kind == Kind::kInteger && !isInteger(value, rule.least, rule.most)) {
    tell("option %s takes a number from %ld to %ld, not '%s' (-help lists the options)", rule.name,
         rule.least, rule.most, value);
    return false;
  }
  if (rule.kind == Kind::kPath && (value[0] == '\0' || std::strlen(value) > PATH_MAX / 2)) {
    tell("option %s takes a path, not '%.80s' (-help lists the options)", rule.name, value);
    return false;
  }
  return true;
}

// Tells what is wrong with the first argument that is.
bool acceptArguments(std::uint32_t argc, const char* const* argv) {
  for (std::uint32_t i = 0; i < argc; ++i) {
    const char* argument = argv[i];
    const Rule* rule = ruleFor(argument);
    if (rule == nullptr && isNegated(argument)) {
      // "-no-x" negates "-x".
      Text<64> plain;
      plain.append("-%s", argument + 4);
      rule = ruleFor(plain.text());
      if (rule != nullptr && rule->kind != Kind::kBoolean) {
        tell("option %s cannot be negated: '%s' (-help lists the options)", rule->name, argument);
        return false;
      }
    }
    if (rule == nullptr) {
      tell("'%s' is not an option (-help lists the options)", argument);
      return false;
    }
    if (rule->kind == Kind::kBoolean) continue;
    if (!acceptValue(*rule, i + 1 < argc ? argv[i + 1] : nullptr)) return false;
    ++i;
  }
  return true;
}

bool asksForHelp(std::uint32_t argc, const char* const* argv) {
  for (std::uint32_t i = 0; i < argc; ++i) {
    if (std::strcmp(argv[i], "-help") == 0) return true;
  }
  return false;
}

std::uint32_t integerOption(std::uint32_t option) {
  return static_cast<std::uint32_t>(__VeskGetIntegerOptionValue(options.parser, option));
}

// Tells what is wrong with options that are fine by themselves.
bool acceptTogether(const Settings& settings) {
  struct stat status;
  if (settings.heartbeat != 0 && settings.commands.length() == 0) {
    tell("option -heartbeat needs -commands (-help lists the options)");
    return false;
  }
  if (settings.commands.length() != 0 &&
      (stat(settings.commands.text(), &status) != 0 || !S_ISDIR(status.st_mode))) {
    tell("option -commands takes a directory, and '%s' is none", settings.commands.text());
    return false;
  }
  return true;
}

bool enableDebugging(const char* text) {
  __VeskDbgRegisterDbgMap(kDebugMap);
  if (__VeskParseDbgDumpOption(text)) return true;
  tell("option -debug takes COMMANDS, MODULES, STACKS, THREADS, ALL, separated by commas, no-NAME to take "
       "one away, or a"
       " hexadecimal mask; not '%s'",
       text);
  return false;
}

void readPath(Path& path, std::uint32_t option) {
  if (__VeskIsOptionSet(options.parser, option))
    path.append("%s", __VeskGetPathOptionValue(options.parser, option));
}

bool readDirectory(Path& directory) {
  char path[PATH_MAX];
  if (getcwd(path, sizeof path) == nullptr) return false;
  directory.append("%s%s", path, std::strcmp(path, "/") == 0 ? "" : "/");
  return true;
}

// Where the name's extension begins: at its end if it has none.
std::uint32_t extensionOf(const Path& path) {
  const char* name = std::strrchr(path.text(), '/');
  name = name == nullptr ? path.text() : name + 1;
  const char* dot = std::strrchr(name, '.');
  return dot == nullptr || dot == name ? path.length() : static_cast<std::uint32_t>(dot - path.text());
}

void makeAbsolute(Path& absolute, const Settings& settings, const Path& given) {
  absolute.append("%s%s", given.text()[0] == '/' ? "" : settings.directory.text(), given.text());
}

// The given file, made absolute, and with the process id in front of its extension if children are followed.
void nameGiven(Path& name, const Settings& settings, const Path& given) {
  Path absolute;
  makeAbsolute(absolute, settings, given);
  if (!veskHostFollowsChildren()) {
    name.append("%s", absolute.text());
    return;
  }
  const std::uint32_t stem = extensionOf(absolute);
  name.append("%.*s.%d%s", static_cast<int>(stem), absolute.text(), __VeskGetPid(), absolute.text() + stem);
}

// Beside the result, which may itself be called a log.
void nameLogBeside(Path& log, const Path& result) {
  const std::uint32_t stem = extensionOf(result);
  const bool taken = std::strcmp(result.text() + stem, ".log") == 0;
  log.append("%.*s.log", static_cast<int>(taken ? result.length() : stem), result.text());
}

} // namespace

Parsed readSettings(Settings& settings, std::uint32_t argc, const char* const* argv) {
  registerOptions();
  if (asksForHelp(argc, argv)) {
    __VeskPrintHelp(options.parser, 0);
    return Parsed::kHelpGiven;
  }
  if (!acceptArguments(argc, argv)) return Parsed::kRefused;
  if (!__VeskParseOptions2(options.parser, argc, argv)) {
    tell("the options are not understood (-help lists them)");
    return Parsed::kRefused;
  }
  settings.depth = integerOption(options.depth);
  settings.top = integerOption(options.top);
  settings.timelineMilliseconds = integerOption(options.timeline);
  readPath(settings.out, options.out);
  readPath(settings.log, options.log);
  veskHostSetFollowChildren(__VeskGetBooleanOptionValue(options.parser, options.follow));
  if (!readDirectory(settings.directory)) {
    tell("cannot tell the current directory: %s", std::strerror(errno));
    return Parsed::kRefused;
  }
  Path commands;
  readPath(commands, options.commands);
  if (commands.length() != 0) makeAbsolute(settings.commands, settings, commands);
  settings.heartbeat = integerOption(options.heartbeat);
  const bool accepted =
      acceptTogether(settings) && enableDebugging(__VeskGetStringOptionValue(options.parser, options.debug));
  return accepted ? Parsed::kGoOn : Parsed::kRefused;
}

void nameFiles(Files& files, const Settings& settings) {
  files.result.clear();
  files.log.clear();
  if (settings.out.length() != 0)
    nameGiven(files.result, settings, settings.out);
  else
    files.result.append("%sveskheap.%d.xml", settings.directory.text(), __VeskGetPid());
  if (settings.log.length() != 0)
    nameGiven(files.log, settings, settings.log);
  else
    nameLogBeside(files.log, files.result);
}

void nameNumbered(Path& path, const Path& result, const char* word, std::uint32_t& number) {
  const auto stem = static_cast<int>(extensionOf(result));
  do {
    path.clear();
    path.append("%.*s.%s%u%s", stem, result.text(), word, ++number, result.text() + stem);
  } while (access(path.text(), F_OK) == 0);
}

void endLogBeforeExec(const Files& files) {
  const int log = open(files.log.text(), O_WRONLY | O_APPEND | O_CLOEXEC);
  if (log < 0) return;
  if (write(log, kLogEnd, kLogEndLength) != kLogEndLength) tell("cannot end the log %s", files.log.text());
  close(log);
}

void continueLog(const Files& files) {
  char end[kLogEndLength];
  const int log = open(files.log.text(), O_RDWR | O_CLOEXEC);
  if (log < 0) return;
  const off_t size = lseek(log, 0, SEEK_END);
  if (size >= kLogEndLength && pread(log, end, kLogEndLength, size - kLogEndLength) == kLogEndLength &&
      std::memcmp(end, kLogEnd, kLogEndLength) == 0 && ftruncate(log, size - kLogEndLength) != 0) {
    tell("cannot continue the log %s", files.log.text());
  }
  close(log);
}

void logSettings(const Files& files) {
  __VeskSetPathOption(options.parser, options.out, files.result.text());
  __VeskSetPathOption(options.parser, options.log, files.log.text());
  __VeskLogToolOptionValues(options.parser);
}

void tell(const char* format, ...) {
  char line[2 * PATH_MAX];
  constexpr char kName[] = "veskheap: ";
  constexpr std::size_t kNameLength = sizeof kName - 1;
  std::memcpy(line, kName, kNameLength);
  va_list arguments;
  va_start(arguments, format);
  const int length = __VeskVsnprintf(line + kNameLength, sizeof line - kNameLength - 1, format, arguments);
  va_end(arguments);
  if (length < 0) return;
  std::size_t end = std::strlen(line);
  line[end++] = '\n';
  [[maybe_unused]] const ssize_t ignored = write(STDERR_FILENO, line, end);
}

} // namespace heap
