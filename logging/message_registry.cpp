// The registry of log message types: a table of 128 slots that only ever fills.
//
// A slot is claimed by counting it and filled afterwards, its type name last: whoever sees the name sees the
// rest.
#include <iterator>

#include "logging/message_types.h"
#include "runtime/atomic.h"
#include "veskrt/memory.h"
#include "veskrt/text.h"

using namespace vesk;
using namespace vesk::logging;

uint32_t VESKLOG_MSG_ABNORMAL_TERMINATE = 0;
uint32_t VESKLOG_MSG_OUT_OF_MEMORY = 0;
uint32_t VESKLOG_MSG_COLLECT_MEMORY = 0;
uint32_t VESKLOG_MSG_MEMORY_IS_TIGHT = 0;
uint32_t VESKLOG_MSG_FREEING_RESERVES = 0;
uint32_t VESKLOG_MSG_BAD_OPTION = 0;
uint32_t VESKLOG_MSG_BAD_ARGUMENT = 0;
uint32_t VESKLOG_MSG_FAIL_CONVERT_FILENAME = 0;
uint32_t VESKLOG_MSG_FAIL_OPEN_FILE = 0;
uint32_t VESKLOG_MSG_FAIL_SEEK_FILE = 0;
uint32_t VESKLOG_MSG_FAIL_READ_FILE = 0;
uint32_t VESKLOG_MSG_FAIL_READ_FILE_VERBOSE = 0;

namespace {

constinit const char* const kNoArguments[] = {nullptr};

constinit LogMessageDefinition slots[VESKLOG_MAX_MESSAGES] = {
    {"COMMENT", kNoArguments, VESKLOG_FLAG_COMMENT_ONLY | VESKLOG_FLAG_NO_DISPLAY, 0},
    {"INTERNAL", kNoArguments, VESKLOG_FLAG_TEXT, 0},
};
constinit std::uint32_t slotCount = 2;

const char* const* copyNames(const char* const* names) {
  std::uint32_t count = 0;
  while (names != nullptr && names[count] != nullptr) ++count;
  if (count == 0) return kNoArguments;
  auto* const copies = static_cast<const char**>(
      __VeskMalloc(VESK_MEMORY_CATEGORY_MISC, (count + 1) * static_cast<std::uint32_t>(sizeof(char*)), 0));
  for (std::uint32_t i = 0; i < count; ++i) copies[i] = __VeskStrdup(names[i]);
  copies[count] = nullptr;
  return copies;
}

bool isValid(const LogMessageDefinition* definition) {
  return definition != nullptr && definition->type != nullptr && definition->loggerHandle >= 0 &&
         definition->loggerHandle < loggerHandleCount();
}

} // namespace

const LogMessageDefinition* vesk::logging::findMessageType(std::uint32_t messageId) noexcept {
  if (messageId >= VESKLOG_MAX_MESSAGES || messageId >= loadRelaxed(slotCount)) return nullptr;
  const LogMessageDefinition& slot = slots[messageId];
  return loadAcquire(slot.type) != nullptr ? &slot : nullptr;
}

uint32_t __VeskRegisterLogMessage2(const LogMessageDefinition* definition) {
  if (!isValid(definition)) {
    __VeskLogInternal(VESKLOG_SEVERITY_ERROR, VESKLOG_MSG_INTERNAL, 0,
                      "A valid message must be specified to register it with VESKRT");
    return VESK_INVALID_ID;
  }
  const std::uint32_t id = fetchAdd(slotCount, 1);
  if (id >= VESKLOG_MAX_MESSAGES) {
    fetchAdd(slotCount, static_cast<std::uint32_t>(-1));
    return VESK_INVALID_ID;
  }
  LogMessageDefinition& slot = slots[id];
  slot.argumentNames = copyNames(definition->argumentNames);
  slot.flags = definition->flags;
  slot.loggerHandle = definition->loggerHandle;
  storeRelease(slot.type, __VeskStrdup(definition->type));
  return id;
}

uint32_t __VeskRegisterLogMessage(const LogMessageDefinition* definition) {
  return __VeskRegisterLogMessage2(definition);
}

int __VeskRegisterInternalVESKRTLogMessages() {
  static constexpr const char* kNumBytes[] = {"num_bytes", nullptr};
  static constexpr const char* kOption[] = {"option", nullptr};
  static constexpr const char* kFilename[] = {"filename", nullptr};
  static constexpr const char* kFilenameAndError[] = {"filename", "srerror", nullptr};
  static const struct {
    std::uint32_t& identifier;
    LogMessageDefinition definition;
  } kTypes[] = {
      {VESKLOG_MSG_ABNORMAL_TERMINATE, {"ABNORMAL_TERMINATE", nullptr, 0, 0}},
      {VESKLOG_MSG_OUT_OF_MEMORY, {"OUT_OF_MEMORY", nullptr, 0, 0}},
      {VESKLOG_MSG_COLLECT_MEMORY, {"COLLECT_MEMORY", nullptr, 0, 0}},
      {VESKLOG_MSG_MEMORY_IS_TIGHT, {"MEMORY_IS_TIGHT", nullptr, 0, 0}},
      {VESKLOG_MSG_FREEING_RESERVES, {"FREEING_RESERVES", kNumBytes, VESKLOG_FLAG_NO_DISPLAY, 0}},
      {VESKLOG_MSG_BAD_OPTION, {"BAD_OPTION", kOption, 0, 0}},
      {VESKLOG_MSG_BAD_ARGUMENT, {"BAD_ARGUMENT", kOption, 0, 0}},
      {VESKLOG_MSG_FAIL_CONVERT_FILENAME, {"FAIL_CONVERT_FILENAME", nullptr, 0, 0}},
      {VESKLOG_MSG_FAIL_OPEN_FILE, {"FAIL_OPEN_FILE", kFilename, 0, 0}},
      {VESKLOG_MSG_FAIL_SEEK_FILE, {"FAIL_SEEK_FILE", kFilename, 0, 0}},
      {VESKLOG_MSG_FAIL_READ_FILE, {"FAIL_READ_FILE", kFilename, 0, 0}},
      {VESKLOG_MSG_FAIL_READ_FILE_VERBOSE, {"FAIL_READ_FILE_VERBOSE", kFilenameAndError, 0, 0}},
  };
  std::uint32_t identifiers[std::size(kTypes)];
  for (std::size_t i = 0; i < std::size(kTypes); ++i) {
    identifiers[i] = __VeskRegisterLogMessage2(&kTypes[i].definition);
    if (identifiers[i] == VESK_INVALID_ID) return 0;
  }
  for (std::size_t i = 0; i < std::size(kTypes); ++i) storeRelaxed(kTypes[i].identifier, identifiers[i]);
  return 1;
}
