// Plays a target without libFuzzer: every seed, and a number of inputs that are the same each time, by turns
// of random bytes and made of the seeds' pieces, with some bytes changed.
//
// usage: fuzz_TARGET SEEDS-DIRECTORY NUMBER
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

std::vector<std::string> readSeeds(const char* directory) {
  std::vector<std::filesystem::path> paths;
  for (const auto& each : std::filesystem::directory_iterator(directory)) paths.push_back(each.path());
  std::sort(paths.begin(), paths.end());
  std::vector<std::string> seeds;
  for (const auto& path : paths) {
    std::ifstream file(path, std::ios::binary);
    seeds.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  return seeds;
}

std::string randomBytes(std::mt19937_64& random) {
  std::string bytes(random() % (std::size_t{64} << random() % 7), '\0');
  std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
  return bytes;
}

std::string changedSeeds(std::mt19937_64& random, const std::vector<std::string>& seeds) {
  std::string bytes;
  for (std::uint64_t pieces = 1 + random() % 4; pieces > 0; --pieces) {
    const std::string& seed = seeds[random() % seeds.size()];
    const std::size_t from = random() % 2 == 0 ? 0 : random() % (seed.size() + 1);
    bytes += seed.substr(from, random() % 2 == 0 ? std::string::npos : random() % (seed.size() + 1));
  }
  for (std::uint64_t changes = random() % 6; changes > 0 && !bytes.empty(); --changes)
    bytes[random() % bytes.size()] = static_cast<char>(random());
  return bytes;
}

// In a block of its own size, for the sanitizer.
void play(const std::string& bytes) {
  const auto block = std::make_unique<std::uint8_t[]>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), block.get());
  LLVMFuzzerTestOneInput(block.get(), bytes.size());
}

} // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> seeds = argc == 3 ? readSeeds(argv[1]) : std::vector<std::string>();
  if (seeds.empty()) {
    std::fprintf(stderr, "usage: %s SEEDS-DIRECTORY NUMBER\n", argv[0]);
    return 2;
  }
  std::for_each(seeds.begin(), seeds.end(), play);
  for (long i = 0; i < std::atol(argv[2]); ++i) {
    std::mt19937_64 random(static_cast<std::uint64_t>(i));
    play(i % 2 == 0 ? randomBytes(random) : changedSeeds(random, seeds));
  }
  return 0;
}
