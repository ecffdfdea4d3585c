// Files, paths and text.
#include "veskrt/text.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

#include "runtime/atomic.h"
#include "veskrt/memory.h"

using namespace vesk;

namespace {

constexpr int kLastStandardDescriptor = 2;

constinit std::uint64_t logicalClock = 0;

// Null for a text longer than the allocator can take.
void* allocate(std::size_t bytes) {
  if (bytes > UINT32_MAX) return nullptr;
  return __VeskMalloc(VESK_MEMORY_CATEGORY_MISC, static_cast<std::uint32_t>(bytes), 0);
}

FILE* open(const char* path, const char* mode, int* error) {
  FILE* const stream = std::fopen(path, mode);
  if (error != nullptr) *error = errno;
  return stream;
}

// Duplicates of a descriptor that lies among the standard ones, made until one lies above them: the standard
// descriptors that were free are taken now, and the lowest free one is the one above.
class DescriptorPlugs {
public:
  bool plug(int descriptor) {
    while (count_ < kMostPlugs) {
      const int duplicate = dup(descriptor);
      if (duplicate < 0) return false;
      if (duplicate > kLastStandardDescriptor) return close(duplicate) == 0;
      plugs_[count_++] = duplicate;
    }
    return false;
  }
  ~DescriptorPlugs() {
    while (count_ != 0) close(plugs_[--count_]);
  }

private:
  // One more than can be free, in case another thread frees one meanwhile.
  static constexpr int kMostPlugs = kLastStandardDescriptor + 1;
  int plugs_[kMostPlugs];
  int count_ = 0;
};

[[gnu::noinline]] FILE* reopenAboveStandard(FILE* low, const char* path, const char* mode, int* error) {
  FILE* high = nullptr;
  {
    DescriptorPlugs plugs;
    if (plugs.plug(fileno(low))) {
      high = open(path, mode, error);
    } else if (error != nullptr) {
      *error = errno;
    }
  }
  std::fclose(low);
  return high;
}

// Both directions of a conversion are the same but for the function and the two characters.
template <class To, class From, std::size_t (*Convert)(To*, const From*, std::size_t)>
struct Conversion {
  static constexpr auto kFailed = static_cast<std::size_t>(-1);

  static std::size_t measure(const From* text) {
    return text != nullptr ? Convert(nullptr, text, 0) : kFailed;
  }

  static std::size_t intoBuffer(To* buffer, std::size_t bytes, const From* text) {
    const std::size_t length = measure(text);
    if (length == kFailed || length == 0 || length >= bytes / sizeof(To)) return 0;
    Convert(buffer, text, length);
    buffer[length] = 0;
    return length;
  }

  static To* intoNew(const From* text) {
    const std::size_t length = measure(text);
    if (length == kFailed) return nullptr;
    auto* const result = static_cast<To*>(allocate((length + 1) * sizeof(To)));
    if (result == nullptr) return nullptr;
    Convert(result, text, length);
    result[length] = 0;
    return result;
  }
};

using ToWide = Conversion<wchar_t, char, std::mbstowcs>;
using ToMultibyte = Conversion<char, wchar_t, std::wcstombs>;

} // namespace

int __VeskFclose(FILE* stream) { return std::fclose(stream); }
char* __VeskFgets(char* buffer, int size, FILE* stream) { return std::fgets(buffer, size, stream); }
long __VeskFtell(FILE* stream) { return std::ftell(stream); }
int __VeskFflush(FILE* stream) { return std::fflush(stream); }
size_t __VeskFread(void* buffer, size_t size, size_t count, FILE* stream) {
  return std::fread(buffer, size, count, stream);
}
size_t __VeskFwrite(const void* buffer, size_t size, size_t count, FILE* stream) {
  return std::fwrite(buffer, size, count, stream);
}
int __VeskFseek(FILE* stream, long offset, int origin) { return std::fseek(stream, offset, origin); }

int __VeskFprintf(FILE* stream, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int result = std::vfprintf(stream, format, arguments);
  va_end(arguments);
  return result;
}

FILE* __VeskFopen(const char* path, const char* mode, int* error) {
  FILE* const stream = open(path, mode, error);
  if (stream == nullptr || fileno(stream) > kLastStandardDescriptor) return stream;
  return reopenAboveStandard(stream, path, mode, error);
}

FILE* __VeskWFopen(const wchar_t* path, const wchar_t* mode, int* error) {
  char* const narrowPath = __VeskAllocateAndConvertWstringToUtf8(path);
  char* const narrowMode = __VeskAllocateAndConvertWstringToUtf8(mode);
  FILE* stream = nullptr;
  if (narrowPath != nullptr && narrowMode != nullptr) stream = open(narrowPath, narrowMode, error);
  __VeskFree(narrowPath);
  __VeskFree(narrowMode);
  return stream;
}

int __VeskVsnprintf(char* buffer, size_t size, const char* format, va_list arguments) {
  return std::vsnprintf(buffer, size, format, arguments);
}

int __VeskSnprintf(char* buffer, size_t size, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int result = __VeskVsnprintf(buffer, size, format, arguments);
  va_end(arguments);
  return result;
}

int __VeskSCnprintf(char* buffer, size_t size, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int result = __VeskVsnprintf(buffer, size, format, arguments);
  va_end(arguments);
  return result;
}

char* __VeskStrdup(const char* text) {
  if (text == nullptr) return nullptr;
  const std::size_t bytes = std::strlen(text) + 1;
  void* const copy = allocate(bytes);
  return copy != nullptr ? static_cast<char*>(std::memcpy(copy, text, bytes)) : nullptr;
}

char* __VeskStrncpy(char* destination, const char* source, size_t size) {
  std::strncpy(destination, source, size);
  if (size != 0) destination[size - 1] = '\0';
  return destination;
}

char* __VeskStrSCncpy(char* destination, const char* source, size_t size) {
  return __VeskStrncpy(destination, source, size);
}

char* __VeskGetBaseName(const char* path) {
  if (path == nullptr || *path == '\0') return nullptr;
  const char* const separator = std::strrchr(path + 1, '/'); // the first character is never taken for one
  return __VeskStrdup(separator != nullptr ? separator + 1 : path);
}

char* __VeskGetSCBaseName(const char* path) { return __VeskGetBaseName(path); }

void __VeskSanitizePath(char* path) {
  if (path == nullptr) return;
  char* to = path;
  for (const char* from = path; *from != '\0'; ++from) {
    if (*from != '/' || to == path || to[-1] != '/') *to++ = *from;
  }
  *to = '\0';
}

char* __VeskStripWhiteSpaces(char* text) {
  if (text == nullptr) return nullptr;
  const auto isSpace = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
  for (char* end = text + std::strlen(text); end != text && isSpace(end[-1]);) *--end = '\0';
  while (isSpace(*text)) ++text;
  return text;
}

void __VeskConvertUtf8ToLowerCase(char* text) {
  if (text == nullptr) return;
  for (; *text != '\0'; ++text) *text = static_cast<char>(std::tolower(static_cast<unsigned char>(*text)));
}

size_t __VeskUtf8ToWstring(wchar_t* buffer, size_t bytes, const char* text) {
  return ToWide::intoBuffer(buffer, bytes, text);
}
size_t __VeskWstringToUtf8(char* buffer, size_t bytes, const wchar_t* text) {
  return ToMultibyte::intoBuffer(buffer, bytes, text);
}
wchar_t* __VeskAllocateAndConvertUtf8ToWstring(const char* text) { return ToWide::intoNew(text); }
char* __VeskAllocateAndConvertWstringToUtf8(const wchar_t* text) { return ToMultibyte::intoNew(text); }
void __VeskFreeWstring(wchar_t* text) { __VeskFree(text); }
void __VeskFreeMbString(char* text) { __VeskFree(text); }

uint64_t __VeskUpdateTimestamp(int32_t step) {
  const auto delta = static_cast<std::uint64_t>(std::int64_t{step != 0 ? step : 1});
  return fetchAdd(logicalClock, delta) + delta;
}
