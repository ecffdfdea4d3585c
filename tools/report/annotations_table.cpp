#include <algorithm>
#include <array>

#include "report/table.h"
#include "report/text.h"

namespace report {

namespace {

constexpr std::size_t kColumns = 5;
using Line = std::array<std::string, kColumns>;

Line lineOf(const Annotation& annotation) {
  return {annotation.name, annotation.location, annotation.offset, annotation.probe, annotation.symbol};
}

} // namespace

std::string annotationsTable(const AnnotationsResult& result, const Terminal& terminal) {
  const Line titles = {"name", "location", "offset", "probe", "function"};
  std::array<std::size_t, kColumns> widths{};
  std::size_t count = 0;
  const auto widen = [&widths](const Line& line) {
    for (std::size_t i = 0; i < kColumns; ++i) widths[i] = std::max(widths[i], characters(line[i]));
  };
  widen(titles);
  for (const AnnotatedModule& module : result.modules) {
    for (const Annotation& annotation : module.annotations) widen(lineOf(annotation));
    count += module.annotations.size();
  }

  const auto joined = [&](const Line& line) {
    std::string text = " ";
    for (std::size_t i = 0; i < kColumns; ++i) {
      text += " " + line[i];
      if (i + 1 < kColumns) text += std::string(widths[i] - characters(line[i]) + 1, ' ');
    }
    text.erase(text.find_last_not_of(' ') + 1);
    return shortened(text, terminal.width);
  };
  std::string text =
      result.program + ": " + readableCount(count) + (count == 1 ? " annotation\n" : " annotations\n");
  if (count != 0) text += terminal.styled(Style::kFaint, joined(titles)) + "\n";
  for (const AnnotatedModule& module : result.modules) {
    if (module.annotations.empty()) continue;
    text += terminal.styled(Style::kStrong, module.path) + "\n";
    for (const Annotation& annotation : module.annotations) text += joined(lineOf(annotation)) + "\n";
  }
  return text;
}

} // namespace report
