// Programs as people run them: output, status and files must be the same with the host in them.
#include <gtest/gtest.h>

#include "support/command.h"

namespace {

using test::observed;
using test::shell;

// Each is given to sh -c in an empty directory; the files that it leaves are compared too.
constexpr const char* kCommands[] = {
    "printf 'b\\na\\nc\\n' | sort | tr a-z A-Z | sed 's/B/x/'; exit 3",
    "seq 20000 | sort -R --random-source=/bin/sh --parallel=4 -S 1M | sort -n --parallel=4 | md5sum",
    "perl -e 'my %h; $h{$_ % 977} .= $_ for 1..50000; print join(\",\", map { length $h{$_} } sort keys %h); "
    "exit 9'",
    "perl -e '$| = 1; if (my $pid = fork) { waitpid $pid, 0; print $? >> 8 } else { exec \"sh\", \"-c\", "
    "\"exit 5\" }'",
    "/usr/bin/python3 -c 'import json, threading, subprocess, ctypes\n"
    "out = []\n"
    "work = [threading.Thread(target=lambda: out.append(len(json.dumps(list(range(5000)))))) for _ in "
    "range(4)]\n"
    "[t.start() for t in work]; [t.join() for t in work]\n"
    "print(out, subprocess.run([\"sh\", \"-c\", \"echo child; exit 4\"]).returncode, "
    "ctypes.CDLL(None).abs(-3))'",
    "echo 'int main(void) { return 6; }' > a.c && gcc -O1 -o a a.c && ./a",
    "git init -q . && echo text > file && git add file && git -c user.name=a -c user.email=a@b commit -qm "
    "first "
    "--date=@1 && git log --format=%s && git fsck && rm -rf .git",
    "mkdir d && touch d/1 d/2 d/3 && find d -type f | sort | xargs -P 2 -n 1 basename | sort",
    "mkdir d && seq 1000 > d/numbers && tar -cf - --mtime=@1 --owner=0 --group=0 --sort=name d | tar -tvf - "
    "&& ls d",
    "bash -c 'trap \"echo caught\" TERM; kill -TERM $$; exit 12'",
    "bash -c 'exec 3>f 200>g; echo a >&3; echo b >&200; ls /proc/self/fd; cat f g'",
    "/usr/bin/python3 -c 'import os; f = lambda: os.open(\"/dev/null\", 0)\n"
    "print(f()); os.closerange(3, 2000); print(f(), f())'",
    "ls /nonexistent"};

TEST(Transparency, ProgramsComeOutTheSame) {
  for (const char* command : kCommands) {
    SCOPED_TRACE(command);
    const auto outcome = [command](const std::string& observer, const std::string& directory) {
      const std::string quoted = "\"$COMMAND\"";
      setenv("COMMAND", command, 1);
      return shell("mkdir " + directory + "; cd " + directory + "; " + observer + "sh -c " + quoted +
                   " 2>&1; status=$?; rm -f ../events* events*; find . -type f | sort | xargs -r md5sum; "
                   "exit $status");
    };
    shell("rm -rf with without followed");
    const auto without = outcome("", "without");
    EXPECT_EQ(outcome(observed(), "with"), without);
    EXPECT_EQ(outcome(observed("-follow"), "followed"), without);
  }
}

// A shell hides what it starts; these are observed themselves.
TEST(Transparency, ObservedThemselves) {
  shell("seq 100000 > numbers; echo 'int main(void) { return 0; }' > a.c");
  for (const std::string command :
       {"sort --parallel=4 -S 1M -r numbers", "perl -ne '$sum += $_; END { print $sum, exit 8 }' numbers",
        "gcc -c a.c -o a.o", "tar -cf - numbers",
        "/usr/bin/python3 -c 'import ssl, sqlite3; raise SystemExit(5)'", "find / -maxdepth 1",
        "git --version", "cat /nonexistent", "bash -c 'echo {1..1000}; exit 250'"}) {
    SCOPED_TRACE(command);
    EXPECT_EQ(shell(observed() + command + " 2>&1"), shell(command + " 2>&1"));
    EXPECT_NE(shell("tail -n 1 events | cut -c 1-4; rm events").output, "");
  }
}

} // namespace
