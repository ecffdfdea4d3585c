// What the user asked for, and the files that follow from it.
#pragma once

#include <climits>
#include <cstdint>

#include "collectors/common/text.h"

namespace heap {

using common::Text;

using Path = Text<PATH_MAX>;

struct Settings {
  std::uint32_t depth;
  std::uint32_t top;
  std::uint32_t timelineMilliseconds;
  Path directory; // where the program was started, with a '/' behind it
  Path out;       // as given; empty: the default name
  Path log;
  Path commands;           // absolute; empty: no channel
  std::uint32_t heartbeat; // seconds; 0: none
};

enum class Parsed { kGoOn, kHelpGiven, kRefused };

// Registers the options and reads them. What is refused is told on standard error.
Parsed readSettings(Settings& settings, std::uint32_t argc, const char* const* argv);

// The files of this process, absolute. When children are followed, every process has its id in the names.
struct Files {
  Path result;
  Path log;
};
void nameFiles(Files& files, const Settings& settings);

// The result's name with a word and a number in front of its extension: the first number above `number` that is
// not taken, which `number` then is.
void nameNumbered(Path& path, const Path& result, const char* word, std::uint32_t& number);

// Puts the closing tag behind the log, by a descriptor of its own: the log's stream stays in front of the tag, and goes
// on there when the exec fails.
void endLogBeforeExec(const Files& files);

// Takes that tag off again.
void continueLog(const Files& files);

// Has the options show the files' names where the log lists them.
void logSettings(const Files& files);

// One line on standard error, in one piece.
void tell(const char* format, ...) VESK_PRINTF(1, 2);

} // namespace heap
