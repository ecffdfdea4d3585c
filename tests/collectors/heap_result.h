// Reads results of the heap collector.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <pugixml.hpp>

namespace test {

struct Stack {
  std::uint64_t calls, allocatedBytes, liveBlocks, liveBytes, peakBytes, temporary;
  bool cut;
  std::vector<std::string> modules; // of each frame: the file's name; empty for none
};

struct Result {
  std::map<std::string, std::uint64_t> totals;
  std::map<std::string, std::uint64_t> functions;
  std::vector<Stack> stacks;
  std::vector<std::uint64_t> sampleTimes;
  std::string end;
  std::string log;
  int status = 0;

  // The one stack whose blocks have this size.
  const Stack& ofSize(std::uint64_t bytes) const {
    const Stack* found = nullptr;
    for (const Stack& stack : stacks) {
      if (stack.allocatedBytes != bytes * stack.calls) continue;
      EXPECT_EQ(found, nullptr) << "two stacks of size " << bytes;
      found = &stack;
    }
    if (found == nullptr) throw std::runtime_error("no stack of size " + std::to_string(bytes));
    return *found;
  }
};

inline std::uint64_t number(const pugi::xml_node& node, const char* name) {
  return node.attribute(name).as_ullong();
}

// Reads a result, and checks what holds in every one.
inline Result readResult(const std::string& path) {
  pugi::xml_document document;
  const pugi::xml_parse_result parsed = document.load_file(path.c_str());
  if (!parsed) throw std::runtime_error(path + ": " + parsed.description());
  const pugi::xml_node root = document.child("heapProfile");
  Result result;
  result.end = root.child("process").child_value("end");
  result.status = root.child("process").child("status").text().as_int();

  std::uint64_t functionCalls = 0;
  for (const pugi::xml_node node : root.child("totals")) {
    if (std::string(node.name()) == "function") {
      result.functions[node.attribute("name").value()] = number(node, "calls");
      functionCalls += number(node, "calls");
    } else {
      result.totals[node.name()] = node.text().as_ullong();
    }
  }
  std::map<std::uint64_t, std::string> modules;
  for (const pugi::xml_node node : root.child("modules")) {
    modules[number(node, "id")] = std::filesystem::path(node.child_value("path")).filename();
  }
  std::map<std::uint64_t, std::string> frames;
  for (const pugi::xml_node node : root.child("frames")) {
    const pugi::xml_attribute module = node.attribute("module");
    if (module) {
      EXPECT_EQ(modules.count(module.as_ullong()), 1u);
    }
    EXPECT_TRUE(frames.emplace(number(node, "id"), module ? modules[module.as_ullong()] : "").second);
  }
  Stack sum = {};
  std::uint64_t before = ~std::uint64_t{0};
  for (const pugi::xml_node node : root.child("stacks")) {
    Stack stack = {number(node, "calls"),           number(node, "allocatedBytes"),
                   number(node, "liveBlocks"),      number(node, "liveBytes"),
                   number(node, "peakBytes"),       number(node, "temporary"),
                   node.attribute("cut").as_bool(), {}};
    std::istringstream numbers(node.child_value());
    for (std::uint64_t frame; numbers >> frame;) stack.modules.push_back(frames.at(frame));
    EXPECT_LE(stack.peakBytes, before) << "not in the order of the report";
    before = stack.peakBytes;
    sum.calls += stack.calls;
    sum.allocatedBytes += stack.allocatedBytes;
    sum.liveBlocks += stack.liveBlocks;
    sum.liveBytes += stack.liveBytes;
    sum.peakBytes += stack.peakBytes;
    sum.temporary += stack.temporary;
    result.stacks.push_back(stack);
  }
  std::map<std::string, std::uint64_t>& totals = result.totals;
  EXPECT_EQ(sum.calls, totals["calls"]);
  EXPECT_EQ(functionCalls, totals["calls"]);
  EXPECT_EQ(sum.allocatedBytes, totals["allocatedBytes"]);
  EXPECT_EQ(sum.liveBlocks, totals["liveBlocks"]);
  EXPECT_EQ(sum.liveBytes, totals["liveBytes"]);
  EXPECT_EQ(sum.peakBytes, totals["peakBytes"]);
  EXPECT_EQ(sum.temporary, totals["temporary"]);
  EXPECT_EQ(totals["liveBytes"], totals["allocatedBytes"] - totals["releasedBytes"]);
  EXPECT_EQ(totals["liveBlocks"], totals["calls"] - totals["releases"]);

  const pugi::xml_node timeline = root.child("timeline");
  for (const pugi::xml_node node : timeline) {
    if (!result.sampleTimes.empty()) {
      EXPECT_GE(number(node, "milliseconds"), result.sampleTimes.back());
    }
    result.sampleTimes.push_back(number(node, "milliseconds"));
  }
  if (timeline) {
    EXPECT_EQ(number(timeline.last_child(), "liveBytes"), totals["liveBytes"]);
  }

  std::set<std::string> categories;
  for (const pugi::xml_node node : root.child("collector").children("category")) {
    categories.insert(node.attribute("name").value());
  }
  EXPECT_TRUE(categories.count("HEAP_BLOCKS") && categories.count("HEAP_STACKS") &&
              categories.count("HEAP_SITES"));
  return result;
}

} // namespace test
