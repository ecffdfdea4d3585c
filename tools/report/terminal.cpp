#include "report/terminal.h"

#include <cstdlib>
#include <cstring>

#include <sys/ioctl.h>
#include <unistd.h>

namespace report {

namespace {

bool isSet(const char* variable) {
  const char* value = std::getenv(variable);
  return value != nullptr && *value != '\0';
}

} // namespace

std::string Terminal::styled(Style style, const std::string& text) const {
  if (!colours || text.empty()) return text;
  switch (style) {
  case Style::kPlain:
    break;
  case Style::kStrong:
    return "\033[1m" + text + "\033[0m";
  case Style::kFaint:
    return "\033[2m" + text + "\033[0m";
  case Style::kGrowth:
    return "\033[31m" + text + "\033[0m";
  case Style::kShrinkage:
    return "\033[32m" + text + "\033[0m";
  }
  return text;
}

Terminal findTerminal() {
  Terminal terminal;
  if (isatty(STDOUT_FILENO) == 0) return terminal;
  const char* kind = std::getenv("TERM");
  terminal.colours = !isSet("NO_COLOR") && kind != nullptr && std::strcmp(kind, "dumb") != 0;
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0) terminal.width = size.ws_col;
  return terminal;
}

} // namespace report
