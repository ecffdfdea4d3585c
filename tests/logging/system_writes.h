// How often this process has called write.
#pragma once

#include <fstream>
#include <string>

namespace test {

// The address sanitizer writes to pipes of its own to find out what memory is there.
#ifdef __SANITIZE_ADDRESS__
inline constexpr bool kWritesAreOurs = false;
#else
inline constexpr bool kWritesAreOurs = true;
#endif

inline long systemWrites() {
  std::ifstream io("/proc/self/io");
  for (std::string key; io >> key;) {
    long value = 0;
    io >> value;
    if (key == "syscw:") return value;
  }
  return -1;
}

} // namespace test
