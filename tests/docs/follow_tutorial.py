"""Does what a document says, step by step, and compares what the document shows.

usage: follow_tutorial.py DOCUMENT

A fence with a file name behind its language is written to that file, in the present directory. The
lines of a fence marked "console" that begin with "$ " are run; what is written to standard output and
standard error, whatever the exit status, has to be the lines below. A fence marked "sh" is run as a
whole, and has to succeed.
"""

import pathlib
import re
import subprocess
import sys

FENCE = re.compile(r"^```(\w+) *(\S*)\n(.*?)^```$", re.MULTILINE | re.DOTALL)


def run_shell(text):
    result = subprocess.run(["bash", "-ec", text], stdin=subprocess.DEVNULL, text=True,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return result.returncode, result.stdout


def check_console(text):
    """What is shown in another way than it is; empty: nothing."""
    shown = ""
    for command in re.findall(r"^\$ (.*)$", text, re.MULTILINE):
        shown += f"$ {command}\n" + run_shell(command)[1]
    return "" if shown == text else f"shown:\n{text}was:\n{shown}"


def follow(text):
    """What went wrong first; empty: nothing. And the number of steps."""
    steps = 0
    for language, name, content in FENCE.findall(text):
        steps += 1
        if name:
            pathlib.Path(name).write_text(content)
        elif language == "console":
            if wrong := check_console(content):
                return wrong, steps
        elif language == "sh":
            status, output = run_shell(content)
            if status != 0:
                return f"{content}ended with status {status}:\n{output}", steps
        else:
            return f"nothing to do with a fence for {language}:\n{content}", steps
    return "", steps


if __name__ == "__main__":
    problem, count = follow(pathlib.Path(sys.argv[1]).read_text())
    if problem or count == 0:
        sys.exit(problem or "there are no steps")
    print(f"{count} steps")
