// Counted strings beside std::string. The text's length is not known beforehand: both measure it.
#include <cstring>
#include <string>

#include "bench/bench.h"
#include "veskrt/counted_string.h"

namespace {

using namespace bench;

constexpr size_t kAppends = 128;
constexpr char kText[] = "12345678";

struct Ours {
  Ours() : string(__VeskStrAlloc(0, 16, "")) {}
  ~Ours() { __VeskStrDestroy(string); }
  void append(const char* text) { __VeskStrAppend(string, text); }
  void clear() { __VeskStrSet(string, ""); }
  CountedString* string;
};

struct Standard {
  void append(const char* text) { string.append(text); }
  void clear() { string.assign(""); }
  std::string string;
};

// Room is there and the length known: the bytes alone.
struct Floor {
  void append(const char* text) {
    std::memcpy(buffer + length, text, sizeof kText);
    length += sizeof kText - 1;
    benchmark::ClobberMemory();
  }
  void clear() { length = 0; }
  char buffer[kAppends * sizeof kText];
  size_t length = 0;
};

template <class String>
void appendAll(String& string) {
  for (size_t i = 0; i < kAppends; ++i) {
    const char* text = kText;
    benchmark::DoNotOptimize(text);
    string.append(text);
  }
}

// To a string that has grown already.
template <class String>
void append(benchmark::State& state) {
  String string;
  for (auto _ : state) {
    string.clear();
    appendAll(string);
  }
  countItems(state, kAppends);
}

// To a new string, which grows and goes.
template <class String>
void build(benchmark::State& state) {
  for (auto _ : state) {
    String string;
    appendAll(string);
  }
  countItems(state, kAppends);
}

template <class String>
void growth(benchmark::State& state) {
  for (auto _ : state) {
    String string;
    for (int64_t i = 0; i < state.range(0); ++i) string.append(kText);
  }
  countItems(state, static_cast<size_t>(state.range(0)));
}

template <class String>
void addContestant(const char* name) {
  add("strings.append", name, append<String>);
  add("strings.build", name, build<String>);
}

} // namespace

void registerRows() {
  addContestant<Ours>("ours");
  addContestant<Floor>("floor");
  addContestant<Standard>("std::string");
  addGrowth("growth.strings", "ours", growth<Ours>);
  addGrowth("growth.strings", "std::string", growth<Standard>);
}
