"""Tests of check_calls.py: it finds what starts programs and nothing else."""

import unittest

import check_calls


class CheckCalls(unittest.TestCase):
    def test_finds_calls_that_start_programs(self):
        for text, call in (("std::system(text);", "system"), ("  system (text);", "system"),
                           ("::popen(a, b)", "popen"), ("execlp(a, a, nullptr)", "execlp"),
                           ("if (::execve(a, b, c) < 0)", "execve"), ("::posix_spawn(&p, a)", "posix_spawn"),
                           ("::posix_spawnp(&p, a)", "posix_spawnp")):
            self.assertEqual(check_calls.check_source("src/runtime/a.cpp", text),
                             [f"src/runtime/a.cpp: calls {call}"], text)

    def test_finds_shells_and_other_programs(self):
        self.assertEqual(check_calls.check_source("src/command/a.cpp", 'x = "/bin/sh";'),
                         ["src/command/a.cpp: names a shell"])
        self.assertEqual(check_calls.check_source("src/command/a.cpp", '::posix_spawnp(&p, "ls", n)'),
                         ['src/command/a.cpp: starts "ls"'])

    def test_lets_the_rest_pass(self):
        for text in ("// system(text)", "/* popen( */", "ecosystem(x)", 'x = "system (y)";', "query.system(x)", "execute(x)",
                     "posix_spawnattr_init(&a)", '::posix_spawnp(&p, "dot", n)', 'x = "bash is a word";'):
            self.assertEqual(check_calls.check_source("src/command/a.cpp", text), [], text)

    def test_finds_symbols(self):
        symbols = ["system@GLIBC_2.2.5", "posix_spawnp", "posix_spawnattr_init", "_ZSt6systemv", "fork"]
        self.assertEqual(check_calls.check_symbols("basic.so", symbols),
                         ["basic.so: needs posix_spawnp", "basic.so: needs system"])
        self.assertEqual(check_calls.check_symbols("quorval", symbols), ["quorval: needs system"])


if __name__ == "__main__":
    unittest.main()
