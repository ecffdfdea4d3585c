#include "collectors/common/xml_text.h"

namespace common {

namespace {

std::uint32_t continuationBytes(unsigned char lead) {
  if (lead >= 0xC2 && lead <= 0xDF) return 1;
  if (lead >= 0xE0 && lead <= 0xEF) return 2;
  if (lead >= 0xF0 && lead <= 0xF4) return 3;
  return 0;
}

} // namespace

std::uint32_t characterLength(const char* text) {
  const auto byte = [text](std::uint32_t i) { return static_cast<unsigned char>(text[i]); };
  if (byte(0) < 0x80) return byte(0) >= 0x20 || byte(0) == '\t' ? 1 : 0;
  const std::uint32_t more = continuationBytes(byte(0));
  if (more == 0) return 0;
  for (std::uint32_t i = 1; i <= more; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
  }
  const bool overlong = (byte(0) == 0xE0 && byte(1) < 0xA0) || (byte(0) == 0xF0 && byte(1) < 0x90);
  const bool noCharacter = (byte(0) == 0xED && byte(1) >= 0xA0) || (byte(0) == 0xF4 && byte(1) >= 0x90) ||
                           (byte(0) == 0xEF && byte(1) == 0xBF && byte(2) >= 0xBE);
  return overlong || noCharacter ? 0 : more + 1;
}

} // namespace common
