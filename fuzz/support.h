// What the fuzz targets share: a started runtime over memory of the C library's, and a log that is read back.
#pragma once

#include <cstdint>
#include <string>

namespace fuzz {

// Ends the process with the place of a claim that does not hold.
[[noreturn]] void refute(const char* file, int line);

inline void require(bool holds, const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
  if (!holds) refute(file, line);
}

// Only the first call has an effect.
void startRuntime();

// Blocks of __VeskMalloc that have not been released.
std::int64_t liveBlocks();

// Opens for nothing but reading and writing again through its path.
class MemoryFile {
public:
  MemoryFile();
  const char* path() const { return path_; }
  void write(const std::string& content);
  // What has been appended since the last call; its memory is released.
  std::string take();

private:
  int descriptor_;
  char path_[32];
  std::int64_t taken_ = 0;
};

// What the log has got since the last call.
std::string takeLog();

} // namespace fuzz
