"""Checks that the code in the documents is code that was built.

usage: check_code.py ROOT SOURCES

Every fence for C++, CMake or TOML in ROOT/README.md and ROOT/docs/*.md has to occur, line by line, in one
of the files that SOURCES lists, or in a header beside one. Common indentation does not count. A
tree without any such fence is a mistake, too.
"""

import pathlib
import re
import sys
import textwrap

FENCE = re.compile(r"^(?P<indent> *)(?P<mark>```+)(?P<language>\S*)[^\n]*\n(?P<code>.*?)^ *(?P=mark)`* *$",
                   re.MULTILINE | re.DOTALL)
SUFFIXES = {"cpp": {".cpp", ".h"}, "c++": {".cpp", ".h"}, "cmake": {".txt", ".cmake"},
            "toml": {".toml"}}


def find_fences(text):
    """The line, language and code of each fence whose code is to be checked."""
    for fence in FENCE.finditer(text):
        language = fence["language"].lower()
        if language in SUFFIXES:
            yield text.count("\n", 0, fence.start()) + 1, language, fence["code"]


def to_lines(code):
    lines = [line.rstrip() for line in textwrap.dedent(code).splitlines()]
    while lines and not lines[0]:
        del lines[0]
    while lines and not lines[-1]:
        del lines[-1]
    return lines


def occurs(code, source):
    """Whether the lines of `code` follow each other in `source`, all indented alike."""
    wanted = to_lines(code)
    there = source.splitlines()
    for start in range(len(there) - len(wanted) + 1):
        if to_lines("\n".join(there[start:start + len(wanted)])) == wanted:
            return True
    return False


def read_sources(listing):
    """The text of all sources by path, with the headers beside them."""
    paths = {pathlib.Path(line) for line in listing.read_text().splitlines() if line}
    for folder in {path.parent for path in paths}:
        paths.update(folder.glob("*.h"))
    return {path: path.read_text() for path in paths}


def check(root, listing):
    """What is wrong, as a list of texts."""
    sources = read_sources(listing)
    documents = [root / "README.md", *sorted((root / "docs").glob("*.md"))]
    count = 0
    mistakes = []
    for document in documents:
        for line, language, code in find_fences(document.read_text()):
            count += 1
            place = f"{document.relative_to(root)}:{line}"
            if not to_lines(code):
                mistakes.append(f"{place}: empty")
            elif not any(occurs(code, text) for path, text in sources.items()
                         if path.suffix in SUFFIXES[language]):
                mistakes.append(f"{place}: not in any source that was built")
    if count == 0:
        mistakes.append("there is no code in the documents")
    print(f"{count} pieces of code in {len(documents)} documents, {len(sources)} sources")
    return mistakes


if __name__ == "__main__":
    found = check(pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]))
    if found:
        sys.exit("\n".join(found))
