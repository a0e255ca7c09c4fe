"""Measures the product against its floor and writes what came out; scripts/bench calls it.

Each figure is a ratio of two that were taken in turns in the same run. What counts is the processor
time of all processes of a side (client, provider, wineserver), which on one core is the elapsed
time of a machine that does nothing else; the elapsed time is shown beside it.
"""

import argparse
import json
import math
import os
import platform
import statistics
import subprocess
import sys
import time
from datetime import datetime, timezone
from pathlib import Path

sys.dont_write_bytecode = True
import instructions  # noqa: E402
import report  # noqa: E402
import rig  # noqa: E402

STAGES = ["wmi", "exchange", "library", "documents", "objects", "lines"]


def quartiles(values):
    values = sorted(values)
    if len(values) < 2:
        return {"median": values[0], "q1": values[0], "q3": values[0]}
    q1, median, q3 = statistics.quantiles(values, n=4, method="inclusive")
    return {"median": median, "q1": q1, "q3": q3}


def compared(name, ours, floors, size=None, unit="us", goal=None, at_least=False):
    """One figure: `ours` and `floors` are samples of [value] or [value, elapsed], pair by pair."""
    ratios = [o[0] / f[0] for o, f in zip(ours, floors)]
    if at_least:
        ratios = [1 / ratio for ratio in ratios]
    figure = {
        "name": name, "size": size, "unit": unit, "rounds": len(ratios),
        "product": quartiles([o[0] for o in ours]), "floor": quartiles([f[0] for f in floors]),
        "ratio": quartiles(ratios), "goal": goal, "at_least": at_least,
    }
    if len(ours[0]) > 1:
        elapsed = [o[1] / f[1] for o, f in zip(ours, floors)]
        figure["elapsed"] = quartiles([1 / e for e in elapsed] if at_least else elapsed)
        figure["product_elapsed"] = quartiles([o[1] for o in ours])
        figure["floor_elapsed"] = quartiles([f[1] for f in floors])
    return report.judged(figure)


class Run:
    def __init__(self, quick):
        self.quick = quick
        self.rounds = 3 if quick else 21
        self.sizes = [1, 10, 100] if quick else [1, 10, 100, 1000, 10000]
        self.figures = []
        self.growth = []
        self.breakdown = []
        self.started = time.monotonic()

    def say(self, text):
        print(f"[{time.monotonic() - self.started:4.0f}s] {text}", file=sys.stderr, flush=True)

    # -- taking turns

    @staticmethod
    def sample(side, command, per=1):
        """[processor time, elapsed time] of a command that does something `per` times, for one."""
        before = side.processor_time()
        elapsed = side.measure(*command)
        used = (side.processor_time() - before) / per
        return [used, elapsed / per]

    def turns(self, sides, command, per=1, rounds=None):
        """Samples of each side, round by round; one round ahead that does not count."""
        samples = [[] for _ in sides]
        for number in range(-1, rounds or self.rounds):
            for side, taken in zip(sides, samples):
                sample = self.sample(side, command, per)
                if number >= 0:
                    taken.append(sample)
        return samples

    def add(self, name, samples, **options):
        figure = compared(name, samples[0], samples[1], **options)
        self.figures.append(figure)
        self.say(report.line(figure))
        return figure

    @staticmethod
    def times(size):
        return {1: 20, 10: 20, 100: 5}.get(size, 1)

    def enumerate(self, name, sides, prepare, then=lambda size: None):
        """At each size; `then` measures what else there is at that size."""
        figures = []
        for size in self.sizes:
            for side in sides:
                prepare(side, size)
            times = self.times(size)
            samples = self.turns(sides, ["enumerate", size, times], times)
            figures.append(self.add(name, samples, size=size, goal=1.08))
            then(size)
        self.note_growth(name, figures)

    def note_growth(self, name, figures):
        for smaller, larger in zip(figures, figures[1:]):
            step = {"name": name, "from": smaller["size"], "to": larger["size"]}
            for side in ("product", "floor"):
                factor = larger[side]["median"] / smaller[side]["median"]
                step[side] = {"factor": factor, "exponent": math.log(factor) / math.log(
                    larger["size"] / smaller["size"])}
            if larger["size"] == 10000:
                step["goal"] = 11
                step["met"] = step["product"]["factor"] <= 11
            self.growth.append(step)

    # -- the parts

    def adapter(self):
        self.say("the adapter strategy: product and floor side by side")
        with rig.sides("product", "floor", strategy="adapter") as sides:
            for side in sides:
                side.start_provider()
                side.client.ask("until", 1)
                side.watch()
            self.enumerate("adapter enumeration", sides,
                           lambda side, size: side.client.ask("devices", size))
            self.add("adapter retrieval", self.turns(sides, ["get", "DEV1", 20], 20), goal=1.08)
            self.events("datagram", sides)
            self.stages(*sides)
            self.clients(sides)
            self.skipped(sides)
            self.start(sides)

    def events(self, name, sides):
        count = 100
        self.add(f"{name} events, rate",
                 self.turns(sides, ["events", "modifyInstance", 0, count], count),
                 goal=0.85, at_least=True)
        latencies = [[], []]
        for _ in range(self.rounds):
            for side, taken in zip(sides, latencies):
                answer = side.client.ask("latency", "modifyInstance", 20)
                taken.append([statistics.median(map(float, answer.split()))])
        self.add(f"{name} event, send to sink", latencies, unit="us elapsed")

    def stages(self, product, floor):
        """What an enumeration is made of: the floor's stages, each doing more than the one before,
        and what the product adds to the last."""
        floor.provider.expect("ready")
        for size in [s for s in self.sizes if s in (1, 100, 1000, 10000)]:
            for side in (product, floor):
                side.client.ask("devices", size)
            rounds = max(3, self.rounds // (4 if size == 10000 else 2))
            times = self.times(size)
            used = {name: [] for name in [*STAGES, "product"]}
            for _ in range(rounds):
                for stage in STAGES:
                    floor.provider.ask("stage", stage)
                    count = size if stage in ("objects", "lines") else 0
                    used[stage].append(self.sample(floor, ["enumerate", count, times], times)[0])
                used["product"].append(
                    self.sample(product, ["enumerate", size, times], times)[0])
            medians = {name: statistics.median(values) for name, values in used.items()}
            names = list(medians)
            self.breakdown.append({"size": size, "parts": {
                name: medians[name] - (medians[before] if before else 0)
                for name, before in zip(names, [None] + names)}})
            self.say(f"made of, {size}: " + ", ".join(
                f"{k} {v:.0f}" for k, v in self.breakdown[-1]["parts"].items()))

    def clients(self, sides):
        """64 enumerations of 10 devices, shared by so many clients."""
        for side in sides:
            side.client.ask("devices", 10)
        total = 16 if self.quick else 64
        for clients in [1, 4, 16] if self.quick else [1, 2, 4, 8, 16, 32, 64]:
            samples = self.turns(sides, ["clients", clients, total // clients, 10], total)
            self.add("concurrent clients, a request", samples, size=clients)

    def skipped(self, sides):
        for side in sides:
            side.end_provider()
            side.start_provider(requests=rig.reserve_port() if side.kind == "product" else 0)
        for side in sides:
            self.wait_until_refused(side)
        self.add("request skipped during back-off", self.turns(sides, ["refused", 20], 20))

    @staticmethod
    def wait_until_refused(side):
        side.watch_port_opened()
        side.client.ask("refused", 3)  # the first one finds the device server away

    def start(self, sides):
        """From the start of the process to the end of the first enumeration."""
        samples = [[], []]
        for side in sides:
            side.client.ask("devices", 1)
        for number in range(-1, self.rounds):
            for side, taken in zip(sides, samples):
                side.end_provider()
                used, before = side.processor_time(), time.perf_counter()
                side.start_provider()
                side.client.ask("until", 1)
                elapsed = (time.perf_counter() - before) * 1e6
                if number >= 0:
                    taken.append([side.processor_time() - used, elapsed])
        self.add("start to first answer", samples, goal=1.1)

    def proxy(self):
        self.say("the proxy strategy: product and floor side by side")
        held = {}
        with rig.sides("product", "floor", strategy="proxy") as sides:
            for side in sides:
                side.start_provider()
                side.watch()
                held[side] = 0
            adds = []

            def prepare(side, size):
                count = size - held[side]
                sample = self.sample(side, ["events", "addInstance", held[side], count], count)
                held[side] = size
                adds.append((side.kind, size, sample))

            def then(size):
                self.add("proxy retrieval",
                         self.turns(sides, ["get", f"DEV{size - 1}", 20], 20), size=size, goal=1.08)
                if size == 100:
                    self.events("stream", sides)

            self.enumerate("proxy enumeration", sides, prepare, then)
            last = [[sample for kind, size, sample in adds
                     if kind == side.kind and size == self.sizes[-1]] for side in sides]
            self.add("adding a device by an event, rate", last, size=self.sizes[-1], at_least=True)

    def library(self):
        """What the patches of the XML library and its memory bring: the product as it is, and the
        library as it is distributed."""
        self.say("the XML library as built for the product and as it is distributed")
        with rig.sides("product", "distributed") as sides:
            programs = []
            for side in sides:
                side.start_provider()
                side.client.ask("until", 1)
                folder = rig.DISTRIBUTED if side.kind == "distributed" else rig.BUILD
                programs.append(rig.Program(side.machine, folder / "bench_xml.exe"))
                programs[-1].expect("ready")
            pairs = [[], []]
            for _ in range(self.rounds):
                for program, command, taken in zip(programs, ("session", "pair"), pairs):
                    taken.append([self.own_time(program, command, 20) / 20])
            figure = self.add("start and stop of the XML library", pairs)
            figure["goal"], figure["met"] = None, None
            self.goals = [{
                "text": "a start-stop pair at most 1500 us under Wine",
                "value": figure["product"]["median"],
                "met": figure["product"]["median"] <= 1500}]
            figure = self.add("one-instance enumeration, library cold",
                              self.turns(sides, ["enumerate", 1, 10], 10))
            self.goals.append({
                "text": "cold one-instance enumeration at least 5 times faster than with the XML "
                        "library as distributed",
                "value": 1 / figure["ratio"]["median"],
                "met": figure["ratio"]["median"] <= 0.2})

    @staticmethod
    def own_time(program, *command):
        before = rig.processor_time(program.process.pid)
        program.ask(*command)
        return rig.processor_time(program.process.pid) - before

    def memory(self):
        """Peak growth of a fresh process by one enumeration, against that of a bare tree of the
        same document; and what stays."""
        self.say("memory")
        size = self.sizes[-1]
        rounds = 2 if self.quick else 5
        peaks, trees, kept, steady = [], [], [], []
        with rig.sides("product") as (side,):
            side.client.ask("devices", 1)
            for _ in range(rounds):
                side.client.ask("devices", 1)
                side.start_provider()
                side.client.ask("until", 1)
                side.client.ask("enumerate", 1, 20)
                memory = rig.Memory(side.provider.process)
                before = memory.now()
                memory.forget_peak()
                side.client.ask("devices", size)
                side.client.ask("enumerate", size, 1)
                peaks.append([memory.peak() - before])
                kept.append(memory.now() - before)
                steady.append(before)
                for _ in range(2):
                    side.client.ask("enumerate", size, 1)
                self.again = memory.now() - before
                side.end_provider()

                bare = rig.Program(side.machine, rig.BUILD / "bench_xml.exe")
                bare.expect("ready")
                bare.ask("pair", 1)
                bare.ask("text", size)
                memory = rig.Memory(bare.process)
                before = memory.now()
                memory.forget_peak()
                bare.ask("tree")
                trees.append([memory.peak() - before])
                bare.end()
            self.add("peak memory of an enumeration", [peaks, trees], size=size, unit="KiB",
                     goal=1.15)
            self.kept = {"before": statistics.median(steady), "after": statistics.median(kept),
                         "again": self.again, "size": size}

    def trace(self):
        self.say("the trace")
        with rig.sides("floor") as (side,):
            def lines(program, name, ours, floor, times, goal=None):
                samples = [[], []]
                for _ in range(self.rounds):
                    for command, taken in zip((ours, floor), samples):
                        taken.append([float(program.ask(command, times))])
                self.add(name, samples, unit="us elapsed", goal=goal)

            program = side.trace()
            lines(program, "trace line, switched off", "disabled", "look", 500)
            lines(program, "trace line, without a limit of size", "enabled", "thread", 50, goal=1.15)
            program.end()
            program = side.trace(configuration=rig.ROOT / "packaging" / "config" / "zontrace.cfg")
            lines(program, "trace line, as shipped", "enabled", "steps", 50, goal=1.15)

    def core(self):
        """Google Benchmark's own figures of the plain core, native."""
        self.say("the plain core, natively")
        program = rig.ROOT / "build" / "bench" / "core_bench"
        options = ["--benchmark_format=json"]
        if self.quick:
            options.append("--benchmark_min_time=0.01")
        else:
            options += ["--benchmark_repetitions=5", "--benchmark_report_aggregates_only=true"]
        done = subprocess.run([program, *options], stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL, check=True)
        return report.core_figures(json.loads(done.stdout)["benchmarks"])

    def everything(self):
        self.goals, self.kept = [], None
        self.adapter()
        self.proxy()
        self.library()
        self.memory()
        self.trace()
        core = self.core()
        self.say("the instructions of the plain core")
        return {
            "when": datetime.now(timezone.utc).strftime("%Y-%m-%d %H:%M UTC"),
            "commit": subprocess.run(["git", "-C", rig.ROOT, "describe", "--always", "--dirty"],
                                     capture_output=True, text=True).stdout.strip(),
            "machine": machine(), "rounds": self.rounds, "quick": self.quick,
            "load": os.getloadavg()[2],
            "figures": self.figures, "growth": self.growth, "breakdown": self.breakdown,
            "goals": self.goals, "kept": self.kept, "core": core,
            "instructions": instructions.count(),
        }


def machine():
    model = next((line.split(":", 1)[1].strip() for line in open("/proc/cpuinfo")
                  if line.startswith("model name")), platform.machine())
    wine = subprocess.run(["/usr/lib/wine/wine64", "--version"], capture_output=True, text=True)
    return f"{model}, one core of {os.cpu_count()}, {wine.stdout.strip()}"


def main():
    parser = argparse.ArgumentParser(prog="scripts/bench")
    parser.add_argument("--quick", action="store_true",
                        help="a minute, to show that everything still works; writes nothing")
    parser.add_argument("--compare", type=Path, metavar="FILE",
                        help="results to compare with (otherwise docs/performance/results.json)")
    options = parser.parse_args()
    folder = rig.ROOT / "docs" / "performance"
    earlier_file = options.compare or folder / "results.json"
    earlier = json.loads(earlier_file.read_text()) if earlier_file.exists() else None
    rig.use_one_core()
    results = Run(options.quick).everything()
    print(report.tables(results))
    if earlier and not options.quick:
        print(report.comparison(earlier, results))
    if not options.quick:
        report.write(results, folder)


if __name__ == "__main__":
    main()
