#include "host/environment.h"

#include <cstring>

#include "veskrt/host.h"

namespace veskhost {

namespace {

constexpr char kPrefix[] = "VESK_HOST_";
constexpr char kLibrary[] = "VESK_HOST_LIBRARY=";
constexpr char kCollector[] = "VESK_HOST_COLLECTOR=";
constexpr char kArgument[] = "VESK_HOST_ARGUMENT_";
constexpr char kPreload[] = "LD_PRELOAD=";

// Copies of the settings as they stood: the program may use the place of its first environment for something
// else.
constinit char** variables = nullptr;
constinit std::uint32_t variableCount = 0;
constinit const char* library = nullptr;
constinit Settings current = {};

template <std::size_t size>
const char* after(const char* text, const char (&prefix)[size]) noexcept {
  return std::strncmp(text, prefix, size - 1) == 0 ? text + size - 1 : nullptr;
}

bool isSetting(const char* variable) noexcept { return after(variable, kPrefix) != nullptr; }

// Puts an argument in its place; `numbered` is its number, '=' and its text. A number that cannot be is
// passed over.
void keepArgument(const char** arguments, std::uint32_t limit, const char* numbered) noexcept {
  std::uint32_t number = 0;
  while (*numbered >= '0' && *numbered <= '9' && number < limit) {
    number = number * 10 + static_cast<std::uint32_t>(*numbered++ - '0');
  }
  if (number >= limit || *numbered != '=') return;
  arguments[number] = numbered + 1;
  if (number >= current.argumentCount) current.argumentCount = number + 1;
}

void keepSettings(char* const* environment) noexcept {
  std::size_t bytes = 0;
  std::uint32_t count = 0;
  for (char* const* variable = environment; *variable != nullptr; ++variable) {
    if (!isSetting(*variable)) continue;
    ++count;
    bytes += std::strlen(*variable) + 1;
  }
  if (count == 0) return;
  auto* memory = static_cast<char*>(veskHostAllocate(count * 2 * sizeof(char*) + bytes));
  if (memory == nullptr) return;
  variables = reinterpret_cast<char**>(memory);
  auto* arguments = reinterpret_cast<const char**>(memory) + count;
  char* text = memory + count * 2 * sizeof(char*);
  for (std::uint32_t number = 0; number < count; ++number) arguments[number] = "";
  for (char* const* variable = environment; *variable != nullptr; ++variable) {
    if (!isSetting(*variable)) continue;
    const std::size_t length = std::strlen(*variable) + 1;
    variables[variableCount++] = static_cast<char*>(std::memcpy(text, *variable, length));
    if (const char* value = after(text, kLibrary)) library = value;
    if (const char* value = after(text, kCollector)) current.collector = value;
    if (const char* value = after(text, kArgument)) keepArgument(arguments, count, value);
    text += length;
  }
  current.arguments = arguments;
}

// The preloads that the program's own LD_PRELOAD names; null when the variable does not begin with this
// library.
char* preloadsOfProgram(char* preload) noexcept {
  const std::size_t length = std::strlen(library);
  return std::strncmp(preload, library, length) == 0 && (preload[length] == ':' || preload[length] == '\0')
             ? preload + length
             : nullptr;
}

} // namespace

const Settings& settings() noexcept { return current; }

void takeSettings(char** environment) noexcept {
  if (variables == nullptr) keepSettings(environment);
  if (library == nullptr) return;
  char** kept = environment;
  for (char** variable = environment; *variable != nullptr; ++variable) {
    if (isSetting(*variable)) continue;
    if (after(*variable, kPreload) != nullptr) {
      if (char* rest = preloadsOfProgram(*variable + sizeof kPreload - 1)) {
        if (*rest == '\0') continue;
        // "LD_PRELOAD=host:theirs": the name moves up to the end of the host's part.
        *variable =
            static_cast<char*>(std::memmove(rest + 1 - (sizeof kPreload - 1), kPreload, sizeof kPreload - 1));
      }
    }
    *kept++ = *variable;
  }
  *kept = nullptr;
}

char** environmentForChild(char* const* environment) noexcept {
  static char* const kNothing[] = {nullptr};
  if (environment == nullptr) environment = kNothing;
  std::size_t count = 0;
  const char* preload = "";
  for (; environment[count] != nullptr; ++count) {
    if (const char* value = after(environment[count], kPreload)) preload = value;
  }
  const std::size_t slots = count + variableCount + 2;
  const std::size_t libraryLength = std::strlen(library);
  const std::size_t preloadLength = std::strlen(preload);
  auto* memory = static_cast<char*>(
      veskHostAllocate(slots * sizeof(char*) + sizeof kPreload + libraryLength + 1 + preloadLength));
  if (memory == nullptr) return nullptr;
  auto** result = reinterpret_cast<char**>(memory);

  char* text = memory + slots * sizeof(char*);
  char* ours = text;
  std::memcpy(text, kPreload, sizeof kPreload - 1);
  std::memcpy(text += sizeof kPreload - 1, library, libraryLength + 1);
  text += libraryLength;
  bool placed = false;
  std::size_t used = 0;
  for (std::size_t index = 0; index < count; ++index) {
    if (isSetting(environment[index])) continue;
    if (after(environment[index], kPreload) != nullptr) {
      if (placed) continue;
      placed = true;
      *text = ':';
      std::memcpy(text + 1, preload, preloadLength + 1);
      result[used++] = ours;
    } else {
      result[used++] = environment[index];
    }
  }
  if (!placed) result[used++] = ours;
  for (std::uint32_t index = 0; index < variableCount; ++index) result[used++] = variables[index];
  result[used] = nullptr;
  return result;
}

} // namespace veskhost
