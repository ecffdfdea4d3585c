// Counted strings against std::string: texts of any bytes, and parts of the string itself.
#include "veskrt/counted_string.h"
#include "fuzz/input.h"
#include "fuzz/support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using fuzz::require;
  const std::int64_t before = fuzz::liveBlocks();
  fuzz::Input input(data, size);
  const auto category = input.take<std::uint32_t>();
  const auto wanted = input.take<std::uint8_t>();
  const bool empty = input.takeBool();
  std::string model = empty ? "" : input.takeText(40).c_str();
  CountedString* const string = __VeskStrAlloc(category, wanted, empty ? nullptr : model.c_str());
  while (input.left() > 0 && model.size() < 100000) {
    const std::uint32_t capacity = string->capacity;
    const bool append = input.takeBool();
    std::string text;
    const char* given;
    if (input.takeBool()) {
      const auto from = input.takeInRange<std::size_t>(0, model.size());
      text = model.substr(from);
      given = string->buffer + from;
    } else {
      text = input.takeText(40).c_str();
      given = text.c_str();
    }
    if (append) {
      __VeskStrAppend(string, given);
      model += text;
    } else {
      require(__VeskStrSet(string, given) == string);
      model = text;
    }
    require(string->length == model.size() && string->buffer == model);
    const std::size_t grown =
        append ? 2 * (capacity + text.size()) : std::max<std::size_t>(2 * text.size(), 1);
    require(string->capacity == (model.size() < capacity ? capacity : grown));
  }
  __VeskStrDestroy(string);
  require(fuzz::liveBlocks() == before);
  return 0;
}
