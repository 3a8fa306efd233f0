#!/usr/bin/env python3
"""tests/man/examples_test.py BIN: the commands in the man pages of kest(7) and kestctl(1) work, each page in a session of
its own on a new demo machine. Left out are those that need a bus of the kernel."""

import os
import re
import sys
import unittest

import pages

sys.path.insert(0, str(pages.FOLDER.parents[1] / "tests" / "docs"))
import commands # pylint: disable=wrong-import-position

BIN = ""
DEMO = ["kestctl sim new demo >/dev/null", "export KEST_CONFIG=$PWD/demo/kest.toml"]
# what the reader of a page has already
PREPARED = {
    "kestctl-errors.1": ["kestctl detect sim:planar,L,2C0256,AE 2>/dev/null || true"],
    "kestctl-message.1": ["kestd >kestd.log & service=$!; while [ ! -s kestd.log ]; do :; done"],
    "kestctl-seeprom.1": ["kestctl seeprom read panel-vpd -o new.bin >/dev/null"],
}
AFTER = {"kestctl-message.1": ["kill $service; wait $service"]}
NEEDS_BOARD = re.compile(r"i2c-[0-9]|[$]PWD/kest.toml")


def examples(page):
    """The commands below EXAMPLES: whole blocks, or the lines behind "$ " of blocks that show output, too."""
    blocks = "\n".join(pages.sections(page).get("EXAMPLES", [])).split("```\n")[1::2]
    for block in blocks:
        lines = block.splitlines()
        shows = lines[0].startswith("$ ")
        yield from [line.removeprefix("$ ") for line in lines if line.startswith("$ ") or not shows]


class Examples(unittest.TestCase):
    def test_commands_of_the_pages_work(self):
        ran = 0
        for path in sorted(pages.FOLDER.glob("kest*.[17].scd")):
            page = path.name.removesuffix(".scd")
            chosen = [command for command in examples(page) if not NEEDS_BOARD.search(command)]
            makes_machine = any("sim new" in command for command in chosen)
            before = ([] if makes_machine else DEMO) + PREPARED.get(page, [])
            shell = commands.Shell(BIN)
            try:
                for command in before + chosen + AFTER.get(page, []):
                    with self.subTest(page=page, command=command):
                        code, output = shell.run(command, None)
                        self.assertEqual(0, code, output)
                        ran += 1
            finally:
                shell.close()
        self.assertGreater(ran, 60)


if __name__ == "__main__":
    BIN = os.path.abspath(sys.argv[1])
    unittest.main(argv=sys.argv[:1])
