// Writes JSON that may stand inside a script element.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace report {

class Json {
public:
  void beginArray() { open('['); }
  void endArray() { close(']'); }
  void beginObject() { open('{'); }
  void endObject() { close('}'); }

  // Before each value of an object.
  void key(std::string_view name) {
    value(name);
    text_ += ':';
    first_ = true;
  }

  void value(std::string_view text);
  void value(const char* text) { value(std::string_view(text)); }
  void value(std::uint64_t number) { plain(std::to_string(number)); }
  void value(bool truth) { plain(truth ? "true" : "false"); }
  void null() { plain("null"); }

  const std::string& text() const { return text_; }

private:
  void open(char bracket) {
    separate();
    text_ += bracket;
    first_ = true;
  }
  void close(char bracket) {
    text_ += bracket;
    first_ = false;
  }
  void plain(const std::string& text) {
    separate();
    text_ += text;
  }
  void separate() {
    if (!first_) text_ += ',';
    first_ = false;
  }

  std::string text_;
  bool first_ = true;
};

} // namespace report
