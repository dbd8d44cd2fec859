#!/usr/bin/env python3
"""Tells what hx_bench measured: as text, as the tables of a document, as a picture of each workload.

A figure is the median of the rounds; "x" is the time beside that of the plain calls for the same
amount, as the median of the ratios of equal rounds.
"""
import argparse
import json
import math
import sys
from pathlib import Path
from statistics import median

# Ours, what it runs against, and at most how many times as long it takes for the same amount; without
# a rival, the least rate or the longest time, in the row's unit.
TARGETS = [
    ("a-off hxcrate", "a-off plain", 1.35),
    ("a-on hxcrate", "a-on plain", 1.15),
    ("b hxcrate", "b plain", 1.4),
    ("b hxcrate-256k", "b plain", 1.15),
    ("b hxcrate-mapped", "b lmdb", 1.1),
    ("b hxcrate-mapped-256k", "b lmdb", 1),
    ("c-100000-off hxcrate", "c-100000-off sqlite", 1),
    ("c-100000-off hxcrate-256", None, 1.2),
    ("d-first hxcrate", None, 100),
    ("d-cached hxcrate", None, 60),
    ("m-one hxcrate", "m-one plain", 1.35),
    ("m-one hxcrate-256k", "m-one plain", 1.1),
    ("m-random-one hxcrate", "m-random-one plain", 1.25),
    ("m-random-one hxcrate-256k", "m-random-one plain", 1.25),
    ("m-random-two hxcrate", "m-random-two plain", 1.25),
    ("m-random-two hxcrate-256k", "m-random-two plain", 1.25),
    ("e hxcrate", "e sqlite", 1.25),
    ("e hxcrate-256", "e sqlite", 1),
    ("e hxcrate-mapped", "e lmdb", 1.3),
    ("e hxcrate-mapped-256", "e lmdb", 1),
    ("f hxcrate-slot", "f sqlite", 1),
    ("f hxcrate", None, 15),
    ("g-fresh-off hxcrate", None, 18),
    ("g-cached-off hxcrate", None, 8),
    ("h-made hxcrate", "h-made plain", 1.5),
    ("h-read hxcrate", "h-read plain", 1.3),
    ("h-read hxcrate-64k", "h-read plain", 1.3),
    ("h-read hxcrate-in-place", "h-read plain", 1.05),
    ("i-two hxcrate", "i-one hxcrate", 1 / 1.5),
    ("i-two hxcrate-sessions", "i-one hxcrate-sessions", 1 / 1.5),
    ("i-two hxcrate-mapped-256k", "i-one hxcrate-mapped-256k", 1 / 1.5),
    ("k-made-off hxcrate", None, 3.5),
    ("k-walked-off hxcrate", None, 3),
    ("k-made-off hxcrate-256", "k-made-off sqlite", 1),
    ("k-walked-off hxcrate-256", "k-walked-off sqlite", 1),
    ("l-pack hxcrate", "l-pack sqlite", 1),
    ("o hxcrate", None, 0.4),
    ("o hxcrate-256", None, 0.4),
]
# Ours, beside which engine, and at least what part of its gain by a second thread ours has to have.
GAINS = [
    ("m hxcrate", "plain", 0.9),
    ("m hxcrate-256k", "plain", 0.9),
]
GROUND, INK = "white", "#24292f"
OURS, PLAIN, RIVAL = "#0969da", "#8c959f", "#c9a26b"
CUT_AT = 4  # times our longest bar a longer one is cut, else the others could not be seen


def figures(row, cell):
    """Of each round, in the row's unit."""
    if row["is_rate"]:
        return [row["amount"] / seconds / row["factor"] for seconds in cell["seconds"]]
    return [seconds * row["factor"] / row["amount"] for seconds in cell["seconds"]]


def times_as_long(row, cell, other_row, other):
    ratios = [mine / its for mine, its in zip(cell["seconds"], other["seconds"])]
    return median(ratios) / row["amount"] * other_row["amount"]


def measured(row):
    return [cell for cell in row["engines"] if cell["seconds"]]


def find(row, engine):
    return next((cell for cell in measured(row) if cell["engine"] == engine), None)


def three_digits(figure):
    digits = 2 - math.floor(math.log10(figure)) if figure > 0 else 0
    return f"{figure:.{max(0, min(digits, 4))}f}"


def ratio_to_plain(row, cell):
    plain = find(row, "plain")
    return three_digits(times_as_long(row, cell, row, plain)) + " x" if plain else ""


def judge(results):
    """What each target that was measured wants, what was found, and whether that meets it."""
    def look_up(name):
        row_id, engine = name.split()
        row = next((row for row in results["rows"] if row["id"] == row_id), None)
        return row, find(row, engine) if row else None

    for name, rival, limit in [] if results["quick"] else TARGETS:
        row, cell = look_up(name)
        if not cell:
            continue
        if rival is None:
            figure, unit = median(figures(row, cell)), row["unit"]
            yield (f"{name} {'>=' if row['is_rate'] else '<='} {limit:.4g} {unit}",
                   f"{figure:.4g} {unit}", figure >= limit if row["is_rate"] else figure <= limit)
        elif look_up(rival)[1]:
            ratio = times_as_long(row, cell, *look_up(rival))
            yield f"{name} <= {limit:.2f} x the time of {rival}", f"{ratio:.2f} x", ratio <= limit

    def gain(letter, engine):
        one, two = look_up(f"{letter}-one {engine}"), look_up(f"{letter}-two {engine}")
        return times_as_long(*one, *two) if one[1] and two[1] else None

    for name, rival, part in [] if results["quick"] else GAINS:
        letter, engine = name.split()
        mine, its = gain(letter, engine), gain(letter, rival)
        if mine and its:
            yield (f"{letter}-two {engine} >= {part} of the gain of {rival}, {its:.2f} x",
                   f"{mine:.2f} x", mine >= part * its)


def as_text(results):
    for row in results["rows"]:
        yield f"{row['id']}: {row['title']}, {row['unit']}, {'more' if row['is_rate'] else 'less'} is better"
        yield f"  {'':20}{'median':>10}{'min':>10}{'max':>10}{'x plain':>10}{'rounds':>8}"
        for cell in row["engines"]:
            note = "FAILED: " + cell["failure"] if "failure" in cell else cell.get("note", "")
            if not cell["seconds"]:
                yield f"  {cell['engine']:20}   {note}"
                continue
            found = figures(row, cell)
            spread = "".join(f"{three_digits(of(found)):>10}" for of in (median, min, max))
            yield (f"  {cell['engine']:20}{spread}{ratio_to_plain(row, cell):>10}{len(found):>8}"
                   f"  {note}").rstrip()
        yield ""
    for wanted, found, met in judge(results):
        yield f"{'met' if met else 'MISSED':8}{wanted:74}{found}"
    yield f"All of it took {results['seconds']:.0f} s."


def describe(results, row, cell, mark):
    """A cell of a table; `mark` gives the footnote of a reason."""
    if not cell["seconds"]:
        return mark(cell.get("note") or cell["failure"])
    found = figures(row, cell)
    least, middle, most = (three_digits(of(found)) for of in (min, median, max))
    lines = [f"**{middle}**", f"{least} to {most}", ratio_to_plain(row, cell)]
    rounds = len(found)
    few = mark(f"{rounds} round{'s'[rounds == 1:]}") if rounds < results["rounds"] else ""
    return "<br>".join(filter(None, lines)) + few


def table_of(results, rows):
    reasons = []

    def mark(reason):
        if reason not in reasons:
            reasons.append(reason)
        return f"<sup>{reasons.index(reason) + 1}</sup>"

    def cells_of(engine):
        return [next((cell for cell in row["engines"] if cell["engine"] == engine), None) for row in rows]

    yield "| | " + " | ".join(f"{row['title']}, {row['unit']}" for row in rows) + " |"
    yield "|---|" + "--:|" * len(rows)
    for engine in results["engines"]:
        if any(cells := cells_of(engine["name"])):
            yield f"| {engine['name']} | " + " | ".join(
                describe(results, row, cell, mark) if cell else "" for row, cell in zip(rows, cells)) + " |"
    yield ""
    if reasons:
        yield "; ".join(f"{number}: {reason}" for number, reason in enumerate(reasons, 1)) + ".\n"


def growth_of(rows):
    """Each row beside that of the same name with the fewest items."""
    yield "| | ns | beside the fewest |\n|---|--:|--:|"
    for row in rows:
        fewest = next(other for other in rows if other["id"].rsplit("-", 1)[0] == row["id"].rsplit("-", 1)[0])
        for cell in measured(row):
            if least := find(fewest, cell["engine"]):
                figure, first = median(figures(row, cell)), median(figures(fewest, least))
                yield (f"| {cell['engine']}: {row['title']} | {three_digits(figure)} | "
                       f"{three_digits(figure / first)} x |")
    yield ""


def as_markdown(results):
    yield "\n### How each engine is set\n\n| | |\n|---|---|"
    for engine in results["engines"]:
        yield f"| {engine['name']} | {engine['settings']} |"
    for workload, rows in by_workload(results):
        letter = workload["letter"]
        yield (f"\n### {letter}. {workload['title']}\n\nMeasured: {workload['covers']}.\n\n"
               f"![Bars of workload {letter}](figures/bench-{letter}.svg)\n")
        yield from table_of(results, rows)
        if letter == "n":
            yield from growth_of(rows)
    yield "### Targets\n\n| wanted | found | |\n|---|--:|---|"
    for wanted, found, met in judge(results):
        yield f"| {wanted} | {found} | {'met' if met else '**missed**'} |"
    yield "\n"


def by_workload(results):
    for workload in results["workloads"]:
        if rows := [row for row in results["rows"] if row["workload"] == workload["letter"]]:
            yield workload, rows


def draw_bars(axes, row):
    def is_ours(cell):
        return cell["engine"].startswith("hxcrate")

    cells = measured(row)
    found = [figures(row, cell) for cell in cells]
    longest = max(map(median, found))
    ours = max((median(of) for of, cell in zip(found, cells) if is_ours(cell)), default=longest)
    end = min(longest, ours * CUT_AT)
    reach = end
    for place, (cell, of) in enumerate(zip(cells, found)):
        figure, is_cut = median(of), median(of) > end
        edge = end if is_cut else max(of)
        reach = max(reach, edge)
        color = OURS if is_ours(cell) else PLAIN if cell["engine"].startswith("plain") else RIVAL
        axes.barh(place, min(figure, end), 0.65, color=color)
        if is_cut:
            axes.plot([end * 0.95, end * 0.965], [place + 0.45, place - 0.45], color=GROUND, linewidth=3)
        else:
            axes.plot([min(of), max(of)], [place, place], color=INK, linewidth=1.5)
        axes.text(edge + end * 0.015, place, f"{three_digits(figure)} {row['unit']}", va="center")
    axes.set_yticks(range(len(cells)), [cell["engine"] for cell in cells])
    axes.set_title(row["title"] + f" ({'longer' if row['is_rate'] else 'shorter'} is better)", loc="left")
    axes.set(xlim=(0, reach * 1.2), ylim=(len(cells) - 0.4, -0.6))


def draw(results, folder):
    import matplotlib
    matplotlib.use("svg")
    from matplotlib import pyplot
    pyplot.rcParams.update({
        "svg.fonttype": "none", "svg.hashsalt": "bench", "font.size": 9, "axes.titlesize": 9,
        "axes.titleweight": "bold", "text.color": INK, "xtick.bottom": False, "xtick.labelbottom": False,
        "ytick.left": False, **{f"axes.spines.{side}": False for side in ("left", "right", "top", "bottom")}})
    folder.mkdir(parents=True, exist_ok=True)
    for workload, rows in by_workload(results):
        rows = [row for row in rows if measured(row)]
        if not rows:
            continue
        heights = [len(measured(row)) for row in rows]
        figure, axes = pyplot.subplots(
            len(rows), figsize=(8, 0.6 + sum(0.24 * height + 0.45 for height in heights)), squeeze=False,
            gridspec_kw={"height_ratios": heights}, layout="constrained", facecolor=GROUND)
        figure.suptitle(workload["title"], fontsize=11)
        for place, row in zip(axes[:, 0], rows):
            draw_bars(place, row)
        # The labels lie outside the axes; the picture is made as wide as they are.
        figure.savefig(folder / f"bench-{workload['letter']}.svg", bbox_inches="tight",
                       metadata={"Date": None})
        pyplot.close(figure)


def replace_tables(document, tables, mark="bench"):
    head, begin, rest = document.read_text().partition(f"<!-- {mark} -->\n")
    _, end, tail = rest.partition(f"<!-- /{mark} -->")
    if not end:
        sys.exit(f"{document}: has no lines <!-- {mark} --> and <!-- /{mark} -->")
    document.write_text(head + begin + tables + end + tail)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("json", type=Path, help="what hx_bench wrote")
    parser.add_argument("--svg", type=Path, metavar="DIR",
                        help="draw each workload as bench-LETTER.svg there")
    parser.add_argument("--document", type=Path, metavar="FILE",
                        help="put the tables between its lines <!-- bench --> and <!-- /bench -->")
    options = parser.parse_args()
    results = json.loads(options.json.read_text())
    if options.document:
        replace_tables(options.document, "\n".join(as_markdown(results)))
    if options.svg:
        draw(results, options.svg)
    print("\n".join(as_text(results)))
    return int(any("failure" in cell for row in results["rows"] for cell in row["engines"]))


if __name__ == "__main__":
    sys.exit(main())
