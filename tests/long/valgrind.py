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

# Tests that are left out, and why.
left_out = {
    r"Exhaustion\..*": "thousands of forks each: more than ten minutes",
    r"Logger.AChildOfAForkGoesOnLogging": "a child has lost its parent's other stacks, and what only they pointed to is a leak to memcheck",
    r"HostMemory.ThreadsAndForksShareIt": "the same",
    r"CommandSending.AKilledSenderHarmsNothing": "kills after a millisecond, in which memcheck lets no sender come to anything",
    r"HostMemory.ReusesSlabsAndReturnsBigBlocks": "asks the system whether pages are gone, which memcheck takes for a use of them",
    r"Text.FilesStayOffTheStandardDescriptors": "valgrind lets files be opened above the limit that the test sets",
    r"ProcessLaunch.AFailedChildLogsAndIsNoSecondParent": "memcheck frees streams at _exit(), which writes them out a second time",
}
suppressions = os.path.join(os.path.dirname(os.path.abspath(__file__)), "valgrind.supp")
memcheck = ["valgrind", "--quiet", "--leak-check=full", "--show-leak-kinds=definite", "--errors-for-leak-kinds=definite",
            "--error-exitcode=99", "--suppressions=" + suppressions, "--child-silent-after-fork=yes", "--fair-sched=try",
            "--num-callers=25"]


def run_test(test):
    try:
        done = common.run(memcheck + test["command"], timeout=600)
        failed, output = done.status != 0, done.output + done.errors
    except subprocess.TimeoutExpired:
        failed, output = True, "takes more than ten minutes"
    return test["name"], failed, output


def run():
    tests = json.loads(common.run(["ctest", "--test-dir", common.build, "--show-only=json-v1"]).output)["tests"]
    need(all("command" in test for test in tests), "the suite is not built")
    # Scripts start programs with the host preloaded, which then are not under memcheck.
    tests = [test for test in tests if test["command"][0].startswith(common.build)]
    wanted = re.compile(sys.argv[1] if len(sys.argv) > 1 else "")
    chosen = [test for test in tests if wanted.search(test["name"])
              and not any(re.fullmatch(pattern, test["name"]) for pattern in left_out)]
    need(chosen, "there are no such tests")
    begin = time.monotonic()
    failures = []
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for name, failed, output in pool.map(run_test, chosen):
            if failed:
                failures.append(name)
                print(f"valgrind: {name}:\n{output[-6000:]}", flush=True)
    print(f"valgrind: {len(chosen)} of {len(tests)} unit tests in {time.monotonic() - begin:.0f} s")
    need(not failures, f"{len(failures)} tests: {', '.join(failures)}")
    print("valgrind: no error, no definite leak")


common.main("valgrind", run)
