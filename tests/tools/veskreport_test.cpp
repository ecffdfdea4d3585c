// What veskreport makes of crafted files: what it reads, compares, refuses, and lets through to a terminal.
#include <algorithm>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "support/child.h"
#include "support/command.h"

namespace {

using test::kBinaries;
using test::Outcome;
using test::readFile;
using test::shell;

const std::string kReport = kBinaries + "/veskreport ";

void write(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

std::string replaced(std::string text, const std::string& from, const std::string& to) {
  const std::size_t at = text.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

bool has(const Outcome& outcome, const std::string& part) {
  return outcome.output.find(part) != std::string::npos;
}

// Three stacks in a module that is gone, of which the last is cut.
const std::string kResult = R"(<?xml version="1.0" encoding="utf-8" ?>
<heapProfile version='1'>
  <process><program>/x/prog</program><pid>7</pid><end>exit</end><status>3</status><milliseconds>1500</milliseconds><depth>25</depth></process>
  <totals><calls>111</calls><allocatedBytes>5000000000</allocatedBytes><releases>100</releases><releasedBytes>4999998976</releasedBytes>
    <liveBlocks>11</liveBlocks><liveBytes>1024</liveBytes><peakBytes>3072</peakBytes><peakMilliseconds>1234</peakMilliseconds>
    <temporary>5</temporary><function name='malloc' calls='111'></function></totals>
  <modules><module id='4' base='0x1000' start='0x1000' end='0x9000' buildId='00ff'><path>/nowhere/libgone.so</path></module></modules>
  <frames><frame id='0' module='4' offset='0x10'></frame><frame id='9' module='4' offset='0x20'></frame><frame id='2' offset='0xabc'></frame></frames>
  <stacks>
    <stack id='1' calls='1' allocatedBytes='2048' liveBlocks='0' liveBytes='0' peakBytes='2048' temporary='0'>0 9</stack>
    <stack id='2' calls='10' allocatedBytes='1024' liveBlocks='10' liveBytes='1024' peakBytes='1024' temporary='0'>9</stack>
    <stack id='3' calls='100' allocatedBytes='4999996928' liveBlocks='1' liveBytes='0' peakBytes='0' temporary='5' cut='true'>2 0</stack>
  </stacks>
  <timeline interval='10'><sample milliseconds='0' liveBytes='0' liveBlocks='0' calls='0'></sample></timeline>
</heapProfile>
)";

TEST(Veskreport, TableIsTheCollectorsOwn) {
  write("a.xml", kResult);
  const Outcome table = shell(kReport + "a.xml 2>remarks");
  EXPECT_EQ(table.status, 0);
  EXPECT_EQ(
      table.output,
      "/x/prog: 111 heap calls for 4.7 GiB; peak 3.0 KiB after 1.234 s; at the end 1.0 KiB in 11 blocks\n"
      "at peak   at end   in all  calls  temporary  where\n"
      "2.0 KiB      0 B  2.0 KiB      1          0  libgone.so+0x10\n"
      "                                               from libgone.so+0x20\n"
      "1.0 KiB  1.0 KiB  1.0 KiB     10          0  libgone.so+0x20\n"
      "    0 B      0 B  4.7 GiB    100          5  0xabc\n"
      "                                               from libgone.so+0x10\n"
      "                                               and beyond\n");
  const std::string remarks = readFile("remarks");
  EXPECT_NE(remarks.find("/nowhere/libgone.so\n"), std::string::npos);
  EXPECT_EQ(std::count(remarks.begin(), remarks.end(), '\n'), 1);

  const auto firstOf = [](const std::string& options) {
    return shell(kReport + "a.xml 2>/dev/null " + options + " | sed -n '3s/.*  //p'").output;
  };
  EXPECT_EQ(firstOf("--sort peak"), "libgone.so+0x10\n");
  EXPECT_EQ(firstOf("--sort live"), "libgone.so+0x20\n");
  EXPECT_EQ(firstOf("--sort bytes"), "0xabc\n");
  EXPECT_EQ(firstOf("--sort calls"), "0xabc\n");
  EXPECT_EQ(firstOf("--sort temporary"), "0xabc\n");
  // A block of no bytes is left, too.
  const Outcome leaks = shell(kReport + "a.xml --leaks --top 1 2>/dev/null");
  EXPECT_TRUE(has(
      leaks, "1.0 KiB  1.0 KiB      10  1.0 KiB     10          0  libgone.so+0x20\nand 1 more call stack\n"))
      << leaks.output;
}

TEST(Veskreport, FitsATerminal) {
  write("a.xml", replaced(kResult, "libgone.so", std::string(150, 'n') + ".so"));
  const auto onTerminal = [](const std::string& environment, int width) {
    return shell("script -qec \"stty cols " + std::to_string(width) + "; " + environment + " " + kReport +
                 "a.xml 2>/dev/null\" /dev/null | tr -d '\\r'")
        .output;
  };
  for (const int width : {20, 80, 120}) {
    const std::string table = onTerminal("NO_COLOR=1 TERM=xterm", width);
    EXPECT_EQ(table.find('\033'), std::string::npos);
    std::size_t longest = 0;
    for (std::size_t start = 0, end; (end = table.find('\n', start)) != std::string::npos; start = end + 1) {
      longest = std::max(longest, end - start);
    }
    EXPECT_LE(longest, static_cast<std::size_t>(width)) << table;
  }
  EXPECT_NE(onTerminal("NO_COLOR= TERM=xterm", 80).find("\033[1m"), std::string::npos);
  EXPECT_EQ(onTerminal("NO_COLOR= TERM=dumb", 80).find('\033'), std::string::npos);
}

TEST(Veskreport, Refusals) {
  struct Case {
    std::string text;
    int status;
    const char* says;
  };
  for (const Case& each :
       {Case{"", 4, "it is empty"}, Case{kResult.substr(0, kResult.size() / 2), 4, "it is truncated"},
        Case{replaced(kResult, "<totals>", "<totals"), 4, "it is not well-formed"},
        Case{"no XML", 4, "not well-formed"},
        Case{replaced(kResult, ">0 9<", ">0 8<"), 4, "it refers to a frame that is not there"},
        Case{replaced(kResult, "module='4'", "module='5'"), 4, "it refers to a module that is not there"},
        Case{replaced(kResult, "<calls>111</calls>", ""), 4, "it has no calls"},
        Case{replaced(kResult, "calls='100'", "calls='-1'"), 4, "calls is missing or not a number"},
        Case{"<svg/>", 5, "its root is <svg>"}, Case{"<log version='2.0' source='x'></log>", 5, "--log"},
        Case{replaced(kResult, "version='1'", "version='2'"), 6, "of version '2'"},
        Case{replaced(kResult, " version='1'", ""), 6, "of version ''"}}) {
    write("bad.xml", each.text);
    const Outcome outcome = shell(kReport + "bad.xml 2>&1 >/dev/null");
    EXPECT_EQ(outcome.status, each.status) << each.says;
    EXPECT_TRUE(has(outcome, "veskreport: bad.xml: ") && has(outcome, each.says)) << outcome.output;
  }
  write("a.xml", kResult);
  EXPECT_EQ(shell(kReport + "none.xml 2>&1"),
            (Outcome{3, "veskreport: none.xml: No such file or directory\n"}));
  EXPECT_EQ(shell(kReport + "a.xml --diff none.xml 2>/dev/null").status, 3);
  EXPECT_EQ(shell(kReport + "a.xml >/dev/full 2>/dev/null").status, 7);
  EXPECT_EQ(shell(kReport + "a.xml --html none/a.html 2>/dev/null").status, 7);
  for (const char* wrong : {"", "a.xml --sort size", "a.xml --top x", "a.xml --log a.log", "a.xml --source x",
                            "a.xml --html a.html --top 3", "--log a.log --severity fatal"}) {
    EXPECT_EQ(shell(kReport + wrong + " 2>/dev/null").status, 2) << wrong;
  }
}

TEST(Veskreport, HostileTextsStayTexts) {
  // An escape sequence, a change of direction, no UTF-8, and markup.
  write("a.xml",
        replaced(replaced(kResult, "/x/prog", "/x/&lt;/script&gt;&lt;img src=x&gt;&#27;[2J\xE2\x80\xAE"),
                 "libgone.so", "&lt;!--{{page.js}}'&quot;\\&lt;title&gt;"));
  const Outcome table = shell(kReport + "a.xml 2>&1");
  EXPECT_EQ(table.output.find_first_of("\033\xE2"), std::string::npos);
  EXPECT_TRUE(has(table, "</script><img src=x>?[2J?: 111 heap calls"));
  ASSERT_EQ(shell(kReport + "a.xml --html a.html 2>/dev/null").status, 0);
  const std::string page = readFile("a.html");
  EXPECT_EQ(page.find("<img"), std::string::npos);
  EXPECT_EQ(page.find("<!--{{"), std::string::npos);
  EXPECT_NE(page.find("\\u003c!--{{page.js}}\\u0027\\u0022\\u005c\\u003ctitle\\u003e"), std::string::npos);
  EXPECT_EQ(shell("ls").output, "a.html\na.xml\n");
}

TEST(Veskreport, Comparison) {
  write("old.xml", kResult);
  write(
      "new.xml",
      replaced(replaced(replaced(kResult, "calls='10' allocatedBytes='1024' liveBlocks='10' liveBytes='1024'",
                                 "calls='1010' allocatedBytes='4096' liveBlocks='10' liveBytes='24'"),
                        ">0 9<", ">9 0<"),
               "<peakBytes>3072", "<peakBytes>2048"));
  const Outcome table = shell(kReport + "new.xml --diff old.xml 2>/dev/null");
  for (const char* part : {"before: old.xml (/x/prog)\n", "at peak        3.0 KiB  2.0 KiB    -1.0 KiB\n",
                           // What is in one of them alone, and what has changed.
                           "+2.0 KiB        0  +2.0 KiB      +1          0  libgone.so+0x20\n",
                           "-2.0 KiB        0  -2.0 KiB      -1          0  libgone.so+0x10\n",
                           "0  -1000 B  +3.0 KiB  +1,000          0  libgone.so+0x20\n"}) {
    EXPECT_TRUE(has(table, part)) << part << table.output;
  }
  EXPECT_FALSE(has(table, "0xabc")); // is the same in both
  EXPECT_TRUE(has(shell(kReport + "old.xml --diff old.xml 2>/dev/null"), "no call stack differs\n"));
}

TEST(Veskreport, Logs) {
  const std::string log = R"(<?xml version="1.0" encoding="utf-8" ?>
<!-- DO NOT EDIT THIS FILE -->

<log version='2.0' source='tool'>
	<!-- Program: /bin/x -->
	<msg id='1' source='veskrt'>
		<type>FAIL_OPEN_FILE</type>
		<severity>ERROR</severity>
		<timestamp>Sun Mar  1 02:06:15 2026</timestamp>
		<arg name='filename'>a &lt;b&gt;</arg>
	</msg>
	<msg id='2' source='veskrt'>
		<type>INTERNAL</type>
		<severity>WARNING</severity>
		<timestamp>Sun Mar  1 02:06:16 2026</timestamp>
		<!-- free <msg> text & all -->
	</msg>
</log>
	<msg id='3' display='false' source='tool'>
		<type>STRANGE</type>
		<severity>INFO</severity>
		<timestamp>Sun Mar  1 02:06:17 2026</timestamp>
		<arg name='x'>1</arg>
		<arg name='y'>two</arg>
	</msg>
)";
  write("a.log", log);
  EXPECT_EQ(shell(kReport + "--log a.log 2>remarks").output,
            "                     note     tool    Program: /bin/x\n"
            "2026-03-01 02:06:15  error    veskrt  The file a <b> could not be opened or written.\n"
            "2026-03-01 02:06:16  warning  veskrt  free <msg> text & all\n"
            "2026-03-01 02:06:17  info     tool    STRANGE: x 1, y two\n");
  EXPECT_EQ(readFile("remarks"), "veskreport: a.log: it is cut: its process was killed, or still runs\n");
  EXPECT_EQ(shell(kReport + "--log a.log --severity warning --source veskrt 2>/dev/null | wc -l").output,
            "2\n");
  EXPECT_EQ(shell(kReport + "--log a.log --severity info --source tool 2>/dev/null | wc -l").output, "1\n");

  // A record that a death has cut, one whole after it, and the end.
  write("a.log", replaced(log, "</severity>\n\t\t<timestamp>Sun Mar  1 02:06:16", "<") + "</log>");
  EXPECT_EQ(shell(kReport + "--log a.log 2>remarks | wc -l").output, "3\n");
  EXPECT_EQ(readFile("remarks"), "veskreport: a.log: 1 torn record left out\n");
  write("a.log", replaced(log, "'2.0'", "'3.0'"));
  EXPECT_EQ(shell(kReport + "--log a.log 2>/dev/null").status, 6);
  write("a.log", kResult);
  EXPECT_EQ(shell(kReport + "--log a.log 2>/dev/null").status, 5);
}

TEST(Veskreport, Annotations) {
  write("a.xml",
        R"(<annotations version='1'><program>/x/prog</program><module base='0x1'><path>/x/lib.so</path>
    <annotation address='0x11' offset='0x10' probe='0x5'><symbol>f+0x1</symbol><name>begin</name><location>rsp-8</location></annotation>
    <annotation address='0x21' offset='0x20'><name>end</name><location>constant 2</location></annotation></module></annotations>)");
  EXPECT_EQ(shell(kReport + "a.xml").output, "/x/prog: 2 annotations\n"
                                             "  name   location    offset  probe  function\n"
                                             "/x/lib.so\n"
                                             "  begin  rsp-8       0x10    0x5    f+0x1\n"
                                             "  end    constant 2  0x20\n");
  EXPECT_EQ(shell(kReport + "a.xml --html a.html 2>/dev/null").status, 5);
}

#ifdef VESK_REPORT_SUBJECT

std::string tableOf(const std::string& options) {
  return shell(kReport + "a.xml --top 0 " + options + " 2>&1").output;
}

TEST(Veskreport, NamesAndLines) {
  const std::string subject = VESK_REPORT_SUBJECT;
  const std::string run = kBinaries + "/veskrun -top 0 -out a.xml -- ./subject 10 >/dev/null";
  const std::string inlined = "keepInlined [inlined] report_subject.cpp:";
  const std::string around = "from shapes::Store<unsigned long>::leak(unsigned long) (subject)";
  const auto contains = [](const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
  };

  shell("cp " + subject + " subject; " + run);
  const std::string whole = tableOf("");
  EXPECT_TRUE(contains(whole, inlined) && contains(whole, around + " report_subject.cpp:")) << whole;
  EXPECT_TRUE(contains(whole, "</script><script>window.hacked=1</script><b>&amp; (subject)")) << whole;

  // Debug information apart, found by build id; then the module gone, with its debug file alone.
  shell("id=$(readelf -n subject | sed -n 's/.*Build ID: //p'); rest=${id#??}; "
        "d=debug/.build-id/${id%$rest}; mkdir -p $d; "
        "objcopy --only-keep-debug subject $d/$rest.debug; strip subject; mv subject stripped");
  EXPECT_TRUE(contains(tableOf("--debug-dir $PWD/debug"), inlined));
  shell("mv stripped subject");
  EXPECT_EQ(tableOf("--debug-dir $PWD/debug"), whole);
  const std::string stripped = tableOf("");
  EXPECT_TRUE(!contains(stripped, "leak") && contains(stripped, "subject+0x")) << stripped;

  // Another program in its place.
  shell("cp /bin/true subject");
  const std::string replacedModule = tableOf("");
  EXPECT_TRUE(contains(replacedModule, "so that its frames have no names: ") &&
              contains(replacedModule, "subject+0x"));
  EXPECT_EQ(replacedModule.substr(replacedModule.find("/subject: ")),
            stripped.substr(stripped.find("/subject: ")));
}

// The collector prints C++ symbols as they are, so the numbers are compared.
TEST(Veskreport, AgreesWithTheTableAtTheEnd) {
  const std::string numbers = " | sed -n 's/^ *\\([0-9].*B.*B.*B.*[0-9]\\)  [^ ].*/\\1/p' | tr -s ' '";
  const std::string atEnd =
      shell(kBinaries + "/veskrun -top 5 -out a.xml -- " VESK_REPORT_SUBJECT " 2>&1" + numbers).output;
  EXPECT_EQ(std::count(atEnd.begin(), atEnd.end(), '\n'), 5);
  EXPECT_EQ(shell(kReport + "a.xml --top 5 --sort peak 2>/dev/null" + numbers).output, atEnd);
  EXPECT_EQ(shell(kReport + "--log a.log 2>&1 | tail -n 1 | grep -c 'note .* Result: /.*/a.xml'").output,
            "1\n");
}

#endif

} // namespace
