// A program with about a million heap calls, for collectors to watch: maps, strings and vectors that come and go.
// Prints the milliseconds that its work took.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

constexpr uint32_t kRecords = 100000;

struct Record {
  std::string name;
  std::vector<uint32_t> places;
};

uint32_t mix(uint32_t number) { return number * 2654435761u >> 7; }

void index(std::unordered_map<std::string, std::unique_ptr<Record>>& records, uint32_t number) {
  auto& record = records["a record's name of some length " + std::to_string(mix(number) % 40000)];
  if (record == nullptr) record = std::make_unique<Record>();
  record->name = "the text of record number " + std::to_string(number);
  record->places.push_back(number);
}

void order(std::map<uint32_t, std::string>& window, uint32_t number) {
  window[mix(number)] = "a line of text that does not fit into the object " + std::to_string(number);
  if (window.size() > 5000) window.erase(window.begin());
}

} // namespace

int main() {
  const auto start = std::chrono::steady_clock::now();
  std::unordered_map<std::string, std::unique_ptr<Record>> records;
  std::map<uint32_t, std::string> window;
  for (uint32_t number = 0; number < kRecords; ++number) {
    index(records, number);
    order(window, number);
  }
  const auto end = std::chrono::steady_clock::now();
  std::printf("%.3f\n", std::chrono::duration<double, std::milli>(end - start).count());
}
