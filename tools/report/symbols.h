// What lies at a frame: function, source line, and the functions that were inlined there.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "report/result.h"

namespace report {

// All texts are printable.
struct Place {
  std::string function; // empty: not known
  std::string module;   // its file's name; empty: none
  std::uint64_t offset; // of the frame in it, or the address
  std::string file;     // of the source; empty: not known
  unsigned line;        // 0: not known
  bool inlined;         // into the place that follows

  bool operator==(const Place&) const = default;
};

// Looks into the modules' files and into their separate debug files. A file that is not the one that ran, as
// its build id tells, is not looked into.
class Symbols {
public:
  // Separate debug files are also looked for in `debugDirectory`, if one is named.
  Symbols(const std::vector<Module>& modules, const std::string& debugDirectory);
  ~Symbols();
  Symbols(const Symbols&) = delete;
  Symbols& operator=(const Symbols&) = delete;

  // Innermost first, at least one.
  std::vector<Place> find(const Frame& frame);

  // One line for all modules that were asked about in vain; empty when there are none.
  std::string remark() const;

private:
  class File;

  const std::vector<Module>& modules_;
  std::string debugPath_;
  std::vector<std::unique_ptr<File>> files_; // of the modules; null: not looked for yet
};

} // namespace report
