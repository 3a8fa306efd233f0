#!/usr/bin/env python3
"""tests/docs/commands.py runs the commands of documents, finds what does not hold, and leaves out what is marked."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

SCRIPT = pathlib.Path(__file__).with_name("commands.py")
TUTORIAL = pathlib.Path(__file__).resolve().parents[2] / "docs" / "tutorial.md"


def run(text, *options, verb="run"):
    """Runs the script on a document. Returns its exit code and what it printed."""
    with tempfile.TemporaryDirectory() as folder:
        document = pathlib.Path(folder, "page.md")
        document.write_text(text, encoding="utf-8")
        done = subprocess.run([sys.executable, str(SCRIPT), verb, *options, str(document)], capture_output=True,
                              text=True, check=False)
        return done.returncode, done.stdout + done.stderr


def session(*lines):
    return "\n".join(["```console", *lines, "```", ""])


class Commands(unittest.TestCase):
    def assert_good(self, commands, text):
        code, printed = run(text)
        self.assertEqual(0, code, printed)
        self.assertIn(f"{commands} commands of 1 documents did what the documents say", printed)

    def assert_bad(self, expected, text):
        code, printed = run(text)
        self.assertEqual(1, code, printed)
        self.assertIn(expected, printed)

    def test_runs_all_blocks_of_a_document_in_one_shell(self):
        self.assert_good(3, "```sh\nexport WORD=one\nmkdir two && cd two\n```\ntext\n" + session("$ echo $WORD; pwd", "one", "/home/you/two"))

    def test_finds_a_command_that_fails(self):
        self.assert_bad("page.md:2: false\nexit code 1, not 0", "```sh\nfalse\n```\n")

    def test_finds_other_output(self):
        self.assert_bad("prints something else than the document shows:\none", session("$ echo one", "two"))

    def test_finds_output_that_is_missing(self):
        self.assert_bad("prints something else", session("$ echo one", "one", "two"))

    def test_finds_output_that_the_document_does_not_show(self):
        self.assert_bad("prints something else", session("$ echo one; echo two", "one"))

    def test_compares_no_output_where_none_is_shown(self):
        self.assert_good(1, session("$ echo one"))

    def test_takes_dots_for_any_text(self):
        self.assert_good(1, session("$ echo from here to there", "from ... to there"))

    def test_takes_a_line_of_dots_for_any_lines(self):
        self.assert_good(2, session("$ seq 5", "1", "...", "5", "$ echo one", "...", "one"))

    def test_takes_dots_for_no_other_lines(self):
        self.assert_bad("prints something else", session("$ seq 5", "1", "...", "4"))

    def test_takes_times_and_processes_for_any(self):
        self.assert_good(1, session("$ echo 2026-11-22T14:46:55.163Z kestctl '(17)' 20261122T144655Z",
                                    "2020-01-02T03:04:05.678Z kestctl (1) 20200102T030405Z"))

    def test_compares_the_exit_code_of_a_comment(self):
        self.assert_good(2, session("$ (exit 4) # exit code 4", "$ true # not here: exit code 5 when it fails"))
        self.assert_bad("exit code 0, not 4", session("$ true # exit code 4"))

    def test_answers_as_the_document_shows(self):
        self.assert_good(1, session("$ read -p 'Go on? [y/N] ' x; echo got $x", "Go on? [y/N] n", "got n"))

    def test_says_yes_where_no_output_is_shown(self):
        self.assert_good(2, session("$ read -p 'Go on? [y/N] ' x", "$ test $x = y"))

    def test_finds_a_question_without_an_answer(self):
        self.assert_bad("no answer", session("$ read -p 'Go on? [y/N] ' x", "y"))

    def test_joins_lines_of_one_command(self):
        self.assert_good(2, "```sh\necho one \\\n  two\n# a comment\ncat >file <<'END'\none\nEND\n```\n")
        self.assert_good(2, session("$ cat >file <<'END'", "> one", "> END", "$ cat file", "one"))

    def test_runs_a_preparation(self):
        self.assert_good(2, "<!-- before: echo one >file -->\n" + session("$ cat file", "one"))

    def test_runs_nothing_for_the_tutorial_that_its_reader_does_not_see(self):
        self.assertNotIn("<!--", TUTORIAL.read_text(encoding="utf-8"))

    def test_leaves_out_blocks_of_a_kind(self):
        text = "```sh board\nfalse\n```\n```sh\ntrue\n```\n"
        self.assert_good(1, text)
        self.assertEqual((0, "false\n"), run(text, "--kind", "board", verb="print"))

    def test_runs_blocks_of_one_kind(self):
        self.assertEqual(0, run("```sh system\ntrue\n```\n```sh\nfalse\n```\n", "--kind", "system")[0])

    def test_runs_blocks_of_one_kind_among_the_others(self):
        code, printed = run("```sh\nword=one\n```\n```sh system\ntest $word = one\n```\n```sh board\nfalse\n```\n",
                            "--with", "system")
        self.assertEqual(0, code, printed)
        self.assertIn("2 commands", printed)

    def test_shows_a_session(self):
        self.assertIn("$ echo $((1 + 1))\n2\n", run("```sh\necho $((1 + 1))\n```\n", "--show")[1])

    def test_shows_the_last_text_of_a_line(self):
        self.assert_good(1, session("$ printf 'a\\n10%%\\r20%%\\rdone\\n\\033[1mbold\\n'", "a", "done", "bold"))

    def test_has_the_files_of_a_folder(self):
        with tempfile.TemporaryDirectory() as folder:
            pathlib.Path(folder, "word").write_text("one\n", encoding="utf-8")
            self.assertEqual(0, run(session("$ cat word", "one"), "--files", folder)[0])

    def test_refuses_a_kind_that_there_is_not(self):
        self.assert_bad("'bord' is no kind of block", "```sh bord\nfalse\n```\n")

    def test_refuses_commands_in_a_block_without_a_mark(self):
        self.assert_bad("line 1: a block with commands is marked", "```\n$ true\n```\n")

    def test_refuses_documents_without_a_command(self):
        self.assertEqual(1, run("text\n")[0])


if __name__ == "__main__":
    unittest.main()
