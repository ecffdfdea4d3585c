// The process-wide log.
//
// `logFile` names the file; to hold the log is to hold that file while `logFile` names it. A new file is put
// in place under the old one's lock, so at any time at most one thread holds the log, and what only its
// holder touches (the record counter, the names of logger handles) needs no lock of its own.
//
// The first log lies in memory of its own: the first record may come from a thread inside the allocator, with
// locks held that the allocator would take again in another order, or with no memory left.
#include <algorithm>
#include <charconv>
#include <cstdarg>
#include <cstring>
#include <ctime>

#include <limits.h>
#include <pthread.h>

#include "logging/message_types.h"
#include "logging/xml_file.h"
#include "runtime/hooks.h"
#include "runtime/once_guard.h"
#include "runtime/spin_lock.h"
#include "veskrt/log.h"
#include "veskrt/memory.h"
#include "veskrt/text.h"

using namespace vesk;
using namespace vesk::logging;

namespace {

constexpr std::int32_t kMostHandles = 16;
constexpr const char* kOwnName = "veskrt";
constexpr const char* kDefaultPath = "vesklog.log";
constexpr const char* kSeverityWords[] = {"ERROR", "WARNING", "INFO"};

constinit VeskXMLFile* logFile = nullptr; // never null again once set
constinit std::uint32_t recordCounter = 1;

constinit VeskXMLFile firstLog{};
constinit char firstLogPath[PATH_MAX] = {}; // what does not fit cannot be opened

constinit const char* handleNames[kMostHandles] = {kOwnName};
// Stands above the table's size for a moment while a request finds it full.
constinit std::int32_t handlesTaken = 1;

// ---- Holding the log ----

// Null while there is no log.
VeskXMLFile* acquireLog() {
  for (;;) {
    VeskXMLFile* const file = loadAcquire(logFile);
    if (file == nullptr) return nullptr;
    __VeskXMLAcquireFile(file);
    if (loadRelaxed(logFile) == file) [[likely]]
      return file;
    __VeskXMLReleaseFile(file);
  }
}

class ScopedLog {
public:
  ScopedLog() noexcept : file_(acquireLog()) {}
  ~ScopedLog() { __VeskXMLReleaseFile(file_); }
  ScopedLog(const ScopedLog&) = delete;
  ScopedLog& operator=(const ScopedLog&) = delete;

  VeskXMLFile* file() const noexcept { return file_; }

private:
  VeskXMLFile* file_;
};

// ---- Creation ----

constinit std::uint32_t creationGuard = 0;
// One more than the id of the thread inside the creation; 0 while there is none. Opening a file can bring
// that thread back here, when the host watches what the C library allocates.
constinit std::uint64_t creator = 0;

class ScopedCreator {
public:
  explicit ScopedCreator(std::uint64_t identity) noexcept { storeRelaxed(creator, identity); }
  ~ScopedCreator() { storeRelaxed(creator, 0); }
  ScopedCreator(const ScopedCreator&) = delete;
  ScopedCreator& operator=(const ScopedCreator&) = delete;
};

constinit std::uint32_t preparedForFork = 0;

// A child of fork has one thread: it must find the creation finished, the log free and no record begun.
void holdLogForFork() {
  while (!compareAndSwap(creationGuard, 0, 1)) __VeskYield();
  acquireLog();
}

void releaseLogAfterFork() {
  __VeskXMLReleaseFile(loadRelaxed(logFile));
  storeRelease(creationGuard, 0);
}

VeskXMLFile* openFirstLog(const char* path, bool append) {
  FILE* const stream = openXmlStream(path, append);
  if (stream == nullptr) return nullptr;
  __VeskStrncpy(firstLogPath, path, sizeof firstLogPath);
  initializeXmlFile(firstLog, stream, firstLogPath, append);
  return &firstLog;
}

bool createLog(const char* source, const char* path, bool append, bool onlyIfNone) {
  if (source == nullptr || path == nullptr || loadAcquire(__veskRtStarted) == 0) return false;
  const std::uint64_t identity = nativeThreadId() + 1;
  if (loadRelaxed(creator) == identity) return false;
  if (compareAndSwap(preparedForFork, 0, 1)) {
    pthread_atfork(holdLogForFork, releaseLogAfterFork, releaseLogAfterFork);
  }
  ScopedOnceGuard guard(creationGuard);
  ScopedCreator mark(identity);
  VeskXMLFile* const current = loadRelaxed(logFile);
  if (current != nullptr && onlyIfNone) return true;
  VeskXMLFile* const file =
      current == nullptr ? openFirstLog(path, append) : __VeskXMLCreateFile(path, append);
  if (file == nullptr) return false;
  if (!append) {
    __VeskXMLAcquireFile(file);
    __VeskXMLStartWritingOpeningTag(file, "log");
    __VeskXMLWriteStringAttribute(file, "version", "2.0");
    __VeskXMLWriteStringAttribute(file, "source", source);
    __VeskXMLFinishWritingOpeningTag(file);
    __VeskXMLReleaseFile(file);
  }
  __VeskXMLAcquireFile(current);
  storeRelease(logFile, file);
  __VeskXMLReleaseFile(current);
  return true;
}

// ---- Records ----

// The text of the second that was last asked for, which only the holder of the log touches. The C library
// converts a time under a lock of its own: a child of fork must not find that one held by a thread of ours.
class Clock {
public:
  const char* localTime(std::time_t second) noexcept {
    if (second != second_) convert(second);
    return text_;
  }

private:
  [[gnu::noinline]] void convert(std::time_t second) noexcept {
    std::tm local;
    if (localtime_r(&second, &local) == nullptr || asctime_r(&local, text_) == nullptr) text_[0] = '\0';
    for (std::size_t end = std::strlen(text_); end > 1 && text_[end - 1] <= ' ';) text_[--end] = '\0';
    second_ = second;
  }

  std::time_t second_ = -1;
  char text_[64] = {};
};

constinit Clock logClock;

// A number as text.
struct Digits {
  char text[24];

  template <class Integer>
  const char* write(char* at, Integer value, int base = 10) noexcept {
    *std::to_chars(at, text + sizeof text - 1, value, base).ptr = '\0';
    return text;
  }
  template <class Integer>
  const char* decimal(Integer value) noexcept {
    return write(text, value);
  }
  const char* pointer(const void* value) noexcept {
    if (value == nullptr) return "(nil)";
    text[0] = '0';
    text[1] = 'x';
    return write(text + 2, reinterpret_cast<std::uintptr_t>(value), 16);
  }
};

// A record's arguments: those of the call, of which the first is a format or a tag, or, for a tool defect, a
// format of its own and what follows it.
struct Arguments {
  std::va_list& list;
  const char* format;

  const char* takeFormat() const { return format != nullptr ? format : va_arg(list, const char*); }
};

bool isTag(const char* word) {
  switch (static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(word))) {
  case VESKLOG_ARG_STRING:
  case VESKLOG_ARG_INT:
  case VESKLOG_ARG_POINTER:
    return true;
  default:
    return false;
  }
}

// A caller that passes arguments for a type which is not registered gets an empty comment, not its tag read
// as a format.
void writeText(VeskXMLFile* file, Arguments arguments) {
  const char* const format = arguments.takeFormat();
  __VeskXMLWriteCommentV(file, isTag(format) ? nullptr : format, arguments.list);
}

// A tag before each value; after an unknown one nothing more is read.
void writeArguments(VeskXMLFile* file, const char* const* names, Arguments arguments) {
  bool known = true;
  for (; *names != nullptr; ++names) {
    Digits digits;
    const char* text = "";
    switch (known ? va_arg(arguments.list, std::int32_t) : 0) {
    case VESKLOG_ARG_STRING:
      text = va_arg(arguments.list, const char*);
      break;
    case VESKLOG_ARG_INT:
      text = digits.decimal(va_arg(arguments.list, std::int32_t));
      break;
    case VESKLOG_ARG_POINTER:
      text = digits.pointer(va_arg(arguments.list, void*));
      break;
    default:
      known = false;
    }
    __VeskXMLStartWritingOpeningTag(file, "arg");
    __VeskXMLWriteStringAttribute(file, "name", *names);
    __VeskXMLFinishWritingOpeningTag(file);
    __VeskXMLWriteStringValue(file, text);
    __VeskXMLAppendClosingTag(file, "arg");
  }
}

void writeMessage(VeskXMLFile* file, const LogMessageDefinition& type, std::uint32_t severity,
                  bool suppressDisplay, std::time_t time, Arguments arguments) {
  Digits id;
  __VeskXMLStartWritingOpeningTag(file, "msg");
  __VeskXMLWriteStringAttribute(file, "id", id.decimal(recordCounter++));
  if (suppressDisplay || (type.flags & VESKLOG_FLAG_NO_DISPLAY) != 0) {
    __VeskXMLWriteStringAttribute(file, "display", "false");
  }
  __VeskXMLWriteStringAttribute(file, "source", loadAcquire(handleNames[type.loggerHandle]));
  __VeskXMLFinishWritingOpeningTag(file);
  __VeskXMLWriteStringElement(file, "type", type.type);
  __VeskXMLWriteStringElement(file, "severity", kSeverityWords[std::min(severity, VESKLOG_SEVERITY_INFO)]);
  __VeskXMLWriteStringElement(file, "timestamp", logClock.localTime(time));
  if ((type.flags & VESKLOG_FLAG_TEXT) != 0) {
    writeText(file, arguments);
  } else {
    writeArguments(file, type.argumentNames, arguments);
  }
  __VeskXMLWriteClosingTag(file, "msg");
}

void writeRecord(std::uint32_t severity, std::uint32_t messageId, bool suppressDisplay, Arguments arguments) {
  const std::time_t now = std::time(nullptr);
  if (loadAcquire(logFile) == nullptr && !createLog(kOwnName, kDefaultPath, false, true)) return;
  ScopedLog log;
  // Only a signal handler, or a host that watches the C library, gets here while its own thread writes a
  // record: there is no place for another one inside it.
  if (log.file()->holds > 1) return;
  const LogMessageDefinition* const type = findMessageType(messageId);
  if (type == nullptr || type->loggerHandle >= loggerHandleCount() ||
      (type->flags & VESKLOG_FLAG_COMMENT_ONLY) != 0) {
    writeText(log.file(), arguments);
  } else {
    writeMessage(log.file(), *type, severity, suppressDisplay, now, arguments);
  }
}

} // namespace

std::int32_t vesk::logging::loggerHandleCount() noexcept {
  return std::min(loadRelaxed(handlesTaken), kMostHandles);
}

int __VeskCreateLogger(const char* source, const char* path, int append) {
  return createLog(source, path, append != 0, false);
}

int __VeskReopenLogger() {
  ScopedLog log;
  return __VeskXMLReopenFile(log.file());
}

void __VeskCloseLogger() {
  ScopedLog log;
  __VeskXMLWriteClosingTag(log.file(), "log");
}

void __VeskLogInternal(uint32_t severity, uint32_t messageId, int suppressDisplay, ...) {
  std::va_list arguments;
  va_start(arguments, suppressDisplay);
  writeRecord(severity, messageId, suppressDisplay != 0, {arguments, nullptr});
  va_end(arguments);
}

void __VeskLogFatalToolDefect(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  writeRecord(VESKLOG_SEVERITY_ERROR, VESKLOG_MSG_INTERNAL, false,
              {arguments, format != nullptr ? format : ""});
  va_end(arguments);
  __VeskFatalExit(-1);
}

int32_t __VeskGetLoggerHandle(const char* name) {
  if (name == nullptr || loadAcquire(logFile) == nullptr) return -1;
  const std::int32_t handle = fetchAdd(handlesTaken, 1);
  if (handle >= kMostHandles) {
    fetchAdd(handlesTaken, -1);
    return -1;
  }
  storeRelease(handleNames[handle], static_cast<const char*>(__VeskStrdup(name)));
  return handle;
}

int __VeskReleaseLoggerHandle(int32_t handle, const char* name) {
  if (name == nullptr || handle <= 0 || handle >= kMostHandles || handle >= loggerHandleCount()) return 0;
  const char* stored;
  {
    ScopedLog log;
    stored = loadAcquire(handleNames[handle]);
    if (stored == nullptr || std::strncmp(name, stored, std::strlen(stored)) != 0) return 0;
    storeRelaxed(handleNames[handle], nullptr);
  }
  __VeskFree(const_cast<char*>(stored));
  return 1;
}
