#include "veskrt/annotations.h"

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/child.h"
#include "support/test_host.h"

namespace {

struct Seen {
  uint64_t address;
  std::string name;
  uint32_t probe;
  bool isRegister;
  int64_t value;
  int32_t offset;
  bool operator==(const Seen&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Seen& seen) {
  return out << std::hex << seen.address << ' ' << seen.name << " probe " << seen.probe << " register "
             << seen.isRegister << ' ' << seen.value << " offset " << seen.offset;
}

uint64_t collect(VESK_QEL_RECORD* record, uint64_t context) {
  reinterpret_cast<std::vector<Seen>*>(context)->push_back({record->address, record->name, record->probe,
                                                            record->location.isRegister != 0,
                                                            record->location.value, record->location.offset});
  EXPECT_EQ(record->hasLocation, 1u);
  return 0;
}

struct Item {
  uint64_t address;
  uint32_t probe;
  std::string name;
  std::string expression; // with its length
};

// A table as a compiler would write it. Names come before expressions, or behind them.
struct Table {
  uint16_t version = 0x0102;
  uint64_t flags = 0;
  std::vector<Item> items;
  bool namesLast = false;

  std::string bytes() const {
    const bool old = version == 0x0101;
    const bool probes = old || (flags & VESK_QEL_FLAG_PROBE) != 0;
    const uint32_t itemsEnd = (old ? 36 : 48) + static_cast<uint32_t>(items.size()) * (probes ? 20 : 16);
    std::string names;
    std::string expressions;
    std::string list;
    const auto put = [](std::string& to, auto value) {
      to.append(reinterpret_cast<const char*>(&value), sizeof value);
    };
    for (const Item& item : items) {
      put(list, item.address);
      if (probes) put(list, item.probe);
      put(list, static_cast<uint32_t>(names.size()));
      put(list, static_cast<uint32_t>(expressions.size()));
      names += item.name + '\0';
      expressions += item.expression;
    }
    const auto nameSize = static_cast<uint32_t>(names.size());
    const auto expressionSize = static_cast<uint32_t>(expressions.size());
    std::string table(".ovk_notify_tab\0", 16);
    put(table, version);
    if (!old) put(table, uint16_t{0xEEEE});
    put(table, static_cast<uint16_t>(items.size()));
    if (!old) put(table, uint16_t{0xEEEE});
    put(table, namesLast ? itemsEnd + expressionSize : itemsEnd);
    put(table, nameSize);
    put(table, namesLast ? itemsEnd : itemsEnd + nameSize);
    put(table, expressionSize);
    if (!old) put(table, flags);
    return table + list + (namesLast ? expressions + names : names + expressions);
  }
};

std::vector<Seen> walk(const std::string& bytes, uint64_t loadBase = 0) {
  const auto* section = reinterpret_cast<const unsigned char*>(bytes.data());
  std::vector<Seen> seen;
  __VeskQELParseAndProcessRecords(loadBase, section, bytes.size(), collect, &seen);
  __VeskQELParseAndProcessRecords(loadBase, section, bytes.size(), nullptr, nullptr);
  return seen;
}

size_t logged(const std::string& text) { return test::logged("<!-- " + text + " -->"); }

struct Section : testing::Test {
  void SetUp() override { test::startRuntime(); }
};

} // namespace

TEST_F(Section, LocationsOfEveryForm) {
  const std::map<std::string, Seen> expected = {
      {{"\x01\x35", 2}, {0, "", 0, false, 5, 0}},
      {{"\x01\x4F", 2}, {0, "", 0, false, 31, 0}},
      {{"\x01\x56", 2}, {0, "", 0, true, 6, 0}},
      {{"\x01\x8F", 2}, {0, "", 0, true, 31, 0}},          // register and offset, without the offset
      {{"\x02\x77\x7C", 3}, {0, "", 0, true, 7, -4}},      //
      {{"\x03\x70\xFF\x00", 4}, {0, "", 0, true, 0, 127}}, //
      {{"\x06\x71\x80\x80\x80\x80\x78", 7}, {0, "", 0, true, 1, INT32_MIN}}, // a number of 35 bits: 32 count
      {{"\x06\x71\xFF\xFF\xFF\xFF\x07", 7}, {0, "", 0, true, 1, INT32_MAX}},
      {{"\x82\x80\x00\x72\x01", 5}, {0, "", 0, true, 2, 1}}, // a length in more bytes than it needs
      {{"\x01\x96", 2}, {0, "", 0, true, 0xFFFFFFFF, 0}},
      {{"\x03\x91\x7F\x00", 4}, {0, "", 0, false, 0, 0}}, // not understood
      {{"\x00", 1}, {0, "", 0, false, 0, 0}},             // no operation at all
  };
  for (const auto& [expression, seen] : expected) {
    EXPECT_EQ(walk(Table{.items = {{0, 0, "", expression}}}.bytes()), std::vector{seen})
        << testing::PrintToString(expression);
  }
  EXPECT_EQ(logged("VESKRT: Unsupported Dwarf Expression in QEL"), 4u);
}

TEST_F(Section, AddressesByVersionAndFlags) {
  const std::vector<Item> items = {{0x1000, 7, "first", "\x01\x30"}, {0x80000000, 8, "second", "\x01\x51"}};
  const auto zeros = std::string(5, '\0');
  const std::string section =
      zeros + Table{.version = 0x0101, .items = items}.bytes() + zeros +
      Table{.items = items, .namesLast = true}.bytes() +
      Table{.flags = VESK_QEL_FLAG_PROBE | VESK_QEL_FLAG_32BIT, .items = items}.bytes() + zeros;
  EXPECT_EQ(walk(section, 0x400000), (std::vector<Seen>{{0x401000, "first", 7, false, 0, 0},
                                                        {0x80400000, "second", 8, true, 1, 0},
                                                        {0x1000, "first", 0, false, 0, 0},
                                                        {0x80000000, "second", 0, true, 1, 0},
                                                        {0x1000, "first", 7, false, 0, 0},
                                                        {0xFFFFFFFF80000000, "second", 8, true, 1, 0}}));
  EXPECT_EQ(logged("Found QEL section with version 1.1"), 2u);
  EXPECT_EQ(logged("Found QEL section with version 1.2"), 4u);

  const std::string relative = zeros + Table{.flags = VESK_QEL_FLAG_PCREL | VESK_QEL_FLAG_32BIT,
                                             .items = {{0xFFFFFFF0, 0, "x", "\x01\x30"}}}
                                           .bytes();
  EXPECT_EQ(walk(relative, 1).at(0).address, reinterpret_cast<uintptr_t>(relative.data()) + 5 - 16);
}

TEST_F(Section, WhatIsWrongEndsTheWalkWithItsMessage) {
  const std::string good = Table{.items = {{1, 0, "good", "\x01\x30"}}}.bytes();
  const auto patched = [&](size_t at, const std::string& bytes) {
    return std::string(good).replace(at, bytes.size(), bytes);
  };
  const std::string size = "QEL parser: invalid qel section size";
  const std::vector<std::tuple<std::string, std::string, size_t>> bad = {
      {good.substr(0, 35), size, 0},
      {good.substr(0, 47), size, 0}, // a header of version 1.2 needs 48
      {patched(3, "X"), "qel_parser: Incorrect qel header format", 0},
      {patched(16, "\x03"), "qel_parser: Expected qel version 1.3", 0},
      {patched(20, "\x07"), "qel_parser: incorrect number of qel items", 0},
      {patched(24, "\xFF\xFF\xFF\xFF"), size, 0},      // names beyond the section
      {patched(32, "\xFF\xFF\xFF\xFF"), size, 0},      // expressions beyond the section
      {good.substr(0, good.size() - 1), size, 0},      // an expression cut short
      {good.substr(0, good.size() - 2), size, 0},      // one that begins at the end
      {patched(good.size() - 2, "\x80\x80"), size, 0}, // a length without an end
      {patched(good.size() - 2, "\x7F"), size, 0},     // a length beyond the section
      {patched(24, std::string("\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 16)), size, 1}, // areas that lead nowhere
  };
  size_t sizeMessages = 0;
  for (const auto& [bytes, message, callbacks] : bad) {
    const size_t before = logged(message);
    EXPECT_EQ(walk(bytes).size(), callbacks) << message;
    EXPECT_EQ(logged(message), before + 2) << message << testing::PrintToString(bytes);
    sizeMessages += message == size;
  }
  EXPECT_EQ(walk(good + std::get<0>(bad[2]) + good).size(),
            1u); // what came before stands, what follows is not visited

  std::string unterminated = Table{.items = {{1, 0, "name", "\x01\x30"}}, .namesLast = true}.bytes();
  unterminated.back() = 'x';
  EXPECT_EQ(walk(unterminated).size(), 0u);
  const size_t messages = logged(size);
  EXPECT_EQ(walk(std::string(100, '\0')).size() + walk("").size(), 0u);
  EXPECT_EQ(logged(size), messages);
  EXPECT_EQ(sizeMessages, 9u);
}
