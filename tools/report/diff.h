// Compares two heap results.
#pragma once

#include "report/profile.h"

namespace report {

// Call stacks of the same functions are one row, wherever their calls lie in them: so a program can be compared with
// its next build.
Profile compare(Profile before, Profile now);

} // namespace report
