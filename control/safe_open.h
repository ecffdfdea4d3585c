// Opening files in a process whose standard streams may be closed.
#pragma once

namespace vesk {

// As open, but the descriptor is never 0, 1 or 2, whichever of them are closed, so that nothing written to a
// standard stream lands in the file. Returns -1 with errno on failure; the low descriptors that were free are
// free again.
int safeOpen(const char* path, int flags, int mode);

} // namespace vesk
