#!/usr/bin/env python3
"""The guides say what is so: each sample in C is part of an example, each console session goes as it is printed.

usage: guides_test.py BUILD-DIRECTORY DOCUMENT...
"""
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import textwrap

ROOT = pathlib.Path(__file__).resolve().parents[2]


def blocks(document, language):
    return re.findall(rf"^```{language}\n(.*?)^```$", document, re.MULTILINE | re.DOTALL)


def contains(example, sample):
    """Whether the sample is a run of whole lines of the example, at whatever indentation."""
    lines, wanted = example.splitlines(), textwrap.dedent(sample).splitlines()
    return any(
        textwrap.dedent("\n".join(lines[start : start + len(wanted)])).splitlines() == wanted
        for start in range(len(lines) - len(wanted) + 1)
    )


def comparable(output):
    """Without what differs from run to run: times and thread ids."""
    output = re.sub(r"\w{3} \w{3} [ \d]\d \d\d:\d\d:\d\d \d{4}|[\d-]{10} \d\d:\d\d:\d\d", "TIME", output)
    return re.sub(r"\[\d+ *\]", "[THREAD]", output).strip()


def runs_as_printed(session, environment):
    for command, expected in re.findall(r"^\$ (.*)\n((?:(?!\$ ).*\n)*)", session, re.MULTILINE):
        output = subprocess.run(
            ["bash", "-c", command], env=environment, stdout=subprocess.PIPE, text=True, check=False
        ).stdout
        if comparable(output) != comparable(expected):
            print(f"$ {command}\n--- printed in the guide:\n{expected}--- printed now:\n{output}")
            return False
    return True


def main():
    build = pathlib.Path(sys.argv[1]).resolve()
    documents = {path: pathlib.Path(path).resolve().read_text() for path in sys.argv[2:]}
    examples = [path.read_text() for path in ROOT.glob("examples/**/*.c")]
    environment = dict(os.environ, PATH=f"{build}:{os.environ['PATH']}")
    faults = samples = sessions = 0
    for name, document in documents.items():
        for sample in blocks(document, "c"):
            samples += 1
            if not any(contains(example, sample) for example in examples):
                faults += 1
                print(f"{name}: not part of an example:\n{sample}")
        with tempfile.TemporaryDirectory() as directory:
            os.chdir(directory)
            for library in build.glob("*_collector.so"):
                os.symlink(library, library.name)
            for session in blocks(document, "console"):
                sessions += 1
                if not runs_as_printed(session, environment):
                    faults += 1
                    print(f"{name}: this session goes differently")
            os.chdir("/")
    if samples == 0 or sessions == 0:
        print("no samples or no sessions were found")
        faults += 1
    return 1 if faults else 0


sys.exit(main())
