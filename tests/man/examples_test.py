#!/usr/bin/env python3
"""tests/man/examples_test.py BIN: the commands in the man pages of kest(7) and kestctl(1) work, each page in a session of
its own on a new demo machine. Left out are those that need a bus of the kernel."""

import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

import pages

COMMANDS = pages.FOLDER.parents[1] / "tests" / "docs" / "commands.py" # runs the commands of Markdown
BIN = ""
DEMO = ["kestctl sim new demo >/dev/null", "export KEST_CONFIG=$PWD/demo/kest.toml"]
# what the reader of a page has already
PREPARED = {
    "kestctl-errors.1": ["kestctl detect sim:planar,L,2C0256,AE 2>/dev/null || true"],
    "kestctl-message.1": ["kestd >kestd.log & service=$!; while [ ! -s kestd.log ]; do :; done"],
    "kestctl-seeprom.1": ["kestctl seeprom read panel-vpd -o new.bin >/dev/null"],
}
AFTER = {"kestctl-message.1": ["kill $service; wait $service"]}
NEEDS_BOARD = re.compile(r"i2c-[0-9]|kestctl buses|[$]PWD/kest.toml")


def examples(page):
    """The commands below EXAMPLES: whole blocks, or the lines behind "$ " of blocks that show output, too."""
    blocks = "\n".join(pages.sections(page).get("EXAMPLES", [])).split("```\n")[1::2]
    for block in blocks:
        lines = block.splitlines()
        shows = lines[0].startswith("$ ")
        yield from [line.removeprefix("$ ") for line in lines if line.startswith("$ ") or not shows]


def session(page):
    """The commands of a page as Markdown. @return text, number of commands"""
    chosen = [command for command in examples(page) if not NEEDS_BOARD.search(command)]
    makes_machine = any("sim new" in command for command in chosen)
    before = ([] if makes_machine else DEMO) + PREPARED.get(page, [])
    lines = [f"<!-- before: {command} -->" for command in before] + ["```sh"] + chosen + AFTER.get(page, []) + ["```"]
    return "\n".join(lines) + "\n", len(chosen)


class Examples(unittest.TestCase):
    def test_commands_of_the_pages_work(self):
        ran = 0
        with tempfile.TemporaryDirectory() as folder:
            files = []
            for path in sorted(pages.FOLDER.glob("kest*.[17].scd")):
                text, count = session(path.name.removesuffix(".scd"))
                if count > 0:
                    files.append(pathlib.Path(folder, path.name))
                    files[-1].write_text(text, encoding="utf-8")
                    ran += count
            done = subprocess.run([sys.executable, COMMANDS, "run", "--bin", BIN, *files], capture_output=True, text=True,
                                  check=False)
        self.assertEqual(0, done.returncode, done.stderr + done.stdout)
        self.assertGreater(ran, 40)


if __name__ == "__main__":
    BIN = sys.argv[1]
    unittest.main(argv=sys.argv[:1])
