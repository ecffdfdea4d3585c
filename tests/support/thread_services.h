// The four thread services of a host, over POSIX threads.
#pragma once

namespace test {

// Installs them. `startDelayed`: the new thread is given time to run before createThreadProc returns.
void installThreadServices(bool startDelayed = false);

// Calls the registered exit callbacks, as at the end of the analysed process.
void runExitCallbacks();

int threadsCreated();
int threadsEnded();

} // namespace test
