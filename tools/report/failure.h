// What ends veskreport without its work done.
#pragma once

#include <stdexcept>
#include <string>

namespace report {

enum ExitStatus {
  kDone = 0,
  kFailed = 1,       // the system refused something
  kUsage = 2,        // the command line is wrong
  kUnreadable = 3,   // an input file is missing or cannot be read
  kDamaged = 4,      // it is truncated, not well-formed, or contradicts itself
  kForeign = 5,      // it is no file that this command reads
  kOtherVersion = 6, // it is of a version that this veskreport does not know
  kUnwritable = 7,   // the report cannot be written
};

class Failure : public std::runtime_error {
public:
  Failure(ExitStatus status, const std::string& text) : std::runtime_error(text), status_(status) {}
  ExitStatus status() const { return status_; }

private:
  ExitStatus status_;
};

} // namespace report
