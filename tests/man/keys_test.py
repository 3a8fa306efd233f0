#!/usr/bin/env python3
"""tests/man/keys_test.py KESTCTL: kest.toml(5) and kest-machine(5) have the keys that the programs know, and no others; the
limits of numbers in kest.toml(5) are those of the program. The programs list the keys of a table when they meet one that
is unknown."""

import os
import pathlib
import re
import subprocess
import sys
import tempfile
import tomllib
import unittest

import pages

KESTCTL = ""
FREE = {"registry"} # a table whose keys anyone may choose
ENTRY = re.compile(r"^[*][^*]+[*](?: = _[^_]+_)?(?:, [*][^*]+[*](?: = _[^_]+_)?)*$")
ROW = '[[device]]\nnumber = 1\nlocation = "sim:planar,L,75,90"\n'
RANGE = re.compile(r"\b([0-9]+) to ([0-9]+)\b")


def run(*words):
    return subprocess.run([KESTCTL, *words], capture_output=True, text=True, check=False)


def keys_of(page, headings):
    """The keys that a page describes.
    @return key: (kind of its value, the text below it)
    """
    found = {}
    for heading in headings:
        keys = []
        for line in pages.sections(page)[heading]:
            if ENTRY.match(line):
                keys = re.findall(r"[*]([^*]+)[*](?: = _([^_]+)_)?", line)
                for key, kind in keys:
                    if key in found:
                        raise AssertionError(f"{page} describes {key} twice")
                    found[key] = (kind, "")
            elif line.startswith("\t"):
                for key, _ in keys:
                    found[key] = (found[key][0], f"{found[key][1]} {line.strip()}".strip())
    return found


def flattened(table, prefix=""):
    """The keys of a table and of those in it: "device.expect.offset". A list stands for its members."""
    found = set()
    for key, value in table.items():
        inner = [member for member in (value if isinstance(value, list) else [value]) if isinstance(member, dict)]
        for member in inner:
            found |= flattened(member, f"{prefix}{key}.")
        if not inner or prefix:
            found.add(prefix + key)
    return found


class Keys(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def complaint(self, name, text, *words):
        (self.folder / name).write_text(text, encoding="utf-8")
        done = run("--config", str(self.folder / "kest.toml"), *words)
        return done.stderr if done.returncode != 0 else ""

    def known(self, complaint):
        listed = re.search(r"expected one of (?:the keys )?([^;]*?)(?:, found an unknown key|;|$)", complaint.strip())
        self.assertIsNotNone(listed, complaint)
        return listed.group(1).split(", ")

    def configuration_keys(self, table):
        """The keys that the program knows in a table, those of inner tables included."""
        unusual = {"": '"no key" = 1\n', "device": f'{ROW}"no key" = 1\n',
                   "device.expect": f'{ROW}expect = {{ offset = 0, bytes = "00", "no key" = 1 }}\n'}
        text = unusual.get(table, f'[{table}]\n"no key" = 1\n')
        return self.known(self.complaint("kest.toml", text, "devices"))

    def known_configuration_keys(self):
        known = set()
        for table in self.configuration_keys(""):
            if table == "state":
                known.add(table)
            elif table not in FREE:
                known |= {f"{table}.{key}" for key in self.configuration_keys(table)}
        return known | {f"device.expect.{key}" for key in self.configuration_keys("device.expect")}

    def test_kest_toml_5_has_the_keys_that_the_program_knows(self):
        known = self.known_configuration_keys()
        described = {key for key in keys_of("kest.toml.5", ["KEYS"]) if key.partition(".")[0] not in FREE}
        self.assertEqual(known, described)

    def test_the_whole_example_of_the_guide_has_the_keys_that_the_program_knows(self):
        guide = (pages.FOLDER.parent / "configuration.md").read_text(encoding="utf-8")
        example = tomllib.loads(guide.partition("```toml\n")[2].partition("\n```")[0])
        shown = {re.sub(r"^nodes[.].*", "nodes", key) for key in flattened(example) if key.partition(".")[0] not in FREE}
        self.assertEqual({re.sub(r"^nodes[.].*", "nodes", key) for key in self.known_configuration_keys()}, shown)

    def test_numbers_of_kest_toml_5_have_the_limits_of_the_program(self):
        checked = 0
        for key, (kind, text) in keys_of("kest.toml.5", ["KEYS"]).items():
            table, _, name = key.rpartition(".")
            if kind not in ("number", "bytes", "seconds") or table == "device.expect":
                continue
            limits = RANGE.search(text)
            self.assertIsNotNone(limits, f"{key} has no limits")
            least, most = (int(number) for number in limits.groups())
            others = {"device.number": 'location = "sim:planar,L,75,90"\n',
                      "device.position": 'number = 1\nlocation = "sim:planar,L,75,90"\n'}.get(key, "")
            opening = f"[[{table}]]\n" if table == "device" else f"[{table}]\n"
            for value, good in ((least, True), (most, True), (least - 1, False), (most + 1, False)):
                with self.subTest(key=key, value=value):
                    wrong = self.complaint("kest.toml", f"{opening}{others}{name} = {value}\n", "devices")
                    self.assertEqual(good, wrong == "", wrong)
                    checked += 1
        self.assertGreater(checked, 40)

    def machine_keys(self, start, table):
        """The keys that the simulated machine knows in a table which begins in this way."""
        (self.folder / "kest.toml").write_text('state = "state"\n[machine]\nfolder = "."\n', encoding="utf-8")
        adapter = table == "bus.adapter"
        text = start + ('adapter = { "no key" = 1 }\n' if adapter else '"no key" = 1\n')
        return {f"{table}.{key}" for key in self.known(self.complaint("machine.toml", text, "sim", "show"))}

    def test_kest_machine_5_has_the_keys_that_the_simulated_machine_knows(self):
        bus = '[[bus]]\nname = "planar"\n'
        known = {key.removeprefix(".") for key in self.machine_keys("", "")} - {"bus", "chip", "fault"}
        known |= self.machine_keys(bus, "bus") | self.machine_keys(bus, "bus.adapter")
        known |= self.machine_keys(bus + '[[fault]]\nkind = "nack"\n', "fault")
        types = re.findall(r"_([A-Z0-9]+)_", keys_of("kest-machine.5", ["KEYS"])["chip.type"][1])
        self.assertEqual(16, len(types))
        for chip in types:
            image = 'image = "a.bin"\n' if chip.startswith("24") else ""
            table = f'[[chip]]\nbus = "planar"\ntype = "{chip}"\naddress = 0x80\n'
            known |= self.machine_keys(bus + table + image, "chip")
        self.assertEqual(known, set(keys_of("kest-machine.5", ["KEYS"])))

    def test_kest_machine_5_has_the_keys_of_scenarios(self):
        self.machine_keys("", "") # writes kest.toml
        (self.folder / "machine.toml").write_text('[[bus]]\nname = "planar"\n', encoding="utf-8")
        described = keys_of("kest-machine.5", ["SCENARIOS"])
        actions = re.findall(r"_([a-z-]+)_:", described["event.do"][1])
        self.assertEqual(5, len(actions))
        known = set()
        for action in actions:
            scenario = self.folder / "scenario.toml"
            text = f'[[event]]\nat_ms = 1\ndo = "{action}"\n"no key" = 1\n'
            wrong = self.complaint(scenario.name, text, "sim", "play", str(scenario))
            known |= {f"event.{key}" for key in self.known(wrong)}
        self.assertEqual(known, set(described))


if __name__ == "__main__":
    KESTCTL = os.path.abspath(sys.argv[1])
    unittest.main(argv=sys.argv[:1])
