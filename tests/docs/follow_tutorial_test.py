"""Tests of follow_tutorial.py."""

import os
import pathlib
import sys
import tempfile
import unittest

# Nothing is to be written beside the source.
sys.dont_write_bytecode = True

import follow_tutorial  # noqa: E402


class FollowTutorial(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.addCleanup(os.chdir, os.getcwd())
        os.chdir(directory.name)

    def test_writes_files_and_runs_commands(self):
        problem, steps = follow_tutorial.follow(
            "Text.\n```toml a.toml\nx = 1\n```\n```console\n$ cat a.toml\nx = 1\n$ cat b\n"
            "cat: b: No such file or directory\n```\n```sh\ncp a.toml c\n```\n")
        self.assertEqual((problem, steps), ("", 3))
        self.assertEqual(pathlib.Path("c").read_text(), "x = 1\n")

    def test_finds_other_output(self):
        problem, _ = follow_tutorial.follow("```console\n$ echo a\nb\n```\n")
        self.assertEqual(problem, "shown:\n$ echo a\nb\nwas:\n$ echo a\na\n")

    def test_finds_missing_output(self):
        problem, _ = follow_tutorial.follow("```console\n$ echo a\n```\n")
        self.assertEqual(problem, "shown:\n$ echo a\nwas:\n$ echo a\na\n")

    def test_finds_commands_that_fail(self):
        problem, _ = follow_tutorial.follow("```sh\necho a\nfalse\ntrue\n```\n")
        self.assertEqual(problem, "echo a\nfalse\ntrue\nended with status 1:\na\n")

    def test_refuses_what_it_does_not_know(self):
        problem, _ = follow_tutorial.follow("```cpp\nint a;\n```\n")
        self.assertEqual(problem, "nothing to do with a fence for cpp:\nint a;\n")


unittest.main()
