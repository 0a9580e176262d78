"""Compares a summary of gcovr with what docs/testing.md allows.

usage: check_coverage.py SUMMARY.json TESTING.md

The document names each file with lines that no test reaches in a table row "| `src/...` | lines |
reason |", with their number in the second column.
"""

import json
import re
import sys

LEAST_BRANCHES = 95.0


def read_allowed(document):
    """The number of lines that may stay unreached, by file."""
    allowed = {}
    for line in open(document, encoding="utf-8"):
        row = re.match(r"\| `(src/[^`]+)` \| (\d+) \|", line)
        if row:
            allowed[row.group(1)] = int(row.group(2))
    return allowed


def main():
    summary = json.load(open(sys.argv[1], encoding="utf-8"))
    allowed = read_allowed(sys.argv[2])
    complaints = []
    for entry in summary["files"]:
        missing = entry["line_total"] - entry["line_covered"]
        if missing > allowed.get(entry["filename"], 0):
            complaints.append(
                f"{entry['filename']}: {missing} lines are not reached, "
                f"{allowed.get(entry['filename'], 0)} are named in {sys.argv[2]}"
            )
    if not summary["files"]:
        complaints.append("there is no file in the summary")
    if summary["branch_percent"] < LEAST_BRANCHES:
        complaints.append(f"branches: {summary['branch_percent']} % of {LEAST_BRANCHES} %")
    for complaint in complaints:
        print(f"coverage: {complaint}", file=sys.stderr)
    print(
        f"coverage: {summary['line_percent']} % of the lines, "
        f"{summary['branch_percent']} % of the branches"
    )
    return 1 if complaints else 0


sys.exit(main())
