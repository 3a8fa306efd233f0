"""What documents say to somebody with a booted system: tests/docs/commands.py runs it."""

import pathlib

from system import run

COMMANDS = "/commands/commands.py"
DOCUMENTS = pathlib.Path("/docs")
PACKAGES = "/packages"


def check_commands(report, what, *words):
    done = run(COMMANDS, "run", *words)
    report.check(what, done.returncode == 0, done.stdout + done.stderr)


def check_system(report):
    """Commands of documents that need a booted system."""
    others = sorted(str(path) for path in DOCUMENTS.glob("*.md") if path.name != "tutorial.md")
    check_commands(report, "they do what the documents say", "--kind", "system", *others)


def check_tutorial(report):
    """The tutorial, from the installation of the packages on."""
    tutorial = str(DOCUMENTS / "tutorial.md")
    check_commands(report, "it does what it says", "--with", "system", "--files", PACKAGES, tutorial)
