"""Compares a summary of gcovr with what docs/testing.md allows.

usage: check_coverage.py SUMMARY.json TESTING.md

The document names each file of src/core/ with lines that no test reaches in a table row "| `src/...` |
lines | reason |", with their number in the second column. Of the other folders a share is wanted.
"""

import json
import re
import sys

CORE = "src/core/"
LEAST_CORE_BRANCHES = 95.0
LEAST_LINES = 98.0
LEAST_BRANCHES = 90.0


def read_allowed(document):
    """The number of lines that may stay unreached, by file."""
    allowed = {}
    for line in open(document, encoding="utf-8"):
        row = re.match(r"\| `(src/[^`]+)` \| (\d+) \|", line)
        if row:
            allowed[row.group(1)] = int(row.group(2))
    return allowed


def share(entries, kind):
    """The lines or branches of all these files that are reached, in percent."""
    total = sum(entry[f"{kind}_total"] for entry in entries)
    return 100.0 * sum(entry[f"{kind}_covered"] for entry in entries) / total if total else 0.0


def main():
    files = json.load(open(sys.argv[1], encoding="utf-8"))["files"]
    allowed = read_allowed(sys.argv[2])
    complaints = []
    for entry in files:
        missing = entry["line_total"] - entry["line_covered"]
        if entry["filename"].startswith(CORE) and missing > allowed.get(entry["filename"], 0):
            complaints.append(
                f"{entry['filename']}: {missing} lines are not reached, "
                f"{allowed.get(entry['filename'], 0)} are named in {sys.argv[2]}"
            )
    for folder in [CORE, "src/runtime/", "src/command/", "plugins/"]:
        entries = [entry for entry in files if entry["filename"].startswith(folder)]
        lines, branches = share(entries, "line"), share(entries, "branch")
        print(f"coverage: {folder}: {lines:.1f} % of the lines, {branches:.1f} % of the branches")
        if folder != CORE and lines < LEAST_LINES:
            complaints.append(f"{folder}: {lines:.1f} % of the lines, {LEAST_LINES} % are wanted")
        least = LEAST_CORE_BRANCHES if folder == CORE else LEAST_BRANCHES
        if branches < least:
            complaints.append(f"{folder}: {branches:.1f} % of the branches, {least} % are wanted")
    for complaint in complaints:
        print(f"coverage: {complaint}", file=sys.stderr)
    return 1 if complaints else 0


sys.exit(main())
