"""Figures of a benchmark run: how a program hands one out, the table, the file for comparison.

A benchmark program writes, on a line of its own among whatever else it prints, "FIGURE " and a JSON object:
  name    what was measured, the same text in every run
  unit    "ms", "MiB", "mails/s", ...
  ours    samples of the product; one per run
  bare    samples of the reference, measured in the same run; missing where there is none
  beside  what the reference is, or why there is none
  better  "less" (the default) or "more"
"""
import json
import math
import os
import pathlib
import platform
import statistics

PREFIX = "FIGURE "
FRAME = [1000 / 60], "a frame at 60 Hz"
NOTHING = None, "0 is wanted"


def emit(name, unit, ours, bare=None, beside="", better="less"):
    record = {"name": name, "unit": unit, "ours": list(ours), "beside": beside, "better": better}
    if bare is not None:
        record["bare"] = list(bare)
    print(PREFIX + json.dumps(record), flush=True)


def is_figure(record):
    def samples(key):
        return isinstance(record.get(key), list) and record[key] and all(
            isinstance(one, (int, float)) and math.isfinite(one) for one in record[key])

    return (isinstance(record, dict) and isinstance(record.get("name"), str) and isinstance(record.get("unit"), str)
            and samples("ours") and ("bare" not in record or samples("bare"))
            and isinstance(record.get("beside"), str) and record["beside"]
            and record.get("better", "less") in ("less", "more"))


def figures_of(text):
    """The figures that a program printed, and the first line that should be one and is none, or None."""
    found, nonsense = [], None
    for line in text.splitlines():
        if PREFIX + "{" not in line and not line.startswith(PREFIX):
            continue
        try:
            record = json.loads(line.removeprefix(PREFIX))
        except ValueError:
            record = None
        if is_figure(record):
            found.append(record)
        else:
            nonsense = nonsense or f"handed out what is no figure: {line[:200]}"
    return found, nonsense


def machine():
    """What the figures without a ratio hang on."""
    with open("/proc/cpuinfo") as about:
        models = [line.split(":")[1].strip() for line in about if line.lower().startswith(("model name", "cpu model", "hardware"))]
    return f"{os.cpu_count()} x {models[0] if models else platform.machine()}, {platform.node()}"


def wakeups(pid):
    """How often a process's threads have left a sleep so far."""
    return sum(int(line.split()[1]) for task in pathlib.Path(f"/proc/{pid}/task").iterdir()
               for line in open(task / "status") if line.startswith("voluntary_ctxt_switches"))


def middle(samples):
    """The median, and half of what the middle half of the samples spans: the spread."""
    ordered = sorted(samples)
    if len(ordered) < 4:
        return statistics.median(ordered), (ordered[-1] - ordered[0]) / 2
    low, _, high = statistics.quantiles(ordered, n=4)
    return statistics.median(ordered), (high - low) / 2


def ratio(record):
    """Ours against the reference with its spread, or None: the machines differ, the ratios hardly do."""
    if not record.get("bare"):
        return None
    (value, spread), (bare, bare_spread) = middle(record["ours"]), middle(record["bare"])
    if not bare or not value:
        return None
    return value / bare, value / bare * ((spread / value) ** 2 + (bare_spread / bare) ** 2) ** 0.5


def number(value):
    return f"{value:.0f}" if abs(value) >= 100 else f"{value:.1f}" if abs(value) >= 10 else f"{value:.2f}"


def row(record):
    value, spread = middle(record["ours"])
    cells = [record["name"], f"{number(value)} ± {number(spread)} {record['unit']}", "none:", record["beside"], ""]
    if record.get("bare"):
        bare, bare_spread = middle(record["bare"])
        cells[2] = f"{number(bare)} ± {number(bare_spread)}"
        against = ratio(record)
        if against:
            cells[4] = f"{against[0]:.2f} ± {against[1]:.2f}"
    return cells


def table(rows, titles):
    rows = [titles, *rows]
    widths = [max(len(cells[i]) for cells in rows) for i in range(len(titles))]
    return "\n".join("  ".join(cell.ljust(width) for cell, width in zip(cells, widths)).rstrip() for cells in rows)
