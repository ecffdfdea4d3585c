// A report as one HTML page that needs nothing beside itself.
#pragma once

#include <string>

#include "report/profile.h"

namespace report {

// The selection is what the page shows first.
std::string heapPage(const Profile& profile, const Selection& selection);

} // namespace report
