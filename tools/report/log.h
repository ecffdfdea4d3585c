// The log that a collector leaves (veskrt/log.h tells how it is written), and what its records say. All texts are
// printable.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "report/progress.h"
#include "report/terminal.h"

namespace report {

// The gravest first. A note is a comment between the records: it has no time.
enum class Severity { kError, kWarning, kInfo, kNote };

struct LogRecord {
  Severity severity = Severity::kNote;
  std::string source; // of a note the log's own
  std::string time;
  std::string type;
  std::string text; // of a note, or of a record of free text
  std::vector<std::pair<std::string, std::string>> arguments;
};

struct Log {
  std::vector<LogRecord> records;
  std::size_t torn = 0; // records that begin and do not end
  bool closed = false;  // the process has ended it
};

// Reads the whole records, also of a log that has no end. Throws Failure.
Log readLog(const std::string& path, Progress& progress);

// What a record tells, as a sentence.
std::string sentenceOf(const LogRecord& record);

struct LogSettings {
  Severity least = Severity::kNote; // nothing less grave is shown
  std::string source;               // empty: any
};

// Lines for a terminal.
std::string logText(const Log& log, const LogSettings& settings, const Terminal& terminal);

} // namespace report
