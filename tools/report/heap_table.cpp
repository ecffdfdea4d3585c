#include <algorithm>
#include <array>

#include "report/table.h"
#include "report/text.h"

namespace report {

namespace {

constexpr std::size_t kLeastForPlaces = 50; // characters beside the numbers
constexpr std::size_t kIndentation = 4;     // of the places below the numbers

struct Column {
  const char* title;
  std::uint64_t Numbers::*value;
  bool isSize;
  std::optional<Metric> metric; // that sorts by it
};

constexpr Column kColumns[] = {
    {"at peak", &Numbers::peakBytes, true, Metric::kPeak},
    {"at end", &Numbers::liveBytes, true, Metric::kLive},
    {"blocks", &Numbers::liveBlocks, false, std::nullopt},
    {"in all", &Numbers::allocatedBytes, true, Metric::kBytes},
    {"calls", &Numbers::calls, false, Metric::kCalls},
    {"temporary", &Numbers::temporary, false, Metric::kTemporary},
};

std::string readable(std::uint64_t value, bool isSize) {
  return isSize ? readableSize(value) : readableCount(value);
}

std::string readableDifference(std::uint64_t before, std::uint64_t now, bool isSize) {
  if (now == before) return "0";
  return now > before ? "+" + readable(now - before, isSize) : "-" + readable(before - now, isSize);
}

Style styleOfDifference(std::uint64_t before, std::uint64_t now) {
  return now > before ? Style::kGrowth : now < before ? Style::kShrinkage : Style::kFaint;
}

std::string padded(const std::string& text, std::size_t width) {
  const std::size_t length = characters(text);
  return length < width ? std::string(width - length, ' ') + text : text;
}

// Breaks lines at blanks.
std::string wrapped(const std::string& text, std::size_t width) {
  std::string lines;
  std::size_t start = 0;
  while (text.size() - start > width) {
    const std::size_t blank = text.rfind(' ', start + width);
    if (blank == std::string::npos || blank <= start) break;
    lines += text.substr(start, blank - start) + "\n";
    start = blank + 1;
  }
  return lines + text.substr(start) + "\n";
}

// In front of every C++ allocation, and no news.
bool isOperatorNew(const Place& place) { return place.function.starts_with("operator new"); }

class HeapTable {
public:
  HeapTable(const Profile& profile, const TableSettings& settings, const Terminal& terminal)
      : profile_(profile), settings_(settings), terminal_(terminal),
        sortedBy_(firstMetric(settings.selection)) {
    for (const Column& column : kColumns) {
      const bool isBlocks = column.value == &Numbers::liveBlocks;
      if (!isBlocks || settings.selection.leaks) columns_.push_back(&column);
    }
  }

  std::string text() {
    if (profile_.isComparison())
      addComparedTotals();
    else
      addTotals();
    std::vector<const Row*> rows = select(profile_, settings_.selection);
    const std::size_t count = rows.size();
    if (settings_.top != 0 && rows.size() > settings_.top) rows.resize(settings_.top);
    layOut(rows);
    if (!rows.empty()) addTitles();
    for (const Row* row : rows) addRow(*row);
    addRest(count, count - rows.size());
    return std::move(text_);
  }

private:
  void addTotals() {
    const Run& run = profile_.run;
    const Totals& totals = run.totals;
    text_ +=
        wrapped(run.program + ": " + readableCount(totals.calls) + " heap calls for " +
                    readableSize(totals.allocatedBytes) + "; peak " + readableSize(totals.peakBytes) +
                    " after " + readableTime(totals.peakMilliseconds) + "; at the end " +
                    readableSize(totals.liveBytes) + " in " + readableCount(totals.liveBlocks) + " blocks",
                terminal_.width);
  }

  void addComparedTotals() {
    const Run& before = *profile_.before;
    const Run& now = profile_.run;
    text_ += wrapped("before: " + before.resultPath + " (" + before.program + ")", terminal_.width);
    text_ += wrapped("now:    " + now.resultPath + " (" + now.program + ")", terminal_.width);
    std::vector<std::array<std::string, 4>> lines = {{"", "before", "now", "difference"}};
    std::vector<Style> styles = {Style::kPlain};
    for (const Column& column : kColumns) {
      const std::uint64_t old = before.totals.*column.value;
      const std::uint64_t current = now.totals.*column.value;
      lines.push_back({column.value == &Numbers::liveBlocks ? "blocks at end" : column.title,
                       readable(old, column.isSize), readable(current, column.isSize),
                       readableDifference(old, current, column.isSize)});
      styles.push_back(styleOfDifference(old, current));
    }
    std::array<std::size_t, 4> widths{};
    for (const auto& line : lines) {
      for (std::size_t i = 0; i < widths.size(); ++i) widths[i] = std::max(widths[i], line[i].size());
    }
    for (std::size_t i = 0; i < lines.size(); ++i) {
      const auto& line = lines[i];
      text_ += "  " + line[0] + std::string(widths[0] - line[0].size(), ' ') + "  " +
               padded(line[1], widths[1]) + "  " + padded(line[2], widths[2]) + "  " +
               terminal_.styled(styles[i], padded(line[3], widths[3])) + "\n";
    }
  }

  std::string cell(const Row& row, const Column& column) const {
    const std::uint64_t now = row.now.*column.value;
    if (!profile_.isComparison()) return readable(now, column.isSize);
    return readableDifference(row.before.*column.value, now, column.isSize);
  }

  // Columns are as wide as what is in them.
  void layOut(const std::vector<const Row*>& rows) {
    numbersWidth_ = 0;
    for (const Column* column : columns_) {
      std::size_t width = std::string_view(column->title).size();
      for (const Row* row : rows) width = std::max(width, cell(*row, *column).size());
      widths_.push_back(width);
      numbersWidth_ += width + 2;
    }
    const bool beside =
        terminal_.width == Terminal::kEndless || numbersWidth_ + kLeastForPlaces <= terminal_.width;
    placesIndentation_ = beside ? numbersWidth_ : kIndentation;
    // Where even the numbers are too wide, the last columns go.
    while (columns_.size() > 1 && numbersWidth_ > terminal_.width) {
      numbersWidth_ -= widths_.back() + 2;
      widths_.pop_back();
      columns_.pop_back();
    }
  }

  bool areBeside() const { return placesIndentation_ != kIndentation; }

  void addTitles() {
    for (std::size_t i = 0; i < columns_.size(); ++i) {
      const Style style = columns_[i]->metric == sortedBy_ ? Style::kStrong : Style::kFaint;
      text_ += (i == 0 ? "" : "  ") + terminal_.styled(style, padded(columns_[i]->title, widths_[i]));
    }
    if (areBeside()) text_ += "  " + terminal_.styled(Style::kFaint, "where");
    text_ += "\n";
  }

  void addRow(const Row& row) {
    for (std::size_t i = 0; i < columns_.size(); ++i) {
      const Column& column = *columns_[i];
      Style style = column.metric == sortedBy_ ? Style::kStrong : Style::kPlain;
      if (profile_.isComparison()) style = styleOfDifference(row.before.*column.value, row.now.*column.value);
      text_ += (i == 0 ? "" : "  ") + terminal_.styled(style, padded(cell(row, column), widths_[i]));
    }
    text_ += areBeside() ? "  " : "\n";
    addPlaces(row);
  }

  void addPlaces(const Row& row) {
    std::size_t first = 0;
    while (first + 1 < row.places.size() && isOperatorNew(profile_.places[row.places[first]])) ++first;
    const std::size_t shown = std::min(row.places.size() - first, settings_.frames);
    bool begun = !areBeside();
    const auto newLine = [&](std::string_view prefix) {
      if (begun) text_ += std::string(placesIndentation_, ' ');
      begun = true;
      text_ += prefix;
    };
    for (std::size_t i = 0; i < shown; ++i) {
      constexpr std::string_view kFrom = "  from ";
      newLine(i == 0 ? "" : kFrom);
      addPlace(profile_.places[row.places[first + i]], placesIndentation_ + (i == 0 ? 0 : kFrom.size()));
    }
    const std::size_t more = row.places.size() - first - shown;
    if (shown == 0 && more == 0 && !row.cut) {
      newLine("(unknown)\n");
    } else if (more > 0) {
      newLine("  and " + std::to_string(more) + " more" + (row.cut ? ", and beyond" : "") + "\n");
    } else if (row.cut) {
      newLine("  and beyond\n");
    }
  }

  void addPlace(const Place& place, std::size_t indentation) {
    const std::string offset = hexadecimal(place.offset);
    std::string name = place.function;
    std::string rest;
    if (place.module.empty())
      name = offset;
    else if (name.empty())
      name = place.module + "+" + offset;
    else
      rest = place.inlined ? " [inlined]" : " (" + place.module + ")";
    if (!place.file.empty()) rest += " " + baseName(place.file) + ":" + std::to_string(place.line);

    constexpr std::size_t kLeastName = 20;
    if (terminal_.width != Terminal::kEndless) {
      const std::size_t room = terminal_.width > indentation ? terminal_.width - indentation : 1;
      const std::size_t forName =
          room > kLeastName + characters(rest) ? room - characters(rest) : std::min(room, kLeastName);
      name = shortened(name, forName);
      rest = shortened(rest, room - characters(name));
    }
    text_ += terminal_.styled(Style::kStrong, name) + terminal_.styled(Style::kFaint, rest) + "\n";
  }

  void addRest(std::size_t count, std::size_t more) {
    if (count == 0 && profile_.isComparison())
      text_ += "no call stack differs\n";
    else if (count == 0 && settings_.selection.leaks)
      text_ += "nothing is left at the end\n";
    else if (more != 0)
      text_ += "and " + readableCount(more) + " more call stack" + (more == 1 ? "" : "s") + "\n";
  }

  const Profile& profile_;
  const TableSettings& settings_;
  const Terminal& terminal_;
  Metric sortedBy_;
  std::vector<const Column*> columns_;
  std::vector<std::size_t> widths_;
  std::size_t numbersWidth_ = 0;
  std::size_t placesIndentation_ = 0;
  std::string text_;
};

} // namespace

std::string heapTable(const Profile& profile, const TableSettings& settings, const Terminal& terminal) {
  return HeapTable(profile, settings, terminal).text();
}

} // namespace report
