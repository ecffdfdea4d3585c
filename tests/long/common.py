"""What the long runs share."""
import os
import shutil
import struct
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ElementTree

build = os.path.abspath(os.environ.get("VESK_BUILD", "build/release"))
veskrun = os.path.join(build, "veskrun")
lock_file_name = "zvrcmds.dat"


class Fault(Exception):
    """Something that must not be."""


def need(condition, text):
    if not condition:
        raise Fault(text)


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
        with open(path, encoding="ascii") as file:
            return [int(line.split()[number]) & 0xFFFFFFFF for line in file.readlines()[1:]]
    segment, key = objects
    return segment in column("/proc/sysvipc/shm", 1) or key in column("/proc/sysvipc/sem", 0)


def remove_channel(directory):
    """What a killed process leaves of its command channel, the System V objects included."""
    objects = channel_objects(directory)
    if objects is None:
        return
    segment, key = objects
    for option in (["-m", str(segment)], ["-S", hex(key)]):
        subprocess.run(["ipcrm", *option], stderr=subprocess.DEVNULL, check=False)
    os.unlink(os.path.join(directory, lock_file_name))


def read_result(path):
    """A result file's root, once its sums have been checked."""
    root = ElementTree.parse(path).getroot()
    totals = root.find("totals")
    stacks = root.findall("stacks/stack")
    for name in ("calls", "allocatedBytes", "liveBlocks", "liveBytes", "peakBytes", "temporary"):
        total = int(totals.findtext(name))
        over_stacks = sum(int(stack.get(name)) for stack in stacks)
        need(total == over_stacks, f"{path}: {name} is {total}, and {over_stacks} over the stacks")
    functions = sum(int(each.get("calls")) for each in totals.findall("function"))
    need(functions == int(totals.findtext("calls")), f"{path}: {functions} calls over the functions")
    for live, gained, lost in (("liveBytes", "allocatedBytes", "releasedBytes"), ("liveBlocks", "calls", "releases")):
        difference = int(totals.findtext(gained)) - int(totals.findtext(lost))
        need(int(totals.findtext(live)) == difference, f"{path}: {live} is not {gained} less {lost}")
    return root


def main(name, run):
    """Runs `run` in an empty directory, which is kept when it fails."""
    directory = tempfile.mkdtemp(prefix=f"vesk-{name}-")
    os.chdir(directory)
    try:
        run()
    except Fault as fault:
        print(f"{name}: FAILED: {fault} (all files: {directory})", flush=True)
        sys.exit(1)
    os.chdir("/")
    shutil.rmtree(directory)
