// Paths and texts of any bytes against plain statements of what each helper does.
#include <algorithm>
#include <clocale>
#include <cstring>
#include <cwchar>
#include <memory>
#include <vector>

#include "fuzz/input.h"
#include "fuzz/support.h"
#include "veskrt/memory.h"
#include "veskrt/text.h"

namespace {

using fuzz::require;

// In a block that ends with its terminator.
std::unique_ptr<char[]> exactly(const std::string& text) {
  auto copy = std::make_unique<char[]>(text.size() + 1);
  std::memcpy(copy.get(), text.c_str(), text.size() + 1);
  return copy;
}

void tryPaths(const std::string& text) {
  const auto path = exactly(text);
  std::string folded = text;
  folded.erase(std::unique(folded.begin(), folded.end(), [](char a, char b) { return a == '/' && b == '/'; }),
               folded.end());
  __VeskSanitizePath(path.get());
  require(folded == path.get());

  char* const name = __VeskGetBaseName(exactly(text).get());
  require((name == nullptr) == text.empty());
  if (name != nullptr) {
    const std::size_t separator = text.rfind('/');
    require(name == (separator == std::string::npos || separator == 0 ? text : text.substr(separator + 1)));
  }
  __VeskFree(name);
}

void tryWhiteSpace(const std::string& text) {
  constexpr const char* kSpaces = " \t\n\v\f\r";
  const auto copy = exactly(text);
  const std::size_t first = text.find_first_not_of(kSpaces);
  const std::string stripped =
      first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(kSpaces) - first + 1);
  require(__VeskStripWhiteSpaces(copy.get()) == stripped);
}

void tryCopies(const std::string& text, std::size_t size) {
  const auto bounded = std::make_unique<char[]>(size);
  std::memset(bounded.get(), 'z', size);
  require(__VeskStrncpy(bounded.get(), exactly(text).get(), size) == bounded.get());
  for (std::size_t i = 0; i < size; ++i)
    require(bounded[i] == (i < text.size() && i + 1 < size ? text[i] : '\0'));

  const int length = __VeskSnprintf(size != 0 ? bounded.get() : nullptr, size, "%s", text.c_str());
  require(length == static_cast<int>(text.size()));
  if (size != 0) require(bounded.get() == text.substr(0, size - 1));

  char* const duplicate = __VeskStrdup(exactly(text).get());
  require(duplicate == text);
  __VeskConvertUtf8ToLowerCase(duplicate);
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool isUpper = text[i] >= 'A' && text[i] <= 'Z';
    if (static_cast<unsigned char>(text[i]) < 128)
      require(duplicate[i] == (isUpper ? text[i] - 'A' + 'a' : text[i]));
  }
  __VeskFree(duplicate);
}

// To wide characters and back, into new strings and into buffers of any size.
void tryConversions(const std::string& text, std::size_t room) {
  wchar_t* const wide = __VeskAllocateAndConvertUtf8ToWstring(exactly(text).get());
  const std::size_t length = wide != nullptr ? std::wcslen(wide) : 0;
  std::vector<wchar_t> wideBuffer(room);
  const std::size_t converted =
      __VeskUtf8ToWstring(wideBuffer.data(), room * sizeof(wchar_t), exactly(text).get());
  require(converted == (wide != nullptr && length < room ? length : 0));
  if (converted != 0) require(std::wcscmp(wideBuffer.data(), wide) == 0);
  if (wide == nullptr) return;

  char* const back = __VeskAllocateAndConvertWstringToUtf8(wide);
  require(back != nullptr && back == text);
  std::vector<char> buffer(room);
  require(__VeskWstringToUtf8(buffer.data(), room, wide) == (text.size() < room ? text.size() : 0));
  if (!text.empty() && text.size() < room) require(buffer.data() == text);
  __VeskFreeMbString(back);
  __VeskFreeWstring(wide);
}

// Any wide characters, those that stand for nothing included.
void tryWide(std::vector<wchar_t> wide) {
  wide.push_back(0);
  char* const narrow = __VeskAllocateAndConvertWstringToUtf8(wide.data());
  if (narrow == nullptr) return;
  require(std::strlen(narrow) >= std::wcslen(wide.data()));
  __VeskFreeMbString(narrow);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool ready = std::setlocale(LC_ALL, "C.UTF-8") != nullptr;
  require(ready);
  const std::int64_t before = fuzz::liveBlocks();
  fuzz::Input input(data, size);
  const std::size_t room = input.takeInRange<std::size_t>(0, 40);
  std::vector<wchar_t> wide;
  for (std::size_t i = input.takeInRange<std::size_t>(0, 4); i > 0; --i)
    wide.push_back(static_cast<wchar_t>(input.take<std::uint32_t>()));
  const std::string bytes = input.takeBytes(SIZE_MAX);
  const std::string text = bytes.c_str(); // up to its first zero
  tryPaths(text);
  tryWhiteSpace(text);
  tryCopies(text, room);
  tryConversions(text, room);
  tryWide(wide);
  require(fuzz::liveBlocks() == before);
  return 0;
}
