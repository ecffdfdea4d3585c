"""What tests of whole programs share: commands, results and logs of the heap collector, command channels."""
import collections
import contextlib
import os
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import types
import unittest
import xml.etree.ElementTree as ElementTree

build = os.path.abspath(os.environ.get("VESK_BUILD", "build/release"))
veskrun, veskctl, veskreport, subject = (os.path.join(build, name) for name in ("veskrun", "veskctl", "veskreport", "subject"))
lock_file_name = "zvrcmds.dat"
# What stands in front of a program to have tests/host/event_collector.c write to the file "events".
observed = f"{veskrun} -collector {build}/libevent_collector.so -out events "


class Fault(AssertionError):
    """Something that must not be."""


def need(condition, text):
    if not condition:
        raise Fault(text)


# 128 + signal for a death by signal; output and errors are texts.
Outcome = collections.namedtuple("Outcome", "status output errors")


def run(command, timeout=240, **options):
    """A program with its arguments, or a text for the shell. What does not end is killed with all that it has started."""
    process = subprocess.Popen(command, shell=isinstance(command, str), errors="surrogateescape", start_new_session=True,
                               stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, **options)
    try:
        output, errors = process.communicate(timeout=timeout)
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        process.communicate()
        raise
    return Outcome(process.returncode if process.returncode >= 0 else 128 - process.returncode, output, errors)


def read(path):
    """A file's text; empty when there is none."""
    with contextlib.suppress(FileNotFoundError), open(path, errors="surrogateescape", encoding="utf-8") as file:
        return file.read()
    return ""


def write(path, text):
    with open(path, "w", errors="surrogateescape", encoding="utf-8") as file:
        file.write(text)


class TestCase(unittest.TestCase):
    """Each test runs in an empty directory."""

    def setUp(self):
        directory = tempfile.mkdtemp(prefix="vesk-test-")
        self.addCleanup(shutil.rmtree, directory)
        self.addCleanup(os.chdir, os.getcwd())
        os.chdir(directory)


def channel_objects(directory):
    """Segment identifier and semaphore key of a command channel; None if there is none."""
    try:
        with open(os.path.join(directory, lock_file_name), "rb") as file:
            return struct.unpack("iI", file.read(8))
    except (OSError, struct.error):
        return None


def system_has(objects):
    """Whether one of these is still there."""
    def column(path, number):
        return [int(line.split()[number]) & 0xFFFFFFFF for line in read(path).splitlines()[1:]]
    segment, key = objects
    return segment in column("/proc/sysvipc/shm", 1) or key in column("/proc/sysvipc/sem", 0)


def remove_channel(directory):
    """What a killed process leaves of its command channel, the System V objects included."""
    objects = channel_objects(directory)
    if objects is None:
        return
    segment, key = objects
    for option in (["-m", str(segment)], ["-S", hex(key)]):
        run(["ipcrm", *option])
    os.unlink(os.path.join(directory, lock_file_name))


class Result:
    """A result file of the heap collector, in which everything adds up."""

    sums = ("calls", "allocatedBytes", "liveBlocks", "liveBytes", "peakBytes", "temporary")

    def __init__(self, path):
        root = ElementTree.parse(path).getroot()
        process = root.find("process")
        self.program, self.end, self.status = (process.findtext(name) for name in ("program", "end", "status"))
        self.totals = {each.tag: int(each.text) for each in root.find("totals") if each.tag != "function"}
        self.functions = {each.get("name"): int(each.get("calls")) for each in root.iterfind("totals/function")}
        modules = {each.get("id"): os.path.basename(each.findtext("path")) for each in root.find("modules")}
        frames = {each.get("id"): modules[each.get("module")] if each.get("module") else "" for each in root.find("frames")}
        self.stacks = [self.stack(each, frames) for each in root.find("stacks")]
        self.samples = [(int(each.get("milliseconds")), int(each.get("liveBytes"))) for each in root.iterfind("timeline/sample")]
        self.host_bytes = int(root.findtext("collector/hostBytes"))
        categories = {each.get("name") for each in root.iterfind("collector/category")}
        need(len(frames) == len(root.find("frames")), f"{path}: two frames have one number")
        need(categories >= {"HEAP_BLOCKS", "HEAP_STACKS", "HEAP_SITES"}, f"{path}: there are only {categories}")
        self.check_sums(path)

    def stack(self, element, frames):
        numbers = {name: int(element.get(name)) for name in self.sums}
        return types.SimpleNamespace(**numbers, cut=element.get("cut") == "true",
                                     modules=[frames[each] for each in element.text.split()])

    def check_sums(self, path):
        totals = self.totals
        for name in self.sums:
            over_stacks = sum(getattr(stack, name) for stack in self.stacks)
            need(totals[name] == over_stacks, f"{path}: {name} is {totals[name]}, and {over_stacks} over the stacks")
        need(sum(self.functions.values()) == totals["calls"], f"{path}: {self.functions}, and {totals['calls']} in all")
        for live, gained, lost in (("liveBytes", "allocatedBytes", "releasedBytes"), ("liveBlocks", "calls", "releases")):
            need(totals[live] == totals[gained] - totals[lost], f"{path}: {live} is not {gained} less {lost}")
        peaks = [stack.peakBytes for stack in self.stacks]
        need(peaks == sorted(peaks, reverse=True), f"{path}: the stacks are not in the order of the report")
        need(self.samples == sorted(self.samples, key=lambda sample: sample[0]), f"{path}: time goes back")
        need(not self.samples or self.samples[-1][1] == totals["liveBytes"], f"{path}: the last sample differs")

    def all_of_size(self, size):
        """The stacks whose blocks have this size."""
        return [stack for stack in self.stacks if stack.allocatedBytes == size * stack.calls]

    def of_size(self, size):
        """The one stack whose blocks have this size."""
        found = self.all_of_size(size)
        need(len(found) == 1, f"{len(found)} stacks of size {size}")
        return found[0]


def records(path):
    """The records of a log, also while it is written: type, and arguments with "id"; for a comment its text."""
    text = read(path)
    if not text.endswith("</log>"):
        text = (text[:text.rfind("</msg>") + 6] if "</msg>" in text else "<log>") + "</log>"
    builder = ElementTree.TreeBuilder(insert_comments=True)
    for record in ElementTree.fromstring(text, ElementTree.XMLParser(target=builder)):
        if record.tag is ElementTree.Comment:
            yield "comment", record.text.strip()
        else:
            yield record.findtext("type"), {"id": record.get("id"), **{each.get("name"): each.text for each in record.findall("arg")}}


def answers(log):
    """Command and answer of each command that a log tells of."""
    return [(values["command"], values["answer"]) for kind, values in records(log) if kind == "COMMAND"]


def main(name, work):
    """Does the work of a long run in an empty directory, which is kept when it fails."""
    directory = tempfile.mkdtemp(prefix=f"vesk-{name}-")
    os.chdir(directory)
    try:
        work()
    except Fault as fault:
        print(f"{name}: FAILED: {fault} (all files: {directory})", flush=True)
        sys.exit(1)
    os.chdir("/")
    shutil.rmtree(directory)
