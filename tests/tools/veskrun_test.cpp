// What veskrun says, and with which status, when it runs a program and when it cannot.
#include <fstream>

#include <gtest/gtest.h>

#include "support/child.h"
#include "support/command.h"

namespace {

using test::kBinaries;
using test::observed;
using test::shell;

const std::string kVeskrun = kBinaries + "/veskrun";
const std::string kCollector = " -collector " + kBinaries + "/libevent_collector.so ";

void write(const std::string& path, const std::string& text) {
  std::ofstream(path) << text;
  shell("chmod +x '" + path + "'");
}

TEST(Veskrun, StatusIsTheProgramsOwn) {
  EXPECT_EQ(shell(observed() + "sh -c 'exit 42'").status, 42);
  EXPECT_EQ(shell(observed() + "sh -c 'kill -ABRT $$'").status, 128 + 6);
  EXPECT_EQ(shell("trap '' CHLD; exec " + observed() + "sh -c 'exit 43'").status, 43);
}

TEST(Veskrun, SaysWhyAProgramCannotBeObserved) {
  write("foreign", std::string("\177ELF\1\1\1", 7) + std::string(100, '\0'));
  write("bad-interpreter", "#!/nonexistent/interpreter\n");
  write("static-interpreter", "#!" + kBinaries + "/static_subject -x\n");
  std::ofstream("data") << "text";
  struct Case {
    std::string program;
    int status;
    const char* text;
  };
  for (const Case& each :
       {Case{"nosuchprogram", 127, "nosuchprogram: command not found"},
        Case{"./nosuch", 127, "./nosuch: No such file or directory"}, Case{"''", 127, "not found"},
        Case{"/", 126, "is a directory"}, Case{"./data", 126, "Permission denied"},
        Case{kBinaries + "/static_subject", 126, "is statically linked"},
        Case{"./foreign", 126, "is not a program for 64-bit x86"},
        Case{"./bad-interpreter", 127, "/nonexistent/interpreter: No such file"},
        Case{"./static-interpreter", 126, "static_subject: is statically linked"}}) {
    const auto outcome = shell(observed() + each.program + " 2>&1");
    EXPECT_EQ(outcome.status, each.status) << each.program;
    EXPECT_NE(outcome.output.find(each.text), std::string::npos) << outcome.output;
  }
  // A set-user-id program of another user.
  if (geteuid() == 0) {
    shell("cp /bin/true . && chown 1 true && chmod u+s true");
    EXPECT_EQ(shell(observed() + "./true 2>&1").status, 126);
  }
}

TEST(Veskrun, ScriptsAreFollowedToTheirInterpreter) {
  write("script", "#!/bin/sh\necho \"$0 $1\"; exit 3\n");
  write("through-env", "#!/usr/bin/env sh\necho \"$0 $1\"; exit 3\n");
  write("without-line", "echo \"$0 $1\"; exit 3\n");
  for (const std::string script : {"./script", "./through-env", "./without-line", "script"}) {
    const std::string command = script + " 'a b'";
    EXPECT_EQ(shell("PATH=$PWD:$PATH; " + observed() + command), shell("PATH=$PWD:$PATH; " + command))
        << script;
    EXPECT_EQ(shell("tail -n 1 events; rm events").output, "end quick 3\n") << script; // the shell, not env
  }
}

TEST(Veskrun, CommandLine) {
  EXPECT_EQ(shell(kVeskrun + " --version").output.substr(0, 8), "veskrun ");
  const auto help = shell(kVeskrun + kCollector + "--help");
  EXPECT_EQ(help.status, 0);
  EXPECT_LT(help.output.find("usage: veskrun"), help.output.find("collector's help\n"));
  EXPECT_EQ(shell(kVeskrun + kCollector + "-help"), help);
  EXPECT_EQ(shell(kVeskrun + kCollector + "-help -- echo no").output, "collector's help\n");

  // Nothing of the program has run when the command line is refused.
  EXPECT_EQ(shell(kVeskrun + kCollector + "-refuse -- echo no"), (test::Outcome{4, ""}));
  EXPECT_EQ(shell(kVeskrun + kCollector + "-out events echo no"), (test::Outcome{2, ""}));
  EXPECT_EQ(shell(kVeskrun + kCollector + "--nonsense -- echo no"), (test::Outcome{2, ""}));
  EXPECT_EQ(shell(kVeskrun + kCollector + "--"), (test::Outcome{2, ""}));
  EXPECT_EQ(shell(kVeskrun + " -collector /nonexistent.so -- echo no"), (test::Outcome{2, ""}));
  EXPECT_EQ(shell(kVeskrun + " -collector /bin/true -- echo no"), (test::Outcome{2, ""}));

  // Any byte comes through to the collector, and without options of its own "--" may be left out.
  EXPECT_EQ(
      shell(kVeskrun + kCollector + "-out $'a=:\\n\\377 b' -- true; bash -c \"ls $'a=:\\n\\377 b'\" | wc -l")
          .status,
      0);
  EXPECT_EQ(shell(kVeskrun + kCollector + "echo -- -x").status, 3); // the collector misses its -out
}

TEST(Veskrun, PassesSignalsOnAndKeepsNoDescriptors) {
  // Sent to veskrun alone.
  write("waits",
        "#!/bin/sh\ntrap 'echo caught; exit 7' TERM USR1\necho ready >fifo\nwhile :; do sleep 0.05; done\n");
  for (const char* signal : {"TERM", "USR1"}) {
    EXPECT_EQ(shell("mkfifo fifo; " + observed() + "./waits & read line <fifo; kill -" + signal +
                    " $!; wait $!; " + "status=$?; rm fifo; exit $status"),
              (test::Outcome{7, "caught\n"}));
  }
  // Ends when the program has closed its output, not when the program ends.
  write("closes", "#!/bin/sh\necho before\nexec >&- 2>&-\nread line <fifo\n");
  EXPECT_EQ(shell("mkfifo fifo; (" + observed() + "./closes &) | cat; echo after; echo >fifo").output,
            "before\nafter\n");
  // A program that stops itself stops the job.
  write("stops", "set -m\n" + observed() + "sh -c 'kill -STOP $$; exit 9' &\n" +
                     "until jobs | grep -q Stopped; do sleep 0.05; done\nkill -CONT %1\nwait %1\n");
  EXPECT_EQ(shell("timeout 60 bash ./stops").status, 9);
}

TEST(Veskrun, WorksFromADirectoryWithABlankInItsName) {
  shell("mkdir -p 'a b/bin' 'a b/lib/veskrt'; cd 'a b'; cp " + kVeskrun + " bin; cp -P " + kBinaries +
        "/libveskhost.so " + kBinaries + "/libveskrt.so* lib/veskrt; cp " + kBinaries +
        "/libevent_collector.so lib/veskrt/libveskheap.so");
  EXPECT_EQ(shell("'a b/bin/veskrun' -out events -- sh -c 'echo $LD_PRELOAD; exit 5'"),
            (test::Outcome{5, "\n"}));
  EXPECT_EQ(shell("tail -n 1 events; ls -d /tmp/veskrun-*").output, "end quick 5\n");
}

} // namespace
