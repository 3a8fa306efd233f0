#!/usr/bin/env python3
"""Runs the commands of documents, and compares what they print with what the document shows.

commands.py run FILE...                 runs the blocks without a kind
  --bin DIR                             with the programs of a folder
  --kind KIND                           runs the blocks of one kind in their place
  --with KIND                           runs the blocks of one kind, too
  --files DIR                           in a folder that has the files of another one
  --show                                prints each command and what it printed
commands.py print --kind KIND FILE...   prints the commands of the blocks of one kind, one after another
commands.py list FILE...                prints every block: where it is, and its kind

docs/testing.md says how a document is written for it.
"""
import argparse
import collections
import os
import pathlib
import pty
import re
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import termios
import time

# Blocks that do not run on a simulated machine: why, and where they run instead.
KINDS = {
    "board": "needs parts on a bus of the machine",
    "system": "needs a booted system and its packages: scripts/proof systemd",
    "bare": "needs a bare machine: scripts/bare",
    "packages": "needs the installed packages: scripts/proof packages",
    "container": "needs a container engine; scripts/proof packages runs the recipe's commands",
    "toolchain": "needs a compiler for a board of yours",
    "tree": "builds and tests the tree: .ci/run",
}
LANGUAGES = ("sh", "console")
FENCE = re.compile(r"^```(\S*) ?(.*)$")
BEFORE = re.compile(r"^<!-- before: (.*) -->$")
EXIT_CODE = re.compile(r"#.*\bexit code (\d+)$")
QUESTION = re.compile(r"\[y/N\] $")
HOME = "/home/you"
COMMAND_SECONDS = 20
KIND_SECONDS = 300


class Problem(Exception):
    """Something in a document that does not hold."""


class Stuck(Problem):
    """A command that does not end: none behind it can run."""


class Command:
    """One command: its text, its exit code, and the lines that it must print (None: any)."""

    def __init__(self, line, text):
        self.line, self.text, self.shown = line, text, None
        code = EXIT_CODE.search(text)
        self.code = int(code.group(1)) if code else 0


# The commands of one fenced block, or of a comment that prepares for the next one.
Block = collections.namedtuple("Block", "line kind commands")


def is_complete(text):
    """Whether a shell has read a whole command: no continued line, no open quote, no open here-document."""
    check = subprocess.run(["bash", "-n", "-c", text], capture_output=True, text=True, check=False)
    return not text.endswith("\\") and check.returncode == 0 and not check.stderr


def commands_of_script(first, lines):
    """A block of `sh` has commands alone; what they print is not shown."""
    commands, text, begin = [], "", first
    for number, line in enumerate(lines, first):
        if not text:
            begin = number
        text = text + "\n" + line if text else line
        if is_complete(text):
            if text.strip() and not text.lstrip().startswith("#"):
                commands.append(Command(begin, text))
            text = ""
    if text:
        raise Problem(f"line {begin}: the command has no end: {text}")
    return commands


def commands_of_session(first, lines):
    """A block of `console` has `$ COMMAND`, further lines of it after `> `, and what it prints."""
    commands = []
    for number, line in enumerate(lines, first):
        if line.startswith("$ "):
            commands.append(Command(number, line[2:]))
        elif not commands:
            raise Problem(f"line {number}: output before the first command")
        elif line.startswith("> ") and commands[-1].shown is None:
            last = commands[-1]
            commands[-1] = Command(last.line, last.text + "\n" + line[2:])
        else:
            commands[-1].shown = (commands[-1].shown or []) + [line]
    return commands


def block_of(fence_line, language, kind, lines):
    if language not in LANGUAGES:
        if any(line.startswith("$ ") for line in lines):
            raise Problem(f"line {fence_line}: a block with commands is marked `console` or `sh`")
        return None
    if kind and kind not in KINDS:
        raise Problem(f"line {fence_line}: '{kind}' is no kind of block; there are {', '.join(KINDS)}")
    read = commands_of_script if language == "sh" else commands_of_session
    return Block(fence_line, kind, read(fence_line + 1, lines))


def blocks_of(text):
    """All blocks of a document that have commands."""
    blocks, fence, inside = [], None, []
    for number, line in enumerate(text.splitlines(), 1):
        before = BEFORE.match(line)
        found = FENCE.match(line)
        if fence and line == "```":
            block = block_of(*fence, inside)
            blocks += [block] if block else []
            fence = None
        elif fence:
            inside.append(line)
        elif found:
            fence, inside = (number, found.group(1), found.group(2)), []
        elif before:
            blocks.append(Block(number, "", [Command(number, before.group(1))]))
    if fence:
        raise Problem(f"line {fence[0]}: the block has no end")
    return blocks


# What differs from run to run is the same on both sides.
VARYING = [
    (re.compile(r"\d{8}T\d{6}Z"), "DATE-TIME"),
    (re.compile(r"\d{4}-\d\d-\d\d"), "DATE"),
    (re.compile(r"\d\d:\d\d:\d\d(\.\d+)?"), "TIME"),
    (re.compile(r"\b(kestctl|kestd|process) \(?\d+\)?"), r"\1 PROCESS"),
]


def without_varying(line):
    for pattern, name in VARYING:
        line = pattern.sub(name, line)
    return line.rstrip()


def agrees(shown, printed):
    """Whether output is what a document shows: `...` stands for any text, on a line of its own for any lines."""
    pattern = ""
    for line in shown:
        if line.strip() == "...":
            pattern += r"(?:.*\n)*?"
        else:
            pattern += ".*".join(re.escape(part) for part in without_varying(line).split("...")) + "\n"
    return re.fullmatch(pattern, "".join(without_varying(line) + "\n" for line in printed)) is not None


def as_seen(output):
    """What a terminal shows in the end: no escape sequences, of a line that is written again and again its last text."""
    return re.sub(r"(?m)^[^\n]*\r(?!\n)|\r", "", re.sub(r"\x1b\[[0-9;?]*[A-Za-z]|\x1b[78]", "", output))


class Shell:
    """A shell on a terminal of its own, in a folder of its own that is its home."""

    LOOP = 'while IFS= read -r -d "" -u "$0" command; do eval "$command"; printf "\\001%d\\001" $?; done'

    def __init__(self, bin_folder, files):
        self.home = os.path.realpath(tempfile.mkdtemp(prefix="kest-commands-"))
        environment = {"HOME": self.home, "PATH": os.environ["PATH"], "TERM": "dumb", "LC_ALL": "C.UTF-8"}
        if bin_folder:
            environment["PATH"] = bin_folder + ":" + environment["PATH"]
            os.mkdir(self.home + "/build")
            os.symlink(bin_folder, self.home + "/build/bin")
        for name in os.listdir(files) if files else []:
            os.symlink(os.path.join(os.path.abspath(files), name), os.path.join(self.home, name))
        self.terminal, slave = pty.openpty()
        settings = termios.tcgetattr(slave)
        settings[1] &= ~termios.OPOST
        termios.tcsetattr(slave, termios.TCSANOW, settings)
        commands, self.feed = os.pipe()
        self.process = subprocess.Popen(["bash", "--norc", "-c", self.LOOP, str(commands)], stdin=slave, stdout=slave,
                                        stderr=slave, env=environment, cwd=self.home, start_new_session=True,
                                        pass_fds=(commands,))
        os.close(slave)
        os.close(commands)

    def run(self, text, answers, seconds):
        """Types a command, and an answer to each of its questions (None: yes to all). Returns its exit code and what it
        printed."""
        os.write(self.feed, text.encode() + b"\0")
        output, deadline = "", time.monotonic() + seconds
        while (end := re.search("\001(\\d+)\001", output)) is None:
            ready, _, _ = select.select([self.terminal], [], [], max(0, deadline - time.monotonic()))
            if not ready:
                raise Stuck(f"no end after {seconds} s; so far it printed:\n{output}")
            output += os.read(self.terminal, 65536).decode(errors="replace")
            if QUESTION.search(output):
                if answers == []:
                    raise Stuck(f"it asks, and the document shows no answer:\n{output}")
                os.write(self.terminal, (answers.pop(0) if answers else "y").encode() + b"\n")
        return int(end.group(1)), as_seen(output[:end.start()]).replace(self.home, HOME)

    def close(self):
        os.close(self.feed)
        os.close(self.terminal)
        # it ends where its commands do; a command that is stuck does not
        try:
            self.process.wait(2)
        except subprocess.TimeoutExpired:
            os.killpg(self.process.pid, signal.SIGKILL)
            self.process.wait()
        shutil.rmtree(self.home, ignore_errors=True)


def run_command(shell, command, seconds, shows):
    """Raises a problem when the command does not end or print as its document says."""
    shown = command.shown
    answers = None if shown is None else re.findall(r"\[y/N\] (\w+)$", "\n".join(shown), re.MULTILINE)
    code, output = shell.run(command.text, answers, seconds)
    if shows:
        print("$ " + command.text.replace("\n", "\n> ") + "\n" + output, end="", flush=True)
    if code != command.code:
        raise Problem(f"exit code {code}, not {command.code}; it printed:\n{output}")
    if shown is not None and not agrees(shown, output.splitlines()):
        raise Problem("it prints something else than the document shows:\n" + output)


def run_blocks(name, blocks, arguments):
    """Runs all blocks of a document in one session. Returns how many commands did what they should, and the problems."""
    good, problems, shell = 0, [], Shell(arguments.bin and os.path.abspath(arguments.bin), arguments.files_of)
    try:
        for block, command in ((block, command) for block in blocks for command in block.commands):
            try:
                run_command(shell, command, KIND_SECONDS if block.kind else COMMAND_SECONDS, arguments.show)
                good += 1
            except Problem as problem:
                problems.append(f"{name}:{command.line}: {command.text}\n{problem}")
                if isinstance(problem, Stuck):
                    break
    finally:
        shell.close()
    return good, problems


def run(arguments):
    problems, good, elsewhere = [], 0, 0
    for name in arguments.files:
        try:
            blocks = blocks_of(pathlib.Path(name).read_text(encoding="utf-8"))
        except Problem as problem:
            problems.append(f"{name}: {problem}")
            continue
        chosen = [block for block in blocks if block.kind in (arguments.kind, arguments.also)]
        elsewhere += sum(len(block.commands) for block in blocks if block not in chosen)
        if chosen:
            ran, failed = run_blocks(name, chosen, arguments)
            good += ran
            problems += failed
    for problem in problems:
        print(problem, file=sys.stderr)
    print(f"{good} commands of {len(arguments.files)} documents did what the documents say; {elsewhere} run elsewhere")
    return 1 if problems or good == 0 else 0


def show(arguments):
    for name in arguments.files:
        for block in blocks_of(pathlib.Path(name).read_text(encoding="utf-8")):
            if arguments.verb == "list":
                where = KINDS[block.kind] if block.kind else "runs on a simulated machine"
                print(f"{name}:{block.line}: {block.kind or '-'}: {len(block.commands)} commands, {where}")
            elif block.kind == arguments.kind:
                print("\n".join(command.text for command in block.commands))
    return 0


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("verb", choices=["run", "print", "list"])
    parser.add_argument("files", nargs="+", metavar="FILE")
    parser.add_argument("--bin", help="folder of the programs")
    parser.add_argument("--kind", default="", choices=list(KINDS))
    parser.add_argument("--with", dest="also", choices=list(KINDS))
    parser.add_argument("--files", dest="files_of", metavar="DIR")
    parser.add_argument("--show", action="store_true")
    arguments = parser.parse_args()
    return run(arguments) if arguments.verb == "run" else show(arguments)


if __name__ == "__main__":
    sys.exit(main())
