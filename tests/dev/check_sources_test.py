"""Tests of check_sources.py."""

import pathlib
import sys
import tempfile
import unittest

# Nothing is to be written beside the source.
sys.dont_write_bytecode = True

import check_sources  # noqa: E402


class CheckSources(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.tests = pathlib.Path(directory.name)
        self.folder = self.tests / "core"
        self.folder.mkdir()

    def check(self, file, build_file, built):
        (self.folder / file).write_text("")
        (self.folder / "CMakeLists.txt").write_text(build_file)
        listing = self.tests / "listing"
        listing.write_text("".join(f"{self.folder / name}\n" for name in built))
        return check_sources.check(self.tests, listing)

    def test_accepts_a_source_of_a_target(self):
        self.assertEqual(self.check("a_test.cpp", "", ["a_test.cpp"]), [])

    def test_refuses_a_test_that_no_target_builds(self):
        for build_file in ("", "quorval_add_test(test_a a_test.cpp)"):
            self.assertEqual(self.check("a_test.cpp", build_file, ["CMakeLists.txt"]),
                             ["core/a_test.cpp: a test that no target builds"])

    def test_accepts_other_files_that_a_build_file_names(self):
        for file in ("a.cpp", "a_test.sh", "a_test.py"):
            self.assertEqual(self.check(file, f'add_test(NAME a COMMAND "dir/{file}")', ["CMakeLists.txt"]), [])
            (self.folder / file).unlink()

    def test_accepts_what_a_project_of_its_own_names(self):
        self.assertEqual(self.check("a.cpp", "project(a)\nadd_library(a a.cpp)\n", []), [])

    def test_accepts_what_a_build_file_above_names(self):
        (self.folder / "fixtures").mkdir()
        for build_file, mistakes in (("fixtures/a.cpp", []), ("a.cpp", ["core/fixtures/a.cpp: no "
                                     "CMakeLists.txt that is used names it"])):
            self.assertEqual(self.check("fixtures/a.cpp", build_file, ["CMakeLists.txt"]), mistakes)

    def test_refuses_what_only_a_comment_or_another_name_mentions(self):
        for text in ("# a.cpp", "add_library(a aa.cpp)", "add_library(a a.cpp.in)"):
            self.assertEqual(self.check("a.cpp", text, ["CMakeLists.txt"]),
                             ["core/a.cpp: no CMakeLists.txt that is used names it"])

    def test_refuses_what_a_folder_names_that_is_no_part_of_the_build(self):
        self.assertEqual(self.check("a.cpp", "add_library(a a.cpp)", []),
                         ["core/a.cpp: no CMakeLists.txt that is used names it"])

    def test_refuses_a_script_that_no_build_file_names(self):
        self.assertEqual(self.check("a_test.sh", "", ["CMakeLists.txt"]),
                         ["core/a_test.sh: no CMakeLists.txt that is used names it"])

    def test_refuses_a_folder_without_any_file(self):
        (self.tests / "listing").write_text("")
        self.assertEqual(check_sources.check(self.tests, self.tests / "listing"),
                         [f"there is no test in {self.tests}"])


unittest.main()
