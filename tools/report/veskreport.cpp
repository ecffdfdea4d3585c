// veskreport: turns what a collector has left into a report for a person.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>

#include <CLI/CLI.hpp>

#include "report/diff.h"
#include "report/failure.h"
#include "report/file.h"
#include "report/log.h"
#include "report/page.h"
#include "report/profile.h"
#include "report/result.h"
#include "report/table.h"
#include "report/terminal.h"
#include "report/text.h"

namespace {

using namespace report;

constexpr char kFooter[] = R"(Examples:
  veskreport heap.xml                          what held memory at the peak, by call stack
  veskreport heap.xml --leaks --top 0          all that was left at the end
  veskreport heap.xml --html heap.html         chart, flame graph and table, to open in a browser
  veskreport new.xml --diff old.xml            what has become more or less
  veskreport --log heap.log --severity warning

Exit status:
  0  done
  1  the system refused something
  2  the command line is wrong
  3  a file is missing or cannot be read
  4  a file is truncated, not well-formed, or damaged
  5  a file is none that veskreport reads
  6  a file is of another version
  7  the report cannot be written)";

struct CommandLine {
  std::string result;
  std::string old;
  std::string page;
  std::string log;
  TableSettings table;
  NameSettings names;
  LogSettings logSettings;
};

void print(const std::string& text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
    throw Failure(kUnwritable, "standard output cannot be written");
  }
}

void reportLog(const CommandLine& line) {
  Progress progress;
  const Log log = readLog(line.log, progress);
  progress.clear();
  print(logText(log, line.logSettings, findTerminal()));
  const char* name = line.log.c_str();
  if (log.torn != 0) {
    std::fprintf(stderr, "veskreport: %s: %zu torn record%s left out\n", name, log.torn,
                 log.torn == 1 ? "" : "s");
  }
  if (!log.closed) {
    std::fprintf(stderr, "veskreport: %s: it is cut: its process was killed, or still runs\n", name);
  }
}

Profile readProfile(const CommandLine& line, const std::string& path, Progress& progress) {
  return makeProfile(readHeapResult(path, progress), path, line.names, progress);
}

void reportHeap(const CommandLine& line, Profile profile, Progress& progress) {
  if (!line.old.empty()) profile = compare(readProfile(line, line.old, progress), std::move(profile));
  progress.clear();
  if (line.page.empty()) {
    print(heapTable(profile, line.table, findTerminal()));
    return;
  }
  for (const std::string& input : {line.result, line.old}) {
    std::error_code ignored;
    if (std::filesystem::equivalent(line.page, input, ignored)) {
      throw Failure(kUsage, printable(line.page) + ": the page would replace a result");
    }
  }
  replaceFile(line.page, heapPage(profile, line.table.selection));
  print("veskreport: the page is in " + printable(line.page) + "\n");
}

void reportResult(const CommandLine& line) {
  Progress progress;
  Result result = readResult(line.result, progress);
  if (auto* heap = std::get_if<HeapResult>(&result)) {
    reportHeap(line, makeProfile(std::move(*heap), line.result, line.names, progress), progress);
    return;
  }
  if (!line.page.empty() || !line.old.empty()) {
    throw Failure(kForeign, printable(line.result) + ": it is not a heap result, as --html and --diff need");
  }
  progress.clear();
  print(annotationsTable(std::get<AnnotationsResult>(result), findTerminal()));
}

constexpr char kResultOptions[] = "Options for a result";
constexpr char kTableOptions[] = "Options for the table";
constexpr char kLogOptions[] = "Options for a log";

void addResultOptions(CLI::App& app, CommandLine& line) {
  static const std::map<std::string, Metric> kMetrics = {{"peak", Metric::kPeak},
                                                         {"live", Metric::kLive},
                                                         {"bytes", Metric::kBytes},
                                                         {"calls", Metric::kCalls},
                                                         {"temporary", Metric::kTemporary}};
  app.add_option("RESULT", line.result, "The result file of the heap or the annotations collector")
      ->type_name("");
  const auto add = [](CLI::Option* option, const char* type) {
    option->type_name(type)->group(kResultOptions);
  };
  add(app.add_option("--html", line.page, "Write a page for a browser, in place of the table"), "OUT");
  add(app.add_option("--diff", line.old, "Compare with this older heap result"), "OLD");
  add(app.add_flag("--leaks", line.table.selection.leaks, "Only what was left at the end, by its bytes"), "");
  add(app.add_option("--sort", line.table.selection.metric,
                     "Sort by peak, live (at the end), bytes, calls or temporary, the highest first")
          ->transform(CLI::CheckedTransformer(kMetrics).description("")),
      "KEY");
  add(app.add_flag("--library-inlines", line.names.libraryInlines,
                   "Show all inlined functions of the C++ library, not the outermost of each run alone"),
      "");
  add(app.add_option("--debug-dir", line.names.debugDirectory,
                     "Look for separate debug files here, too (.build-id/), beside /usr/lib/debug"),
      "DIR");
  app.add_option("--top", line.table.top, "Call stacks, 0 for all")
      ->type_name("N")
      ->capture_default_str()
      ->group(kTableOptions);
  app.add_option("--frames", line.table.frames, "Frames of each call stack")
      ->type_name("N")
      ->capture_default_str()
      ->group(kTableOptions);
}

void addLogOptions(CLI::App& app, CommandLine& line) {
  static const std::map<std::string, Severity> kSeverities = {{"error", Severity::kError},
                                                              {"warning", Severity::kWarning},
                                                              {"info", Severity::kInfo},
                                                              {"note", Severity::kNote}};
  app.add_option("--log", line.log, "Read a collector's log in place of a result")
      ->type_name("LOG")
      ->group(kLogOptions);
  app.add_option("--severity", line.logSettings.least,
                 "The least grave records to show: error, warning, info or note")
      ->type_name("WORD")
      ->transform(CLI::CheckedTransformer(kSeverities).description(""))
      ->group(kLogOptions);
  app.add_option("--source", line.logSettings.source, "Only records of this source")
      ->type_name("NAME")
      ->group(kLogOptions);
}

bool anyGiven(const CLI::App& app, const char* group) {
  const auto options = app.get_options();
  return std::any_of(options.begin(), options.end(), [group](const CLI::Option* option) {
    return option->get_group() == group && option->count() != 0;
  });
}

void checkCombination(const CLI::App& app, const CommandLine& line) {
  if (line.log.empty()) {
    if (anyGiven(app, kLogOptions)) throw CLI::RequiresError("--severity and --source", "--log");
    if (line.result.empty()) throw CLI::RequiredError("RESULT or --log");
    if (!line.page.empty() && anyGiven(app, kTableOptions))
      throw CLI::ExcludesError("--top and --frames", "--html");
  } else if (!line.result.empty() || anyGiven(app, kResultOptions) || anyGiven(app, kTableOptions)) {
    throw CLI::ExcludesError("RESULT and its options", "--log");
  }
}

ExitStatus run(int argc, char** argv) {
  CLI::App app("Turns what a collector has left into a table, a page, or sentences.", "veskreport");
  CommandLine line;
  app.set_version_flag("--version", "veskreport " VESK_VERSION);
  addResultOptions(app, line);
  addLogOptions(app, line);
  app.footer(kFooter);
  try {
    app.parse(argc, argv);
    checkCombination(app, line);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kDone : kUsage;
  }
  if (line.log.empty())
    reportResult(line);
  else
    reportLog(line);
  return kDone;
}

} // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const Failure& failure) {
    std::fprintf(stderr, "veskreport: %s\n", failure.what());
    return failure.status();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "veskreport: %s\n", error.what());
    return kFailed;
  }
}
