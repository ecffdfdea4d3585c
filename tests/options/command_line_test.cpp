#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/child.h"
#include "support/test_host.h"
#include "veskrt/options.h"

namespace {

using Arguments = std::vector<const char*>;

std::string comment(const std::string& text) { return "\n\t<!-- " + text + " -->"; }

struct CommandLine : testing::Test {
  uint32_t parser, verbose, level, out;
  size_t logRead = 0;

  void SetUp() override {
    test::startRuntime();
    const uint32_t other = __VeskGetOptionParser("other");
    for (auto foreign : {"-level", "-foreign"}) __VeskRegisterBooleanOption(other, foreign, "", 0, 0, 1);
    parser = __VeskGetOptionParser("mytool");
    verbose = __VeskRegisterBooleanOption(parser, "-verbose", "say more", 0, 0, 1);
    level = __VeskRegisterIntegerOption(parser, "-level", "how deep", -3, 0, 1);
    __VeskRegisterStringOption(parser, "-name", "a text", nullptr, 0, 0, 0);
    out = __VeskRegisterPathOption(parser, "-out", "files", "a//b", 0, 1, 1);
  }

  int parse(const Arguments& arguments) const {
    return __VeskParseOptions2(parser, static_cast<uint32_t>(arguments.size()), arguments.data());
  }

  // What the log has gained since the last call.
  std::string records() {
    const std::string log = test::readFile("vesklog.log");
    return log.substr(std::exchange(logRead, log.size()));
  }
};

} // namespace

TEST_F(CommandLine, StopsAtTheFirstRefusalAndLogsIt) {
  const auto refused = [this](Arguments arguments, const std::string& type, const std::string& details) {
    const std::string argument = arguments[0];
    arguments.insert(arguments.begin(), {"-level", "9", "-no-verbose"});
    if (argument != "-name") arguments.push_back("-verbose");
    EXPECT_EQ(parse(arguments), 0) << details;
    const std::string log = records();
    const size_t record = log.find(type + "</type>"), text = log.find(comment(details));
    const size_t option = log.find("<arg name='option'>" + argument + "</arg>");
    EXPECT_TRUE(record < option && option < text && text < log.size()) << details << log;
    EXPECT_EQ(__VeskGetIntegerOptionValue(parser, level), 9) << "what came before stays";
    EXPECT_EQ(__VeskGetBooleanOptionValue(parser, verbose), 0) << "what comes behind is not looked at";
  };
  refused({"verbose"}, "BAD_OPTION", "Bad command line option: verbose used with tool: mytool");
  refused({"-verb"}, "BAD_OPTION", "Invalid command line option: -verb used with tool: mytool");
  refused({"-foreign"}, "BAD_OPTION", "Invalid command line option: -foreign used with tool: mytool");
  refused({"-no-"}, "BAD_OPTION", "Invalid command line option: -no- used with tool: mytool");
  refused({"-no-level"}, "BAD_OPTION",
          "Invalid negation for command line option: -no-level used with tool: mytool");
  refused({"-out", "-x"}, "BAD_ARGUMENT", "No arguments for command line option: -out");
  refused({"-name"}, "BAD_ARGUMENT", "No arguments for command line option: -name");
  refused({"-level", "12abc"}, "BAD_ARGUMENT", "Bad integer value: 12abc for command line option: -level");
}

TEST_F(CommandLine, HelpListsDefaultsAndTheLogValues) {
  parse({"-level", "4", "-verbose"});
  const std::string help = "\nmytool tool options are the following:\n"
                           "   -verbose                           say more default: false\n"
                           "   -level                             how deep default: -3\n"
                           "   -out                               files default: a/b\n";
  EXPECT_EQ(test::runInChild([&] { __VeskPrintHelp(parser, 0); }).output, help);
  const std::string all = test::runInChild([] { __VeskPrintHelpAll(1); }).output;
  EXPECT_EQ(all.find("\nother tool options are the following:\n   -level  "), 0u);
  EXPECT_NE(all.find("a text default: none\n"), std::string::npos);

  __VeskLogToolOptionValues(parser);
  const std::string log = records(), list = comment("mytool's options are the following: ") +
                                            comment("-verbose                           true") +
                                            comment("-level                             4") +
                                            comment("-name                              none") +
                                            comment("-out                               a/b, ");
  EXPECT_NE(log.find(list), std::string::npos) << log;
  for (int i = 0; i < 300; ++i) parse({"-out", "12345678"}); // ten bytes each in the list
  __VeskLogToolOptionValues(parser);
  std::string joined = "-out                               ";
  for (int i = 0; i < 204; ++i) joined += "12345678, ";
  EXPECT_NE(records().find(comment(joined + "1234567")), std::string::npos);
}
