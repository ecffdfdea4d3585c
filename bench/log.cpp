// A record of the log, with the system when the call returns: beside spdlog flushing each record, and beside a write
// of the same bytes and nothing else.
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include "bench/bench.h"
#include "veskrt/log.h"

namespace {

using namespace bench;

constexpr const char* kOurPath = "our.log";
uint32_t message;

void createOurs() {
  if (__VeskCreateLogger("bench", kOurPath, 0) == 0) std::abort();
  static const char* const names[] = {"file", "line", nullptr};
  const LogMessageDefinition definition = {"BAD_INPUT", names, 0, __VeskGetLoggerHandle("bench")};
  message = __VeskRegisterLogMessage2(&definition);
}

void logOurs(int32_t line) {
  __VeskLogInternal(VESKLOG_SEVERITY_WARNING, message, 0, VESKLOG_ARG_STRING, "input/some_file.txt",
                    VESKLOG_ARG_INT, line);
}

// Bytes of a record of ours.
size_t recordSize() {
  const auto before = std::filesystem::file_size(kOurPath);
  logOurs(1000000);
  return std::filesystem::file_size(kOurPath) - before;
}

void ours(benchmark::State& state) {
  if (truncate(kOurPath, 0) != 0) std::abort();
  int32_t line = 0;
  for (auto _ : state) logOurs(++line);
  countItems(state, 1);
}

// Its line holds the same values in a quarter of the bytes, unless it is given a text that fills it up.
void spdlogRecords(benchmark::State& state, const std::string& text) {
  auto logger = spdlog::basic_logger_mt("bench", "spdlog.log", true);
  logger->flush_on(spdlog::level::info);
  int32_t line = 0;
  for (auto _ : state) logger->warn("{}BAD_INPUT file={} line={}", text, "input/some_file.txt", ++line);
  countItems(state, 1);
  spdlog::drop("bench");
}

void writeAlone(benchmark::State& state, size_t size) {
  const std::string bytes(size, 'x');
  const int file = open("write.log", O_CREAT | O_TRUNC | O_WRONLY, 0600);
  for (auto _ : state) {
    if (write(file, bytes.data(), size) < 0) state.SkipWithError("write");
  }
  close(file);
  countItems(state, 1);
}

} // namespace

void registerRows() {
  createOurs();
  const size_t size = recordSize();
  const std::string filling(size - std::strlen("[2000-01-01 00:00:00.000] [bench] [warning] BAD_INPUT "
                                               "file=input/some_file.txt line=1000000\n"),
                            'x');
  for (const char* row : {"log.record", "log.bytes"}) {
    add(row, "ours", ours);
    add(row, "floor", [=](benchmark::State& state) { writeAlone(state, size); });
  }
  add("log.record", "spdlog", [](benchmark::State& state) { spdlogRecords(state, ""); });
  add("log.bytes", "spdlog", [=](benchmark::State& state) { spdlogRecords(state, filling); });
}
