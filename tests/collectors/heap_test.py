#!/usr/bin/env python3
"""Programs of tests/host/subject.c under the heap collector: what their results say, and commands while they run."""
import glob
import os
import shutil
import subprocess
import time
import unittest

import common
from common import Result, answers, read, run, subject, veskctl, veskrun

MARKED = 123457  # the size of the blocks that a commanded program takes


class Heap(common.TestCase):
    def profile(self, program, options="", status=0):
        done = run(f"{veskrun} -out r.xml {options} -- {subject} {program}")
        self.assertEqual(done.status, status, done.errors)
        return Result("r.xml")

    def profile_all(self, command, status):
        """The results of a program and of what it starts."""
        self.assertEqual(run(f"{veskrun} -follow -out f.xml -- {command}").status, status)
        return {path: Result(path) for path in glob.glob("*.xml")}

    def check_known(self, result):
        # What leaks, temporaries and peak do, twelve calls of heap, and one of a destructor.
        functions = {"malloc": 37, "realloc": 2}
        for name in "calloc", "reallocarray", "posix_memalign", "aligned_alloc", "memalign", "valloc", "pvalloc":
            functions[name] = 1
        self.assertEqual(result.functions, functions)
        expected = {"calls": 46, "liveBlocks": 12, "liveBytes": 1000 + 9012 + 1011, "peakBytes": 151000, "temporary": 30,
                    "allocatedBytes": 1000 + 1280 + 150000 + 9 * 1000 + 54 + 9012 + 50003 + 1024 + 4002}
        self.assertEqual({name: result.totals[name] for name in expected}, expected)
        for size, (live, peak, temporary) in {100: (1000, 1000, 0), 64: (0, 0, 20), 100000: (0, 100000, 0), 50000: (0, 50000, 0),
                                              50003: (0, 0, 1), 9012: (9012, 0, 0)}.items():
            stack = result.of_size(size)
            self.assertEqual((stack.liveBytes, stack.peakBytes, stack.temporary), (live, peak, temporary), size)
        self.assertLessEqual({stack.modules[0] for stack in result.stacks}, {"subject"})

    def test_counts_are_exact(self):
        done = run(f"{veskrun} -out r.xml -top 5 -- {subject} known")
        result = Result("r.xml")
        self.check_known(result)
        self.assertEqual((result.end, result.status), ("exit", "5"))
        for part in "46 heap calls", "peak (subject)", "97.7 KiB":
            self.assertIn(part, done.errors)
        self.assertFalse(os.path.exists("vesklog.log"))
        self.assertIn("</log>", read("r.log"))

    def test_threads(self):
        stack = self.profile("handsOver").of_size(48)
        self.assertEqual((stack.calls, stack.liveBlocks, stack.liveBytes), (40000, 4000, 4000 * 48))
        self.assertLessEqual(self.profile("exitWhileBusy", status=24).totals["liveBlocks"], 64)

    # The second module lies where the first one was, with other frames behind the same return addresses. Each stack must
    # name its own module and go on into the program.
    def test_stacks_know_the_modules_of_their_time(self):
        result = self.profile("modulesInTurn")
        for size, name in (1001, "subject_module"), (2002, "subject_module_b"), (3003, "subject_module"):
            self.assertEqual(result.of_size(size).calls, 3)
            self.assertEqual(result.of_size(size).modules[:3], [f"lib{name}.so", "subject", "subject"])

    def test_depth_cuts_stacks(self):
        for depth in 1, 7, 25:
            stack = max(self.profile("deepRecursion", f"-depth {depth}").all_of_size(7000), key=lambda stack: stack.calls)
            self.assertEqual((len(stack.modules), stack.cut), (depth, True))

    def test_signal_handlers_have_stacks(self):
        modules = self.profile("raises").of_size(10).modules
        self.assertEqual((modules[0], modules.count("subject")), ("subject", 4))  # handler, function, main, start

    def test_timeline_follows_the_interval(self):
        slow = "perl -e 'for (1..100) { push @all, \"x\" x 1000; select undef, undef, undef, .002 }'"
        run(f"{veskrun} -timeline 50 -out r.xml -- {slow}")
        samples = Result("r.xml").samples
        self.assertTrue(4 <= len(samples) <= samples[-1][0] / 50 + 3, samples)
        run(f"{veskrun} -timeline 0 -out r.xml -- {slow}")
        self.assertEqual(Result("r.xml").samples, [])

    def test_descriptors_are_the_programs_own(self):
        for lists in "bash -c 'ls /proc/self/fd'", "bash -c 'ls /proc/self/fd; ls /proc/self/fd'":
            self.assertEqual(run(f"{veskrun} -- {lists}").output, run(lists).output)

    def test_closed_descriptors_and_another_directory_do_not_matter(self):
        done = run(f"{veskrun} -out r.xml -- {subject} closesAll")
        self.assertEqual((done.status, done.errors), (35, ""))
        self.check_known(Result("r.xml"))

    def test_children_are_followed_when_asked(self):
        self.assertEqual(run(f"{veskrun} -- {subject} forks").status, 16)
        path, = glob.glob("*.xml")
        self.assertEqual(Result(path).of_size(3000).liveBytes, 3000)
        os.unlink(path)

        results = self.profile_all(f"{subject} forks", 16).values()
        child, = (each for each in results if each.all_of_size(3001))
        parents = [(each.end, each.of_size(3000).liveBytes) for each in results if each.all_of_size(3000)]
        self.assertEqual(parents, [("exec", 3000)] * 2)  # an exec that fails, and one that does not
        # What it inherited is not its own, and its release is none.
        self.assertEqual((child.totals["calls"], child.totals["liveBytes"], child.totals["releases"]), (2, 3001, 1))

    def test_children_of_busy_processes_are_exact(self):
        results = self.profile_all(f"{subject} forkWhileBusy", 0).values()
        children = [each for each in results if each.status == "1"]
        self.assertEqual([each.of_size(3003).calls for each in children], [1] * 20)
        # Every second one runs the program's destructors.
        self.assertEqual(sorted(each.totals["calls"] for each in children), [1] * 10 + [2] * 10)

    def test_programs_that_replace_themselves_leave_a_result_each(self):
        results = self.profile_all(f"sh -c 'exec {subject} known'", 5)
        self.assertEqual(len(results), 2)
        for path, result in results.items():
            if "exec1" in path:
                self.assertEqual(result.end, "exec")
            else:
                self.check_known(result)

    def test_wrong_options_are_told_before_the_program_starts(self):
        os.mkdir("directory")
        for options, message in {
                "-nonsense": "'-nonsense'", "-depth 0": "'0'", "-depth 26": "from 1 to 25", "-depth 1x": "'1x'",
                "-depth": "-depth needs", "-no-out": "'-no-out'", "-top -1": "-top needs",
                "-out nowhere/r.xml": "nowhere/r.xml: No such", "-out directory": "Is a directory",
                "-log nowhere/l.log": "nowhere/l.log", "-commands nowhere": "nowhere", "-commands": "-commands",
                "-heartbeat 1": "-heart", "-debug nonsense": "-debug"}.items():
            done = run(f"{veskrun} {options} -- echo started")
            self.assertEqual((done.status, done.output), (2, ""), options)
            self.assertIn(message, done.errors)
            self.assertEqual(done.errors.count("\n"), 1, done.errors)
        self.assertEqual(glob.glob("*.xml"), [])
        done = run(f"{veskrun} -help -- echo started")
        self.assertEqual(done.status, 0)
        self.assertIn("-timeline", done.output)
        self.assertNotIn("started", done.output)

    def test_names_that_xml_cannot_carry_are_written_safely(self):
        odd = b"a'b<c>&\"\x01\xff\xc3\xa9"
        os.mkdir(odd)
        shutil.copy(subject, odd + b"/program")
        self.assertEqual(run([veskrun, "-out", "r.xml", "--", odd + b"/program", "known"]).status, 5)
        self.assertTrue(Result("r.xml").program.endswith("/a'b<c>&\"??\u00e9/program"))

    def test_a_real_program_adds_up(self):
        script = 'my %h; $h{$_} = "v$_" for 1..20000; delete $h{$_} for 1..5000; print scalar keys %h'
        done = run([veskrun, "-out", "r.xml", "-top", "3", "--", "perl", "-e", script])
        self.assertEqual((done.status, done.output), (0, "15000"))
        result = Result("r.xml")
        self.assertTrue(result.totals["calls"] > 40000 and len(result.stacks) > 50, result.totals)
        self.assertIn("Perl_", done.errors)
        self.assertIn("more call stacks", done.errors)

    def test_a_result_is_whole_or_the_old_one(self):
        os.mkdir("full")
        run(f"{veskrun} -out full/r.xml -- {subject} known")
        old = read("full/r.xml")
        # A limit on the size of files stands for a full disk.
        done = run(f"{veskrun} -out full/r.xml -top 0 -- sh -c 'ulimit -f 1; trap \"\" XFSZ; exec {subject} known'")
        self.assertEqual(done.status, 5)
        self.assertIn("cannot write the result", done.errors)
        self.assertEqual(read("full/r.xml"), old)
        self.assertEqual(sorted(os.listdir("full")), ["r.log", "r.xml"])
        # A link that somebody has put there is not written through.
        run(f"{veskrun} -out r.xml -- sh -c 'echo precious > victim; ln -s victim r.xml.$$.part'")
        self.assertEqual(read("victim"), "precious\n")
        Result("r.xml")

    def test_a_release_inside_a_block_is_logged(self):
        self.assertEqual(run(f"{veskrun} -out r.xml -- {subject} releasesInside").status, 128 + 6)
        self.assertIn(("INVALID_RELEASE", "10000"), [(kind, values["bytes"]) for kind, values in common.records("r.log")
                                                     if kind != "comment"])


class Commands(common.TestCase):
    def start(self, options):
        """A program that does what tell() says."""
        os.mkdir("ch")
        self.addCleanup(common.remove_channel, "ch")
        self.program = subprocess.Popen([veskrun, "-out", "r.xml", "-commands", "ch", *options.split(), "--", subject, "obeys"],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, bufsize=0)
        self.addCleanup(self.program.communicate)
        self.addCleanup(self.program.terminate)

    def tell(self, order):
        self.program.stdin.write(order)
        self.assertEqual(self.program.stdout.read(1), order)

    def end(self, order, status):
        self.assertEqual((self.program.communicate(order), self.program.returncode), ((b"", None), status))

    def control(self, words):
        self.assertEqual(run(f"{veskctl} {words}").status, 0, words)

    def wait(self, condition):
        end = time.monotonic() + 60
        while not condition():
            self.assertLess(time.monotonic(), end)
            time.sleep(0.001)

    # Commands are carried out after veskctl has seen them taken; their answer comes last.
    def wait_for_answers(self, count):
        self.wait(lambda: len(answers("r.log")) == count)

    def snapshot(self):
        before = answers("r.log")
        self.control("heap snapshot ch")
        self.wait_for_answers(len(before) + 1)
        return self.read_snapshot(1 + sum(command == "snapshot" for command, _ in before))

    def read_snapshot(self, number):
        result = Result(f"r.snapshot{number}.xml")
        self.assertEqual(result.end, "snapshot")
        return result

    def test_are_carried_out_while_the_program_runs(self):
        self.start("-heartbeat 1 -debug commands")
        self.tell(b"a")
        self.assertEqual(self.snapshot().of_size(MARKED).liveBlocks, 1000)

        self.control("heap pause ch")
        self.wait_for_answers(2)
        self.tell(b"a")
        self.tell(b"x")  # an exec that fails opens the channel anew
        paused = self.snapshot()
        self.assertEqual(paused.of_size(MARKED).calls, 1000)
        # Each of the five threads may have been inside a call when the pause came.
        self.assertLessEqual(self.snapshot().totals["calls"], paused.totals["calls"] + 5)

        self.control("ch send 4 + 2 + 99")
        self.wait_for_answers(7)
        self.assertEqual(self.snapshot().all_of_size(MARKED), [])
        self.tell(b"f")  # older than the reset
        self.tell(b"c")  # the channel's descriptor among them
        self.tell(b"a")
        anew = self.snapshot()
        self.assertEqual(anew.of_size(MARKED).liveBlocks, 1000)
        self.assertLess(anew.totals["releases"], anew.totals["calls"])

        self.control("ch send 1 + 1 + 1 + 2 + 1")
        self.wait_for_answers(14)
        for number in range(6, 10):
            self.read_snapshot(number)
        self.wait(lambda: "HEARTBEAT" in dict(common.records("r.log")))

        self.end(b"q", 3)
        self.assertEqual(Result("r.xml").end, "exit")
        self.assertIn("<!-- [COMMANDS]", read("r.log"))
        self.assertEqual(os.listdir("ch"), [])
        snapshot, reset = ("snapshot", "written"), ("reset", "counting from zero")
        self.assertEqual(answers("r.log"), [
            snapshot, ("pause", "paused"), snapshot, snapshot, ("resume", "counting again"), reset,
            ("99", "no command of this collector"), *[snapshot] * 5, reset, snapshot])

    def test_leave_no_channel_behind_an_exec(self):
        self.start("")
        self.tell(b"a")
        self.assertEqual(os.listdir("ch"), [common.lock_file_name])
        self.end(b"e", 0)
        self.assertEqual(Result("r.xml").end, "exec")
        self.assertEqual(os.listdir("ch"), [])

        # Where children are followed, each program has a channel of its own.
        has_channel = f"test -e ch/$$/{common.lock_file_name}"
        done = run([veskrun, "-commands", "ch", "-follow", "--", "sh", "-c", f"{has_channel} && sh -c '{has_channel}'; exit $?"])
        self.assertEqual(done.status, 0, done.errors)
        self.assertEqual(os.listdir("ch"), [])


unittest.main()
