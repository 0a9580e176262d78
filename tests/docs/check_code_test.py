"""Tests of check_code.py."""

import pathlib
import sys
import tempfile
import unittest

# Nothing is to be written beside the source.
sys.dont_write_bytecode = True

import check_code  # noqa: E402


class CheckCode(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.root = pathlib.Path(directory.name)
        (self.root / "docs").mkdir()
        self.listing = self.root / "sources.txt"
        self.listing.write_text(f"{self.root}/main.cpp\n{self.root}/CMakeLists.txt\n")
        (self.root / "main.cpp").write_text("namespace {\n    int a;\n\n    int b;\n}\n")
        (self.root / "types.h").write_text("struct T;\n")
        (self.root / "CMakeLists.txt").write_text("project(x)\n")

    def check(self, readme, page=""):
        (self.root / "README.md").write_text(readme)
        (self.root / "docs" / "page.md").write_text(page)
        return check_code.check(self.root, self.listing)

    def test_accepts_code_that_is_in_a_source(self):
        self.assertEqual(self.check("```cpp\nint a;\n\nint b;\n```\n"), [])

    def test_accepts_code_that_is_in_a_header_beside_a_source(self):
        self.assertEqual(self.check("```cpp\nstruct T;\n```\n"), [])

    def test_accepts_build_files(self):
        self.assertEqual(self.check("```cmake\nproject(x)\n```\n"), [])

    def test_refuses_code_that_is_in_no_source(self):
        self.assertEqual(self.check("Text.\n\n```cpp\nint c;\n```\n"),
                         ["README.md:3: not in any source that was built"])

    def test_refuses_code_of_pages(self):
        self.assertEqual(self.check("```cpp\nint a;\n```\n", "```cpp\nint c;\n```\n"),
                         ["docs/page.md:1: not in any source that was built"])

    def test_refuses_a_part_of_a_line(self):
        self.assertEqual(self.check("```cpp\nint a\n```\n"),
                         ["README.md:1: not in any source that was built"])

    def test_refuses_lines_that_are_apart_in_the_source(self):
        self.assertEqual(self.check("```cpp\nint a;\nint b;\n```\n"),
                         ["README.md:1: not in any source that was built"])

    def test_refuses_another_indentation_within(self):
        self.assertEqual(self.check("```cpp\nint a;\n\n  int b;\n```\n"),
                         ["README.md:1: not in any source that was built"])

    def test_refuses_a_language_in_a_source_of_another(self):
        self.assertEqual(self.check("```cpp\nproject(x)\n```\n"),
                         ["README.md:1: not in any source that was built"])

    def test_refuses_empty_code(self):
        self.assertEqual(self.check("```cpp\n\n```\n"), ["README.md:1: empty"])

    def test_refuses_documents_without_code(self):
        self.assertEqual(self.check("Text.\n\n```sh\nls\n```\n"),
                         ["there is no code in the documents"])

    def test_looks_at_every_piece_of_code(self):
        self.assertEqual(self.check("```cpp\nint a;\n```\n\n```cpp\nint c;\n```\n"),
                         ["README.md:5: not in any source that was built"])


unittest.main()
