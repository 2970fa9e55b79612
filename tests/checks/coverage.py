#!/usr/bin/env python3
"""coverage.py COUNTS REASONS - prints what the tests took of each source, from gcovr's JSON, and every branch that they
did not take with the reason that REASONS gives. Ends with 1 when a branch has no reason, when a reason fits nothing,
or when a table is below LEAST percent of its branches."""
import json
import sys
from pathlib import Path

LEAST = 95.0
TABLES = {
    "the library": ("mqnode", "socksin", "sockutil", "queue", "runtime"),
    "the companion": ("companion",),
}


def read_reasons(path):
    """{(file, source text): [(fewest, most branches not taken), reason]}; the form of the file is told at its top."""
    reasons, waiting, file = {}, [], ""
    for number, line in enumerate(Path(path).read_text().splitlines(), 1):
        if not line.strip() or line.startswith("#"):
            continue
        if line.startswith(" "):
            for key in waiting:
                reasons[key][1] = " ".join((reasons[key][1], line.strip())).strip()
            continue
        if waiting and reasons[waiting[-1]][1]:
            waiting = []
        if " | " not in line:
            file = line
            continue
        missed, text = line.split(" | ", 1)
        if (file, text) in reasons:
            sys.exit(f"{path}:{number}: stands here already")
        numbers = [int(count) for count in missed.split("..")]
        reasons[file, text] = [(numbers[0], numbers[-1]), ""]
        waiting.append((file, text))
    unfounded = [key for key, (_, reason) in reasons.items() if not reason]
    if unfounded:
        sys.exit(f"{path}: without a reason: {unfounded}")
    return reasons


def table(title, rooms, sources):
    """Prints one table; returns the percentage of branches taken."""
    print(f"\n{title:28}{'lines':>12}{'branches':>14}")
    sums = [0, 0, 0, 0]
    for file in sorted(name for name in sources if name.split("/")[0] in rooms):
        lines = sources[file]
        branches = [branch["count"] for line in lines for branch in line["branches"]]
        row = [sum(line["count"] > 0 for line in lines), len(lines), sum(map(bool, branches)), len(branches)]
        sums = [one + other for one, other in zip(sums, row)]
        print_row(file, row)
    print_row("all", sums)
    return 100.0 * sums[2] / sums[3]


def print_row(name, row):
    percent = f"{100.0 * row[2] / row[3]:6.1f} %" if row[3] else ""
    print(f"{name:28}{row[0]:>6} /{row[1]:>5}{row[2]:>6} /{row[3]:>5}{percent}")


def not_taken(sources):
    """{(file, source text): [(line number, branches not taken, branches), ...]}"""
    missed = {}
    for file, lines in sources.items():
        text = Path(file).read_text().splitlines()
        for line in lines:
            counts = [branch["count"] for branch in line["branches"]]
            if 0 in counts:
                number = line["line_number"]
                place = missed.setdefault((file, text[number - 1].strip()), [])
                place.append((number, counts.count(0), len(counts)))
    return missed


def main(counts, reasons_path):
    sources = {}
    for entry in json.loads(Path(counts).read_text())["files"]:
        sources[entry["file"]] = [line for line in entry["lines"]
                                  if not line["gcovr/noncode"] and not line.get("gcovr/excluded", False)]
    faults = []
    for title, rooms in TABLES.items():
        percent = table(title, rooms, sources)
        if percent < LEAST:
            faults.append(f"{title}: {percent:.1f} % of the branches, at least {LEAST} % are wanted")

    reasons = read_reasons(reasons_path)
    print("\nbranches not taken")
    for (file, text), places in sorted(not_taken(sources).items()):
        for number, missed, branches in places:
            print(f"{file}:{number}: {missed} of {branches}: {text}")
        (least, most), reason = reasons.pop((file, text), ((0, 0), ""))
        print(f"    {reason or 'NO REASON'}")
        total = sum(missed for _, missed, _ in places)
        if not least <= total <= most:
            faults.append(f"{file}:{places[0][0]}: {total} not taken, {reasons_path} says {least} to {most}: {text}")
    faults += [f"{reasons_path}: fits nothing: {file}: {text}" for (file, text), (numbers, _) in reasons.items()
               if numbers[0] > 0]
    for fault in faults:
        print(f"coverage: {fault}", file=sys.stderr)
    return 1 if faults else 0


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit("usage: coverage.py COUNTS REASONS")
    sys.exit(main(*sys.argv[1:]))
