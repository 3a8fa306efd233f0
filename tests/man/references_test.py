#!/usr/bin/env python3
"""tests/man/references_test.py FOLDER EXPORTS: the man pages that were built in the folder name only pages that there are,
and section 3 describes every function that the library exports."""

import pathlib
import re
import sys
import unittest

FOLDER = pathlib.Path()
EXPORTS = pathlib.Path()


def text_of(page):
    """The text of a page without its requests for type."""
    return re.sub(r"\\f[BIR]|\\&", "", page.read_text(encoding="utf-8")).replace("\\-", "-")


class Pages(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.pages = {page.name: text_of(page) for page in FOLDER.glob("*.[1-8]")}
        exports = EXPORTS.read_text(encoding="utf-8").splitlines()
        self.functions = [line.split("(")[0].removeprefix("kest::") for line in exports]

    def test_pages_name_only_pages_that_there_are(self):
        self.assertGreater(len(self.pages), 30)
        for name, text in self.pages.items():
            named = {f"{page}.{section}" for page, section in re.findall(r"\b(kest[\w.-]*)\(([1-8])\)", text)}
            with self.subTest(page=name):
                self.assertEqual(set(), named - set(self.pages))

    def test_each_exported_function_is_described_once_and_found_by_its_name(self):
        self.assertEqual(21, len(self.functions))
        for function in self.functions:
            with self.subTest(function=function):
                pages = [name for name, text in self.pages.items() if f"\n.SS {function}\n" in text]
                self.assertEqual(1, len(pages), pages)
                self.assertEqual(f".so man3/{pages[0]}\n", (FOLDER / "links" / f"{function}.3").read_text(encoding="utf-8"))

    def test_kest_3_lists_the_exported_functions(self):
        listed = re.findall(r"\b(\w+)\(\)", self.pages["kest.3"].partition(".SH FUNCTIONS")[2].partition(".SH ")[0])
        self.assertEqual(sorted(self.functions), sorted(listed))

    def test_kest_3_names_the_page_of_each_header(self):
        named = set(re.findall(r"\b(kest-[\w-]+)\(3\)", self.pages["kest.3"].partition(".SH SEE ALSO")[2]))
        self.assertEqual({name.removesuffix(".3") for name in self.pages if re.match(r"kest-.*\.3$", name)}, named)

    def test_functions_describe_all_their_parameters_and_results(self):
        for name, text in self.pages.items():
            if not name.startswith("kest-") or not name.endswith(".3"):
                continue
            declared = re.findall(r"^([\w:*& ]+?)(\w+)\(((?:.|\n)*?)\);$", text.partition(".SH DESCRIPTION")[0], re.M)
            for result, function, arguments in declared:
                with self.subTest(page=name, function=function):
                    body = text.partition(f"\n.SS {function}\n")[2].partition("\n.S")[0]
                    described = re.findall(r"^\.TP\n(\w+)", body, re.M)
                    named = [re.findall(r"\w+", argument) for argument in arguments.split(",")]
                    wanted = [words[-1] for words in named if words]
                    self.assertEqual(wanted, described)
                    self.assertEqual(result.strip() != "void", "\nReturns " in body)


if __name__ == "__main__":
    FOLDER = pathlib.Path(sys.argv[1])
    EXPORTS = pathlib.Path(sys.argv[2])
    unittest.main(argv=sys.argv[:1])
