"""Tests of check_includes.py: it finds each kind of mistake and nothing else."""

import pathlib
import tempfile
import unittest

import check_includes


class CheckIncludes(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.root = pathlib.Path(directory.name)

    def check(self, path, included):
        file = self.root / path
        file.parent.mkdir(parents=True)
        file.write_text(f"// A comment.\n#include {included}\n")
        mistakes, _ = check_includes.check(self.root)
        return mistakes

    def test_finds_arrows_that_point_down(self):
        for number, (path, included, text) in enumerate((
                ("include/quorval/a.h", "<quorval/runtime/graph.h>",
                 "include/quorval/a.h: the core may not include quorval/runtime/graph.h"),
                ("src/core/x/a.cpp", "<systemd/sd-bus.h>",
                 "src/core/x/a.cpp: the core may not include systemd/sd-bus.h"),
                ("src/core/x/a.h", "<quorval/settings.h>",
                 "src/core/x/a.h: the core may not include quorval/settings.h"),
                ("include/quorval/settings.h", "<quorval/runtime/tools.h>",
                 "include/quorval/settings.h: the kit may not include quorval/runtime/tools.h"),
                ("src/runtime/x/a.cpp", "<CLI/CLI.hpp>",
                 "src/runtime/x/a.cpp: the runtime may not include CLI/CLI.hpp"),
                ("include/quorval/runtime/a.h", "<nlohmann/json.hpp>",
                 "include/quorval/runtime/a.h: the runtime may not include nlohmann/json.hpp"),
                ("src/command/a.cpp", '"description/problem.h"',
                 "src/command/a.cpp: the command may not include description/problem.h"),
                ("src/command/a.cpp", "<toml++/toml.h>",
                 "src/command/a.cpp: the command may not include toml++/toml.h"),
                ("plugins/x/a.cpp", "<quorval/runtime/graph.h>",
                 "plugins/x/a.cpp: the plug-ins may not include quorval/runtime/graph.h"))):
            with self.subTest(path=path, included=included):
                self.root = self.root / str(number)
                self.assertEqual(self.check(path, included), [text])

    def test_is_content_with_arrows_that_point_up(self):
        for number, (path, included) in enumerate((
                ("src/core/x/a.cpp", "<cereal/archives/binary.hpp>"),
                ("src/runtime/x/a.cpp", "<quorval/block.h>"),
                ("src/runtime/x/a.cpp", "<toml++/toml.h>"),
                ("src/command/a.cpp", "<quorval/runtime/graph.h>"),
                ("src/command/a.cpp", '"output.h"'),
                ("src/command/a.cpp", "<vector>"),
                ("src/command/a.cpp", "<sys/wait.h>"),
                ("src/command/a.cpp", "<CLI/CLI.hpp>"),
                ("plugins/x/a.cpp", "<quorval/runtime/tools.h>"),
                ("plugins/x/a.cpp", "<quorval/settings.h>"))):
            with self.subTest(path=path, included=included):
                self.root = self.root / str(number)
                self.assertEqual(self.check(path, included), [])


if __name__ == "__main__":
    unittest.main()
