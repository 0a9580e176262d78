"""Tests of the completions, in the shells that they are for.

usage: completion_test.py DIRECTORY QUORVAL
"""

import os
import pathlib
import pty
import re
import select
import subprocess
import sys
import tempfile
import unittest

QUORVAL = str(pathlib.Path(sys.argv.pop()).resolve())
COMPLETIONS = pathlib.Path(sys.argv.pop()).resolve()

COMMANDS = ["check", "config", "describe", "get", "graph", "inspect", "list", "new", "recording",
            "replay", "run", "schema", "set", "stop", "top"]


def options_of(command):
    """The long options that the help of a command lists."""
    text = subprocess.run([QUORVAL, command, "--help"], check=True, text=True,
                          stdout=subprocess.PIPE).stdout
    return sorted(set(re.findall(r"^  (?:-\w,)?(--[-a-z]+)", text, re.MULTILINE)))


class Completion(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = pathlib.Path(directory.name)
        (self.directory / "graph.toml").touch()
        (self.directory / "other.txt").touch()
        (self.directory / "folder").mkdir()

    def check(self, complete):
        """`complete` gives the sorted candidates for a line whose last word is begun."""
        self.assertEqual(complete("quorval "), COMMANDS)
        self.assertEqual(complete("quorval gr"), ["graph"])
        self.assertIn("--version", complete("quorval --"))
        for command in COMMANDS:
            with self.subTest(command=command):
                self.assertEqual(complete(f"quorval {command} --"), options_of(command))
        self.assertEqual(complete("quorval graph --format "), ["dot", "json", "mermaid", "svg"])
        self.assertEqual(complete("quorval run --state "), ["folder"])
        self.assertEqual(complete("quorval run --for "), [])
        self.assertEqual(complete("quorval run --bus "), ["none", "system", "user"])
        self.assertEqual(complete("quorval set --bus "), ["system", "user"])
        self.assertEqual(complete("quorval config "),
                         ["diff", "export", "get", "import", "set", "show", "unset"])
        self.assertIn("graph.toml", complete("quorval config show "))
        self.assertEqual(complete("quorval recording "), ["show"])
        self.assertIn("graph.toml", complete("quorval recording show "))
        self.assertIn("graph.toml", complete("quorval replay "))
        self.assertIn("graph.toml", complete("quorval run --record "))
        files = complete("quorval check ")
        self.assertIn("graph.toml", files)
        self.assertNotIn("other.txt", files)

    def run_shell(self, *command):
        result = subprocess.run(command, cwd=self.directory, text=True, check=True,
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        return result.stdout

    def complete_in_bash(self, line):
        script = """
            source /usr/share/bash-completion/bash_completion
            source "$1"
            COMP_LINE=$2 COMP_POINT=${#2}
            read -r -a COMP_WORDS <<<"$2"
            if [[ $2 == *' ' ]]; then COMP_WORDS+=(''); fi
            COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
            compopt() { :; }
            _quorval
            printf '%s\\n' "${COMPREPLY[@]}"
        """
        lines = self.run_shell("bash", "--norc", "-c", script, "bash",
                               str(COMPLETIONS / "quorval.bash"), line).split("\n")
        return sorted(word for word in lines if word and word not in ("--help", "--version")
                      or line.endswith("--") and word)

    def test_completes_in_bash(self):
        self.check(self.complete_in_bash)

    def complete_in_fish(self, line):
        lines = self.run_shell("fish", "--no-config", "-c",
                               f"source {COMPLETIONS}/quorval.fish; complete -C '{line}'")
        words = [word.split("\t")[0].rstrip("/") for word in lines.splitlines()]
        # What stands behind no command, or is no option when one is asked for.
        return sorted(word for word in words if line.endswith("--") or not word.startswith("-"))

    def test_completes_in_fish(self):
        def complete(line):
            words = self.complete_in_fish(line)
            # fish offers all files, those that fit no less than others.
            return [word for word in words if word != "other.txt"]
        self.check(complete)

    def start_zsh(self):
        """A zsh on a terminal, without which its line editor completes nothing. `quorval` prints
        what it was called with."""
        child, terminal = pty.fork()
        if child == 0:
            os.chdir(self.directory)
            os.environ.update(TERM="dumb", LC_ALL="C")
            os.execvp("zsh", ["zsh", "-f", "-i"])
        self.addCleanup(os.waitpid, child, 0)
        self.addCleanup(os.close, terminal)
        os.write(terminal, (f"PS1=; fpath=({COMPLETIONS} $fpath); autoload -U compinit; "
                            "compinit -u -D; quorval() { print CALLED \"[$*]\" }; "
                            "print -n REA''DY\n").encode())
        self.read_until(terminal, rb"READY")
        return terminal

    def read_until(self, terminal, pattern):
        text = b""
        while not (found := re.search(pattern, text)):
            ready, _, _ = select.select([terminal], [], [], 60)
            self.assertTrue(ready, f"{pattern!r} did not come after {text!r}")
            text += os.read(terminal, 4096)
        return found

    def test_completes_in_zsh(self):
        terminal = self.start_zsh()
        for begun, completed in (
                ("ch", "check"), ("co", "config"), ("gr", "graph"), ("n", "new"), ("rec", "recording"),
                ("rep", "replay"), ("ru", "run"), ("--v", "--version"),
                ("check --str", "check --strict"), ("check --j", "check --json"),
                ("i", "inspect"), ("to", "top"), ("top --o", "top --once"), ("sc", "schema"), ("schema --pl", "schema --plugin-path"), ("inspect --j", "inspect --json"),
                ("check gr", "check graph.toml"),
                ("config sh", "config show"), ("config get --r", "config get --raw"),
                ("config show oth", "config show other.txt"),
                ("graph --format=s", "graph --format=svg"), ("graph --format mer",
                                                             "graph --format mermaid"),
                ("recording sh", "recording show"),
                ("recording show oth", "recording show other.txt"),
                ("replay oth", "replay other.txt"), ("replay a gr", "replay a graph.toml"),
                ("run --record oth", "run --record other.txt"),
                ("run --qu", "run --quiet"), ("run --verb", "run --verbose"),
                ("run --state fo", "run --state folder"), ("run --state=fo", "run --state=folder"),
                ("run --plugin-path=fo", "run --plugin-path=folder")):
            with self.subTest(begun=begun):
                os.write(terminal, f"quorval {begun}\t\n".encode())
                called = self.read_until(terminal, rb"CALLED \[([^]]*)\]")[1].decode()
                self.assertEqual(called, completed)

    def test_names_all_options_for_zsh(self):
        text = (COMPLETIONS / "_quorval").read_text()
        for command in COMMANDS:
            part = text.split(f"\n    {command})\n")[1].split(";;")[0]
            if "$common" in part:
                part += text.split("\n    common=(")[1].split("\n    )")[0]
            named = sorted(set(re.findall(r"--[a-z-]+[a-z]", re.sub(r"\([^)]*--[^)]*\)", "", part))))
            self.assertEqual(named, options_of(command))


if __name__ == "__main__":
    unittest.main()
