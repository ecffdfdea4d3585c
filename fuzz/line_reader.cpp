// The reader of the system's text files: every line of any bytes once, from its beginning, cut where the
// buffer ends.
#include <cstring>
#include <string_view>

#include "fuzz/support.h"
#include "platform/line_reader.h"

namespace {

constexpr std::size_t kSize = 16;

// As a line reads: up to its first zero.
std::string_view visible(std::string_view line) { return line.substr(0, line.find('\0')); }

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzz::MemoryFile file;
  const std::string text(reinterpret_cast<const char*>(data), size);
  file.write(text);
  vesk::LineReader<kSize> reader(file.path());
  fuzz::require(reader.isOpen());
  for (std::string_view left = text; !left.empty();) {
    const std::size_t end = left.find('\n');
    const std::string_view line = left.substr(0, end != std::string_view::npos ? end + 1 : end);
    const char* const got = reader.next();
    fuzz::require(got != nullptr && got == visible(line.substr(0, kSize - 1)));
    left.remove_prefix(line.size());
  }
  fuzz::require(reader.next() == nullptr);
  return 0;
}
