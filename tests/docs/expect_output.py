"""Runs a program and compares its whole standard output.

usage: expect_output.py EXPECTED COMMAND...

EXPECTED may hold "\\n". "{tmp}" in COMMAND is a new directory.
"""

import subprocess
import sys
import tempfile


def main():
    expected = sys.argv[1].replace("\\n", "\n")
    with tempfile.TemporaryDirectory() as directory:
        command = [word.replace("{tmp}", directory) for word in sys.argv[2:]]
        result = subprocess.run(command, stdout=subprocess.PIPE, text=True)
    if result.returncode != 0:
        sys.exit(f"exit status {result.returncode}")
    if result.stdout != expected:
        sys.exit(f"expected:\n{expected}\nwas:\n{result.stdout}")


main()
