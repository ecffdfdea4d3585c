// The command channel as an object, for C++ collectors that run its thread themselves.
//
// Most collectors want veskrt/command_handler.h, which owns the one handler of the process and its thread.
// With an object of one's own, one thread calls processCommands() whenever the semaphore has been posted, and
// processHeartbeat() when it likes:
//
//     CollectorCommandHandler handler;
//     if (handler.initializeCommandHandler("/run/mytool", onCommand, &state) != 0) {
//       ... handler.processCommands(); ...
//       handler.cleanupCommandHandler(VESKCMDHDLR_CLEAN_COMPLETE);
//     }
//
// The destructor leaves the channel in place. cleanupCommandHandler() may be called while another thread is
// in processCommands(); everything else belongs to one thread at a time.
#ifndef VESKRT_COMMAND_HANDLER_HPP
#define VESKRT_COMMAND_HANDLER_HPP

#include "veskrt/command_handler.h"

namespace vesk {
struct CommandThread;
}

class VESK_API CollectorCommandHandler {
public:
  CollectorCommandHandler();
  ~CollectorCommandHandler();
  CollectorCommandHandler(const CollectorCommandHandler&) = delete;
  CollectorCommandHandler& operator=(const CollectorCommandHandler&) = delete;

  // Creates the channel in `directory`, zeroed, with the lock free. Returns 1; 0 as
  // __VeskRegisterCommandHandler, with nothing left behind.
  int initializeCommandHandler(const char* directory, VeskCommandCallback callback, void* context);

  // Creates lock file, segment and semaphore set at the path that the last initialisation built. Returns 1
  // with the segment attached, not yet zeroed, and the lock held; 0 with everything removed again.
  int createSharedMemoryAndLockFile();

  // Removes what `extent` says and is there. The lock file is deleted only if it was open.
  void destroySharedMemoryAndLockFile(_VESKCMDHDLRCLEANEXTENT extent);
  void cleanupCommandHandler(_VESKCMDHDLRCLEANEXTENT extent);

  // The lock file's exclusive flock. Taking never waits: 1 when taken, else 0. Releasing returns flock's
  // result.
  int acquireLock();
  int releaseLock();

  // Takes the pending commands out of the segment and calls the callback for each, in order. Returns 2; 1
  // when the lock is held elsewhere (the commands stay pending); 0 when nothing is pending; -1 when no
  // segment is attached. A count that is out of range delivers no record behind the fifth. Uses about 22 KiB
  // of stack; allocates nothing.
  int processCommands();

  // Calls the callback with VESK_COMMAND_HEARTBEAT. Returns 2; -1 when no segment is attached.
  int processHeartbeat();

private:
  friend struct vesk::CommandThread;

  unsigned char* segmentAddress_; // null when not attached
  char lockFilePath_[4096];       // terminated
  VeskCommandCallback callback_;  // null until initialisation has succeeded
  void* context_;                 // the callback's last argument
  int32_t lockFile_;              // descriptor; -1 when closed
  int32_t segmentIdentifier_;     // -1 when none
  int32_t semaphoreSet_;          // identifier; -1 when none
};

#endif
