// The record of an XML file, and what the logger needs to keep one in memory of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "veskrt/spin_lock.h"
#include "veskrt/xml.h"

// The stream has no buffer. What is written gathers in `pending` and goes to the stream in one piece when the
// file is released, so a record is one write to the system, a thread that ends the process cannot put out
// half of another thread's record, and a forked child inherits nothing that its exit would write again.
struct VeskXMLFile {
  static constexpr std::size_t kScratchSize = 65536;
  // Holds the longest value or comment with the record around it.
  static constexpr std::size_t kPendingSize = kScratchSize + 8192;

  FILE* stream;               // null after a close that failed
  char* path;                 // owned
  std::uint32_t depth;        // elements opened and not yet closed
  VeskSpinLock lock;          // guards everything here
  char scratch[kScratchSize]; // where escaped values and comments are built
  std::uint32_t holds;        // acquisitions not yet released; 0 also while a caller writes without the lock
  std::uint32_t pendingSize;  // bytes in `pending`
  bool lost;                  // something written since the last release did not reach the system
  char pending[kPendingSize];
};

namespace vesk::logging {

// Opens the path, off the standard descriptors, and writes the XML header unless appending. Null when it
// cannot.
FILE* openXmlStream(const char* path, bool append) noexcept;

// Makes `file` a file of its own over the stream. The path is not copied.
void initializeXmlFile(VeskXMLFile& file, FILE* stream, char* path, bool append) noexcept;

} // namespace vesk::logging
