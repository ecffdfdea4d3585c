#include "report/json.h"

namespace report {

// A script element ends at "</script", and "<!--" changes how it is read: no '<' is left. The rest of what has a
// meaning in HTML goes too.
void Json::value(std::string_view text) {
  separate();
  text_ += '"';
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte >= 0x20 && std::string_view("\"\\<>&'").find(character) == std::string_view::npos) {
      text_ += character;
      continue;
    }
    constexpr char kDigits[] = "0123456789abcdef";
    text_ += "\\u00";
    text_ += kDigits[byte >> 4];
    text_ += kDigits[byte & 15];
  }
  text_ += '"';
}

} // namespace report
