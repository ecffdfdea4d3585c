// The descriptors that the collector keeps open: out of the program's way, and out of its reach.
//
// The program sees the numbers that it would see without a collector: while the collector may open files, the
// low numbers are taken, so that its own lie at the end of the first 1024, or of what the process may open.
// What is open there afterwards is the collector's. It is closed in programs that this one executes, and the
// program can neither close it nor put another file in its place, so that no record of a log ever ends up in
// a file of the program's: to it, these numbers are not open.
#pragma once

namespace veskhost {

// Alive while the collector may open files that stay open.
class CollectorOpensFiles {
public:
  CollectorOpensFiles() noexcept;
  ~CollectorOpensFiles();
  CollectorOpensFiles(const CollectorOpensFiles&) = delete;
  CollectorOpensFiles& operator=(const CollectorOpensFiles&) = delete;

private:
  unsigned first_;               // where the collector's numbers begin
  unsigned inherited_ = 0;       // which of these were open before, a bit each
  int probe_ = -1;               // on a file that is always there
  unsigned long taken_[16] = {}; // the numbers below that were free, a bit each
};

} // namespace veskhost
