"""Figures: what is told about many runs, rows with their limits, tables, documents and charts."""
import json
import math
import os
import pathlib
import re
from dataclasses import asdict, dataclass
from statistics import median
from typing import Any, Callable, Iterable, NamedTuple, Sequence

from device import BenchError

MIB = 1 << 20
SERVICE, FLOOR, MODULES_FLOOR = "service", "floor", "modules-floor"
LABELS = {SERVICE: "`quillon-service`", FLOOR: "floor", MODULES_FLOOR: "floor with the modules opened"}
KINDS = ("resident", "proportional", "unshared", "anonymous")
BEYOND_IDLE = 1.5  # MiB resident beside the floor with the modules opened
# Colours that differ for people who see fewer of them. All can be read on white and on black.
COLOURS, LIMIT, INK = ("#0a84c1", "#d1720b"), "#8a8a8a", "#747d88"
STYLE = {"svg.hashsalt": "quillon", "svg.fonttype": "none", "font.family": "sans-serif", "font.size": 9,
         "axes.titleweight": "semibold"} | dict.fromkeys(
             ("text.color", "axes.labelcolor", "axes.titlecolor", "xtick.color", "ytick.color"), INK)

def percentile(samples: Sequence[float], percent: float) -> float:
    """The nearest rank: the least sample that so many of a hundred do not exceed."""
    return sorted(samples)[math.ceil(percent * len(samples) / 100) - 1]

def spread(samples: Sequence[float]) -> dict[str, float]:
    """What is told about many runs of the same thing, in the unit of the samples."""
    return {"median": median(samples), "least": min(samples), "p95": percentile(samples, 95),
            "runs": len(samples)}

def in_turns(rounds: int, *measurements: Callable[[], Any]) -> list[list]:
    """Measures several things in turns, every other round the other way round, so that whatever the machine does
    besides meets all of them alike. Each runs once before, which does not count. Returns the samples of each."""
    samples: list[list] = [[] for _ in measurements]
    order = list(zip(measurements, samples))
    for measurement in measurements:
        measurement()
    for _ in range(rounds):
        for measurement, taken in order:
            taken.append(measurement())
        order.reverse()
    return samples

def start_limit(floor: float) -> float:
    """How long a start may take, in ms, with that of the floor that has opened the same modules."""
    return floor * 1.3 + 1

@dataclass
class Row:
    """One line of the table: a figure, mostly a ratio of two medians, and its limit."""
    work: str
    against: str
    figure: str  # "times as fast", "ms a module" and so on
    measured: float
    goal: str    # "at least" or "at most"
    limit: float
    detail: str  # the two medians behind it, for people

    def to_json(self) -> dict[str, Any]:
        met = self.measured >= self.limit if self.goal == "at least" else self.measured <= self.limit
        return asdict(self) | {"met": met}

def toolchain(build: str) -> dict[str, str]:
    """What the build directory was built with: compiler, build type and libraries."""
    return json.loads(pathlib.Path(build, "bench/toolchain.json").read_text())

def machine(build: str) -> str:
    """What figures depend on in one line; nothing that tells whose machine it is."""
    system, tools, cores = os.uname(), toolchain(build), len(os.sched_getaffinity(0))
    name = re.search(r"^model name\s*: (.*)$", pathlib.Path("/proc/cpuinfo").read_text(), re.MULTILINE)
    return (f"{name[1] if name else system.machine}, {cores} core{'s' if cores > 1 else ''}; {system.sysname} "
            f"{system.release} {system.machine}; {tools['compiler']}, {tools['build type']} build")

def table(rule: str, titles: Sequence[str], rows: Iterable[Sequence[str]]) -> str:
    """A Markdown table. The rule has a letter a column: l is to the left, r to the right."""
    dashes = "".join({"l": "---|", "r": "---:|"}[letter] for letter in rule)
    head, *lines = ["| " + " | ".join(cells) + " |\n" for cells in (titles, *rows)]
    return head.replace("|  |", "| |") + "|" + dashes + "\n" + "".join(lines)

def verdict(met: bool) -> str:
    return "met" if met else "**missed**"

def rounded(value: float) -> str:
    """Three digits that matter: 0.42, 1.65, 19.3, 312."""
    return f"{value:.{2 if abs(value) < 10 else 1 if abs(value) < 100 else 0}f}"

def performance(results: dict) -> str:
    """All tables of a run: the rows, and where measured, the parts of deciphering and what bounds many modules."""
    rows = results["rows"]
    text = f"Measured on: {results['machine']}.\n\n" + table(
        "llrrl", ["work", "held against", "measured", "goal", ""],
        [[row["work"], f"{row['against']} ({row['detail']})", f"{rounded(row['measured'])} {row['figure']}",
          ("≥ " if row["goal"] == "at least" else "≤ ") + rounded(row["limit"]),
          verdict(row["met"])] for row in rows])
    text += f"\n{sum(row['met'] for row in rows)} of {len(rows)} goals met.\n"
    if parts := results.get("decipheringParts"):
        named = {"the whole, `aes_256_cbc_all`": parts["whole"],
                 "copying the file out of the page cache, 10240 bytes a time": parts["reading"],
                 "first touch of the output, in huge pages": parts["memory"],
                 "AES-256-CBC, data in the processor's cache": parts["cipher"],
                 "these three together": parts["reading"] + parts["memory"] + parts["cipher"]}
        text += f"\nWhat deciphering an image of {parts['bytes'] / MIB:.0f} MiB consists of, each part alone:\n\n"
        text += table("lrr", ["part", "ms", "of the whole"], [
            [what, f"{ms:.1f}", f"{100 * ms / parts['whole']:.0f} %"] for what, ms in named.items()])
    if bounds := results.get("bounds"):
        text += (f"\nImages of {results['boundsImageBytes'] / MIB:.2f} MiB each; the shares of the time that "
                 "each resource was busy:\n\n") + table(
            "llrrrrrl", ["images", "phase", "modules", "seconds", "medium", "processor", "plug-in", "bound by"],
            [[bound["setting"], bound["phase"], str(bound["modules"]), f"{bound['seconds']:.3f}",
              *(f"{100 * bound[resource] / bound['seconds']:.0f} %"
                for resource in ("medium", "processor", "plugin")), bound["bound"]] for bound in bounds])
    return text

def comparison(results: dict) -> str:
    """The ratios of two builds; less is better."""
    return f"Measured on: {results['machine']}.\n\n" + table("lrrr", ["work", "base", "here", "here / base"], [
        [pair["work"], f"{rounded(pair['base'])} {pair['unit']}", f"{rounded(pair['here'])} {pair['unit']}",
         f"{pair['here'] / pair['base']:.3f}"] for pair in results["comparison"]])

def footprint(figures: dict) -> str:
    """The machine, then a table each of size, memory and start."""
    def cell(values: dict[str, float], unit: float = 1) -> str:
        low, middle, high = (values[name] / unit for name in ("least", "median", "p95"))
        return f"{middle:.2f} ({low:.2f}–{high:.2f})"

    memory, start = figures["memory"], figures["start"]
    times: dict = {result["modules"]: {} for result in start}
    idle = {process["process"]: process["resident"]["median"] / 1024 for process in memory}
    limit = idle[MODULES_FLOOR] + BEYOND_IDLE
    for result in start:
        times[result["modules"]][result["process"]] = result["time"]
    return (f"Measured on: {figures['machine']}.\n\nSize without symbols:\n\n" + table(
        "lrr", ["file", "KiB", "bytes"],
        [["floor" if size["file"] == "do-nothing" else f"`{size['file']}`", f"{size['bytes'] / 1024:.1f}",
          str(size["bytes"])] for size in figures["size"]])
        + f"\nMemory in MiB, idle with {memory[0]['modules']} modules, {figures['settle'] / 1000:.1f} s after "
        f"READY; median (least–95th percentile) of {memory[0]['resident']['runs']} processes each:\n\n"
        + table("lrrrr", ["process", *KINDS], [
            [LABELS[process["process"]], *(cell(process[kind], 1024) for kind in KINDS)] for process in memory])
        + f"\nGoal: resident at most {BEYOND_IDLE} MiB beyond the floor with the modules opened, {limit:.2f} MiB: "
        + verdict(idle[SERVICE] <= limit) + ".\n\nTime from start to READY in ms; median (least–95th percentile) of "
        f"{start[0]['time']['runs']} starts each:\n\n"
        + table("lrrrrrrl", ["modules", *LABELS.values(), "beyond it", "times it", "goal", ""], [
            [str(modules), *(cell(of[process]) for process in LABELS),
             f"{of[SERVICE]['median'] - of[MODULES_FLOOR]['median']:.2f}",
             f"{of[SERVICE]['median'] / of[MODULES_FLOOR]['median']:.2f}",
             f"≤ {(most := start_limit(of[MODULES_FLOOR]['median'])):.2f}", verdict(of[SERVICE]["median"] <= most)]
            for modules, of in times.items()]))

def with_figures(document: str, target: str, markdown: str) -> str:
    """The document with what stands between its two marker lines replaced; "make bench" and the like writes it."""
    begin, end = f"<!-- figures: begin ({target} writes them) -->\n", "<!-- figures: end -->\n"
    head, found, rest = document.partition(begin)
    _, also_found, tail = rest.partition(end)
    if not found or not also_found:
        raise BenchError(f"the document has no lines {begin}and {end}in this order")
    return head + begin + "\n" + markdown + "\n" + end + tail

# One chart with both axes logarithmic; a line's name leads to its points. The last line is the others' limit.
Chart = NamedTuple("Chart", [("title", str), ("x", str), ("y", str), ("lines", dict[str, list[tuple[float, float]]])])

def charts_of(results: dict) -> list[Chart]:
    """Those of what was measured: deciphering against the image's size, start and estimate against the modules."""
    sizes = [(point["bytes"] / MIB, point) for point in results.get("deciphering", [])]
    ours, floor = ([(start["modules"], start["time"]["median"]) for start in results.get("start", [])
                    if start["process"] == process] for process in (SERVICE, MODULES_FLOOR))
    cached, slow = ([(bound["modules"], bound) for bound in results.get("bounds", [])
                     if (bound["phase"], bound["setting"]) == ("estimate", setting)]
                    for setting in ("in the page cache", "at 40 MB/s, read once"))
    charts = [
        Chart("Deciphering", "image in MiB", "ms", {
            "service": [(size, point["service"]) for size, point in sizes],
            "plain loop": [(size, point["plain"]) for size, point in sizes],
            "limit: the goal's share of the plain loop": [
                (size, point["plain"] / point["goal"]) for size, point in sizes if point["goal"]]}),
        Chart("Start to READY", "modules", "ms", {
            "service": ours, "do-nothing process, modules opened": floor,
            "limit: that × 1.3 + 1 ms": [(modules, start_limit(taken)) for modules, taken in floor]}),
        Chart(f"Estimate, images of {results.get('boundsImageBytes', 0) / MIB:g} MiB", "modules", "s", {
            "images in the page cache": [(modules, bound["seconds"]) for modules, bound in cached],
            "images on a medium of 40 MB/s": [(modules, bound["seconds"]) for modules, bound in slow],
            "limit: the medium alone": [(modules, bound["medium"]) for modules, bound in slow]})]
    return [chart for chart in charts if any(chart.lines.values())]

def draw(results: dict, path: str) -> None:
    """Draws the charts side by side into an SVG file, the same each time for the same figures."""
    from matplotlib import pyplot, ticker
    charts = charts_of(results)
    with pyplot.rc_context(STYLE):
        figure, places = pyplot.subplots(1, max(len(charts), 1), squeeze=False, layout="constrained",
                                         figsize=(3.8 * max(len(charts), 1), 4))
        for place, chart in zip(places[0], charts):
            for (name, points), colour in zip(chart.lines.items(), (*COLOURS, LIMIT)):
                style = {"linestyle": "--"} if colour == LIMIT else {"marker": "o", "markersize": 4}
                place.plot(*zip(*points), label=name, linewidth=2, color=colour, **style)
            place.set(title=chart.title, xlabel=chart.x, ylabel=chart.y, xscale="log", yscale="log")
            place.set_xticks(sorted({x for points in chart.lines.values() for x, _ in points}))
            place.yaxis.set_major_locator(ticker.LogLocator(subs=(1, 2, 5)))
            for axis in (place.xaxis, place.yaxis):
                axis.set_major_formatter(ticker.StrMethodFormatter("{x:g}"))
            place.minorticks_off()
            place.grid(color=LIMIT, alpha=0.25)
            place.tick_params(length=0)
            place.spines[:].set_visible(False)
            place.legend(loc="upper center", bbox_to_anchor=(0.5, -0.16), frameon=False)
        figure.savefig(path, format="svg", transparent=True, metadata={"Date": None})
        pyplot.close(figure)
