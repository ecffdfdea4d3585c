// Whole files.
#pragma once

#include <string>

#include "report/progress.h"

namespace report {

// Throws Failure.
std::string readFile(const std::string& path, Progress& progress);

// Through a file of its own beside it, so that a reader finds the old one or all of the new one.
// Throws Failure.
void replaceFile(const std::string& path, const std::string& bytes);

} // namespace report
