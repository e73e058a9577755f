#!/usr/bin/env python3
"""Holds what the tests have not reached against the list of what they cannot reach.

usage: check.py COVERAGE_JSON LIST

The first is gcovr's JSON report, made in the root of the tree. Ends with 1 when a line or branch
that was not reached is not in the list, and when an entry of the list is not needed.
"""

import bisect
import json
import re
import sys
from collections import Counter
from dataclasses import dataclass, field
from pathlib import Path

ENTRY = re.compile(r"(?P<file>\S+): (?P<function>\S+): (?P<what>line|branch \d+ of \d+): (?P<text>.+)")


@dataclass(frozen=True)
class Place:
    """A line or branch, told by what survives an edit elsewhere in its file.

    Where a text stands more than once in its function, the second one ends with " [2]", and so on.
    """

    file: str
    function: str
    what: str
    text: str

    def __str__(self) -> str:
        return f"{self.file}: {self.function}: {self.what}: {self.text}"


@dataclass
class Coverage:
    lines: int = 0
    lines_reached: int = 0
    branches: int = 0
    branches_reached: int = 0
    missed: dict[Place, int] = field(default_factory=dict)  # and its line number
    hidden: list[str] = field(default_factory=list)  # by a mark in the source


def plain_name(name: str) -> str:
    """vyt::(anonymous namespace)::fold(vyt::vrrp_group*, int) is fold."""
    while (shorter := re.sub(r"<[^<>]*>|\([^()]*\)", "", name)) != name:
        name = shorter
    return name.split()[-1].split("::")[-1]


def add_file(coverage: Coverage, report: dict) -> None:
    file = report["file"]
    texts = Path(file).read_text(encoding="utf-8").splitlines()
    functions = sorted((f["lineno"], plain_name(f["name"])) for f in report["functions"]
                       if "{lambda" not in f["name"])
    starts = [start for start, _ in functions]
    seen: Counter[tuple[int, str]] = Counter()
    for line in report["lines"]:
        number = line["line_number"]
        if line["gcovr/excluded"]:
            coverage.hidden.append(f"{file}:{number}")
        if line["gcovr/noncode"]:
            continue
        at = bisect.bisect(starts, number) - 1
        function = functions[at][1] if at >= 0 else "-"
        text = texts[number - 1].strip()
        seen[at, text] += 1
        if seen[at, text] > 1:
            text += f" [{seen[at, text]}]"
        was_reached = line["count"] > 0
        coverage.lines += 1
        coverage.lines_reached += was_reached
        if not was_reached:
            coverage.missed[Place(file, function, "line", text)] = number
        branches = line["branches"]
        coverage.branches += len(branches)
        for index, branch in enumerate(branches, 1):
            if branch["count"] > 0:
                coverage.branches_reached += 1
            elif was_reached:  # the branches of a line that was never reached go with it
                what = f"branch {index} of {len(branches)}"
                coverage.missed[Place(file, function, what, text)] = number


def read_list(path: Path) -> set[Place]:
    """The entries; ends the program where one has no reason."""
    entries: set[Place] = set()
    without_reason: list[Place] = []
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        if not line or line.startswith("#"):
            continue
        if line[0].isspace():
            without_reason.clear()
        elif match := ENTRY.fullmatch(line):
            place = Place(**match.groupdict())
            entries.add(place)
            without_reason.append(place)
        else:
            sys.exit(f"{path}:{number}: neither an entry nor a reason")
    if without_reason:
        sys.exit(f"{path}: no reason is given for\n  {without_reason[0]}")
    return entries


def main() -> int:
    coverage = Coverage()
    for report in json.loads(Path(sys.argv[1]).read_text(encoding="utf-8"))["files"]:
        add_file(coverage, report)
    path = Path(sys.argv[2])
    entries = read_list(path)

    uncovered = sorted((place.file, number, place) for place, number in coverage.missed.items()
                       if place not in entries)
    stale = sorted(str(entry) for entry in entries if entry not in coverage.missed)
    for file, number, place in uncovered:
        print(f"not reached: {file}:{number}: {place.what}\n  {place}")
    for entry in stale:
        print(f"listed in {path}, but reached, or not there any more:\n  {entry}")
    for place in coverage.hidden:
        print(f"hidden by a mark in the source: {place}")
    print(f"coverage: lines {coverage.lines_reached}/{coverage.lines}, "
          f"branches {coverage.branches_reached}/{coverage.branches} of src/, "
          f"uncovered outside the list: {len(uncovered)}")
    return 1 if uncovered or stale or coverage.hidden else 0


if __name__ == "__main__":
    sys.exit(main())
