// External definitions: annotations of modules that carry no table, from text files.
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <new>

#include "annotations/location.h"
#include "veskrt/log.h"
#include "veskrt/memory.h"
#include "veskrt/text.h"

namespace {

constexpr std::uint32_t kLineBufferSize = 65535;
constexpr int kReadLimit = 65534; // with the terminator
constexpr int kFields = 4;

// The list, and the link at its end.
constinit VESK_QEL_DEFINITION* definitions = nullptr;
constinit VESK_QEL_DEFINITION** lastLink = &definitions;

template <class T>
T* create(const T& value) {
  return new (__VeskMalloc(VESK_MEMORY_CATEGORY_MISC, sizeof(T), 0)) T(value);
}

bool isSpace(char character) { return std::isspace(static_cast<unsigned char>(character)) != 0; }

char* copyText(const char* text, std::size_t length) {
  auto* copy =
      static_cast<char*>(__VeskMalloc(VESK_MEMORY_CATEGORY_MISC, static_cast<std::uint32_t>(length + 1), 0));
  std::memcpy(copy, text, length);
  copy[length] = '\0';
  return copy;
}

// The end of the field that starts here: the first white space outside quotes.
char* fieldEnd(char* at) {
  for (bool quoted = false; *at != '\0' && (quoted || !isSpace(*at)); ++at) {
    if (*at == '"') quoted = !quoted;
  }
  return at;
}

// Stores the field at its position, 0 to 3. False for one that cannot be what it should be.
bool storeField(int position, const char* field, std::size_t length, VESK_QEL_DEFINITION& definition) {
  switch (position) {
  case 0:
    definition.name = copyText(field, length);
    return true;
  case 1:
    if (length < 2) return false; // no room for the quotes
    definition.modulePath = copyText(field + 1, length - 2);
    __VeskSanitizePath(definition.modulePath);
    return true;
  case 2:
    definition.address = static_cast<std::uint32_t>(std::strtoul(field, nullptr, 16));
    return true;
  default:
    definition.hasValue = 1;
    definition.location = create(VESK_QEL_LOCATION{
        .value = static_cast<std::int64_t>(std::strtoul(field, nullptr, 0)), .isRegister = 0, .offset = 0});
    return true;
  }
}

void append(const VESK_QEL_DEFINITION& definition) {
  *lastLink = create(definition);
  lastLink = &(*lastLink)->next;
}

} // namespace

int __VeskQELParseDefinition(char* line, VESK_QEL_DEFINITION* definition) {
  char* at = __VeskStripWhiteSpaces(line);
  if (at == nullptr) return 0;
  int fields = 0;
  while (*at != '\0') {
    if (fields == kFields) {
      __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0,
                        "qel_file_parser: Unexpected number of annotation arguments: %d", kFields);
      return 0;
    }
    char* const end = fieldEnd(at);
    if (!storeField(fields++, at, static_cast<std::size_t>(end - at), *definition)) return 0;
    for (at = end; isSpace(*at);) ++at;
  }
  return fields == kFields;
}

int __VeskQELLoadExternalDefinitions(const char* path) {
  FILE* const file = __VeskFopen(path, "r", nullptr);
  if (file == nullptr) {
    __VeskLogInternal(VESKLOG_SEVERITY_ERROR, VESKLOG_MSG_FAIL_OPEN_FILE, 0, VESKLOG_ARG_STRING, path);
    return 0;
  }
  auto* const line = static_cast<char*>(__VeskMalloc(VESK_MEMORY_CATEGORY_MISC, kLineBufferSize, 0));
  while (__VeskFgets(line, kReadLimit, file) != nullptr) {
    VESK_QEL_DEFINITION definition = {};
    __VeskQELParseDefinition(line, &definition);
    if (definition.name != nullptr) append(definition); // else the line was blank
  }
  __VeskFree(line);
  __VeskFclose(file);
  return 1;
}

void __VeskQELProcessExternalRecords(const char* modulePath, uint64_t loadBase, VeskQELCallback callback,
                                     void* context) {
  if (callback == nullptr || modulePath == nullptr) return;
  char* const path = __VeskStrdup(modulePath);
  __VeskSanitizePath(path);
  for (const VESK_QEL_DEFINITION* each = definitions; each != nullptr; each = each->next) {
    if (each->modulePath == nullptr || std::strcmp(each->modulePath, path) != 0) continue;
    VESK_QEL_RECORD record = {.address = loadBase + each->address,
                              .name = each->name,
                              .expression = nullptr,
                              .probe = 0,
                              .hasLocation = each->hasValue,
                              .location = {}};
    if (each->hasValue != 0) record.location = *each->location;
    callback(&record, reinterpret_cast<std::uintptr_t>(context));
  }
  __VeskFree(path);
}

void __VeskQELCleanupDefinitions() {
  for (VESK_QEL_DEFINITION* each = definitions; each != nullptr;) {
    VESK_QEL_DEFINITION* const next = each->next;
    __VeskFree(each->name);
    __VeskFree(each->modulePath);
    __VeskFree(each->location);
    __VeskFree(each);
    each = next;
  }
  definitions = nullptr;
  lastLink = &definitions;
}
