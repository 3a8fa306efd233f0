#!/usr/bin/env python3
"""tests/man/options_test.py KESTCTL KESTD: the man pages list the areas, verbs, arguments, options and their words that the
programs have, and no others."""

import os
import re
import subprocess
import sys
import tempfile
import unittest

import pages

PROGRAMS = {}
OPTION = re.compile(r"^  (-[^ ]+)(?: ([A-Z]+))?(?: Needs: .*)?(?:  .*)?$")


class Help:
    """What a command's --help says."""

    def __init__(self, program, words):
        self.command = " ".join([program] + words)
        text = subprocess.run([PROGRAMS[program]] + words + ["--help"], capture_output=True, text=True, check=True).stdout
        self.options = {}
        self.verbs = []
        self.arguments = []
        section = ""
        for line in text.splitlines():
            if line.startswith("Usage: "):
                self.arguments = [word for word in line[len("Usage: "):].split()[1 + len(words):]
                                  if word not in ("[OPTIONS]", "SUBCOMMAND")]
            elif line and not line.startswith(" "):
                section = line
            elif section == "Options:" and OPTION.match(line):
                names, value = OPTION.match(line).groups()
                self.options[tuple(names.split(","))] = value or ""
            elif section == "Subcommands:" and re.match("  [a-z]", line):
                self.verbs.append(line.split()[0])
        self.options.pop(("-h", "--help"), None) # in kestctl(1)


def commands(program, words):
    """The command, or all verbs below it that have none of their own."""
    found = Help(program, words)
    if not found.verbs:
        return [found]
    return [each for verb in found.verbs for each in commands(program, words + [verb])]


class Pages(unittest.TestCase):
    maxDiff = None

    def areas(self):
        return Help("kestctl", []).verbs

    def test_each_area_has_a_page_and_each_page_an_area(self):
        written = {path.name.split(".")[0].removeprefix("kestctl-") for path in pages.FOLDER.glob("kestctl-*.1.scd")}
        self.assertEqual(set(self.areas()), written)

    def test_kestctl_1_lists_the_areas_in_the_order_of_the_help(self):
        listed = [names[0] for names, _ in pages.entries(pages.sections("kestctl.1")["AREAS"])]
        self.assertEqual(self.areas(), listed)

    def test_synopses_have_the_verbs_and_arguments_of_the_help(self):
        for area in self.areas():
            with self.subTest(area=area):
                self.assertEqual({each.command: each.arguments for each in commands("kestctl", [area])},
                                 pages.synopsis(pages.sections(f"kestctl-{area}.1")["SYNOPSIS"]))

    def test_each_verb_lists_its_options(self):
        for area in self.areas():
            verbs = commands("kestctl", [area])
            if verbs[0].command == f"kestctl {area}":
                continue # no verbs
            with self.subTest(area=area):
                listed = pages.verb_options(pages.sections(f"kestctl-{area}.1")["VERBS"])
                self.assertEqual({each.command.removeprefix(f"kestctl {area} "): sorted(names[-1] for names in each.options)
                                  for each in verbs},
                                 {verb: sorted(names) for verb, names in listed.items()})

    def test_areas_describe_the_options_of_their_verbs(self):
        for area in self.areas():
            with self.subTest(area=area):
                known = {names: value for each in commands("kestctl", [area]) for names, value in each.options.items()}
                described = pages.entries(pages.sections(f"kestctl-{area}.1")["OPTIONS"], "-")
                self.assertEqual(known, dict(described))
                self.assertEqual(len(known), len(described), "an option is described twice")
                names = [names[-1] for names, _ in described]
                self.assertEqual(sorted(names), names, "options stand in the order of the alphabet")

    def test_programs_describe_their_own_options(self):
        for program, page in (("kestctl", "kestctl.1"), ("kestd", "kestd.8")):
            with self.subTest(page=page):
                known = Help(program, []).options | {("-h", "--help"): ""}
                self.assertEqual(known, dict(pages.entries(pages.sections(page)["OPTIONS"], "-")))


class Values(unittest.TestCase):
    """The words that arguments and options take. The program lists them in its help, or when it meets another one."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.machine = folder.name + "/machine"
        self.run_kestctl("sim", "new", self.machine)

    def run_kestctl(self, *words):
        done = subprocess.run([PROGRAMS["kestctl"], *words], capture_output=True, text=True, check=False,
                              env=os.environ | {"KEST_CONFIG": self.machine + "/kest.toml"})
        return done.stdout + done.stderr

    def listed(self, *words):
        """The words at the end of a complaint: "one of a, b, c"."""
        return set(re.search(r"([\w-]+(?:, [\w-]+)+)\n", self.run_kestctl(*words)).group(1).split(", "))

    def test_fault_kinds(self):
        kinds = self.run_kestctl("sim", "fault", "add", "--help").partition("\nKinds")[2].partition("\nIt ")[0]
        rows = re.findall(r"^  ([a-z-]+(?: [a-z]+-[a-z-]+)?) ", kinds, re.M)
        known = {word for row in rows for word in row.split()}
        self.assertIn("hub-hold-scl", known)
        described = [name for names, _ in pages.entries(pages.sections("kestctl-sim.1")["FAULTS"]) for name in names]
        self.assertEqual(sorted(known), sorted(described))

    def test_templates(self):
        text = " ".join(pages.sections("kestctl-sim.1")["OPTIONS"]).partition("*--template*")[2].partition("*--")[0]
        known = self.listed("sim", "new", self.machine + "2", "--template", "none")
        self.assertEqual(known, set(re.findall(r"_([a-z]+)_", text)))

    def test_formats_of_contents(self):
        text = " ".join(pages.sections("kestctl-seeprom.1")["VERBS"]).partition("*show*")[2].partition("*write*")[0]
        known = self.listed("seeprom", "show", "planar-vpd", "--as", "none")
        self.assertEqual(known, set(re.findall(r"_([a-z0-9]+)_", text)))

    def test_operations_and_functions_of_ports(self):
        known = (self.listed("port", "write", "panel-leds", "none", "--pins", "0")
                 | self.listed("port", "config", "panel-leds", "none", "0")
                 | self.listed("port", "config", "card-presence", "none", "0"))
        names = [line for line in pages.sections("kestctl-port.1")["VERBS"]
                 if re.match(r"\t[*][a-z0-9]+[*](?:, [*][a-z0-9]+[*])*$", line)]
        listed = set(re.findall(r"[a-z0-9]+", " ".join(names)))
        self.assertEqual(known, listed)


if __name__ == "__main__":
    PROGRAMS = {"kestctl": os.path.abspath(sys.argv[1]), "kestd": os.path.abspath(sys.argv[2])}
    unittest.main(argv=sys.argv[:1])
