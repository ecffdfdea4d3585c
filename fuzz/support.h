// What the fuzz targets share: a started runtime over memory of the C library's, and a log that is read back.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>

namespace fuzz {

// What must hold. The sanitizer's report of the abort shows which.
inline void require(bool holds) {
  if (!holds) std::abort();
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
