#!/usr/bin/env python3
"""The operator's guide has every reason code that a source defines, and quotes what the programs say."""

import errno
import pathlib
import re
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
# `name = 0x1311` and the return codes of the service, `name = 0x80001601`; a component's own number ends in 00
DEFINITION = re.compile(r"\b\w+ = 0x(?:8000)?(1[3-7][0-9A-F]{2})\b")
GUIDE = ROOT / "docs" / "operators-guide.md"
ERROR_ROW = re.compile(r"^\| (\w{8}) \| (E\w+) \|", re.MULTILINE)
ROW = re.compile(r"^\| 0x(1[3-7][0-9A-F]{2}) \|", re.MULTILINE)


def defined():
    """Reason codes by where they are defined."""
    codes = {}
    for folder in ("include", "src", "base", "platform/host", "tools"):
        for path in sorted((ROOT / folder).rglob("*")):
            if path.suffix in (".h", ".cpp"):
                for code in DEFINITION.findall(path.read_text(encoding="utf-8")):
                    codes.setdefault(code, path.relative_to(ROOT))
    return {code: path for code, path in codes.items() if not code.endswith("00")}


class Reasons(unittest.TestCase):
    def test_of_the_sources_are_those_of_the_operators_guide(self):
        rows = ROW.findall(GUIDE.read_text(encoding="utf-8"))
        codes = defined()
        self.assertEqual({}, {code: path for code, path in codes.items() if code not in rows})
        self.assertEqual([], [code for code in rows if code not in codes])
        self.assertGreater(len(rows), 70)

    def test_symptoms_are_quoted_from_what_kestctl_says(self):
        text = GUIDE.read_text(encoding="utf-8")
        table = text[text.index("## By symptom"):text.index("## How to read an entry")]
        quoted = re.findall(r'"([^"]+)"', "\n".join(line.split("|")[1] for line in table.splitlines() if "|" in line))
        said = "".join(path.read_text(encoding="utf-8") for path in (ROOT / "tools").rglob("*.cpp"))
        self.assertEqual([], [words for words in quoted if words not in said])
        self.assertGreater(len(quoted), 7)

    def test_error_numbers_of_the_operators_guide_are_those_of_this_system(self):
        rows = ERROR_ROW.findall(GUIDE.read_text(encoding="utf-8"))
        self.assertEqual([(f"{getattr(errno, name):08X}", name) for _, name in rows], rows)
        self.assertEqual(14, len(rows))


if __name__ == "__main__":
    unittest.main()
