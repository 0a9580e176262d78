"""Makes the table of results out of what the benchmark program wrote."""

import math
import statistics
from dataclasses import dataclass, field

from goals import GROWTHS, PACKAGES, ROWS

OURS = "quorval"
NOT_MEASURED = "not measured"


@dataclass
class Side:
    """What was found out about one side of a case."""

    samples: list[float] = field(default_factory=list)
    instructions: float | None = None
    is_wrong: bool = False

    def median(self):
        return statistics.median(self.samples) if self.samples and not self.is_wrong else None

    def spread(self):
        """Half the distance of the quartiles, as a part of the median."""
        median = self.median()
        if len(self.samples) < 3 or not median:
            return 0.0
        low, _, high = statistics.quantiles(self.samples, n=4)
        return (high - low) / 2 / median


class Results:
    """All sides of all cases, by "case/side"."""

    def __init__(self):
        self._sides = {}

    @classmethod
    def from_json(cls, stored):
        results = cls()
        for name, side in stored.items():
            results._sides[name] = Side(side["samples"], side["instructions"],
                                        side["wrong_result"])
        return results

    def as_json(self):
        return {
            name: {
                "median": side.median(),
                "spread": round(side.spread(), 4),
                "unit": "bytes" if is_memory(name) else "ns",
                "instructions": side.instructions,
                "wrong_result": side.is_wrong,
                "samples": [float(f"{sample:.5g}") for sample in side.samples],
            }
            for name, side in sorted(self._sides.items())
        }

    def add(self, report):
        """Adds the report of one run of the benchmark program."""
        for run in report["benchmarks"]:
            if run.get("run_type") == "aggregate":
                continue
            name = run["run_name"].removesuffix("/manual_time").split("/iterations:")[0]
            side = self._side(name)
            if run.get("error_occurred"):
                side.is_wrong = True
            elif "bytes" in run:
                side.samples.append(run["bytes"])
            else:
                side.samples.append(run["real_time"] / run["operations"])

    def add_instructions(self, name, instructions):
        self._side(name).instructions = instructions

    def _side(self, name):
        return self._sides.setdefault(name, Side())

    def wrong(self):
        return sorted(name for name, side in self._sides.items() if side.is_wrong)

    def is_wrong(self, name):
        return name in self._sides and self._sides[name].is_wrong

    def median(self, name):
        return self._sides[name].median() if name in self._sides else None

    def has(self, case):
        """Whether ours was measured."""
        return f"{case}/{OURS}" in self._sides

    def instructions(self, name):
        return self._sides[name].instructions if name in self._sides else None

    def exponent(self, case, sizes):
        """The exponent e of size ** e that fits the medians of ours best."""
        points = [(math.log(size), math.log(median)) for size in sizes
                  if (median := self.median(f"{case}/{size}/{OURS}"))]
        if len(points) < 2:
            return None
        xs, ys = zip(*points)
        return statistics.linear_regression(xs, ys).slope


def is_memory(case):
    return case.startswith(("heap", "peak", "bytes"))


def is_counted_only(case):
    """Whether instructions are compared: of what happens once, no time can be taken."""
    return case.startswith("fresh")


def quantity(value, in_bytes):
    """A median with its unit, in three digits."""
    units = [(1e6, "MB"), (1e3, "kB"), (1, "B")] if in_bytes else [
        (1e9, "s"), (1e6, "ms"), (1e3, "µs"), (1, "ns")]
    scale, unit = next((entry for entry in units if value >= entry[0]), units[-1])
    scaled = value / scale
    return f"{scaled:.0f} {unit}" if scaled >= 100 else f"{scaled:.3g} {unit}"


def count(value):
    return f"{value:,.0f}" if value >= 100 else f"{value:.1f}"


def row_cells(row, results, missing):
    ours = f"{row.case}/{OURS}"
    theirs = f"{row.theirs or row.case}/{row.peer}"
    head = [row.title, row.peer.replace("_", " ")]
    goal = "" if row.goal is None else f"{row.goal:g}"
    for name in (ours, theirs):
        if results.is_wrong(name):
            return [*head, "", "", "WRONG RESULT of " + name, goal, "", ""]
    if is_counted_only(row.case):
        mine, other = results.instructions(ours), results.instructions(theirs)
        show = count
    else:
        mine, other = results.median(ours), results.median(theirs)

        def show(value):
            return quantity(value, is_memory(row.case))
    if row.peer in missing and mine is not None:
        return [*head, show(mine), "", f"peer is missing: {PACKAGES[row.peer]}", goal,
                "", ""]
    if mine is None or other is None:
        return [*head, "", "", NOT_MEASURED, goal, "", ""]
    ratio = mine / other
    verdict = "" if row.goal is None else ("yes" if ratio <= row.goal else "no")
    counts = [results.instructions(name) for name in (ours, theirs)]
    instructions = "" if None in counts else " / ".join(map(count, counts))
    return [*head, show(mine), show(other),
            f"{ratio:.3g}" if ratio < 10 else f"{ratio:.0f}", goal, verdict, instructions]


def growth_cells(growth, results):
    goal = "" if growth.goal is None else f"{growth.goal:g}"
    exponent = results.exponent(growth.case, growth.sizes)
    if exponent is None:
        return [growth.title, "", "", "", NOT_MEASURED, goal, "", ""]
    medians = [results.median(f"{growth.case}/{size}/{OURS}") for size in growth.sizes]
    known = [quantity(median, False) for median in medians if median is not None]
    verdict = "" if growth.goal is None else "yes" if exponent <= growth.goal else "no"
    return [growth.title, "(exponent)", f"{known[0]} … {known[-1]}", "", f"{exponent:.2f}", goal,
            verdict, ""]


HEAD = ["case", "peer", "quorval", "peer's", "ratio", "goal", "met", "instructions"]


def markdown(cells):
    """Lines of a table, padded so that they can be read as they are too."""
    widths = [max(len(row[column]) for row in [HEAD, *cells]) for column in range(len(HEAD))]

    def line(row):
        return "| " + " | ".join(cell.ljust(width) for cell, width in zip(row, widths)) + " |"

    return "\n".join([line(HEAD), "|" + "|".join("-" * (width + 2) for width in widths) + "|",
                      *map(line, cells)])


def make_table(results, missing, selected=lambda case: True):
    """The whole table, of the cases that `selected` is true for."""
    cells = [row_cells(row, results, missing) for row in ROWS if selected(row.case)]
    cells += [growth_cells(growth, results) for growth in GROWTHS
              if selected(f"{growth.case}/{growth.sizes[0]}")]
    return markdown(cells)
