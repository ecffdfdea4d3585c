#!/usr/bin/env python3
"""The guides say what is so: each sample in C is part of an example, each console session goes as it is printed."""
import os
import pathlib
import re
import textwrap
import unittest

import common

ROOT = pathlib.Path(__file__).resolve().parents[2]
DOCUMENTS = [*ROOT.glob("docs/guide-*.md"), ROOT / "README.md"]


def blocks(document, language):
    return re.findall(rf"^```{language}\n(.*?)^```$", document.read_text(), re.MULTILINE | re.DOTALL)


def contains(example, sample):
    """Whether the sample is a run of whole lines of the example, at whatever indentation."""
    lines, wanted = example.splitlines(), textwrap.dedent(sample).splitlines()
    return any(textwrap.dedent("\n".join(lines[start:start + len(wanted)])).splitlines() == wanted
               for start in range(len(lines) - len(wanted) + 1))


def comparable(output):
    """Without what differs from run to run: times and thread ids."""
    output = re.sub(r"\w{3} \w{3} [ \d]\d \d\d:\d\d:\d\d \d{4}|[\d-]{10} \d\d:\d\d:\d\d", "TIME", output)
    return re.sub(r"\[\d+ *\]", "[THREAD]", output).strip()


class Guides(common.TestCase):
    def test_samples_are_parts_of_examples(self):
        examples = [path.read_text() for path in ROOT.glob("examples/**/*.c")]
        samples = [(document, sample) for document in DOCUMENTS for sample in blocks(document, "c")]
        self.assertTrue(samples)
        for document, sample in samples:
            self.assertTrue(any(contains(example, sample) for example in examples), f"{document}: {sample}")

    def test_sessions_go_as_they_are_printed(self):
        environment = dict(os.environ, PATH=f"{common.build}:{os.environ['PATH']}")
        sessions = 0
        for document in DOCUMENTS:
            os.mkdir(document.name)
            os.chdir(document.name)
            for library in pathlib.Path(common.build).glob("*_collector.so"):
                os.symlink(library, library.name)
            for session in blocks(document, "console"):
                sessions += 1
                for command, expected in re.findall(r"^\$ (.*)\n((?:(?!\$ ).*\n)*)", session, re.MULTILINE):
                    output = common.run(["bash", "-c", command], env=environment).output
                    self.assertEqual(comparable(output), comparable(expected), f"{document}: $ {command}")
            os.chdir("..")
        self.assertGreater(sessions, 0)


unittest.main()
