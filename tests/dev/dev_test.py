"""Tests of ./dev.

usage: dev_test.py ROOT
"""

import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(sys.argv.pop(1))
COMMANDS = sorted(path.name.removeprefix("dev-") for path in (ROOT / "scripts").glob("dev-*"))

# Stands for all programs that would change the system: writes down how it was called.
RECORDER = '#!/bin/sh\necho "${0##*/} $*" >>"$CALLS"\n'
SUDO = RECORDER + 'exec "$@"\n'
# Knows the packages that are not named in $MISSING.
DPKG_QUERY = """#!/bin/sh
for package; do :; done
case " $MISSING " in
*" $package "*) exit 1 ;;
esac
echo "installed all"
"""


class Dev(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = pathlib.Path(directory.name)
        self.calls = self.directory / "calls"
        self.calls.touch()
        for name, text in (("apt-get", RECORDER), ("sudo", SUDO), ("dpkg-query", DPKG_QUERY)):
            program = self.directory / name
            program.write_text(text)
            program.chmod(0o755)

    def dev(self, *arguments, missing=""):
        environment = dict(os.environ, CALLS=str(self.calls), MISSING=missing,
                           PATH=f"{self.directory}:{os.environ['PATH']}")
        return subprocess.run([ROOT / "dev", *arguments], env=environment, text=True,
                              cwd=self.directory, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def assert_usage_error(self, result, text):
        self.assertEqual((result.returncode, result.stdout), (2, ""))
        self.assertIn(text, result.stderr)
        self.assertEqual(self.calls.read_text(), "")

    def test_help_lists_every_command_with_a_sentence(self):
        result = self.dev("--help")

        self.assertEqual((result.returncode, result.stderr), (0, ""))
        listed = {line.split()[0]: line.split(maxsplit=1)[1]
                  for line in result.stdout.splitlines() if line.startswith("  ")}
        self.assertEqual(sorted(listed), COMMANDS)
        for command, sentence in listed.items():
            self.assertTrue(sentence.endswith("."), f"{command}: {sentence}")

    def test_the_commands_of_every_day_are_there(self):
        wanted = {"setup", "build", "test", "demo", "bench", "format", "lint", "clean"}

        self.assertEqual(wanted - set(COMMANDS), set())

    def test_every_command_has_help_and_does_nothing_then(self):
        for command in COMMANDS:
            for option in ("--help", "-h"):
                with self.subTest(command=command, option=option):
                    result = self.dev(command, option)

                    self.assertEqual((result.returncode, result.stderr), (0, ""))
                    self.assertIn(f"usage: ./dev {command}", result.stdout)
        self.assertEqual(self.calls.read_text(), "")

    def test_a_call_without_a_command_is_refused(self):
        self.assert_usage_error(self.dev(), "usage: ./dev COMMAND")

    def test_unknown_commands_are_refused(self):
        for command in ("nonsense", "", "../dev-test", "--nonsense", "Test"):
            with self.subTest(command=command):
                self.assert_usage_error(self.dev(command), f"there is no command '{command}'")

    def test_unknown_options_are_refused(self):
        # The benchmarks look at theirs when they are built.
        for command in set(COMMANDS) - {"bench"}:
            with self.subTest(command=command):
                self.assert_usage_error(self.dev(command, "--nonsense"), "--nonsense")

    def test_what_is_no_argument_is_refused(self):
        for command, argument in (
                ("abi", "riscv64"), ("bare", "nonsense"), ("build", "release"), ("clean", "release"),
                ("demo", ""), ("docs", "html"), ("format", "src"), ("fuzz", "nonsense"), ("fuzz", ""),
                ("fuzz", "0"), ("fuzz", "10s"), ("lint", "tidy cppcheck"), ("mutate", "--max=0"),
                ("mutate", "--folder=store"), ("package", "riscv64"), ("soak", "0"), ("soak", "x"),
                ("valgrind", "config")):
            with self.subTest(command=command, argument=argument):
                result = self.dev(command, argument)

                self.assertEqual((result.returncode, result.stdout), (2, ""))
                self.assertNotEqual(result.stderr, "")
                self.assertEqual(self.calls.read_text(), "")

    def test_fuzz_takes_one_number_of_seconds(self):
        self.assert_usage_error(self.dev("fuzz", "10", "20"), "'20' is no number of seconds")

    def test_the_options_of_ctest_are_known(self):
        options = ("-R", "Superblock", "-LE", "slow", "--rerun-failed", "-VV", "-j2")

        result = self.dev("test", *options, "--no-such-option")

        self.assert_usage_error(result, "unknown option '--no-such-option'")

    def test_unknown_presets_are_refused(self):
        for command in ("build", "test", "clean"):
            for arguments in (["--preset", "nonsense"], ["--preset=nonsense"]):
                with self.subTest(command=command, arguments=arguments):
                    self.assert_usage_error(self.dev(command, *arguments),
                                            "there is no preset 'nonsense'")

    def test_the_presets_of_the_sanitizers_are_checked_for_them(self):
        presets = {preset["name"]: preset.get("cacheVariables", {}) for preset in
                   json.loads((ROOT / "CMakePresets.json").read_text())["configurePresets"]}

        self.assertEqual({name: variables["QUORVAL_SANITIZERS"] for name, variables
                          in presets.items() if "-fsanitize" in variables.get("CMAKE_CXX_FLAGS", "")},
                         {"asan": "address,undefined", "tsan": "thread"})

    def test_options_without_their_value_are_refused(self):
        for command, option in (("build", "--preset"), ("build", "-D"), ("test", "--preset"),
                                ("test", "--programs"), ("test", "-D"), ("clean", "--preset")):
            with self.subTest(command=command, option=option):
                self.assert_usage_error(self.dev(command, option), f"{option} takes")

    def test_unknown_groups_and_steps_are_refused(self):
        self.assert_usage_error(self.dev("setup", "nonsense"), "there is no group 'nonsense'")
        self.assert_usage_error(self.dev("lint", "nonsense"), "there is no step 'nonsense'")

    def test_bare_refuses_what_it_cannot_run(self):
        self.assert_usage_error(self.dev("bare", "nonsense"), "there is no command 'nonsense'")
        self.assert_usage_error(self.dev("bare", "../dev-test"), "there is no command '../dev-test'")
        self.assert_usage_error(self.dev("bare", "--nonsense"), "unknown option '--nonsense'")
        self.assert_usage_error(self.dev("bare", "--run"), "--run takes a program")

    def test_the_sources_are_found_without_git(self):
        for file in ("src/core/a.cpp", "src/a.h", "tests/a.cpp", "build/b.cpp", "src/b.h.in"):
            (self.directory / file).parent.mkdir(parents=True, exist_ok=True)
            (self.directory / file).touch()
        (self.directory / "scripts").mkdir()
        shutil.copy(ROOT / "scripts/common.sh", self.directory / "scripts")

        for patterns, wanted in ((["src/*.cpp", "*.h"], ["src/a.h", "src/core/a.cpp"]),
                                 (["src/*"], ["src/a.h", "src/b.h.in", "src/core/a.cpp"]),
                                 (["*.cpp"], ["src/core/a.cpp", "tests/a.cpp"])):
            with self.subTest(patterns=patterns):
                found = subprocess.run(
                    ["bash", "-c", 'source scripts/common.sh && list_sources "$@"', "x", *patterns],
                    cwd=self.directory, text=True, check=True, stdout=subprocess.PIPE,
                    env=dict(os.environ, GIT_CEILING_DIRECTORIES="/")).stdout
                self.assertEqual(found.split(), wanted)

    def test_setup_does_nothing_when_all_is_there(self):
        result = self.dev("setup")

        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertEqual(result.stdout, "setup: all packages are installed\n")
        self.assertEqual(self.calls.read_text(), "")

    def test_setup_installs_what_is_missing_and_says_so(self):
        result = self.dev("setup", "build", missing="g++ libcereal-dev shellcheck")

        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertIn("setup: installing g++ libcereal-dev\n", result.stdout)
        calls = [call for call in self.calls.read_text().splitlines() if call.startswith("apt-get")]
        self.assertEqual(len(calls), 2, calls)
        self.assertTrue(calls[0].endswith(" update"), calls)
        self.assertTrue(calls[1].endswith(" install --no-install-recommends g++ libcereal-dev"),
                        calls)

    def test_setup_fails_when_the_installation_fails(self):
        (self.directory / "apt-get").write_text("#!/bin/sh\nexit 100\n")

        result = self.dev("setup", "build", missing="cmake")

        self.assertNotEqual(result.returncode, 0)
        self.assertNotIn("all packages are installed", result.stdout)


unittest.main()
