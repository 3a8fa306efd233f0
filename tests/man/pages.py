"""What the sources of the man pages say: headings, options, values."""

import pathlib
import re

FOLDER = pathlib.Path(__file__).resolve().parents[2] / "docs" / "man"

# "*-o*, *--output* _FILE_" above its indented text
ENTRY = re.compile(r"^(?=[*])(?:[*]([^*]+)[*](?:, (?=[*]))?)+(?: _(.*)_)?$")
NAME = re.compile(r"[*]([^*]+)[*]")


def sections(page):
    """@return heading: lines of it, with the tabs of indented text"""
    found = {}
    lines = []
    for line in (FOLDER / f"{page}.scd").read_text(encoding="utf-8").splitlines():
        if line.startswith("# "):
            lines = found[line[2:]] = []
        else:
            lines.append(line)
    return found


def entries(lines, prefix=""):
    """The entries of a list, those whose names begin with the prefix.
    @return a list of (names, value's name or "")
    """
    found = []
    for line in lines:
        entry = ENTRY.match(line)
        if entry:
            names = tuple(NAME.findall(line.partition(" _")[0]))
            if names[0].startswith(prefix):
                found.append((names, entry.group(2) or ""))
    return found


def verb_options(lines):
    """The section VERBS: the options that the text of each verb lists.
    @return verb: list of long names
    """
    found = {}
    verb = None
    listing = False
    for line in lines:
        if ENTRY.match(line):
            verb = NAME.match(line).group(1)
            found[verb] = []
        listing = line.startswith("\tOptions: ") or (listing and line.strip() != "")
        if listing:
            found[verb] += NAME.findall(line)
    return found


def synopsis(lines):
    """The section SYNOPSIS: what stands behind the name of each command.
    @return "kestctl port read": ["DEVICE"]
    """
    found = {}
    for line in lines:
        command = re.match(r"[*]([^*]+)[*](.*?)(?:[+][+])?$", line)
        if command:
            words = command.group(2).replace("[_options_]", "").replace("_", "").split()
            found[command.group(1)] = words
    return found
