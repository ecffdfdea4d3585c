#include "report/profile.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <tuple>
#include <unordered_map>

#include "report/text.h"

namespace report {

namespace {

// The places of all frames, each kept once.
class Places {
public:
  std::uint32_t add(Place place) {
    const auto next = static_cast<std::uint32_t>(places_.size());
    const auto [entry, isNew] =
        indices_.emplace(Key{place.function, place.module, place.function.empty() ? place.offset : 0,
                             place.file, place.line, place.inlined},
                         next);
    if (isNew) places_.push_back(std::move(place));
    return entry->second;
  }

  std::vector<Place> take() { return std::move(places_); }

private:
  using Key = std::tuple<std::string, std::string, std::uint64_t, std::string, unsigned, bool>;
  std::map<Key, std::uint32_t> indices_;
  std::vector<Place> places_;
};

bool isLibraryInline(const Place& place) {
  return place.inlined && place.file.find("/include/c++/") != std::string::npos;
}

// Of a run of inlined functions of the C++ library the outermost is the one that the program calls.
void foldLibraryInlines(std::vector<Place>& places) {
  for (std::size_t i = places.size(); i-- > 1;) {
    if (isLibraryInline(places[i]) && isLibraryInline(places[i - 1])) {
      places.erase(places.begin() + static_cast<std::ptrdiff_t>(i - 1));
    }
  }
}

std::uint64_t distance(std::uint64_t left, std::uint64_t right) {
  return left > right ? left - right : right - left;
}

// In the order of the collector's own table.
constexpr Metric kOrder[] = {Metric::kPeak, Metric::kLive, Metric::kBytes, Metric::kCalls};

bool comesBefore(const Row& left, const Row& right, Metric first) {
  const auto weight = [](const Row& row, Metric metric) {
    return distance(valueOf(row.now, metric), valueOf(row.before, metric));
  };
  if (weight(left, first) != weight(right, first)) return weight(left, first) > weight(right, first);
  for (const Metric metric : kOrder) {
    if (weight(left, metric) != weight(right, metric)) return weight(left, metric) > weight(right, metric);
  }
  return false;
}

bool leaks(const Row& row) { return row.now.liveBlocks != 0 || row.before.liveBlocks != 0; }

} // namespace

std::uint64_t valueOf(const Numbers& numbers, Metric metric) {
  switch (metric) {
  case Metric::kPeak:
    return numbers.peakBytes;
  case Metric::kLive:
    return numbers.liveBytes;
  case Metric::kBytes:
    return numbers.allocatedBytes;
  case Metric::kCalls:
    return numbers.calls;
  case Metric::kTemporary:
    return numbers.temporary;
  }
  return 0;
}

Profile makeProfile(HeapResult result, const std::string& path, const NameSettings& settings,
                    Progress& progress) {
  Symbols symbols(result.modules, settings.debugDirectory);
  Places places;
  std::vector<std::vector<std::uint32_t>> placesOfFrames;
  placesOfFrames.reserve(result.frames.size());
  for (const Frame& frame : result.frames) {
    auto& indices = placesOfFrames.emplace_back();
    std::vector<Place> found = symbols.find(frame);
    if (!settings.libraryInlines) foldLibraryInlines(found);
    for (Place& place : found) indices.push_back(places.add(std::move(place)));
    progress.show("looking up names", placesOfFrames.size(), result.frames.size());
  }
  progress.clear();
  if (const std::string remark = symbols.remark(); !remark.empty()) {
    std::fprintf(stderr, "veskreport: %s: %s\n", printable(baseName(path)).c_str(), remark.c_str());
  }

  Profile profile;
  for (const Stack& stack : result.stacks) {
    Row& row = profile.rows.emplace_back(Row{stack.numbers, {}, stack.cut, {}});
    for (const std::uint32_t frame : stack.frames) {
      row.places.insert(row.places.end(), placesOfFrames[frame].begin(), placesOfFrames[frame].end());
    }
  }
  profile.places = places.take();
  profile.run = {printable(path),          std::move(result.program), result.pid,
                 std::move(result.end),    std::move(result.status),  result.milliseconds,
                 std::move(result.totals), result.sampleMilliseconds, std::move(result.samples)};
  return profile;
}

Metric firstMetric(const Selection& selection) {
  return selection.metric.value_or(selection.leaks ? Metric::kLive : Metric::kPeak);
}

std::vector<const Row*> select(const Profile& profile, const Selection& selection) {
  std::vector<const Row*> rows;
  for (const Row& row : profile.rows) {
    if (selection.leaks && !leaks(row)) continue;
    if (profile.isComparison() && row.now == row.before) continue;
    rows.push_back(&row);
  }
  const Metric metric = firstMetric(selection);
  std::stable_sort(rows.begin(), rows.end(), [metric](const Row* left, const Row* right) {
    return comesBefore(*left, *right, metric);
  });
  return rows;
}

} // namespace report
