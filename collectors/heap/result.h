// The result file. What is in it: docs/heap-result.md.
#pragma once

#include "collectors/heap/report.h"
#include "veskrt/host.h"

namespace heap {

struct Ending {
  const char* how;
  int status;
};

// 0 when the file can be created, else an errno value. Leaves nothing behind.
int checkResultFile(const char* path);

// Writes the file under another name and renames it when it is whole. 0, or an errno value; then the old file
// is untouched. `category` is where the memory for it comes from.
int writeResult(const char* path, const Report& report, const Ending& ending, std::uint32_t depth,
                std::uint32_t category);

} // namespace heap
