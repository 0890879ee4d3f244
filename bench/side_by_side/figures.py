"""What is compared, and the tables of it. Pure functions of the outcomes that trial.py prints.

A pair is one service and one loop that sent the same files at the same time. A case is a size of
files with or without TLS, a list of pairs. Its ratio is the median of the pairs' ratios (service by
loop), its spread the smallest and the largest of them.
"""
import dataclasses
import statistics

from side_by_side import floor

MIB = 1024 * 1024


@dataclasses.dataclass(frozen=True)
class Figure:
    """One line of the table."""
    key: str  # in an outcome
    title: str
    unit: str = ""
    scale: float = 1.0  # from the outcome's unit to this one
    per_file: bool = False
    goal: dict = dataclasses.field(default_factory=dict)  # largest ratio, by whether TLS is spoken
    digits: int = 1

    def value(self, outcome, files):
        value = outcome[self.key] * self.scale
        return value / files if self.per_file else value


FIGURES = [
    Figure("cpu_own", "CPU per file: service alone, curl alone", "ms", 1e3, True, {False: 1 / 20, True: 1 / 40}, 2),
    Figure("cpu_all", "CPU per file: with all children", "ms", 1e3, True, {False: 1 / 2, True: 1 / 2}, 2),
    Figure("peak_kib", "peak resident: service, curl", "MiB", 1 / 1024),
    Figure("idle_kib", "resident while waiting: service; curl at its peak", "MiB", 1 / 1024, goal={False: 1, True: 1}),
    Figure("bytes", "on the wire, per file", "kB", 1e-3, True),
    Figure("segments", "segments, per file", "", 1, True),
    Figure("connections", "connections opened", "", 1, digits=0),
    Figure("wakeups_own", "wake-ups per file: service alone, curl alone", "", 1, True),
    Figure("wakeups_all", "wake-ups per file: with all children", "", 1, True),
    Figure("written", "written to disk, per file", "kB", 1e-3, True),
    Figure("seconds", "from start to end", "s", 1),
]


@dataclasses.dataclass(frozen=True)
class Comparison:
    service: float  # medians
    loop: float
    ratio: float
    least: float
    most: float


def ratio_of(service, loop):
    if loop == 0:
        return 1.0 if service == 0 else float("inf")
    return service / loop


def compare(figure, pairs, files):
    service = [figure.value(pair["service"], files) for pair in pairs]
    loop = [figure.value(pair["loop"], files) for pair in pairs]
    ratios = [ratio_of(ours, theirs) for ours, theirs in zip(service, loop)]
    return Comparison(statistics.median(service), statistics.median(loop), statistics.median(ratios),
                      min(ratios), max(ratios))


def fraction(ratio):
    """0.05 -> "1/20", 1.25 -> "1.25": what is far below one reads better the other way up."""
    if ratio == 0:
        return "0"
    if ratio >= 0.67:
        return f"{ratio:.2f}"
    upside_down = 1 / ratio
    digits = f"{upside_down:.0f}" if upside_down >= 9.95 else f"{upside_down:.1f}".removesuffix(".0")
    return f"1/{digits}"


def size_name(size):
    for name, unit in (("MB", 1_000_000), ("kB", 1_000)):
        if size >= unit:
            return f"{size / unit:g} {name}"
    return f"{size} B"


def case_name(case):
    return f"{size_name(case['bytes'])}, {'TLS' if case['tls'] else 'plain'}"


def aligned(rows, right_from=1):
    """A header and rows as lines of text, columns aligned."""
    widths = [max(len(row[column]) for row in rows) for column in range(len(rows[0]))]
    return [" | ".join(cell.ljust(width) if column < right_from else cell.rjust(width)
                       for column, (cell, width) in enumerate(zip(row, widths))).rstrip() for row in rows]


def case_rows(case):
    yield ["", "service", "loop", "ratio", "spread", "goal", ""]
    for figure in FIGURES:
        result = compare(figure, case["pairs"], case["files"])
        goal = figure.goal.get(case["tls"])
        reached = "" if goal is None else "reached" if result.ratio <= goal else "short"
        yield [figure.title, f"{result.service:.{figure.digits}f} {figure.unit}".strip(),
               f"{result.loop:.{figure.digits}f} {figure.unit}".strip(), fraction(result.ratio),
               f"{fraction(result.least)} .. {fraction(result.most)}", "" if goal is None else fraction(goal), reached]


def case_table(case):
    title = f"{case['files']} files of {case_name(case)}, {len(case['pairs'])} rounds"
    return "\n".join([title, *aligned(list(case_rows(case))), *pass_lines(case)])


def pass_lines(case):
    """Wall time of the pass that sent, against the sum of the pauses."""
    least = floor.floor_of(case["files"])
    passes = [pair["service"]["pass_seconds"] for pair in case["pairs"] if pair["service"]["pass_seconds"]]
    if not passes:
        return []
    middle = statistics.median(passes)
    return [f"pass {middle:.2f} s, its pauses and polls alone {least} s: {middle / least:.3f} "
            f"({min(passes) / least:.3f} .. {max(passes) / least:.3f})"]


def memory_goal(size):
    """Largest resident size in bytes while a file of so many bytes goes out."""
    return 6 * MIB + 3.1 * size


def memory_table(outcomes):
    rows = [["file", "", "peak", "goal", "", "above its least", "without libraries", "at the end"]]
    for outcome in outcomes:
        peak, goal = outcome["peak_kib"] / 1024, memory_goal(outcome["bytes_each"]) / MIB
        size = outcome["bytes_each"] / MIB
        rows.append([f"{size:g} MiB", "TLS" if outcome["tls"] else "plain", f"{peak:.1f} MiB", f"{goal:.1f} MiB",
                     "reached" if peak <= goal else "short", f"{(peak - outcome['base_kib'] / 1024) / size:.2f} S",
                     f"{outcome['private_kib'] / 1024:.1f} MiB", f"{outcome['last_kib'] / 1024:.1f} MiB"])
    return "\n".join(aligned(rows, 2))
