#!/usr/bin/env python3
"""scripts/check-structure finds wrong directions and circles in small trees, and nothing else."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

SCRIPT = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "check-structure"


def check(files):
    """Runs the script on a tree.
    @param files path: the headers that it includes, or its text
    @return its exit code and what it printed
    """
    with tempfile.TemporaryDirectory() as folder:
        for name, includes in files.items():
            path = pathlib.Path(folder, name)
            path.parent.mkdir(parents=True, exist_ok=True)
            if not isinstance(includes, str):
                includes = "#include <vector>\n" + "".join(f'#include "{header}"\n' for header in includes)
            path.write_text(includes, encoding="utf-8")
        done = subprocess.run([sys.executable, str(SCRIPT), folder], capture_output=True, text=True, check=False)
        return done.returncode, done.stdout + done.stderr


class CheckStructure(unittest.TestCase):
    def assert_refused(self, expected, files):
        code, printed = check(files)
        self.assertEqual(1, code, printed)
        self.assertIn(expected, printed)

    def assert_accepted(self, files):
        code, printed = check(files)
        self.assertEqual(0, code, printed)
        self.assertIn(f"{len(files)} files: includes follow the layers, no circles", printed)

    def test_accepts_includes_downwards(self):
        self.assert_accepted({"platform/include/platform/errl.h": [], "include/kest/kest.h": ["platform/errl.h"],
                              "src/kest/unit.h": ["kest/kest.h"], "src/kest/unit.cpp": ["unit.h", "platform/errl.h"],
                              "base/text.h": [], "sim/machine.h": ["base/text.h"],
                              "platform/host/iic/bus_sim.cpp": ["sim/machine.h", "base/text.h", "platform/errl.h"],
                              "tools/kestctl/main.cpp": ["platform/host/iic/bus.h", "kest/kest.h"], "platform/host/iic/bus.h": []})

    def test_refuses_a_wrong_direction_and_names_both_files(self):
        self.assert_refused('sim/machine.cpp includes "platform/host/files.h": its folder may include sim, base',
                            {"sim/machine.cpp": ["platform/host/files.h"], "platform/host/files.h": []})

    def test_refuses_internals_of_the_library(self):
        self.assert_refused('tools/kestctl/main.cpp includes "src/kest/unit.h"',
                            {"tools/kestctl/main.cpp": ["src/kest/unit.h"], "src/kest/unit.h": []})

    def test_refuses_a_platform_header_that_includes_another(self):
        self.assert_refused("its folder may include nothing of the tree",
                            {"platform/include/platform/netc.h": ["platform/errl.h"], "platform/include/platform/errl.h": []})

    def test_refuses_the_simulated_machine_beside_the_bus_interface(self):
        self.assert_refused('platform/host/vpd/copies.cpp includes "sim/machine.h"',
                            {"platform/host/vpd/copies.cpp": ["sim/machine.h"], "sim/machine.h": []})

    def test_refuses_a_path_upwards_out_of_the_folder(self):
        self.assert_refused('base/text.h includes "sim/machine.h"', {"base/text.h": ["../sim/machine.h"], "sim/machine.h": []})

    def test_refuses_a_header_that_does_not_exist(self):
        self.assert_refused('base/text.h includes "base/gone.h": there is no such file', {"base/text.h": ["base/gone.h"]})

    def test_finds_a_circle_and_names_the_includes_in_it(self):
        files = {"sim/bus.h": [], "sim/bus.cpp": ["sim/bus.h", "sim/chip.h"], "sim/chip.h": ["sim/fault.h"], "sim/fault.h": [],
                 "sim/fault.cpp": ["sim/fault.h", "sim/bus.h"]}
        self.assert_refused("a circle of 3 units: sim/bus, sim/chip, sim/fault", files)
        self.assert_refused('    sim/fault.cpp includes "sim/bus.h"', files)

    def test_reports_two_circles(self):
        self.assert_refused("a circle of 2 units: sim/c, sim/d\n",
                            {"sim/a.h": ["sim/b.h"], "sim/b.h": ["sim/a.h", "sim/c.h"], "sim/c.h": ["sim/d.h"], "sim/d.h": ["sim/c.h"]})

    def test_takes_a_header_and_its_source_for_one_unit(self):
        self.assert_accepted({"sim/bus.h": [], "sim/bus.cpp": ["sim/bus.h"], "sim/chip.h": ["sim/bus.h"]})

    def test_ignores_includes_in_comments(self):
        self.assert_accepted({"base/text.h": ['base/text.h"\n// #include "sim/machine.h'], "sim/machine.h": []})

    def test_reads_angle_brackets_too(self):
        code, printed = check({"base/text.h": ['base/text.h"\n#include <sim/machine.h>\n#include "base/text.h'], "sim/machine.h": []})
        self.assertEqual(1, code, printed)
        self.assertIn('base/text.h includes "sim/machine.h"', printed)

    def header(self, lines):
        body = "{\n" + "    call();\n" * lines + "}\n"
        member = "    " + body.replace("\n", "\n    ").rstrip() + "\n"
        fields = "    int field;\n" * 20
        return (f"namespace kest::test\n{{\n\ninline void free()\n{body}\nclass Fixture\n{{\n    void member()\n{member}"
                f"{fields}}};\n\n}} // namespace kest::test\n")

    def test_refuses_long_functions_in_headers_of_tests(self):
        files = {"base/text.h": [], "tests/host/support.h": self.header(11)}
        self.assert_refused("tests/host/support.h:5: a function of 11 lines belongs into a source", files)
        self.assert_refused("tests/host/support.h:22: a function of 11 lines belongs into a source", files)

    def test_accepts_short_functions_in_headers_and_long_ones_in_sources(self):
        code, printed = check({"base/text.h": [], "tests/host/support.h": self.header(10), "tests/host/support.cpp": self.header(11)})
        self.assertEqual(0, code, printed)

    def test_refuses_a_folder_without_sources(self):
        self.assert_refused("no sources", {})


if __name__ == "__main__":
    unittest.main()
