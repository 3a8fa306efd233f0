#!/usr/bin/env python3
"""The drawings of docs/architecture.md are those of scripts/draw-architecture, and name what there is."""

import pathlib
import re
import subprocess
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
DRAWINGS = ROOT / "docs" / "drawings"


def words_of(name):
    """The texts of a drawing, one a line."""
    drawing = (DRAWINGS / name).read_text(encoding="utf-8")
    return "\n".join(re.findall(r"<text[^>]*>([^<]*)</text>", drawing))


class Drawings(unittest.TestCase):
    def test_are_those_of_their_script(self):
        done = subprocess.run([sys.executable, str(ROOT / "scripts/draw-architecture"), "--check"], capture_output=True,
                              text=True, check=False)
        self.assertEqual((0, ""), (done.returncode, done.stderr))

    def test_name_folders_that_there_are(self):
        folders = re.findall(r"\b(?:tools|include|src|platform|tests|sim|base|contents)/[\w/]*", words_of("layers.svg"))
        self.assertEqual(10, len(folders))
        self.assertEqual([], [folder for folder in folders if not (ROOT / folder).is_dir()])

    def test_name_functions_that_there_are(self):
        names = set(re.findall(r"\b\w+(?=\()|\b(?:kest_|KEST_|mern_)\w+", words_of("failing-read.svg")))
        names |= {"readInMode", "moveData", "reportFailure", "describeSilence", "entryFailure", "storeEntry"}
        sources = "".join(path.read_text(encoding="utf-8") for folder in ("src", "platform", "tools")
                          for path in (ROOT / folder).rglob("*.cpp"))
        missing = {name for name in names if not re.search(rf"\b{name}\(", sources)}
        self.assertEqual({"_unlock"}, missing)
        self.assertGreater(len(names), 15)

    def test_show_the_numbers_of_the_entry_that_the_page_shows(self):
        page = (ROOT / "docs/architecture.md").read_text(encoding="utf-8")
        entry = page[page.index("$ kestctl errors show last"):]
        for module, site in re.findall(r"addSwErr\((\d+), (\d+)\)", words_of("failing-read.svg")):
            self.assertRegex(entry, rf"module {module} .*, site {site}\n")
        for number in re.findall(r"0x[0-9A-F]{4,8}", words_of("failing-read.svg").split("[log")[0]):
            self.assertIn(number, entry)


if __name__ == "__main__":
    unittest.main()
