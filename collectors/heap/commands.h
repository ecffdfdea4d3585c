// What a controlling process has the collector do while the program runs. Each command and each heartbeat is
// answered by a log record; docs/heap-result.md lists them.
#pragma once

#include "collectors/heap/settings.h"

namespace heap {

// Registers the messages; once, before the log names any of them.
void registerCommandMessages();

// Opens the channel that the settings ask for, if they do. False, told on standard error, when it cannot be
// opened. `files` are those of the process, and stay; the memory for a snapshot is of `category`.
bool startCommands(const Settings& settings, const Files& files, std::uint32_t category);

// Waits for the command that is being carried out, and removes the channel.
void stopCommands();

// The same without waiting: the caller may hold any lock.
void abandonCommands();

// In the child of a fork: the channel is its parent's, and it gets none.
void leaveCommandsToParent();

} // namespace heap
