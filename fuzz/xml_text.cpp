// Values and comments of any bytes, read back by a parser of XML: values unchanged, comments but for their
// dashes, and nothing of either taken for markup.
#include <cstring>
#include <string_view>
#include <vector>

#include <pugixml.hpp>

#include "fuzz/input.h"
#include "fuzz/support.h"
#include "veskrt/xml.h"

namespace {

using fuzz::require;

constexpr std::size_t kLongest = 65535;

std::size_t escapedSize(char character) {
  switch (character) {
  case '"':
  case '\'':
    return 6;
  case '&':
    return 5;
  case '<':
  case '>':
    return 4;
  default:
    return 1;
  }
}

std::string cutValue(const std::string& value) {
  std::size_t used = 0;
  for (std::size_t i = 0; i < value.size(); ++i) {
    used += escapedSize(value[i]);
    if (used > kLongest) return value.substr(0, i);
  }
  return value;
}

std::string asComment(const std::string& text) {
  std::string result = " ";
  for (const char character : std::string_view(text).substr(0, kLongest - 1)) {
    if (character != '-' || result.back() != '-') result += character;
  }
  return result + ' ';
}

struct Piece {
  bool isComment;
  std::string content;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::startRuntime();
  static fuzz::MemoryFile target;
  static VeskXMLFile* const file = __VeskXMLCreateFile(target.path(), 0);
  target.take();
  fuzz::Input input(data, size);
  std::vector<Piece> pieces;
  __VeskXMLAcquireFile(file);
  __VeskXMLWriteOpeningTag(file, "record");
  while (input.left() > 0) {
    const auto kind = input.takeInRange(0, 2);
    const auto repetitions = input.takeBool() ? 1 : input.takeInRange(1, 3000);
    const std::string unit = input.takeText(64);
    std::string text;
    for (int i = 0; i < repetitions && pieces.size() < 8; ++i) text += unit.c_str();
    if (kind == 0) {
      __VeskXMLWriteComment(file, "%s", text.c_str());
    } else if (kind == 1) {
      __VeskXMLWriteStringElement(file, "value", text.c_str());
    } else {
      __VeskXMLStartWritingOpeningTag(file, "value");
      __VeskXMLWriteHexadecimalAttribute(file, "n", text.size());
      __VeskXMLFinishWritingOpeningTag(file);
      __VeskXMLWriteStringValue(file, text.c_str());
      __VeskXMLAppendClosingTag(file, "value");
    }
    pieces.push_back({kind == 0, kind == 0 ? asComment(text) : cutValue(text)});
  }
  __VeskXMLWriteClosingTag(file, "record");
  __VeskXMLReleaseFile(file);

  const std::string written = target.take();
  pugi::xml_document document;
  require(document.load_buffer(written.data(), written.size(),
                               pugi::parse_escapes | pugi::parse_comments | pugi::parse_ws_pcdata,
                               pugi::encoding_utf8));
  std::size_t read = 0;
  for (const pugi::xml_node node : document.child("record")) {
    if (node.type() == pugi::node_pcdata) continue; // line breaks in between
    require(read < pieces.size());
    const Piece& piece = pieces[read++];
    require((node.type() == pugi::node_comment) == piece.isComment);
    require(piece.content == (piece.isComment ? node.value() : node.child_value()));
  }
  require(read == pieces.size());
  return 0;
}
