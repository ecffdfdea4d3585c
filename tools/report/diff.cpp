#include "report/diff.h"

#include <map>

namespace report {

namespace {

// Numbers for functions, the same for those of the same name and module in both results.
class Functions {
public:
  std::vector<std::uint32_t> numbersOf(const std::vector<Place>& places) {
    std::vector<std::uint32_t> numbers;
    for (const Place& place : places) {
      // Without a name the offset has to do.
      const std::string name = place.function.empty() ? "\n" + std::to_string(place.offset) : place.function;
      const auto next = static_cast<std::uint32_t>(numbers_.size());
      numbers.push_back(numbers_.emplace(std::pair(place.module, name), next).first->second);
    }
    return numbers;
  }

private:
  std::map<std::pair<std::string, std::string>, std::uint32_t> numbers_;
};

// The rows of the comparison by the functions in their stacks.
class Rows {
public:
  explicit Rows(std::vector<Row>& rows) : rows_(rows) {}

  Row& find(const Row& row, const std::vector<std::uint32_t>& functions, std::uint32_t firstPlace) {
    std::vector<std::uint32_t> stack;
    for (const std::uint32_t place : row.places) stack.push_back(functions[place]);
    stack.push_back(row.cut);
    const auto [entry, isNew] = indices_.emplace(std::move(stack), rows_.size());
    if (isNew) {
      Row& added = rows_.emplace_back(Row{{}, {}, row.cut, row.places});
      for (std::uint32_t& place : added.places) place += firstPlace;
    }
    return rows_[entry->second];
  }

private:
  std::vector<Row>& rows_;
  std::map<std::vector<std::uint32_t>, std::size_t> indices_;
};

} // namespace

Profile compare(Profile before, Profile now) {
  Functions functions;
  const auto functionsNow = functions.numbersOf(now.places);
  const auto functionsBefore = functions.numbersOf(before.places);
  const auto firstOld = static_cast<std::uint32_t>(now.places.size());

  Profile comparison;
  Rows rows(comparison.rows);
  for (const Row& row : now.rows) rows.find(row, functionsNow, 0).now += row.now;
  for (const Row& row : before.rows) rows.find(row, functionsBefore, firstOld).before += row.now;
  comparison.places = std::move(now.places);
  comparison.places.insert(comparison.places.end(), before.places.begin(), before.places.end());
  comparison.run = std::move(now.run);
  comparison.before = std::move(before.run);
  return comparison;
}

} // namespace report
