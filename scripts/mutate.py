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
import tempfile
import time
from collections import Counter
from concurrent.futures import ThreadPoolExecutor, as_completed
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
# A mutant that never ends gets so many times the processor's time that the program takes without
# one, and so many seconds more in all, for a machine that is busy. One that takes all memory gets far
# more than any program needs.
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


# How bodies of functions are set.
OPEN = re.compile(r"^ *\{$")
SHORT = re.compile(
    r"^( +(?!constexpr|static constexpr).*\)(?: const| noexcept| override)*) \{ (.+) \}$")
# A member, or a variable outside of functions, with the value that it starts with.
START = re.compile(
    r"^((?!.*\b(?:constexpr|static|operator)\b) *[A-Za-z][\w:<>,*& ]* \w+ = )([^;=]+)(;.*)$")
# Of one that is computed at compile time: its head, as far as the brace.
CONSTANT = re.compile(r"\bconstexpr [^;{}]+\{\Z")
# What no statement starts with.
NOT_FIRST = ("}", "//", "case ", "default:", "else", "public:", "private:", "protected:")
ERROR = re.compile(r"^(\S+?):(\d+):\d+:(?:   required from| error:)", re.MULTILINE)
# How many seconds a program takes whose tests are not told from each other, and a group of tests.
QUICK = 1
MOST_MARKS = 1 << 17
# In each file that is compiled: which mutant there is, and what is reached.
SWITCH = r"""
#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>
extern "C" {
__attribute__((weak, visibility("hidden"))) int quorval_mutant;
__attribute__((weak, visibility("hidden"))) char* quorval_reached;
}
namespace {
inline void quorval_reach(int mark)
{
    if (quorval_reached != nullptr) {
        quorval_reached[mark] = 1;
    }
}
__attribute__((constructor, used)) void quorval_choose_mutant()
{
    const char* number = getenv("QUORVAL_MUTANT");
    quorval_mutant = number != nullptr ? atoi(number) : 0;
    const char* file = quorval_reached == nullptr ? getenv("QUORVAL_REACHED") : nullptr;
    if (file != nullptr) {
        const int fd = open(file, O_RDWR | O_CLOEXEC);
        void* map = mmap(nullptr, 1 << 17, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        quorval_reached = map != MAP_FAILED ? static_cast<char*>(map) : nullptr;
        close(fd);
    }
}
}
"""


class Mutant:
    def __init__(self, file, line, before, after):
        self.file, self.line, self.before, self.after = file, line, before, after
        self.place = ""  # of several where the same changes

    def choose_tests(self, only_own):
        """The folders of the tests to run, in their order."""
        own = find_tests(self.file.parent)
        common = [] if only_own else COMMON.get("/".join(own.split("/")[:2]), [])
        self.tests = [own, *(folder for folder in common if folder != own)]

    def change(self):
        """The same wherever the line moves to."""
        after = self.after.strip()
        return (f"{self.file}: {self.before.strip()}  ->  "
                f"{after if after != ';' else '(dropped)'}{self.place}")

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


def is_statement(lines, number):
    """Whether a statement starts at a line: nothing can be before, or in place of, what goes on."""
    line = lines[number - 1].strip()
    if not line or line.startswith(NOT_FIRST):
        return False
    previous = lines[number - 2].rstrip() if number > 1 else ""
    return previous.endswith((";", "{", "}", ":")) or not previous.strip() \
        or previous.strip().startswith("//")


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
                for after in mutate_line(line):
                    if after.strip() == ";" and not is_statement(lines, number):
                        continue
                    mutants.append(Mutant(file.relative_to(root), number, line, after))
    number_places(mutants)
    return mutants


def number_places(mutants):
    """Tells those apart that change the same line of a file in several places."""
    same = {}
    for mutant in mutants:
        same.setdefault(mutant.change(), []).append(mutant)
    for group in same.values():
        if len(group) > 1:
            for number, mutant in enumerate(group, 1):
                mutant.place = f" ({number} of {len(group)})"


def run(command, **options):
    return subprocess.run(
        command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False,
        errors="replace", **options
    )


def copy_different(source, target):
    if not Path(target).exists() or not filecmp.cmp(source, target, shallow=False):
        shutil.copy(source, target)


def set_limits(seconds):
    """In the process of a program. What a shell ignores in the background has its own tests."""
    signal.signal(signal.SIGINT, signal.SIG_DFL)
    signal.signal(signal.SIGHUP, signal.SIG_DFL)
    resource.setrlimit(resource.RLIMIT_AS, (BYTES, BYTES))
    if seconds:
        resource.setrlimit(resource.RLIMIT_CPU, (int(seconds), int(seconds)))


class Body:
    """The body of a function, and the mutants in it."""

    def __init__(self, first, last):
        self.first, self.last = first, last  # numbers of the lines of its braces
        self.mutants = []
        self.is_marked = True

    def is_short(self):
        return self.first == self.last

    def is_start(self, lines):
        return self.is_short() and START.match(lines[self.first - 1])


class Source:
    """A file in the copy: of each body that has mutants one copy for each, of which a variable
    picks one, so that all are compiled at once."""

    def __init__(self, root, tree, file, mutants, next_mark):
        self.file, self.written = file, tree / file
        self.lines = (root / file).read_text(encoding="utf-8").split("\n")
        self.bodies = [body for body in find_bodies(self.lines) if fill_body(body, mutants)]
        self.marks = {}
        self.origins = []
        self.next_mark = next_mark
        for body in self.bodies:
            for line in range(body.first, body.last + 1):
                if line == body.first or is_statement(self.lines, line):
                    self.marks[line] = self.next_mark = self.next_mark + 1

    def write(self, mutant=None):
        """@param mutant  the one that takes the place of the line in the file as it was"""
        text, self.origins = [], []
        bodies = {body.first: body for body in self.bodies if body.mutants}
        number = 1
        while number <= len(self.lines):
            body = bodies.get(number) if mutant is None else None
            if body is None:
                changed = mutant is not None and number == mutant.line
                self.add(text, [mutant.after if changed else self.lines[number - 1]])
                number += 1
            else:
                self.add_body(text, body)
                number = body.last + 1
        text = "\n".join(text)
        if not self.written.exists() or self.written.read_text(encoding="utf-8") != text:
            self.written.write_text(text, encoding="utf-8")

    def add(self, text, lines, body=None, mutant=None):
        text += lines
        self.origins += [(body, mutant)] * len(lines)

    def add_body(self, text, body):
        start = body.is_start(self.lines)
        if start:
            self.add(text, [start.group(1) + f"(quorval_reach({self.marks[body.first]}),"], body)
            for mutant in body.mutants:
                value = START.match(mutant.after).group(2)
                self.add(text, [f"quorval_mutant == {mutant.number} ? ({value}) :"], body, mutant)
            self.add(text, [f"({start.group(2)}))" + start.group(3)], body)
            return
        head = [SHORT.match(self.lines[body.first - 1]).group(1)] if body.is_short() else []
        self.add(text, [*head, "{", f"quorval_reach({self.marks[body.first]});",
                        "switch (quorval_mutant) {"], body)
        for mutant in body.mutants:
            self.add(text, [f"case {mutant.number}: {{"], body, mutant)
            self.add(text, self.inner(body, mutant), body, mutant)
            self.add(text, ["} break;"], body, mutant)
        self.add(text, ["default: {", *self.inner(body), "} } }"], body)

    def inner(self, body, mutant=None):
        if body.is_short():
            return [SHORT.match(mutant.after if mutant else self.lines[body.first - 1]).group(2)]
        lines = self.lines[body.first : body.last - 1]
        if mutant:
            lines[mutant.line - body.first - 1] = mutant.after
        elif body.is_marked:
            marked = [self.marks.get(number) for number in range(body.first + 1, body.last)]
            lines = [f"quorval_reach({mark}); {line}" if mark else line
                     for mark, line in zip(marked, lines)]
        return lines

    def mark(self, body, line):
        """Of what is reached when the line is: the statement that it belongs to, or the function,
        where it goes on after a block."""
        while body.is_marked and line > body.first:
            if line in self.marks:
                return self.marks[line]
            if self.lines[line - 1].lstrip().startswith("}"):
                break
            line -= 1
        return self.marks[body.first]

    def drop(self, line):
        """Leaves out what cannot be compiled, by a line of the file as written.
        @return whether there was something"""
        body, mutant = self.origins[line - 1]
        if mutant in (body.mutants if body else []):
            body.mutants.remove(mutant)
        elif mutant is None and body and body.is_marked and not body.is_short():
            body.is_marked = False
        elif mutant is None and body and body.mutants:
            body.mutants.clear()
        else:
            return False
        return True


def find_bodies(lines):
    """The outermost bodies of functions, by the way that they are set."""
    bodies, first = [], 0
    for number, line in enumerate(lines, 1):
        if first:
            if line == lines[first - 1].replace("{", "}"):
                bodies.append(Body(first, number))
                first = 0
        elif OPEN.match(line) and not CONSTANT.search("\n".join(lines[:number])):
            first = number
        elif SHORT.match(line) or START.match(line):
            bodies.append(Body(number, number))
    return bodies


def fill_body(body, mutants):
    for mutant in mutants:
        if body.first < mutant.line < body.last:
            body.mutants.append(mutant)
        elif body.is_short() and mutant.line == body.first:
            changed, before = [SHORT.match(line) or START.match(line)
                               for line in (mutant.after, mutant.before)]
            if changed and changed.group(1) == before.group(1):
                body.mutants.append(mutant)
    return bool(body.mutants)


class Copy:
    """A copy of the tree, configured and built, with all mutants in it."""

    def __init__(self, root, work, mutants):
        self.tree, self.build = work / "tree", work / "build"
        self.limits = {}
        self.times = {}
        self.reached = {}
        self.sources = {}
        self.marks = 0
        files = {}
        for number, mutant in enumerate(mutants, 1):
            mutant.number = number
            files.setdefault(mutant.file, []).append(mutant)
        # What is written is newer than what was built from it.
        shutil.copytree(
            root, self.tree, ignore=shutil.ignore_patterns(".git", "build"), dirs_exist_ok=True,
            copy_function=lambda source, target: Path(source).relative_to(root) in files
            or copy_different(source, target))
        for file, own in files.items():
            self.sources[file] = Source(root, self.tree, file, own, self.marks)
            self.marks = self.sources[file].next_mark
            self.sources[file].write()
        switch = work / "switch.h"
        if not switch.exists() or switch.read_text(encoding="utf-8") != SWITCH:
            switch.write_text(SWITCH, encoding="utf-8")
        launcher = shutil.which("ccache") or ""
        configured = run(
            ["cmake", "-S", self.tree, "-B", self.build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
             "-DCMAKE_CXX_FLAGS_DEBUG=-O0", f"-DCMAKE_CXX_FLAGS=-w -include {switch}",
             "-DQUORVAL_BUILD_EXAMPLES=OFF", "-DQUORVAL_BUILD_TESTS=ON",
             f"-DCMAKE_CXX_COMPILER_LAUNCHER={launcher}", "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON",
             *(f"-DCMAKE_{kind}_LINKER_FLAGS=-fuse-ld=gold" for kind in ("EXE", "SHARED", "MODULE"))]
        )
        if configured.returncode != 0:
            sys.exit(f"mutate: the copy cannot be configured\n{configured.stdout}")

    def make(self, targets):
        return run(["cmake", "--build", self.build, "--target", *targets, "--", "-k", "0"])

    def make_all(self, targets):
        """Builds what compiles: what does not is no mutant, or one to be made alone."""
        while True:
            built = self.make(targets)
            if built.returncode == 0:
                return
            errors = {(self.find_source(file), int(line))
                      for file, line in ERROR.findall(built.stdout)}
            dropped = [source for source, line in errors if source and source.drop(line)]
            if not dropped:
                sys.exit(f"mutate: the tests cannot be built\n{built.stdout[-4000:]}")
            for source in set(dropped):
                source.write()

    def find_source(self, file):
        """@param file  as the compiler names it"""
        return self.sources.get(Path(os.path.relpath(self.build / file, self.tree)))

    def programs(self, folder):
        """The test programs of a folder of tests, by the targets that CMake has for it."""
        help_text = run(["cmake", "--build", self.build, "--target", "help"]).stdout
        names = find_programs(self.tree / folder)
        return [name for name in names if re.search(rf"^{name}\b", help_text, re.MULTILINE)]

    def run_program(self, program, limit, *options, **environment):
        """Whether the tests of a program pass, in time."""
        process = subprocess.Popen(
            [self.build / program, "--gtest_brief=1", *options],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            start_new_session=True, env={**os.environ, **environment},
            preexec_fn=lambda: set_limits(limit),
            cwd=(self.build / program).parent,
        )
        try:
            return process.wait(limit and limit + SECONDS) == 0
        except subprocess.TimeoutExpired:
            return False
        finally:
            # With what it started.
            with contextlib.suppress(ProcessLookupError):
                os.killpg(process.pid, signal.SIGKILL)
            process.wait()

    def list_tests(self, program):
        tests, suite = [], ""
        listed = subprocess.run(
            [self.build / program, "--gtest_list_tests"], stdout=subprocess.PIPE, text=True,
            cwd=(self.build / program).parent, check=True)
        for line in listed.stdout.splitlines():
            name = line.split("#")[0].rstrip()
            if not name.startswith(" "):
                suite = name
            else:
                tests.append(suite + name.strip())
        return tests

    def measure(self, program):
        """How long a program takes without any mutant, and which of its tests reach what."""
        start = time.monotonic()
        if not self.run_program(program, None):
            sys.exit(f"mutate: {program} fails without any mutant")
        took = time.monotonic() - start
        self.limits[program] = TIMES * took + 1
        # In a quick one they are not told from each other.
        tests = self.list_tests(program) if took > QUICK else ["*"]
        for test in tests:
            with tempfile.NamedTemporaryFile() as reached:
                reached.truncate(MOST_MARKS)
                start = time.monotonic()
                if not self.run_program(program, self.limits[program], f"--gtest_filter={test}",
                                        QUORVAL_REACHED=reached.name):
                    sys.exit(f"mutate: {test} of {program} fails without any mutant")
                self.times[program, test] = time.monotonic() - start
                for mark, is_reached in enumerate(reached.read(self.marks + 1)):
                    if is_reached:
                        self.reached.setdefault(mark, {}).setdefault(program, []).append(test)

    def group(self, program, tests):
        """The tests in groups with their limits, the quickest first: where one hangs, not all the
        others' time is waited for as well."""
        groups = []
        for test in sorted(tests, key=lambda test: self.times[program, test]):
            limit = TIMES * self.times[program, test]
            if groups and groups[-1][0] + limit <= TIMES * QUICK:
                groups[-1][0] += limit
                groups[-1][1].append(test)
            else:
                groups.append([limit + 1, [test]])
        return groups

    def is_caught(self, program, tests, **environment):
        """Whether one of these tests does not pass."""
        return any(not self.run_program(program, limit, "--gtest_fail_fast",
                                        "--gtest_filter=" + ":".join(group), **environment)
                   for limit, group in self.group(program, tests))

    def check(self, mutant, programs):
        """What becomes of a mutant: "alone" when it is not among those that are built, "unreached",
        "survived", or the name of what caught it."""
        source = self.sources[mutant.file]
        body = next((body for body in source.bodies if mutant in body.mutants), None)
        if body is None:
            return "alone"
        reached = self.reached.get(source.mark(body, mutant.line), {})
        programs = [program for program in programs if program in reached]
        for program in programs:
            if self.is_caught(program, reached[program], QUORVAL_MUTANT=str(mutant.number)):
                return program
        return "survived" if programs else "unreached"

    def check_alone(self, mutant, programs):
        """As check(), of a mutant that has to be built for itself."""
        source = self.sources[mutant.file]
        source.write(mutant)
        try:
            for program in programs:
                if self.make([Path(program).name]).returncode != 0:
                    return "invalid"
                if self.is_caught(program, [test for other, test in self.times if other == program]):
                    return program
            return "survived"
        finally:
            source.write()


@contextlib.contextmanager
def stop_at_once():
    """As many at a time as there are processors; when one fails, or the user stops it, no more."""
    pool = ThreadPoolExecutor(os.cpu_count())
    try:
        yield pool
    finally:
        pool.shutdown(cancel_futures=True)


def check_all(copy, mutants, suites):
    """Prints what becomes of each mutant.
    @return the results, by mutant"""
    results = {}
    start = time.monotonic()

    def tell(mutant, result):
        results[mutant] = result
        took = int(time.monotonic() - start)
        print(f"{len(results)} of {len(mutants)}, {took} s: {result}: {mutant}", flush=True)

    def order(mutant):
        return [program for folder in mutant.tests for program in suites[folder]]

    alone = []
    with stop_at_once() as pool:
        made = {pool.submit(copy.check, mutant, order(mutant)): mutant for mutant in mutants}
        for done in as_completed(made):
            if done.result() == "alone":
                alone.append(made[done])
            else:
                tell(made[done], done.result())
    for mutant in alone:
        tell(mutant, copy.check_alone(mutant, order(mutant)))
    return results


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

    every = find_mutants(arguments.root, known.values())
    harmless = read_harmless(arguments.root)
    gone = harmless - {mutant.change() for mutant in every}
    sources = {known[name] for name in arguments.folder or known}
    mutants = [mutant for mutant in every
               if mutant.file.parent in sources and mutant.change() not in harmless]
    total = len(mutants)
    for change in sorted(gone):
        print(f"mutate: {HARMLESS} names what is no mutant: {change}", file=sys.stderr)
    if arguments.max is not None and arguments.max < total:
        chosen = random.Random(arguments.seed).sample(range(total), arguments.max)
        mutants = [mutants[index] for index in sorted(chosen)]
    if arguments.list:
        print("\n".join(str(mutant) for mutant in mutants))
        return 1 if gone else 0

    for mutant in mutants:
        mutant.choose_tests(arguments.own)
    copy = Copy(arguments.root, arguments.work, mutants)
    folders = sorted({folder for mutant in mutants for folder in mutant.tests})
    suites = {folder: copy.programs(folder) for folder in folders}
    copy.make_all([name for names in suites.values() for name in names])
    suites = {folder: [f"{folder}/{name}" for name in names] for folder, names in suites.items()}
    with stop_at_once() as pool:
        list(pool.map(copy.measure, [name for names in suites.values() for name in names]))
    for names in suites.values():
        names.sort(key=copy.limits.get)

    results = check_all(copy, mutants, suites)
    counts = Counter(results.values())
    survivors = [mutant for mutant in mutants if results[mutant] in ("survived", "unreached")]
    valid = len(mutants) - counts["invalid"]
    print(f"\nmutate: {total} mutants there are beside those of {HARMLESS}, {len(mutants)} were made, "
          f"{valid} compile")
    for name in sorted(set(counts) - {"invalid", "survived", "unreached"}):
        print(f"mutate: {counts[name]} were caught by {name}")
    for mutant in survivors:
        print(f"mutate: {results[mutant]}: {mutant}")
    if valid == 0:
        return 1
    caught = 100.0 * (valid - len(survivors)) / valid
    print(f"mutate: {caught:.1f} % were caught")
    return 0 if len(survivors) <= MOST_SURVIVORS * valid and not gone else 1


sys.exit(main())
