"""Checks that every file of the tests is built or run.

usage: check_sources.py TESTS LISTING

LISTING names, one per line, the sources of all targets of the build and its build files. A test in
C++, `*_test.cpp` below the folder TESTS, has to be a source of a target. Any other source, and a test
that is a script, may be used in another way, but the CMakeLists.txt of its folder, or of the next one
above that has one, has to name it, and to be part of the build or a project of its own.
"""

import pathlib
import re
import sys

ENDINGS = (".cpp", "_test.sh", "_test.py")


def is_named(file, built):
    """Whether the build file that a file belongs to names it, and is used."""
    folder = next((folder for folder in file.parents if (folder / "CMakeLists.txt").is_file()), None)
    if folder is None:
        return False
    build_file = folder / "CMakeLists.txt"
    text = re.sub(r"#.*", "", build_file.read_text())
    name = re.escape(str(file.relative_to(folder)))
    is_used = str(build_file) in built or re.search(r"^project\(", text, re.MULTILINE)
    return is_used and re.search(rf"(?<![\w.-]){name}(?![\w.-])", text)


def check(tests, listing):
    """What is wrong, as a list of texts."""
    built = set(listing.read_text().splitlines())
    files = [file for file in sorted(tests.rglob("*")) if file.name.endswith(ENDINGS)]
    mistakes = []
    for file in files:
        if str(file) in built:
            continue
        if file.name.endswith("_test.cpp"):
            mistakes.append(f"{file.relative_to(tests)}: a test that no target builds")
        elif not is_named(file, built):
            mistakes.append(f"{file.relative_to(tests)}: no CMakeLists.txt that is used names it")
    if not files:
        mistakes.append(f"there is no test in {tests}")
    print(f"{len(files)} files")
    return mistakes


if __name__ == "__main__":
    found = check(pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]))
    if found:
        sys.exit("\n".join(found))
