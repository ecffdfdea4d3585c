#!/usr/bin/env python3
"""The annotations collector in the annotated example."""
import re
import unittest
import xml.etree.ElementTree as ElementTree

import common
from common import build, run, veskrun

SHAPES = "libannotated_shapes.so"


def addresses_of(file, symbol):
    """Where the instructions of a function begin."""
    listing = run(f"objdump -d --disassemble={symbol} {build}/{file}").output
    return [int(address, 16) for address in re.findall("^ *([0-9a-f]+):", listing, re.M)]


class Annotations(common.TestCase):
    def test_of_the_example_stand_where_its_code_is(self):
        common.write("definitions", f'outside "{build}//annotated" 40 0x11\n')
        done = run(f"{veskrun} -collector annotations -out r.xml -log l.log -definitions definitions -- {build}/annotated")
        self.assertEqual((done.status, done.output), (0, "55 100\n"))
        self.assertIn("triangle+0x0", done.errors)
        found = {}
        for module in ElementTree.parse("r.xml").iterfind("module"):
            for each in module.iterfind("annotation"):
                offset = int(each.get("offset"), 16)
                self.assertEqual(int(each.get("address"), 16), int(module.get("base"), 16) + offset)
                file = module.findtext("path").rpartition("/")[2]
                found[f"{file}:{each.findtext('name')}"] = offset, each.findtext("location"), each.get("probe")
        self.assertEqual(len(found), 6, found)
        self.assertEqual(found[SHAPES + ":triangle_begin"][:2], (addresses_of(SHAPES, "triangle")[0], "rdi"))
        self.assertIn(found[SHAPES + ":triangle_end"][0], addresses_of(SHAPES, "triangle"))
        self.assertIn(found[SHAPES + ":square_begin"][0], addresses_of(SHAPES, "square"))
        self.assertEqual(found[SHAPES + ":square_begin"][1], "rsp-8")
        self.assertEqual(int(found[SHAPES + ":square_begin"][2], 16), 0x5157)
        self.assertIn(found["annotated:begin"][0], addresses_of("annotated", "main"))
        self.assertEqual(found["annotated:end"][1], "constant 2")
        self.assertEqual(found["annotated:outside"][:2], (0x40, "constant 17"))

    def test_wrong_options_are_told_before_the_program_starts(self):
        for options in "-nonsense", "-definitions", "-definitions missing":
            done = run(f"{veskrun} -collector annotations {options} -- echo ran")
            self.assertEqual((done.status, done.output), (2, ""), options)
            self.assertIn("veskannotations: ", done.errors)


unittest.main()
