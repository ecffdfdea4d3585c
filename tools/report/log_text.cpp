#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>

#include "report/log.h"
#include "report/text.h"

namespace report {

namespace {

struct Sentence {
  std::string_view type;
  std::string_view text; // with {name} for the argument of that name
};

constexpr Sentence kSentences[] = {
    {"ABNORMAL_TERMINATE", "The collector ended the process, because it could not go on."},
    {"OUT_OF_MEMORY", "The system gives the collector no more memory."},
    {"COLLECT_MEMORY", "Memory is short: the collector gives back what it does not need."},
    {"MEMORY_IS_TIGHT", "The collector's memory is nearly used up."},
    {"FREEING_RESERVES", "The collector goes on with its memory reserve of {num_bytes} bytes."},
    {"BAD_OPTION", "There is no option {option}."},
    {"BAD_ARGUMENT", "The argument of the option {option} is missing or wrong."},
    {"FAIL_CONVERT_FILENAME", "The name of a file could not be converted."},
    {"FAIL_OPEN_FILE", "The file {filename} could not be opened or written."},
    {"FAIL_SEEK_FILE", "In the file {filename} no position could be set."},
    {"FAIL_READ_FILE", "The file {filename} could not be read."},
    {"FAIL_READ_FILE_VERBOSE", "The file {filename} could not be read: {srerror}."},
    {"INVALID_RELEASE",
     "The program released {address}, which lies inside its block {block} of {bytes} bytes "
     "(from call stack {stack})."},
};

std::string_view argumentOf(const LogRecord& record, std::string_view name) {
  for (const auto& [argument, value] : record.arguments) {
    if (argument == name) return value;
  }
  return "?";
}

std::string filled(std::string_view text, const LogRecord& record) {
  std::string sentence;
  for (std::size_t start; (start = text.find('{')) != std::string_view::npos;) {
    const std::size_t end = text.find('}', start);
    sentence += text.substr(0, start);
    sentence += argumentOf(record, text.substr(start + 1, end - start - 1));
    text.remove_prefix(end + 1);
  }
  return sentence += text;
}

// "Mon Nov 23 02:06:15 2026" as 2026-11-23 02:06:15; another text as it is.
std::string sortableTime(const std::string& time) {
  constexpr std::string_view kMonths = "JanFebMarAprMayJunJulAugSepOctNovDec";
  char month[4];
  int day;
  int year;
  char clock[9];
  if (std::sscanf(time.c_str(), "%*3s %3s %d %8s %d", month, &day, clock, &year) != 4) return time;
  const std::size_t at = kMonths.find(month);
  if (at == std::string_view::npos) return time;
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02zu-%02d %s", year, at / 3 + 1, day, clock);
  return text;
}

constexpr const char* kSeverityWords[] = {"error", "warning", "info", "note"};
constexpr Style kSeverityStyles[] = {Style::kGrowth, Style::kStrong, Style::kPlain, Style::kFaint};

using Fields = std::array<std::string, 3>;

Fields fieldsOf(const LogRecord& record) {
  return {sortableTime(record.time), kSeverityWords[static_cast<int>(record.severity)], record.source};
}

} // namespace

std::string sentenceOf(const LogRecord& record) {
  if (!record.text.empty()) return record.text;
  for (const Sentence& sentence : kSentences) {
    if (sentence.type == record.type) return filled(sentence.text, record);
  }
  std::string text = record.type;
  const char* separator = ": ";
  for (const auto& [name, value] : record.arguments) {
    text.append(separator).append(name).append(" ").append(value);
    separator = ", ";
  }
  return text;
}

std::string logText(const Log& log, const LogSettings& settings, const Terminal& terminal) {
  std::vector<const LogRecord*> shown;
  Fields widest;
  for (const LogRecord& record : log.records) {
    if (record.severity > settings.least || (!settings.source.empty() && record.source != settings.source))
      continue;
    shown.push_back(&record);
    const Fields fields = fieldsOf(record);
    for (std::size_t i = 0; i < fields.size(); ++i) {
      if (characters(fields[i]) > characters(widest[i])) widest[i] = fields[i];
    }
  }
  std::string text;
  for (const LogRecord* record : shown) {
    const Fields fields = fieldsOf(*record);
    std::string before;
    for (std::size_t i = 0; i < fields.size(); ++i) {
      if (widest[i].empty()) continue;
      before += fields[i] + std::string(characters(widest[i]) - characters(fields[i]) + 2, ' ');
    }
    text +=
        terminal.styled(kSeverityStyles[static_cast<int>(record->severity)], before + sentenceOf(*record)) +
        "\n";
  }
  return text;
}

} // namespace report
