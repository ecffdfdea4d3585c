// The annotations collector in the annotated example, and what the heap collector says of a wrong release.
#include <fstream>
#include <map>
#include <string>

#include <gtest/gtest.h>
#include <pugixml.hpp>

#include "support/child.h"
#include "support/command.h"

namespace {

const std::string kVeskrun = test::kBinaries + "/veskrun ";

struct Annotation {
  uint64_t offset;
  std::string symbol;
  std::string location;
  uint64_t probe;
};

// By module (the file's name) and annotation.
std::map<std::string, Annotation> readResult(const char* path) {
  pugi::xml_document document;
  EXPECT_TRUE(document.load_file(path));
  std::map<std::string, Annotation> found;
  for (const auto& module : document.child("annotations").children("module")) {
    std::string file = module.child_value("path");
    file = file.substr(file.rfind('/') + 1);
    for (const auto& each : module.children("annotation")) {
      EXPECT_EQ(each.attribute("address").as_ullong(),
                module.attribute("base").as_ullong() + each.attribute("offset").as_ullong());
      found[file + ":" + each.child_value("name")] = {
          each.attribute("offset").as_ullong(), each.child_value("symbol"), each.child_value("location"),
          each.attribute("probe").as_ullong()};
    }
  }
  return found;
}

uint64_t addressOf(const std::string& file, const std::string& symbol) {
  return std::stoull(test::shell("nm " + test::kBinaries + "/" + file + " | grep ' " + symbol + "$'").output,
                     nullptr, 16);
}

// Does an instruction of the function begin there?
bool isInstructionOf(const std::string& file, const std::string& symbol, uint64_t address) {
  char line[32];
  std::snprintf(line, sizeof line, "%lx:", static_cast<unsigned long>(address));
  return test::shell("objdump -d --disassemble=" + symbol + " " + test::kBinaries + "/" + file +
                     " | grep -c '^ *" + line + "'")
             .output == "1\n";
}

} // namespace

TEST(Annotations, OfTheExampleStandWhereItsCodeIs) {
  std::ofstream("definitions") << "outside \"" << test::kBinaries << "//annotated\" 40 0x11\n";
  const auto run =
      test::shell(kVeskrun + "-collector annotations -out r.xml -log l.log -definitions definitions -- " +
                  test::kBinaries + "/annotated 2>listing");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.output, "55 100\n");
  auto found = readResult("r.xml");
  ASSERT_EQ(found.size(), 6u);
  const std::string shapes = "libannotated_shapes.so";
  EXPECT_EQ(found[shapes + ":triangle_begin"].offset, addressOf(shapes, "triangle"));
  EXPECT_EQ(found[shapes + ":triangle_begin"].location, "rdi");
  EXPECT_TRUE(isInstructionOf(shapes, "triangle", found[shapes + ":triangle_end"].offset));
  EXPECT_TRUE(isInstructionOf(shapes, "square", found[shapes + ":square_begin"].offset));
  EXPECT_EQ(found[shapes + ":square_begin"].location, "rsp-8");
  EXPECT_EQ(found[shapes + ":square_begin"].probe, 0x5157u);
  EXPECT_TRUE(isInstructionOf("annotated", "main", found["annotated:begin"].offset));
  EXPECT_EQ(found["annotated:end"].location, "constant 2");
  EXPECT_EQ(found["annotated:outside"].offset, 0x40u);
  EXPECT_EQ(found["annotated:outside"].location, "constant 17");
  EXPECT_NE(test::readFile("listing").find("triangle+0x0"), std::string::npos);
}

TEST(Annotations, WrongOptionsAreToldBeforeTheProgramStarts) {
  for (const char* options : {"-nonsense", "-definitions", "-definitions missing"}) {
    const auto run = test::shell(kVeskrun + "-collector annotations " + options + " -- echo ran 2>&1");
    EXPECT_EQ(run.status, 2) << options;
    EXPECT_EQ(run.output.find("ran\n"), std::string::npos);
    EXPECT_NE(run.output.find("veskannotations: "), std::string::npos) << run.output;
  }
  const auto listed = test::shell(kVeskrun + "--help");
  EXPECT_NE(listed.output.find("Collectors: annotations heap\n"), std::string::npos) << listed.output;
  EXPECT_EQ(test::shell(kVeskrun + "-collector nowhere -- echo ran 2>&1").status, 2);
}

TEST(Heap, ReleaseInsideABlockIsLogged) {
  const auto run =
      test::shell(kVeskrun + "-out r.xml -log l.log -- " + test::kBinaries + "/invalid_release 2>/dev/null");
  EXPECT_EQ(run.status, 128 + 6);
  const std::string log = test::readFile("l.log");
  EXPECT_NE(log.find("<type>INVALID_RELEASE</type>"), std::string::npos);
  EXPECT_NE(log.find("<arg name='bytes'>10000</arg>"), std::string::npos);
}
