#!/usr/bin/env python3
"""What veskrun says, and with which status, when it runs a program and when it cannot."""
import os
import unittest

import common
from common import build, observed, read, run, veskrun

WITH_COLLECTOR = f"{veskrun} -collector {build}/libevent_collector.so "


def script(name, text):
    common.write(name, text)
    os.chmod(name, 0o755)


class Veskrun(common.TestCase):
    def last_event(self):
        end = read("events").splitlines()[-1]
        os.unlink("events")
        return end

    def test_status_is_the_programs_own(self):
        self.assertEqual(run(f"{observed} -- sh -c 'exit 42'").status, 42)
        self.assertEqual(run(f"{observed} -- sh -c 'kill -ABRT $$'").status, 128 + 6)
        self.assertEqual(run(f"trap '' CHLD; exec {observed} -- sh -c 'exit 43'").status, 43)

    def test_says_why_a_program_cannot_be_observed(self):
        self.assertEqual(run("echo 'int main(void) { return 0; }' | gcc -static -x c - -o static").status, 0)
        script("foreign", "\177ELF\1\1\1" + 100 * "\0")
        script("bad-interpreter", "#!/nonexistent/interpreter\n")
        script("static-interpreter", f"#!{os.getcwd()}/static -x\n")
        common.write("data", "text")
        for program, status, text in (
                ("nosuchprogram", 127, "nosuchprogram: command not found"), ("''", 127, "not found"),
                ("./nosuch", 127, "./nosuch: No such file or directory"), ("/", 126, "is a directory"),
                ("./data", 126, "Permission denied"), ("./static", 126, "is statically linked"),
                ("./foreign", 126, "is not a program for 64-bit x86"),
                ("./bad-interpreter", 127, "/nonexistent/interpreter: No such file"),
                ("./static-interpreter", 126, "static: is statically linked")):
            done = run(f"{observed} -- {program}")
            self.assertEqual(done.status, status, program)
            self.assertIn(text, done.errors)
        # A set-user-id program of another user.
        if os.geteuid() == 0:
            run("cp /bin/true . && chown 1 true && chmod u+s true")
            self.assertEqual(run(f"{observed} -- ./true").status, 126)

    def test_scripts_are_followed_to_their_interpreter(self):
        lines = 'echo "$0 $1"; exit 3\n'
        script("script", "#!/bin/sh\n" + lines)
        script("through-env", "#!/usr/bin/env sh\n" + lines)
        script("without-line", lines)
        path = f"PATH={os.getcwd()}:$PATH"
        for name in "./script", "./through-env", "./without-line", "script":
            self.assertEqual(run(f"{path} {observed} -- {name} 'a b'"), run(f"{path}; {name} 'a b'"))
            self.assertEqual(self.last_event(), "end quick 3")  # the shell's, not env's

    def test_command_line(self):
        self.assertRegex(run(f"{veskrun} --version").output, "^veskrun [0-9]")
        self.assertIn("Collectors: annotations heap\n", run(f"{veskrun} --help").output)
        done = run(WITH_COLLECTOR + "--help")
        self.assertEqual(done.status, 0)
        self.assertLess(done.output.index("usage: veskrun"), done.output.index("collector's help\n"))
        self.assertEqual(run(WITH_COLLECTOR + "-help"), done)
        self.assertEqual(run(WITH_COLLECTOR + "-help -- echo no").output, "collector's help\n")

        # Nothing of the program has run when the command line is refused.
        for line, status in {
                WITH_COLLECTOR + "-refuse -- echo no": 4, WITH_COLLECTOR + "-out events echo no": 2,
                WITH_COLLECTOR + "--nonsense -- echo no": 2, WITH_COLLECTOR + "--": 2,
                veskrun + " -collector nowhere -- echo no": 2, veskrun + " -collector /nonexistent.so -- echo no": 2,
                veskrun + " -collector /bin/true -- echo no": 2}.items():
            self.assertEqual(run(line)[:2], (status, ""), line)

        # Any byte comes through to the collector, and without options of its own "--" may be left out.
        odd = b"a=:\n\377 b"
        run([*WITH_COLLECTOR.split(), "-out", odd, "--", "true"])
        self.assertTrue(os.path.exists(odd))
        self.assertEqual(run(WITH_COLLECTOR + "echo -- -x").status, 3)  # the collector misses its -out

    def test_passes_signals_on_and_keeps_no_descriptors(self):
        # Sent to veskrun alone.
        script("waits", "#!/bin/sh\ntrap 'echo caught; exit 7' TERM USR1\necho ready >fifo\nwhile :; do sleep 0.05; done\n")
        os.mkfifo("fifo")
        for signal in "TERM", "USR1":
            done = run(f"{observed} -- ./waits & read line <fifo; kill -{signal} $!; wait $!")
            self.assertEqual(done[:2], (7, "caught\n"))
        # Ends when the program has closed its output, not when the program ends.
        script("closes", "#!/bin/sh\necho before\nexec >&- 2>&-\nread line <fifo\n")
        self.assertEqual(run(f"({observed} -- ./closes &) | cat; echo after; echo >fifo").output, "before\nafter\n")
        # A program that stops itself stops the job.
        script("stops", f"set -m\n{observed} -- sh -c 'kill -STOP $$; exit 9' &\n"
               "until jobs | grep -q Stopped; do sleep 0.05; done\nkill -CONT %1\nwait %1\n")
        self.assertEqual(run("timeout 60 bash ./stops").status, 9)

    def test_works_from_a_directory_with_a_blank_in_its_name(self):
        run(f"mkdir -p 'a b/bin' 'a b/lib/veskrt'; cd 'a b'; cp {veskrun} bin; cp -P {build}/libveskhost.so "
            f"{build}/libveskrt.so* lib/veskrt; cp {build}/libevent_collector.so lib/veskrt/libveskheap.so")
        done = run("'a b/bin/veskrun' -out events -- sh -c 'echo $LD_PRELOAD; exit 5'")
        self.assertEqual(done[:2], (5, "\n"))
        self.assertEqual(self.last_event(), "end quick 5")
        self.assertEqual(run("ls -d /tmp/veskrun-*").output, "")


unittest.main()
