#!/usr/bin/env python3
"""The preloaded host: what the collector hears of programs whose calls are known, none of which may notice."""
import glob
import os
import re
import unittest

import common
from common import build, observed, run, subject


def own_heap_events(events):
    """The program's own, with blocks by the order of their coming, from one release to the next."""
    own, names = [], {}
    for event in events:
        if not event.endswith(" program"):
            continue
        own.append(re.sub("0x[0-9a-f]+", lambda block: names.setdefault(block[0], f"#{len(names) + 1}"), event[:-8]))
        if event.startswith("free"):
            names.clear()
    return "; ".join(own)


class Preload(common.TestCase):
    def events_of(self, program, options=""):
        """Of a program with the host; it must come out as without."""
        command = [os.path.join(build, "subject"), program]
        alone = run(command)
        self.assertNotEqual(alone.status, 2, "no such program")
        self.assertEqual(run([*observed.split(), *options.split(), "--", *command]), alone)
        return self.read_events()

    def read_events(self):
        events = common.read("events").split("\n")
        if os.path.exists("events"):
            os.unlink("events")
        return [event for event in events if event]

    def assert_counts(self, events, counts):
        found = {beginning: sum(event.startswith(beginning) for event in events) for beginning in counts}
        self.assertEqual(found, counts)

    def test_each_heap_function_is_heard_once(self):
        events = self.events_of("heap")
        self.assertEqual(own_heap_events(events), (
            "malloc 1001 #1; free #1; calloc 1001 #1; free #1; realloc 1003 #1; malloc 9012 #2; realloc #1 #3 50003 0; "
            "reallocarray #3 #3 1005 0; realloc #3 (nil) 9223372036854775807 0; realloc #3 (nil) 0 1; posix_memalign 1006 #4; "
            "free #4; aligned_alloc 1024 #1; free #1; memalign 1008 #1; free #1; valloc 1009 #1; free #1; pvalloc 1010 #1; free #1; "
            "malloc 1011 #1; malloc 4002 #2; free #2"))
        self.assertEqual(events[-1], "end exit 5")

    def test_threads_come_and_go(self):
        events = self.events_of("threads")
        self.assert_counts(events, {"thread+": 7, "thread-": 7, "malloc 2001 ": 5000, "malloc 2003 ": 1})
        # Each block that came has gone, also the one that a thread's own destructor gave back.
        own = [event for event in events if event.endswith(" program")]
        taken = [event for event in own if event.startswith(("malloc 200", "malloc 4002 "))]
        self.assertEqual(len(own), 2 * len(taken))

    def test_modules_are_known_before_their_code_runs(self):
        events = self.events_of("modules")
        loaded = f"module+ {build}/plugins/libsubject_module.so 20"
        # The other namespace has a heap of its own.
        self.assert_counts(events, {loaded: 3, f"module- {build}/plugins/libsubject_module.so": 2, "malloc 777 ": 2,
                                    f"module+ {build}/subject ": 1, "module+ [vdso] ": 1})
        self.assertLess(events.index(loaded), [event.startswith("malloc 777 ") for event in events].index(True))

    def test_children_are_left_alone_unless_followed(self):
        events = self.events_of("forks")
        # One exec that fails, and one that does not.
        self.assert_counts(events, {"malloc 3001": 0, "malloc 3002": 0, "end exec": 2})
        self.assertEqual(events[-1], "end exec 0")
        self.assertEqual(glob.glob("events*"), [])

        self.events_of("forks", "-follow")
        children = {common.read(path) for path in glob.glob("events.*")}
        ends = sorted(end for child in children for end in re.findall("^end .*", child, re.M))
        self.assertEqual(ends, ["end exit 0", "end exit 1", "end exit 11", "end quick 12", "end quick 16"])
        for block, end in ("3001", "exit 11"), ("3002", "quick 12"):
            child, = (child for child in children if f"end {end}" in child)
            self.assertTrue(child.startswith("fork\n") and f"\nmalloc {block} " in child, child)

    def test_the_end_comes_after_the_programs_own(self):
        for program, last, end in (("exits", "malloc 4001 ", "exit 21"), ("exits", "malloc 4002 ", "exit 21"),
                                   ("quick", "malloc 4001 ", "quick 22"), ("mainLeaves", "malloc 4003 ", "exit 0"),
                                   ("exitWhileBusy", "thread+", "exit 24"), ("exitFromThread", "thread+", "quick 23")):
            with self.subTest(program):
                events = self.events_of(program)
                self.assertTrue(any(event.startswith(last) for event in events))
                self.assertEqual([event for event in events if event.startswith("end ")], ["end " + end])
                self.assertEqual(events[-1], "end " + end)

    def test_no_descriptor_is_left_open(self):
        self.assertEqual(run(f"{observed} -- ls /proc/self/fd"), run("ls /proc/self/fd"))

    def test_standard_descriptors_stay_closed(self):
        for closed in "<&-", ">&-", "2>&-", "<&- >&-", "<&- >&- 2>&-":
            with self.subTest(closed):
                rest = f"{subject} standardFiles {closed}; echo $?; cat made"
                self.assertEqual(run(f"{observed} -- {rest}"), run(rest))
                self.assertRegex(self.read_events()[-1], "end exit ")

    def test_environment_is_the_one_that_veskrun_was_given(self):
        for preload in "", "LD_PRELOAD=", "LD_PRELOAD=libm.so.6":
            self.assertEqual(run(f"{preload} {observed} -- {subject} ownEnvironment"), run(f"{preload} {subject} ownEnvironment"))

    def test_heap_functions_of_the_program_stand_in_front(self):
        self.assertEqual(run(f"{observed} -- {build}/wrapper_subject").output, "100\n")
        self.assert_counts(self.read_events(), {"malloc 60": 100})

    def test_death_by_signal_is_the_programs_own(self):
        self.assertEqual(self.events_of("aborts"), [])


unittest.main()
