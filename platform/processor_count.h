// How processors are counted in the system's two text files about them.
#pragma once

#include <cstdint>
#include <string_view>

#include "platform/line_reader.h"

namespace vesk {

// From a file like /proc/stat: "cpu", the sum of all, then a line for each of "cpu0", "cpu1" and so on, then
// other things. Where there is none, from a file like /proc/cpuinfo, with a "processor" line for each; 0
// where there is none either.
inline std::uint32_t countProcessors(const char* statPath, const char* cpuinfoPath) noexcept {
  std::uint32_t count = 0;
  if (LineReader<1024> stat(statPath); stat.isOpen()) {
    for (const char* line = stat.next(); line != nullptr && std::string_view(line).starts_with("cpu");
         line = stat.next()) {
      if (line[3] >= '0' && line[3] <= '9') ++count;
    }
  } else if (LineReader<1024> cpuinfo(cpuinfoPath); cpuinfo.isOpen()) {
    while (const char* line = cpuinfo.next()) {
      if (std::string_view(line).starts_with("processor")) ++count;
    }
  }
  return count;
}

} // namespace vesk
