"""Tables, plots, the file of results, and the comparison of two of them."""

import json
import math
from pathlib import Path

import instructions

PARTS = {
    "wmi": "WMI's round trip",
    "exchange": "the exchange over the request socket",
    "library": "two starts and stops of the XML library",
    "documents": "building the request, reading the answer's tree",
    "objects": "WMI objects: spawned, filled, handed to the client",
    "lines": "looking for the trace's switch, once a line",
    "product": "the product itself, less what its starts of the library save",
}


def judged(figure):
    """Says whether the goal is met: by the median of the rounds' ratios."""
    goal = figure["goal"]
    figure["met"] = None if goal is None else (
        figure["ratio"]["median"] >= goal if figure["at_least"]
        else figure["ratio"]["median"] <= goal)
    return figure


# -- text

def number(value):
    return f"{value:,.0f}" if abs(value) >= 100 else f"{value:.3g}"


def title(figure):
    return figure["name"] if figure["size"] is None else f"{figure['name']}, {figure['size']:,}"


def spread(ratio):
    return f"{ratio['median']:.2f} ({ratio['q1']:.2f}–{ratio['q3']:.2f})"


def line(figure):
    return (f"{title(figure)}: {number(figure['product']['median'])} against "
            f"{number(figure['floor']['median'])} {figure['unit']}, ratio {spread(figure['ratio'])}")


def goal_of(figure):
    if figure["goal"] is None:
        return ""
    sign = "≥" if figure["at_least"] else "≤"
    return f"{sign} {figure['goal']}: {'met' if figure['met'] else '**missed**'}"


def rows(header, lines):
    out = ["| " + " | ".join(header) + " |", "|" + "---|" * len(header)]
    return "\n".join(out + ["| " + " | ".join(line) + " |" for line in lines]) + "\n"


def unit_of(figure):
    return figure["unit"].replace("us", "µs")


def tables(results):
    """Everything as Markdown."""
    figures = rows(
        ["What", "product", "floor", "unit", "ratio (quartiles)", "ratio, elapsed", "goal"],
        [[title(f), number(f["product"]["median"]), number(f["floor"]["median"]), unit_of(f),
          spread(f["ratio"]), spread(f["elapsed"]) if "elapsed" in f else "", goal_of(f)]
         for f in results["figures"]])
    growth = rows(
        ["What", "from → to", "time grows by", "exponent", "floor's exponent", "goal"],
        [[g["name"], f"{g['from']:,} → {g['to']:,}", f"{g['product']['factor']:.2f}",
          f"{g['product']['exponent']:.2f}", f"{g['floor']['exponent']:.2f}",
          f"≤ {g['goal']}: {'met' if g['met'] else '**missed**'}" if "goal" in g else ""]
         for g in results["growth"]])
    sizes = results["breakdown"]
    breakdown = rows(
        ["Part"] + [f"{s['size']:,} devices" for s in sizes],
        [[text] + [f"{number(s['parts'][part])} ({share(s, part):.0f} %)" for s in sizes]
         for part, text in PARTS.items()] +
        [["**all**"] + [f"**{number(sum(s['parts'].values()))}**" for s in sizes]])
    goals = rows(["Goal", "found", ""], [
        [g["text"], number(g["value"]), "met" if g["met"] else "**missed**"]
        for g in results["goals"]])
    core = rows(["Benchmark", "size", "ns", "exponent"], [
        [c["name"], f"{c['size']:,}" if c["size"] else "", number(c["ns"]),
         "" if c["exponent"] is None else f"{c['exponent']:.2f}"] for c in results["core"]])
    counts = rows(["What", "instructions"],
                  [[name, number(count)] for name, count in results["instructions"].items()] +
                  [[f"{name}, product ÷ bare", f"{results['instructions'][name] / results['instructions'][bare]:.2f} "
                    f"(at most {most})"] for name, bare, most in instructions.RATIOS])
    kept = results["kept"]
    return f"""\
Measured {results['when']}, at {results['commit']}, on {results['machine']}, {results['rounds']} rounds, \
load {results['load']:.1f}.

Processor time of client, provider and wineserver together, unless the unit says elapsed. The ratio
is the median of the rounds' ratios; "rate" ratios are floor ÷ product.

{figures}
Of the XML library: "product" is the library as it is built and started here, "floor" the one as distributed.

{goals}
## Growth

{growth}
## What an enumeration is made of (adapter strategy, µs)

{breakdown}
## Memory

Resident before the first large enumeration {number(kept['before'])} KiB; {number(kept['after'])} KiB \
more after one of {kept['size']:,} devices, {number(kept['again'])} KiB more after three.

## The plain core, natively (Google Benchmark, processor time)

{core}
## Instructions of the plain core (callgrind)

{counts}"""


def share(size, part):
    return 100 * size["parts"][part] / sum(size["parts"].values())


# -- Google Benchmark

def core_figures(benchmarks):
    """Name, nanoseconds and, after a smaller size of the same benchmark, the growth's exponent."""
    units = {"ns": 1, "us": 1e3, "ms": 1e6}
    figures, smaller = [], {}
    for benchmark in benchmarks:
        if benchmark.get("aggregate_name", "median") != "median":
            continue
        name, _, size = benchmark["run_name"].partition("/")
        figure = {"name": name, "size": int(size or 0), "exponent": None,
                  "ns": benchmark["cpu_time"] * units[benchmark["time_unit"]]}
        if name in smaller:
            figure["exponent"] = math.log(figure["ns"] / smaller[name]["ns"]) / math.log(
                figure["size"] / smaller[name]["size"])
        smaller[name] = figure
        figures.append(figure)
    return figures


# -- comparison

def comparison(earlier, later):
    """The ratios of two runs; marked where the quartiles do not overlap."""
    before = {title(f): f["ratio"] for f in earlier["figures"]}
    lines = []
    for figure in later["figures"]:
        was, now = before.get(title(figure)), figure["ratio"]
        if was is None:
            continue
        apart = now["q1"] > was["q3"] or now["q3"] < was["q1"]
        better = (now["median"] > was["median"]) == figure["at_least"]
        lines.append([title(figure), spread(was), spread(now),
                      ("better" if better else "**worse**") if apart else ""])
    before = earlier.get("instructions", {})
    lines += [[name, number(before[name]), number(count), ""]
              for name, count in later["instructions"].items() if before.get(name, count) != count]
    return (f"## Compared with {earlier['when']} ({earlier['commit']})\n\n" +
            rows(["What", "ratio then", "ratio now", "beyond the spread"], lines))


# -- plots

def write(results, folder):
    folder = Path(folder)
    folder.mkdir(parents=True, exist_ok=True)
    (folder / "results.json").write_text(json.dumps(results, indent=1) + "\n")
    (folder / "results.md").write_text("# Results\n\n" + tables(results))
    plots(results, folder)


def plots(results, folder):
    import matplotlib
    matplotlib.use("svg")
    import matplotlib.pyplot as plt
    matplotlib.rcParams.update({"svg.hashsalt": "quillmon", "font.size": 9,
                                "axes.spines.top": False, "axes.spines.right": False})

    def save(figure, name):
        figure.tight_layout()
        figure.savefig(folder / name, metadata={"Date": None})
        plt.close(figure)

    def series(name):
        return [f for f in results["figures"] if f["name"] == name]

    figure, (left, right) = plt.subplots(1, 2, figsize=(9, 3.6))
    for name, colour in (("adapter enumeration", "C0"), ("proxy enumeration", "C1")):
        points = series(name)
        sizes = [p["size"] for p in points]
        left.loglog(sizes, [p["product"]["median"] / 1000 for p in points], colour + "o-",
                    label=name)
        left.loglog(sizes, [p["floor"]["median"] / 1000 for p in points], colour + "--",
                    label="its floor")
        medians = [p["ratio"]["median"] for p in points]
        right.errorbar(sizes, medians, fmt=colour + "o-", label=name, capsize=3, yerr=[
            [m - p["ratio"]["q1"] for m, p in zip(medians, points)],
            [p["ratio"]["q3"] - m for m, p in zip(medians, points)]])
    right.axhline(1.08, color="grey", linestyle=":", label="goal")
    right.set(xscale="log", xlabel="devices", ylabel="product ÷ floor", ylim=(0.8, 1.6))
    left.set(xlabel="devices", ylabel="processor time, ms")
    left.legend(frameon=False)
    right.legend(frameon=False)
    save(figure, "enumeration.svg")

    figure, axes = plt.subplots(figsize=(9, 2.6))
    sizes = results["breakdown"]
    labels = [f"{s['size']:,}" for s in sizes]
    begin = [0.0] * len(sizes)
    for part, text in PARTS.items():
        widths = [max(0, share(s, part)) for s in sizes]
        axes.barh(labels, widths, left=begin, label=text)
        begin = [b + w for b, w in zip(begin, widths)]
    axes.set(xlabel="share of the processor time, %", ylabel="devices")
    axes.legend(frameon=False, fontsize=7, loc="upper center", bbox_to_anchor=(0.5, 1.35), ncol=3)
    save(figure, "breakdown.svg")

    figure, axes = plt.subplots(figsize=(4.5, 3))
    points = series("concurrent clients, a request")
    for side, style in (("product", "C0o-"), ("floor", "C0--")):
        axes.plot([p["size"] for p in points],
                  [p[f"{side}_elapsed"]["median"] / 1000 for p in points], style, label=side)
    axes.set(xscale="log", xlabel="clients at once", ylabel="elapsed ms a request",
             ylim=(0, None))
    axes.set_xticks([p["size"] for p in points], [str(p["size"]) for p in points])
    axes.legend(frameon=False)
    save(figure, "clients.svg")
