// veskreport: turns what a collector has left into a report for a person.
#include <cstdio>
#include <map>

#include <CLI/CLI.hpp>

#include "report/failure.h"
#include "report/profile.h"
#include "report/result.h"
#include "report/table.h"
#include "report/terminal.h"
#include "report/text.h"

namespace {

using namespace report;

constexpr char kFooter[] = R"(Exit status:
  0  done
  1  the system refused something
  2  the command line is wrong
  3  a file is missing or cannot be read
  4  a file is truncated, not well-formed or damaged
  5  a file is none that veskreport reads
  6  a result is of another version
  7  the report cannot be written)";

struct CommandLine {
  std::string result;
  TableSettings table;
  NameSettings names;
};

void print(const std::string& text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
    throw Failure(kUnwritable, "standard output cannot be written");
  }
}

int report(const CommandLine& line) {
  Progress progress;
  Result result = readResult(line.result, progress);
  if (const auto* annotations = std::get_if<AnnotationsResult>(&result)) {
    progress.clear();
    print(annotationsTable(*annotations, findTerminal()));
    return kDone;
  }
  const Profile profile =
      makeProfile(std::get<HeapResult>(std::move(result)), line.result, line.names, progress);
  print(heapTable(profile, line.table, findTerminal()));
  return kDone;
}

int run(int argc, char** argv) {
  const std::map<std::string, Metric> metrics = {{"peak", Metric::kPeak},
                                                 {"live", Metric::kLive},
                                                 {"bytes", Metric::kBytes},
                                                 {"calls", Metric::kCalls},
                                                 {"temporary", Metric::kTemporary}};
  CLI::App app("Turns a collector's result into a table.", "veskreport");
  CommandLine line;
  app.add_option("RESULT", line.result, "The result file of the heap or the annotations collector")
      ->required();
  app.add_option("--sort", line.table.selection.metric, "The column to sort by")
      ->transform(CLI::Transformer(metrics));
  app.add_option("--top", line.table.top, "Rows to show, 0 for all")->capture_default_str();
  app.add_option("--frames", line.table.frames, "Frames of a call stack to show")->capture_default_str();
  app.add_flag("--leaks", line.table.selection.leaks, "Only what is left at the end");
  app.add_option("--debug-dir", line.names.debugDirectory,
                 "A directory of debug files beside /usr/lib/debug");
  app.add_flag("--library-inlines", line.names.libraryInlines,
               "All inlined functions of the C++ library, and not the outermost of each run alone");
  app.set_version_flag("--version", "veskreport " VESK_VERSION);
  app.footer(kFooter);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kDone : kUsage;
  }
  return report(line);
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
