"""Makes small mistakes in the sources, one at a time, and runs the tests against each.

See `./dev mutate --help`.
"""

import argparse
import contextlib
import filecmp
import os
import random
import re
import resource
import shutil
import signal
import subprocess
import sys
import time
from pathlib import Path

HARMLESS = "tests/harmless_mutants.txt"
# What looks at every folder of a layer runs second.
COMMON = {
    "tests/core": ["tests/faults", "tests/fuzz"],
    "tests/runtime": ["tests/runtime/graph", "tests/runtime/run", "tests/command"],
    "tests/plugins": ["tests/command"],
}
MOST_SURVIVORS = 0.05
# Sources in a folder above those of their tests.
ELSEWHERE = {"tests/runtime": "tests/runtime/run"}
# Of a mutant that never ends: so many times what the program takes without one, and some seconds
# more for a machine that is busy. Of one that takes all memory: far more than any program needs.
TIMES, SECONDS = 5, 10
BYTES = 4 << 30

# What to look for, and what to put in its place.
TURNED = [
    (r"(?<=[^<>=!]) == ", [" != "]),
    (r" != ", [" == "]),
    (r" <= ", [" < ", " > "]),
    (r" >= ", [" > ", " < "]),
    (r"(?<![<\w]) < (?!=)|(?<=\w) < (?=[\w(])", [" <= ", " >= "]),
    (r"(?<=[\w)]) > (?=[\w(])", [" >= ", " <= "]),
    (r" && ", [" || "]),
    (r" \|\| ", [" && "]),
    (r"(?<=\()!(?=\w)", [""]),
    (r"\btrue\b", ["false"]),
    (r"\bfalse\b", ["true"]),
    (r"\+\+(?=\w)", ["--"]),
    (r" \+ (?=\d)", [" - "]),
]
NUMBER = re.compile(r"(?<![\w.'\"])(\d+)(?![\w.'])")
STATEMENT = re.compile(r"^(\s+)([\w:.>*()\[\]-]+.*;)$")
# Lines that make room ahead, which changes nothing but the time.
ROOM = re.compile(r"\.reserve\(")
NOTHING_IN_IT = ("#", "template", "using ", "static_assert", "virtual ")
# Nothing that can be dropped: it declares, or the text of it is all that there is.
NO_STATEMENT = re.compile(
    r"^(return|using|const|constexpr|static|auto|struct|class|template|friend|typedef|typename|"
    r"std::\w+(<.*>)? \w+|[A-Z]\w*(::\w+)*[&*]? \w+|void|explicit|enum|bool|int|unsigned|char|double|"
    r"Value|case|default|public|private)\b"
    r"|= (default|delete);|^\}|^throw$"
)


class Mutant:
    def __init__(self, file, line, before, after):
        self.file, self.line, self.before, self.after = file, line, before, after

    def tests(self, only_own):
        """The folders of the tests to run, in their order."""
        own = find_tests(self.file.parent)
        common = [] if only_own else COMMON.get("/".join(own.split("/")[:2]), [])
        return [own, *(folder for folder in common if folder != own)]

    def change(self):
        """The same wherever the line moves to."""
        after = self.after.strip()
        return f"{self.file}: {self.before.strip()}  ->  {after if after != ';' else '(dropped)'}"

    def __str__(self):
        return self.change().replace(":", f":{self.line}:", 1)


def strip_literals(line):
    """The line with its strings, characters and comment blanked, as long as it was."""
    line = re.sub(r'"(\\.|[^"\\])*"', lambda m: '"' + "_" * (len(m.group()) - 2) + '"', line)
    line = re.sub(r"'(\\.|[^'\\])'", lambda m: "'" + "_" * (len(m.group()) - 2) + "'", line)
    return re.sub(r"//.*", lambda m: " " * len(m.group()), line)


def mutate_line(line):
    """All changes of one line."""
    code = strip_literals(line)
    if not code.strip() or ROOM.search(code) or code.lstrip().startswith(NOTHING_IN_IT):
        return []
    found = []
    for pattern, replacements in TURNED:
        for match in re.finditer(pattern, code):
            for replacement in replacements:
                found.append(line[: match.start()] + replacement + line[match.end() :])
    for match in NUMBER.finditer(code):
        found.append(line[: match.start()] + str(int(match.group()) + 1) + line[match.end() :])
    statement = STATEMENT.match(code)
    if statement and not NO_STATEMENT.search(statement.group(2)):
        found.append(statement.group(1) + ";")
    return [changed for changed in found if changed != line]


def find_tests(folder):
    """The folder of the tests of one of sources: src/core/block has tests/core/block, and
    plugins/basic has tests/plugins/basic."""
    tests = "tests/" + str(folder).removeprefix("src/")
    return ELSEWHERE.get(tests, tests)


def find_folders(root):
    """The folders of sources that have tests, by name: core/block, command, plugins/basic."""
    files = [*root.glob("src/**/*.cpp"), *root.glob("plugins/**/*.cpp")]
    folders = {file.parent.relative_to(root) for file in files}
    return {str(folder).removeprefix("src/"): folder for folder in sorted(folders)
            if find_programs(root / find_tests(folder))}


def find_programs(tests):
    """The test programs that the list of a folder of tests names."""
    listed = tests / "CMakeLists.txt"
    text = listed.read_text(encoding="utf-8") if listed.exists() else ""
    return re.findall(r"quorval_add(?:_runtime)?_test\(\s*(\w+)", text)


def read_harmless(root):
    """What is known to change nothing anybody can see."""
    lines = (root / HARMLESS).read_text(encoding="utf-8").splitlines()
    return {line for line in lines if line and not line.startswith("#")}


def find_mutants(root, folders):
    mutants = []
    for folder in folders:
        for file in sorted((root / folder).glob("*.*")):
            if file.suffix not in (".cpp", ".h"):
                continue
            lines = file.read_text(encoding="utf-8").split("\n")
            for number, line in enumerate(lines, 1):
                # What is a continuation of a statement is part of one that cannot be dropped.
                previous = lines[number - 2].rstrip() if number > 1 else ""
                is_start = previous.endswith((";", "{", "}", ":")) or not previous.strip()
                is_start = is_start or previous.strip().startswith("//")
                for after in mutate_line(line):
                    if after.strip() == ";" and not is_start:
                        continue
                    mutants.append(Mutant(file.relative_to(root), number, line, after))
    return mutants


def run(command, **options):
    return subprocess.run(
        command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False,
        errors="replace", **options
    )


def copy_different(source, target):
    if not Path(target).exists() or not filecmp.cmp(source, target, shallow=False):
        shutil.copy(source, target)


class Copy:
    """A copy of the tree, configured and built, in which mutants are made."""

    def __init__(self, root, work):
        self.tree, self.build = work / "tree", work / "build"
        self.limits = {}
        # The last mutant of a run before that was stopped differs, and what is written is newer than
        # what was built from it.
        shutil.copytree(root, self.tree, ignore=shutil.ignore_patterns(".git", "build"),
                        copy_function=copy_different, dirs_exist_ok=True)
        launcher = shutil.which("ccache") or ""
        configured = run(
            ["cmake", "-S", self.tree, "-B", self.build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
             "-DCMAKE_CXX_FLAGS_DEBUG=-O0", "-DQUORVAL_BUILD_EXAMPLES=OFF", "-DQUORVAL_BUILD_TESTS=ON",
             f"-DCMAKE_CXX_COMPILER_LAUNCHER={launcher}", "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON",
             *(f"-DCMAKE_{kind}_LINKER_FLAGS=-fuse-ld=gold" for kind in ("EXE", "SHARED", "MODULE"))]
        )
        if configured.returncode != 0:
            sys.exit(f"mutate: the copy cannot be configured\n{configured.stdout}")

    def make(self, targets):
        return run(["cmake", "--build", self.build, "--target", *targets])

    def programs(self, folder):
        """The test programs of a folder of tests, by the targets that CMake has for it."""
        help_text = run(["cmake", "--build", self.build, "--target", "help"]).stdout
        names = find_programs(self.tree / folder)
        return [name for name in names if re.search(rf"^{name}\b", help_text, re.MULTILINE)]

    def run_program(self, folder, name):
        """Whether all tests of a program pass, in time."""
        start = time.monotonic()
        process = subprocess.Popen(
            [self.build / folder / name, "--gtest_brief=1", "--gtest_fail_fast"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            start_new_session=True,
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_AS, (BYTES, BYTES)),
            cwd=self.build / folder,
        )
        try:
            process.wait(self.limits.get(name))
        except subprocess.TimeoutExpired:
            return False
        finally:
            # With what it started.
            with contextlib.suppress(ProcessLookupError):
                os.killpg(process.pid, signal.SIGKILL)
            process.wait()
        self.limits.setdefault(name, TIMES * (time.monotonic() - start) + SECONDS)
        return process.returncode == 0


def check_mutant(copy, mutant, suites):
    """What becomes of a mutant: "invalid", "survived", or the name of what caught it."""
    file = copy.tree / mutant.file
    text = file.read_text(encoding="utf-8")
    lines = text.split("\n")
    lines[mutant.line - 1] = mutant.after
    file.write_text("\n".join(lines), encoding="utf-8")
    try:
        for folder, names in suites:
            for name in names:
                if copy.make([name]).returncode != 0:
                    return "invalid"
                if not copy.run_program(folder, name):
                    return name
        return "survived"
    finally:
        file.write_text(text, encoding="utf-8")


def main():
    parser = argparse.ArgumentParser(
        prog="./dev mutate", add_help=False, allow_abbrev=False,
        usage="./dev mutate [--folder NAME]... [--max N] [--seed N] [--own] [--list]")
    parser.add_argument("--root", type=Path, required=True)
    parser.add_argument("--work", type=Path, required=True)
    parser.add_argument("--folder", action="append")
    parser.add_argument("--max", type=int)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--own", action="store_true")
    parser.add_argument("--list", action="store_true")
    arguments = parser.parse_args()
    if arguments.max is not None and arguments.max < 1:
        parser.error("--max takes a number from 1")
    known = find_folders(arguments.root)
    for folder in arguments.folder or []:
        if folder not in known:
            parser.error(f"there is no folder '{folder}'; there are: {', '.join(known)}")

    mutants = find_mutants(arguments.root, [known[name] for name in arguments.folder or known])
    total = len(mutants)
    harmless = read_harmless(arguments.root)
    every = mutants if not arguments.folder else find_mutants(arguments.root, known.values())
    gone = harmless - {mutant.change() for mutant in every}
    for change in sorted(gone):
        print(f"mutate: {HARMLESS} names what is no mutant: {change}", file=sys.stderr)
    if arguments.max is not None and arguments.max < total:
        chosen = random.Random(arguments.seed).sample(range(total), arguments.max)
        mutants = [mutants[index] for index in sorted(chosen)]
    if arguments.list:
        print("\n".join(str(mutant) for mutant in mutants))
        return 1 if gone else 0

    folders = sorted({folder for mutant in mutants for folder in mutant.tests(arguments.own)})
    copy = Copy(arguments.root, arguments.work)
    suites = {folder: copy.programs(folder) for folder in folders}
    built = copy.make([name for names in suites.values() for name in names])
    if built.returncode != 0:
        sys.exit(f"mutate: the tests cannot be built\n{built.stdout[-4000:]}")
    for folder, names in suites.items():
        for name in names:
            if not copy.run_program(folder, name):
                sys.exit(f"mutate: {name} fails without any mutant")
        names.sort(key=copy.limits.get)

    counts = {}
    survivors = []
    start = time.monotonic()
    for number, mutant in enumerate(mutants, 1):
        order = [(folder, suites[folder]) for folder in mutant.tests(arguments.own)]
        result = check_mutant(copy, mutant, order)
        counts[result] = counts.get(result, 0) + 1
        if result == "survived":
            survivors.append(mutant)
        took = int(time.monotonic() - start)
        print(f"{number} of {len(mutants)}, {took} s: {result}: {mutant}", flush=True)

    left_out = [mutant for mutant in survivors if mutant.change() in harmless]
    survivors = [mutant for mutant in survivors if mutant not in left_out]
    valid = len(mutants) - counts.get("invalid", 0) - len(left_out)
    print(f"\nmutate: {total} mutants there are, {len(mutants)} were made, {valid} compile and are "
          f"not among those of {HARMLESS}, of which there were {len(left_out)}")
    for name in sorted(set(counts) - {"invalid", "survived"}):
        print(f"mutate: {counts[name]} were caught by {name}")
    for mutant in survivors:
        print(f"mutate: survived: {mutant}")
    if valid == 0:
        return 1
    caught = 100.0 * (valid - len(survivors)) / valid
    print(f"mutate: {caught:.1f} % were caught")
    return 0 if len(survivors) <= MOST_SURVIVORS * valid and not gone else 1


sys.exit(main())
