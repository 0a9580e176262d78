"""Checks that nothing starts a program but the command, which starts one, and that without a shell.

usage: check_calls.py ROOT BINARY...

In the sources no call that starts a program or a shell may stand but `posix_spawnp`, which the folder
src/command may use, for "dot" alone. Of the BINARYs, whose undefined symbols `nm` lists, only one called
`quorval` may need it.
"""

import pathlib
import re
import subprocess
import sys

STARTS = r"system|popen|wordexp|execv|execve|execvp|execvpe|execveat|fexecve|execl|execle|execlp|posix_spawnp?"
CALL = re.compile(rf"(?<![\w.>])(?:(?:::|std::)\s*)?({STARTS})\s*\(")
TEXT = re.compile(r'"(\\.|[^"\\\n])*"')
SHELL = re.compile(r'"(/usr)?(/bin/)?(ba|da|)sh"|"-c"')
SYMBOL = re.compile(rf"\b(?:{STARTS})\b(?!_)")
FOLDERS = ("include", "src", "plugins")


def strip_comments(text):
    return re.sub(r"//[^\n]*|/\*.*?\*/", "", text, flags=re.DOTALL)


def check_source(name, text):
    """What is wrong in one source, as a list of texts."""
    code = strip_comments(text)
    mistakes = [f"{name}: calls {call}" for call in CALL.findall(TEXT.sub('""', code))
                if not (call == "posix_spawnp" and name.startswith("src/command/"))]
    mistakes += [f"{name}: starts {program}" for program in re.findall(r"posix_spawnp\(\s*&\w+,\s*([^,]*),", code)
                 if program != '"dot"']
    return mistakes + [f"{name}: names a shell" for _ in SHELL.findall(code)]


def check_symbols(name, symbols):
    """The same for a binary and its undefined symbols."""
    allowed = {"posix_spawnp"} if name == "quorval" else set()
    found = {symbol.split("@")[0] for symbol in symbols if SYMBOL.fullmatch(symbol.split("@")[0])}
    return [f"{name}: needs {symbol}" for symbol in sorted(found - allowed)]


def undefined_symbols(binary):
    listing = subprocess.run(["nm", "--dynamic", "--undefined-only", "--format=posix", binary], check=True,
                             capture_output=True, text=True).stdout
    return [line.split()[0] for line in listing.splitlines()]


def main(root, binaries):
    sources = [path for folder in FOLDERS for path in sorted((root / folder).rglob("*"))
               if path.suffix in {".h", ".cpp"}]
    mistakes = []
    for path in sources:
        mistakes += check_source(str(path.relative_to(root)), path.read_text())
    for binary in binaries:
        symbols = undefined_symbols(binary)
        if not symbols:
            mistakes.append(f"{binary}: has no undefined symbols, so it was not read")
        mistakes += check_symbols(pathlib.Path(binary).name, symbols)
    print("\n".join(mistakes) or f"{len(sources)} sources and {len(binaries)} binaries are as they should be")
    return 1 if mistakes or len(sources) < 100 or not binaries else 0


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[1]), sys.argv[2:]))
