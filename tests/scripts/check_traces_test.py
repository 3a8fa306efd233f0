#!/usr/bin/env python3
"""scripts/check-traces finds what it is meant to find, and nothing else."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

SCRIPT = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "check-traces"
HARMLESS = 'trace_wobu_write_all(kest_trace, traceHash("harmless"), " %s,%d", __LINE__, 0, name, 5);\n'


def check(*sources):
    """Runs the script on units with these contents. @return its exit code and what it printed."""
    with tempfile.TemporaryDirectory() as folder:
        for number, source in enumerate(sources):
            pathlib.Path(folder, f"unit{number}.cpp").write_text(source, encoding="utf-8")
        done = subprocess.run([sys.executable, str(SCRIPT), folder], capture_output=True, text=True, check=False)
        return done.returncode, done.stdout + done.stderr


class CheckTraces(unittest.TestCase):
    def assert_refused(self, expected, *sources):
        code, printed = check(*sources)
        self.assertEqual(1, code, printed)
        self.assertIn(expected, printed)

    def test_accepts_messages_that_differ_and_ones_that_repeat(self):
        code, printed = check(HARMLESS, HARMLESS + HARMLESS.replace("harmless", "other"))
        self.assertEqual(0, code, printed)
        self.assertIn("3 trace calls, 2 messages", printed)

    def test_reads_the_macros(self):
        short = 'KEST_TRACE(traceHash("harmless"), ",%d", name, 5);\nKEST_TRACE_AT(7, 0x11223344, "", name);\n'
        self.assertEqual((0, "2 trace calls, 1 messages, 1 constants: no clash\n"), check(short))
        self.assert_refused("0x11223344 is traced with different formats", short + 'KEST_TRACE(0x11223344, ",%x", name, 5);\n')
        self.assert_refused("cannot be checked", "KEST_TRACE(made(), \"\", name);\n")

    def test_finds_two_texts_with_one_hash(self):
        costarring = HARMLESS.replace("harmless", "costarring")
        liquid = HARMLESS.replace("harmless", "liquid")  # both 0x5E4DAA9D
        self.assert_refused('0x5E4DAA9D is the hash of different messages: "costarring" (unit0.cpp:1), "liquid" (unit1.cpp:1)',
                            costarring, liquid)

    def test_finds_a_literal_that_is_the_hash_of_a_text(self):
        literal = 'trace_wobu_write_all(kest_trace, 0x5E4DAA9D, " %s", 12, 0, name);\n'
        self.assert_refused('unit0.cpp:1: 0x5E4DAA9D is the hash of "liquid" (unit1.cpp:1), too', literal,
                            HARMLESS.replace("harmless", "liquid"))

    def test_finds_a_literal_kept_in_a_table(self):
        self.assert_refused('is the hash of "liquid"', "constexpr row rows[] = {{1, 0x5e4daa9d}};\n",
                            HARMLESS.replace("harmless", "liquid"))

    def test_finds_a_text_split_over_lines(self):
        split = 'trace_wobu_write_all(kest_trace, traceHash("liq"\n    "uid"), " %s", 1, 0, name);\n'
        self.assert_refused('"liquid"', split, HARMLESS.replace("harmless", "costarring"))

    def test_finds_a_literal_with_two_formats(self):
        one = 'trace_wobu_write_all(kest_trace, 0x11223344, " %s", 12, 0, name);\n'
        self.assert_refused("0x11223344 is traced with different formats", one, one.replace('" %s"', '" %s,%d"'))

    def test_reads_what_a_failure_report_traces(self):
        failing = 'report.fail(0x11223344, KEST_REASON_MISSING);\nrun.report.passed(0x11223344, 7, 6);\n'
        self.assertEqual((0, "2 trace calls, 0 messages, 1 constants: no clash\n"), check(failing))
        self.assert_refused("0x11223344 is traced with different formats", failing + 'KEST_TRACE(0x11223344, ",%d", name, 5);\n')
        self.assert_refused("the hash made() cannot be checked", "report.fail(made(), 7);\n")

    def test_takes_other_functions_for_no_traces(self):
        self.assertEqual((0, "1 trace calls, 1 messages, 0 constants: no clash\n"),
                         check(HARMLESS + "bool passed(run& which) { return passed(which, made(), 5); }\n"))

    def test_finds_a_hash_that_cannot_be_checked(self):
        self.assert_refused("cannot be checked", 'trace_wobu_write_all(kest_trace, 1 + row.hash, " %s", 12, 0, name);\n')

    def test_finds_a_hash_of_what_is_no_text(self):
        self.assert_refused("traceHash() of what is no literal text",
                            'trace_wobu_write_all(kest_trace, traceHash(message), " %s", 12, 0, name);\n')

    def test_finds_a_format_without_the_functions_name(self):
        self.assert_refused('does not begin with " %s"', HARMLESS.replace('" %s,%d"', '"%d"'))

    def test_takes_names_for_hashes_kept_elsewhere(self):
        code, printed = check('trace_wobu_write_all(kest_trace, row->hash, " %s", 12, 0, name);\n')
        self.assertEqual(0, code, printed)

    def test_ignores_comments(self):
        code, printed = check(HARMLESS + '// traceHash("costarring")\n/* traceHash("liquid") 0x5E4DAA9D */\n')
        self.assertEqual(0, code, printed)

    def test_refuses_a_folder_without_traces(self):
        self.assert_refused("no trace calls", "int main() {}\n")


if __name__ == "__main__":
    unittest.main()
