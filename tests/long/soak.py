#!/usr/bin/env python3
"""The heap collector over a busy server for a long time, commanded all the while.

usage: soak.py [MINUTES]    (30)

Memory must stay flat, no command may be lost, every line of the log must be accounted for, every snapshot must add up.
"""
import os
import random
import re
import statistics
import subprocess
import sys
import time

import common
from common import need, read, veskctl

minutes = float(sys.argv[1]) if len(sys.argv) > 1 else 30
heartbeat = 3
names = {1: "snapshot", 2: "reset", 3: "pause", 4: "resume"}
period = 1.0 if minutes > 5 else 0.3


class Soak:
    def __init__(self):
        self.expected = []  # (command, answer) in the order in which they were sent
        self.paused = False
        self.snapshots = []  # (seconds, hostBytes, stacks, resident KiB of the server)
        self.idle = 0  # pauses long enough for a heartbeat
        self.server = 0

    def send(self, codes):
        words = " + ".join(map(str, codes)).split()
        done = common.run([veskctl, "commands", "send", *words])
        need(done.status == 0, f"veskctl send {words}: {done.status} {done.errors}")
        for code in codes:
            self.expected.append((names.get(code, str(code)), self.answer(code)))

    def answer(self, code):
        was, self.paused = self.paused, {3: True, 4: False}.get(code, self.paused)
        if code == 3:
            return "was paused already" if was else "paused"
        if code == 4:
            return "counting again" if was else "was not paused"
        return {1: "written", 2: "counting from zero"}.get(code, "no command of this collector")

    def status(self, name):
        found = re.search(rf"^{name}:\s*(\d+)", read(f"/proc/{self.server}/status"), re.M)
        return int(found[1]) if found else 0 # it has ended

    def take_snapshots(self, seconds):
        """Reads what snapshots there are, and removes them, so that disk and numbers stay small."""
        for path in [path for path in os.listdir(".") if re.fullmatch(r"r\.snapshot\d+\.xml", path)]:
            result = common.Result(path)
            self.snapshots.append((seconds, result.host_bytes, len(result.stacks), self.status("VmRSS")))
            os.unlink(path)

    def command_for(self, seconds):
        begin = time.monotonic()
        while time.monotonic() - begin < seconds:
            choice = random.random()
            if choice < 0.45:
                self.send([1])
            elif choice < 0.6:
                self.send([random.choice([2, 3, 4])])
            elif choice < 0.75:
                self.send([random.randint(5, 1000) * random.choice([1, -1])])
            else:
                self.send(random.choices([1, 2, 3, 4, 99], k=random.randint(2, 5)))
            if random.random() < 0.4 and self.paused:
                self.send([4])
            self.take_snapshots(time.monotonic() - begin)
            if random.random() < 0.05:
                self.idle += 1
                time.sleep(2 * heartbeat)
            time.sleep(period * random.random() * 2)

    def check_log(self):
        got = common.answers("r.log")
        beats, statuses, notes = 0, 0, 0
        ids = []
        for kind, values in common.records("r.log"):
            if kind != "comment":
                need(kind in ("COMMAND", "HEARTBEAT"), f"a record of type {kind}")
                ids.append(int(values["id"]))
                beats += kind == "HEARTBEAT"
            elif re.match("Periodic allocation status dump|Allocation status for ", values):
                statuses += 1
            else:
                known = not ids or values == "Result: " + os.path.abspath("r.xml")
                need(known, f"a comment that nobody has asked for: {values}")
                notes += 1
        need(ids == list(range(1, len(ids) + 1)), "record ids are not consecutive")
        for number, (wanted, found) in enumerate(zip(self.expected, got)):
            need(wanted == found, f"command {number}: sent {wanted}, logged {found}")
        need(len(got) == len(self.expected), f"{len(self.expected)} commands delivered, {len(got)} logged")
        need(beats >= self.idle, f"{beats} heartbeats in {self.idle} idle times")
        need(beats <= minutes * 60 / heartbeat + 1, f"{beats} heartbeats")
        # Eight lines for a record with three arguments, ten for one with five, one for a comment.
        lines = read("r.log").count("\n") + 1
        inside = 8 * len(got) + 10 * beats + statuses + notes
        need(lines == inside + 5, f"the log has {lines} lines, {inside} of records")
        return beats, statuses, notes

    def check_memory(self):
        """What was held, and resident, in the second and the last quarter of the time."""
        quarter = minutes * 60 / 4
        middle = lambda column, first, last: int(statistics.median(
            row[column] for row in self.snapshots if first * quarter <= row[0] < last * quarter))
        early, late = middle(1, 1, 2), middle(1, 3, 5)
        bound = 1.01 if minutes >= 10 else 1.25  # a short run is still filling up
        need(late <= early * bound, f"the collector's memory grew from {early} to {late} bytes")
        return early, late, middle(3, 1, 2), middle(3, 3, 5)

    def run(self):
        os.mkdir("commands")
        seconds = minutes * 60
        runner = subprocess.Popen(
            [common.veskrun, "-out", "r.xml", "-commands", "commands", "-heartbeat", str(heartbeat), "-top", "0",
             "--", common.subject, "serves"], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        try:
            while not os.path.exists("commands/" + common.lock_file_name) or not self.server:
                time.sleep(0.05)
                need(runner.poll() is None, "the server does not start")
                self.server = int(read(f"/proc/{runner.pid}/task/{runner.pid}/children") or 0)
            time.sleep(0.5)
            objects = common.channel_objects("commands")
            need(common.system_has(objects), "the channel's objects are not there")
            descriptors = len(os.listdir(f"/proc/{self.server}/fd"))
            threads = self.status("Threads")
            self.command_for(seconds)
            need(len(os.listdir(f"/proc/{self.server}/fd")) == descriptors, "descriptors are left open")
            need(self.status("Threads") == threads, "threads are left")
            output = runner.communicate(timeout=120)[0]
        finally:
            if runner.poll() is None:
                runner.terminate() # which it passes on
                runner.wait()
            common.remove_channel("commands")
        need(runner.returncode == 0, f"the server ended with {runner.returncode}")
        self.take_snapshots(seconds)
        common.Result("r.xml")
        left = sorted(os.listdir("."))
        need(left == ["commands", "r.log", "r.xml"] and not os.listdir("commands"), f"files left: {left}")
        need(not common.system_has(objects), "System V objects are left")
        beats, statuses, notes = self.check_log()
        print(f"soak: {minutes:g} minutes, {output.decode().strip()}")
        print(f"soak: {len(self.expected)} commands, each delivered, logged and answered in order; {beats} heartbeats, "
              f"{statuses} lines of memory status, {notes} lines at the start and the end: the whole log")
        need(self.snapshots, "no snapshots")
        print(f"soak: {len(self.snapshots)} snapshots, well-formed and adding up; at most {max(s[2] for s in self.snapshots)} stacks")
        if minutes < 2:
            return  # too short to tell how memory develops
        early, late, resident_early, resident_late = self.check_memory()
        print(f"soak: the collector held {early} bytes in the second quarter, {late} in the last (medians); "
              f"the process was resident with {resident_early} KiB, and {resident_late} KiB")


common.main("soak", Soak().run)
