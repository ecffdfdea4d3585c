// A text file of the system, line by line, in a buffer of its own.
//
// A line that the buffer cannot hold is cut, and its rest skipped: whoever reads sees every line once, from
// its beginning.
#pragma once

#include <cstddef>
#include <cstdio>

namespace vesk {

template <std::size_t Size>
class LineReader {
public:
  explicit LineReader(const char* path) noexcept : file_(std::fopen(path, "r")) {}
  ~LineReader() {
    if (file_ != nullptr) std::fclose(file_);
  }
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  bool isOpen() const noexcept { return file_ != nullptr; }

  // The next line, cut at Size - 1 characters; null at the end of the file. Only of an open file.
  const char* next() noexcept {
    while (cut_) {
      if (!read()) return nullptr;
    }
    return read() ? buffer_ : nullptr;
  }

private:
  // The last byte tells whether the buffer was filled, whatever characters the line holds.
  bool read() noexcept {
    buffer_[Size - 1] = '\n';
    if (std::fgets(buffer_, Size, file_) == nullptr) return false;
    cut_ = buffer_[Size - 1] == '\0' && buffer_[Size - 2] != '\n';
    return true;
  }

  std::FILE* file_;
  bool cut_ = false;
  char buffer_[Size];
};

} // namespace vesk
