// The logger: one XML file of records, written whole under the file's lock.
#include <charconv>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <ctime>

#include "logging/message_types.h"
#include "runtime/hooks.h"
#include "runtime/once_guard.h"
#include "runtime/spin_lock.h"
#include "veskrt/memory.h"
#include "veskrt/runtime.h"
#include "veskrt/text.h"
#include "veskrt/xml.h"

using namespace vesk;
using namespace vesk::logging;

namespace {

constexpr std::int32_t kMostHandles = 16;
constexpr const char* kOwnName = "veskrt";
constexpr const char* kDefaultPath = "vesklog.log";
constexpr const char* kRoot = "log";
constexpr std::uint64_t kNobody = ~std::uint64_t{0};

constinit VeskXMLFile* logFile = nullptr; // set under creationLock, never unset
constinit std::uint32_t created = 0;
constinit std::uint32_t creationLock = 0;
constinit std::uint64_t creator = kNobody; // the thread that holds creationLock

constinit std::uint32_t nextRecord = 1; // under the log file's lock

// Guards the names against their release; taken inside the log file's lock. The library's own name belongs to
// nobody.
constinit VeskSpinLock handleLock = {};
constinit const char* handleNames[kMostHandles] = {kOwnName};
constinit std::int32_t handleCount = 1;

class ScopedFile {
public:
  explicit ScopedFile(VeskXMLFile* file) : file_(file) { __VeskXMLAcquireFile(file_); }
  ~ScopedFile() { __VeskXMLReleaseFile(file_); }
  ScopedFile(const ScopedFile&) = delete;
  ScopedFile& operator=(const ScopedFile&) = delete;

private:
  VeskXMLFile* file_;
};

// Names the thread that creates the log, for as long as it does.
class ScopedCreation {
public:
  ScopedCreation() : guard_(creationLock) { storeRelaxed(creator, nativeThreadId()); }
  ~ScopedCreation() { storeRelaxed(creator, kNobody); }

private:
  ScopedOnceGuard guard_;
};

// Caller holds creationLock.
bool create(const char* source, const char* path, bool append) {
  if (source == nullptr || path == nullptr || loadAcquire(__veskRtStarted) == 0) return false;
  VeskXMLFile* const file = __VeskXMLCreateFile(path, append ? 1 : 0);
  if (file == nullptr) return false;
  ScopedFile scope(file); // before anybody else can find it: the root tag comes first
  storeRelease(logFile, file);
  if (!append) {
    __VeskXMLStartWritingOpeningTag(file, kRoot);
    __VeskXMLWriteStringAttribute(file, "version", "2.0");
    __VeskXMLWriteStringAttribute(file, "source", source);
    __VeskXMLFinishWritingOpeningTag(file);
  }
  storeRelaxed(created, 1);
  return true;
}

// The log file, created if this is the first record; null when it cannot be. Creating it may itself have
// something to report: that is dropped.
VeskXMLFile* openLog() {
  VeskXMLFile* const file = loadAcquire(logFile);
  if (file != nullptr) [[likely]]
    return file;
  if (loadRelaxed(creator) == nativeThreadId()) return nullptr;
  ScopedCreation scope;
  if (loadAcquire(logFile) == nullptr) create(kOwnName, kDefaultPath, false);
  return loadAcquire(logFile);
}

struct Timestamp {
  Timestamp() {
    const std::time_t now = std::time(nullptr);
    std::tm parts = {};
    localtime_r(&now, &parts);
    if (asctime_r(&parts, text) == nullptr) text[0] = '\0';
    for (std::size_t length = std::strlen(text); length > 1 && text[length - 1] <= ' ';)
      text[--length] = '\0';
  }
  char text[64];
};

const char* severityWord(std::uint32_t severity) {
  switch (severity) {
  case VESKLOG_SEVERITY_ERROR:
    return "ERROR";
  case VESKLOG_SEVERITY_WARNING:
    return "WARNING";
  default:
    return "INFO";
  }
}

void writeArgument(VeskXMLFile* file, const char* name, const char* value) {
  __VeskXMLStartWritingOpeningTag(file, "arg");
  __VeskXMLWriteStringAttribute(file, "name", name);
  __VeskXMLFinishWritingOpeningTag(file);
  __VeskXMLWriteStringValue(file, value);
  __VeskXMLAppendClosingTag(file, "arg");
}

const char* formatInteger(char* buffer, std::size_t size, int value) {
  *std::to_chars(buffer, buffer + size - 1, value).ptr = '\0';
  return buffer;
}

const char* formatPointer(char* buffer, std::size_t size, const void* value) {
  if (value == nullptr) return "(nil)";
  buffer[0] = '0';
  buffer[1] = 'x';
  *std::to_chars(buffer + 2, buffer + size - 1, reinterpret_cast<std::uintptr_t>(value), 16).ptr = '\0';
  return buffer;
}

// A tag before each value; after an unknown one nothing more is read.
void writeArguments(VeskXMLFile* file, const char* const* names, std::va_list arguments) {
  bool known = true;
  for (; *names != nullptr; ++names) {
    char buffer[32];
    const char* value = "";
    switch (known ? va_arg(arguments, int) : 0) {
    case VESKLOG_ARG_STRING:
      value = va_arg(arguments, const char*);
      break;
    case VESKLOG_ARG_INT:
      value = formatInteger(buffer, sizeof buffer, va_arg(arguments, int));
      break;
    case VESKLOG_ARG_POINTER:
      value = formatPointer(buffer, sizeof buffer, va_arg(arguments, void*));
      break;
    default:
      known = false;
    }
    writeArgument(file, *names, value);
  }
}

// Where a record's format is: given by itself, or the first of the arguments.
struct Format {
  const char* given = nullptr;
  const char* take(std::va_list arguments) const {
    return given != nullptr ? given : va_arg(arguments, const char*);
  }
};

// A tag in the format's place (of a message that turned out not to be registered) is no format.
void writeText(VeskXMLFile* file, Format place, std::va_list arguments) {
  const char* const format = place.take(arguments);
  switch (reinterpret_cast<std::uintptr_t>(format)) {
  case 0:
  case VESKLOG_ARG_STRING:
  case VESKLOG_ARG_INT:
  case VESKLOG_ARG_POINTER:
    __VeskXMLWriteComment(file, "%s", "");
    break;
  default:
    __VeskXMLWriteCommentV(file, format, arguments);
  }
}

void writeSource(VeskXMLFile* file, std::int32_t handle) {
  ScopedSpinLock scope(handleLock);
  const char* const name = loadRelaxed(handleNames[handle]);
  __VeskXMLWriteStringAttribute(file, "source", name != nullptr ? name : "");
}

void writeMessage(VeskXMLFile* file, const LogMessageDefinition& type, std::uint32_t severity,
                  bool suppressDisplay, const Timestamp& timestamp, Format format, std::va_list arguments) {
  __VeskXMLStartWritingOpeningTag(file, "msg");
  __VeskXMLWriteIntegerAttribute(file, "id", static_cast<std::int32_t>(nextRecord++));
  if (suppressDisplay || (type.flags & VESKLOG_FLAG_NO_DISPLAY) != 0) {
    __VeskXMLWriteStringAttribute(file, "display", "false");
  }
  writeSource(file, type.loggerHandle);
  __VeskXMLFinishWritingOpeningTag(file);
  __VeskXMLWriteStringElement(file, "type", type.type);
  __VeskXMLWriteStringElement(file, "severity", severityWord(severity));
  __VeskXMLWriteStringElement(file, "timestamp", timestamp.text);
  if ((type.flags & VESKLOG_FLAG_TEXT) != 0) {
    writeText(file, format, arguments);
  } else {
    writeArguments(file, type.argumentNames, arguments);
  }
  __VeskXMLWriteClosingTag(file, "msg");
}

// The arguments begin with a format, unless it is given, or with a tag, as the message's type has it.
void writeRecord(std::uint32_t severity, std::uint32_t messageId, bool suppressDisplay, Format format,
                 std::va_list arguments) {
  const Timestamp timestamp;
  VeskXMLFile* const file = openLog();
  if (file == nullptr) return;
  ScopedFile scope(file);
  const LogMessageDefinition* const type = findMessageType(messageId);
  if (type == nullptr || type->loggerHandle >= loggerHandleCount() ||
      (type->flags & VESKLOG_FLAG_COMMENT_ONLY) != 0) {
    writeText(file, format, arguments);
  } else {
    writeMessage(file, *type, severity, suppressDisplay, timestamp, format, arguments);
  }
}

} // namespace

std::int32_t vesk::logging::loggerHandleCount() noexcept {
  const std::int32_t count = loadRelaxed(handleCount);
  return count < kMostHandles ? count : kMostHandles; // a refused request raises it for a moment
}

int __VeskCreateLogger(const char* source, const char* path, int append) {
  ScopedCreation scope;
  return create(source, path, append != 0) ? 1 : 0;
}

int __VeskReopenLogger() {
  VeskXMLFile* const file = loadAcquire(logFile);
  if (file == nullptr || loadRelaxed(__veskRtStarted) == 0) return 0;
  ScopedFile scope(file);
  return __VeskXMLReopenFile(file);
}

void __VeskCloseLogger() {
  VeskXMLFile* const file = loadAcquire(logFile);
  if (file == nullptr) return;
  ScopedFile scope(file);
  __VeskXMLWriteClosingTag(file, kRoot);
}

void __VeskLogInternal(uint32_t severity, uint32_t messageId, int suppressDisplay, ...) {
  std::va_list arguments;
  va_start(arguments, suppressDisplay);
  writeRecord(severity, messageId, suppressDisplay != 0, {}, arguments);
  va_end(arguments);
}

void __VeskLogFatalToolDefect(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  writeRecord(VESKLOG_SEVERITY_ERROR, VESKLOG_MSG_INTERNAL, false, {format}, arguments);
  va_end(arguments);
  __VeskFatalExit(-1);
}

int32_t __VeskGetLoggerHandle(const char* name) {
  if (name == nullptr || loadRelaxed(created) == 0) return -1;
  const std::int32_t handle = fetchAdd(handleCount, 1);
  if (handle >= kMostHandles) {
    fetchAdd(handleCount, -1);
    return -1;
  }
  storeRelease(handleNames[handle], __VeskStrdup(name));
  return handle;
}

int __VeskReleaseLoggerHandle(int32_t handle, const char* name) {
  if (loadAcquire(logFile) == nullptr || name == nullptr || handle <= 0 || handle >= kMostHandles ||
      handle >= loggerHandleCount())
    return 0;
  const char* stored;
  {
    ScopedSpinLock scope(handleLock);
    stored = loadAcquire(handleNames[handle]);
    if (stored == nullptr || std::strncmp(name, stored, std::strlen(stored)) != 0) return 0;
    storeRelaxed(handleNames[handle], nullptr);
  }
  __VeskFree(const_cast<char*>(stored));
  return 1;
}
