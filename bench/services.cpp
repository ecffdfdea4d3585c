// Services that a collector calls less often: annotation tables, the module map, the command line, vectors.
#include <cstring>
#include <map>
#include <memory>

#include <fcntl.h>
#include <getopt.h>
#include <unistd.h>

#include "bench/bench.h"
#include "veskrt/annotations.h"
#include "veskrt/modules.h"
#include "veskrt/options.h"
#include "veskrt/vector.h"

namespace {

using namespace bench;

// ---- Annotation tables ----

constexpr size_t kAnnotations = 10000;

template <class Integer>
void put(std::vector<unsigned char>& bytes, Integer value) {
  const auto* const first = reinterpret_cast<const unsigned char*>(&value);
  bytes.insert(bytes.end(), first, first + sizeof value);
}

// A table of version 1.2 with names of 15 characters and values in registers.
void putTable(std::vector<unsigned char>& bytes, uint16_t items) {
  constexpr uint32_t kHeader = 48;
  constexpr uint32_t kItem = 16;
  constexpr uint32_t kName = 16;
  constexpr uint32_t kExpression = 2;
  const uint32_t names = kHeader + kItem * items;
  const uint32_t expressions = names + kName * items;
  constexpr char kMagic[] = ".ovk_notify_tab";
  bytes.insert(bytes.end(), kMagic, kMagic + sizeof kMagic);
  put<uint16_t>(bytes, 0x0102);
  put<uint16_t>(bytes, 0);
  put<uint16_t>(bytes, items);
  put<uint16_t>(bytes, 0);
  put<uint32_t>(bytes, names);
  put<uint32_t>(bytes, kName * items);
  put<uint32_t>(bytes, expressions);
  put<uint32_t>(bytes, kExpression * items);
  put<uint64_t>(bytes, VESK_QEL_FLAG_PCREL);
  for (uint32_t i = 0; i < items; ++i) {
    put<uint64_t>(bytes, 0x1000 + 16 * i);
    put<uint32_t>(bytes, kName * i);
    put<uint32_t>(bytes, kExpression * i);
  }
  for (uint32_t i = 0; i < items; ++i) {
    char name[kName + 1];
    std::snprintf(name, sizeof name, "annotation%05u", i);
    bytes.insert(bytes.end(), name, name + kName);
  }
  for (uint32_t i = 0; i < items; ++i) {
    put<uint8_t>(bytes, 1);
    put<uint8_t>(bytes, static_cast<uint8_t>(0x50 + i % 16));
  }
}

std::vector<unsigned char> makeSection(size_t tables) {
  std::vector<unsigned char> section;
  for (size_t i = 0; i < tables; ++i) putTable(section, static_cast<uint16_t>(kAnnotations / tables));
  return section;
}

uint64_t countAnnotation(VESK_QEL_RECORD* record, uint64_t context) {
  *reinterpret_cast<size_t*>(context) += record->name != nullptr;
  return 0;
}

void walkAnnotations(benchmark::State& state, size_t tables) {
  const auto section = makeSection(tables);
  size_t seen = 0;
  for (auto _ : state)
    __VeskQELParseAndProcessRecords(0, section.data(), section.size(), countAnnotation, &seen);
  if (seen != state.iterations() * kAnnotations) state.SkipWithError("annotations are missing");
  if (truncate("vesklog.log", 0) != 0) state.SkipWithError("truncate");
  countItems(state, kAnnotations);
}

// Every byte is read once and handed on once.
void copySection(benchmark::State& state) {
  const auto section = makeSection(1);
  std::vector<unsigned char> copy(section.size());
  for (auto _ : state) {
    std::memcpy(copy.data(), section.data(), section.size());
    benchmark::DoNotOptimize(copy.data());
    benchmark::ClobberMemory();
  }
  countItems(state, kAnnotations);
}

// The note that each table leaves in the log.
void writeNotes(benchmark::State& state) {
  constexpr char kNote[] = "\n\t<!-- Found QEL section with version 1.2 -->";
  const int file = open("notes.log", O_CREAT | O_TRUNC | O_WRONLY, 0600);
  for (auto _ : state) {
    if (write(file, kNote, sizeof kNote - 1) < 0) state.SkipWithError("write");
  }
  close(file);
  countItems(state, 1);
}

// ---- The module map ----

constexpr size_t kModules = 300;

struct Modules {
  Modules() {
    std::mt19937_64 random(11);
    uint64_t start = 0x7F0000000000;
    for (size_t i = 0; i < kModules; ++i) {
      start += 0x1000 * (300 + random() % 200);
      starts.push_back(start);
    }
    for (size_t i = 0; i < 4096; ++i)
      addresses.push_back(starts[random() % kModules] + 1 + random() % (kSize - 1));
    for (const uint64_t each : shuffled(starts, 12)) {
      __VeskLoadModule(each, each, each + kSize);
      map.emplace(each, each + kSize);
    }
  }
  static constexpr uint64_t kSize = 0x100000;
  std::vector<uint64_t> starts;
  std::vector<uint64_t> addresses;
  std::map<uint64_t, uint64_t> map;
};

template <class Find>
void findModules(benchmark::State& state, Find find) {
  static const Modules modules;
  size_t found = 0;
  for (auto _ : state) {
    for (const uint64_t address : modules.addresses) found += find(modules, address) != 0;
  }
  if (found != state.iterations() * modules.addresses.size()) state.SkipWithError("a module was not found");
  countItems(state, modules.addresses.size());
}

// ---- The command line ----

const char* const kArguments[] = {"-depth", "16",    "-mode",       "fast", "-out",     "results/heap.xml",
                                  "-log",   "a.log", "-timeline",   "50",   "-verbose", "-no-follow",
                                  "-limit", "1000",  "-categories", "all"};
constexpr uint32_t kArgumentCount = std::size(kArguments);
constexpr uint32_t kOptions = 9;

void parseOurs(benchmark::State& state) {
  static const uint32_t parser = [] {
    const uint32_t made = __VeskGetOptionParser("bench");
    __VeskRegisterIntegerOption(made, "-depth", "", 1, 0, 1);
    __VeskRegisterIntegerOption(made, "-timeline", "", 1, 0, 1);
    __VeskRegisterIntegerOption(made, "-limit", "", 1, 0, 1);
    __VeskRegisterStringOption(made, "-mode", "", "full", 0, 0, 1);
    __VeskRegisterStringOption(made, "-categories", "", "none", 0, 0, 1);
    __VeskRegisterPathOption(made, "-out", "", "out.xml", 0, 0, 1);
    __VeskRegisterPathOption(made, "-log", "", "out.log", 0, 0, 1);
    __VeskRegisterBooleanOption(made, "-verbose", "", 0, 0, 1);
    __VeskRegisterBooleanOption(made, "-follow", "", 1, 0, 1);
    return made;
  }();
  for (auto _ : state) {
    if (__VeskParseOptions2(parser, kArgumentCount, kArguments) != 1) state.SkipWithError("refused");
  }
  countItems(state, kOptions);
}

struct Values {
  long numbers[3];
  std::string texts[4];
  bool flags[2];
};

// Texts are kept as copies, as ours are.
void parseWithGetopt(benchmark::State& state) {
  static const option kLong[] = {{"depth", 1, nullptr, 0},      {"timeline", 1, nullptr, 1},
                                 {"limit", 1, nullptr, 2},      {"mode", 1, nullptr, 3},
                                 {"categories", 1, nullptr, 4}, {"out", 1, nullptr, 5},
                                 {"log", 1, nullptr, 6},        {"verbose", 0, nullptr, 7},
                                 {"no-follow", 0, nullptr, 8},  {nullptr, 0, nullptr, 0}};
  std::vector<char*> arguments = {const_cast<char*>("bench")};
  for (const char* argument : kArguments) arguments.push_back(const_cast<char*>(argument));
  arguments.push_back(nullptr);
  Values values;
  for (auto _ : state) {
    optind = 0;
    int which;
    size_t seen = 0;
    while ((which = getopt_long_only(kArgumentCount + 1, arguments.data(), "", kLong, nullptr)) != -1) {
      if (which < 3)
        values.numbers[which] = std::strtol(optarg, nullptr, 0);
      else if (which < 7)
        values.texts[which - 3] = std::string(optarg);
      else
        values.flags[which - 7] = which == 7;
      ++seen;
    }
    if (seen != kOptions) state.SkipWithError("refused");
    benchmark::DoNotOptimize(values);
  }
  countItems(state, kOptions);
}

// Each argument meets its own option at once, and its value is converted or copied.
void parseFloor(benchmark::State& state) {
  Values values;
  for (auto _ : state) {
    size_t number = 0;
    size_t textAt = 0;
    for (uint32_t i = 0; i < kArgumentCount; ++i) {
      const char* name = kArguments[i];
      const char* expected = name;
      benchmark::DoNotOptimize(name);
      benchmark::DoNotOptimize(expected);
      if (std::strcmp(name, expected) != 0) state.SkipWithError("differs");
      if (i == 10 || i == 11) continue;
      const char* const value = kArguments[++i];
      if (*value >= '0' && *value <= '9')
        values.numbers[number++] = std::strtol(value, nullptr, 0);
      else
        values.texts[textAt++] = std::string(value);
    }
    benchmark::DoNotOptimize(values);
  }
  countItems(state, kOptions);
}

// ---- Vectors: 64-bit counters under dense identifiers ----

struct OurVector {
  OurVector() : vector(__VeskCreateVector(0)) {}
  ~OurVector() { __VeskDestroyVector(vector); }
  void increment(uint32_t at) { __VeskIncrementVectorElement(vector, at); }
  Vector* vector;
};

struct StandardVector {
  void increment(uint32_t at) {
    if (at >= vector.size()) vector.resize(2 * at + 1);
    ++vector[at];
  }
  std::vector<uint64_t> vector;
};

struct Array {
  void increment(uint32_t at) { ++values[at]; }
  uint64_t values[VESK_VECTOR_MAX_INDEX + 1] = {};
};

template <class Contestant>
void count(benchmark::State& state) {
  const auto contestant = std::make_unique<Contestant>();
  const auto size = static_cast<uint32_t>(state.range(0));
  std::mt19937 random(13);
  std::vector<uint32_t> places(1 << 16);
  for (uint32_t& place : places) place = static_cast<uint32_t>(random() % size);
  for (auto _ : state) {
    for (const uint32_t place : places) contestant->increment(place);
    benchmark::ClobberMemory();
  }
  countItems(state, places.size());
}

} // namespace

void registerRows() {
  add("annotations.table", "ours", [](benchmark::State& state) { walkAnnotations(state, 1); });
  add("annotations.table", "floor", copySection);
  add("annotations.tables", "ours", [](benchmark::State& state) { walkAnnotations(state, kAnnotations); });
  add("annotations.tables", "floor", writeNotes);

  add("modules.find", "ours", [](benchmark::State& state) {
    findModules(state, [](const Modules&, uint64_t address) {
      uint64_t handle;
      return __VeskGetModuleForVariable(address, &handle);
    });
  });
  add("modules.find", "floor", [](benchmark::State& state) {
    findModules(state, [](const Modules& modules, uint64_t address) {
      return *(std::lower_bound(modules.starts.begin(), modules.starts.end(), address) - 1);
    });
  });
  add("modules.find", "map", [](benchmark::State& state) {
    findModules(state, [](const Modules& modules, uint64_t address) {
      const auto module = std::prev(modules.map.lower_bound(address));
      return address < module->second ? module->first : 0;
    });
  });

  add("options.parse", "ours", parseOurs);
  add("options.parse", "floor", parseFloor);
  add("options.parse", "getopt_long", parseWithGetopt);

  add("vector.increment", "ours", count<OurVector>)->Arg(100000);
  add("vector.increment", "floor", count<Array>)->Arg(100000);
  add("vector.increment", "std::vector", count<StandardVector>)->Arg(100000);
  addGrowth("growth.vector", "ours", count<OurVector>, 100000);
}
