#!/usr/bin/env python3
"""The unit tests of the suite under memcheck: no error, and no definite leak of the C library's blocks.

usage: valgrind.py [REGULAR-EXPRESSION]    (of tests' names)
"""
import concurrent.futures
import json
import os
import re
import subprocess
import sys
import time

import common
from common import need

# Tests that are left out.
left_out = {
    # Thousands of forks each, or as many operations of many threads, which memcheck runs one at a time: more than ten minutes.
    r"Exhaustion\..*": "forks for every allocation",
    # A child has lost the stacks of its parent's other threads, and what only they pointed to is a leak to memcheck.
    r"Logger.AChildOfAForkGoesOnLogging": "forks amid threads",
    r"HostMemory.ThreadsAndForksShareIt": "forks amid threads",
    # Kills senders after a millisecond, in which memcheck lets none of them come to anything.
    r"CommandSending.AKilledSenderHarmsNothing": "counts on speed",
    # Asks the system whether pages are gone, which memcheck takes for a use of them.
    r"HostMemory.ReusesSlabsAndReturnsBigBlocks": "looks at pages that are gone",
    # Valgrind answers setrlimit() itself, and then lets files be opened above the limit.
    r"Text.FilesStayOffTheStandardDescriptors": "counts on a limit of descriptors",
    # A hundred children in a minute of its own, and memcheck frees the C library's streams at their _exit(), which writes them out.
    r"ProcessLaunch.AFailedChildLogsAndIsNoSecondParent": "looks at streams after _exit()",
}
memcheck = ["valgrind", "--quiet", "--leak-check=full", "--show-leak-kinds=definite", "--errors-for-leak-kinds=definite",
            "--error-exitcode=99", "--suppressions=" + os.path.join(os.path.dirname(os.path.abspath(__file__)), "valgrind.supp"), "--child-silent-after-fork=yes", "--fair-sched=try", "--num-callers=25"]


def run_test(test):
    begin = time.monotonic()
    try:
        done = subprocess.run(memcheck + test["command"], capture_output=True, text=True, timeout=600, check=False)
        failed, output = done.returncode != 0, done.stdout + done.stderr
    except subprocess.TimeoutExpired:
        failed, output = True, "takes more than ten minutes"
    return test["name"], failed, output, time.monotonic() - begin


def run():
    listing = subprocess.run(["ctest", "--test-dir", common.build, "--show-only=json-v1"], capture_output=True, check=True)
    tests = json.loads(listing.stdout)["tests"]
    need(all("command" in test for test in tests), "the suite is not built")
    # Those in Python start programs with the host preloaded, which then are not under memcheck.
    tests = [test for test in tests if os.path.basename(test["command"][0]) != "python3"]
    wanted = re.compile(sys.argv[1] if len(sys.argv) > 1 else "")
    chosen = [test for test in tests if wanted.search(test["name"])
              and not any(re.fullmatch(pattern, test["name"]) for pattern in left_out)]
    need(chosen, "there are no such tests")
    begin = time.monotonic()
    times, failures = [], []
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for name, failed, output, seconds in pool.map(run_test, chosen):
            times.append((seconds, name))
            if failed:
                failures.append(name)
                print(f"valgrind: {name}:\n{output[-6000:]}", flush=True)
    slowest = ", ".join(f"{name} {seconds:.0f} s" for seconds, name in sorted(times, reverse=True)[:3])
    print(f"valgrind: {len(chosen)} of {len(tests)} unit tests in {time.monotonic() - begin:.0f} s (slowest: {slowest})")
    need(not failures, f"{len(failures)} tests: {', '.join(failures)}")
    print("valgrind: no error, no definite leak")


common.main("valgrind", run)
