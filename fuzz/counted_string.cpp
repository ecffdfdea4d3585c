// Counted strings against std::string: texts of any bytes, and parts of the string itself.
#include <fuzzer/FuzzedDataProvider.h>

#include "fuzz/support.h"
#include "veskrt/counted_string.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using fuzz::require;
  const std::int64_t before = fuzz::liveBlocks();
  FuzzedDataProvider input(data, size);
  std::string model;
  CountedString* const string =
      __VeskStrAlloc(input.ConsumeIntegral<std::uint32_t>(), input.ConsumeIntegral<std::uint8_t>(), nullptr);
  while (input.remaining_bytes() > 0 && model.size() < 100000) {
    const std::uint32_t capacity = string->capacity;
    const bool append = input.ConsumeBool();
    std::string text;
    const char* given;
    if (input.ConsumeBool()) {
      const auto from = input.ConsumeIntegralInRange<std::size_t>(0, model.size());
      text = model.substr(from);
      given = string->buffer + from;
    } else {
      text = input.ConsumeRandomLengthString(40).c_str();
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
