// Reports as text for a terminal. Each ends in a line break.
#pragma once

#include <string>

#include "report/profile.h"
#include "report/terminal.h"

namespace report {

struct TableSettings {
  Selection selection;
  std::size_t top = 10;   // rows
  std::size_t frames = 8; // of a call stack
};

// The table that the collector prints at the end, with whole stacks; of a comparison the differences.
std::string heapTable(const Profile& profile, const TableSettings& settings, const Terminal& terminal);

std::string annotationsTable(const AnnotationsResult& result, const Terminal& terminal);

} // namespace report
