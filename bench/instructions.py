#!/usr/bin/env python3
"""Counts the instructions of the plain core with Valgrind's callgrind; no other load changes them.

bench/instructions.py [--write]: runs cases of build/bench/core_bench, prints a table, and fails when a
count has grown by more than 3 % over bench/core/instructions.json or misses a goal. --write keeps the
counts there: a change that costs more says so by changing that file.
"""

import concurrent.futures
import json
import os
import re
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
PROGRAM = ROOT / "build" / "bench" / "core_bench"
TABLE = ROOT / "bench" / "core" / "instructions.json"
ALLOWANCE = 1.03
FIELDS = 8  # of each of the benchmarks' devices

# What is counted: the case, and by what to divide. A case with a size is counted at 1,000 and at 10,
# and what remains of the difference is the cost of one.
COUNTS = {
    "XML library, a start and its end": ("startAndStop", 1),
    "request, building": ("toXML", 1),
    "answer, reading, an instance": ("fromXML/", 1),
    "answer, bare tree, an instance": ("bare_fromXML/", 1),
    "handing on, a field": ("handOn/", FIELDS),
    "event, adapter strategy": ("fromXMLEvent", 1),
    "event, adapter strategy, bare tree": ("bare_fromXMLEvent", 1),
    "event, proxy strategy": ("proxyEvent", 1),
    "event, proxy strategy, bare trees": ("bare_proxyEvent", 1),
    "cached device, listing": ("listDevices/", 1),
    "answer, taking off the socket, an instance": ("readAnswer/", 1),
    "stream, splitting, an event": ("splitStream/", 1),
    "trace line, formatting": ("formatLine", 1),
}
# (what, of what, at most)
RATIOS = [
    ("answer, reading, an instance", "answer, bare tree, an instance", 1.15),
    ("event, adapter strategy", "event, adapter strategy, bare tree", 1.3),
    ("event, proxy strategy", "event, proxy strategy, bare trees", 1.3),
]
LIMITS = {"handing on, a field": 300}


# The C library takes other functions on other processors: here those that every one has.
PLAIN_PROCESSOR = {
    "GLIBC_TUNABLES": "glibc.cpu.hwcaps=-AVX2,-AVX,-SSE4_2,-SSSE3,-ERMS,-FSRM,-BMI2,-MOVBE"}


def instructions(case):
    done = subprocess.run(
        ["valgrind", "--tool=callgrind", "--collect-atstart=no", "--callgrind-out-file=/dev/null",
         PROGRAM, f"--benchmark_filter=^{case}$", "--benchmark_min_time=0"],
        stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
        env=os.environ | PLAIN_PROCESSOR)
    collected = re.search(r"Collected : (\d+)", done.stderr)
    if done.returncode or not collected or collected[1] == "0":
        sys.exit(f"core_bench has not been counted at {case}:\n{done.stderr}")
    return int(collected[1])


def cost(case, units):
    if case.endswith("/"):
        return (instructions(case + "1000") - instructions(case + "10")) / 990 / units
    return instructions(case) / units


def count():
    with concurrent.futures.ThreadPoolExecutor() as pool:
        return dict(zip(COUNTS, pool.map(lambda each: round(cost(*each)), COUNTS.values())))


def judged(counts, kept):
    """Lines of a table, and how many of them are bad."""
    lines, bad = [], 0
    for name, number in counts.items():
        before = kept.get(name)
        if before is None:
            verdict = "new: keep it with --write"
        elif number > before * ALLOWANCE:
            verdict = f"GREW from {before:,}"
        elif number > LIMITS.get(name, number):
            verdict = f"ABOVE {LIMITS[name]}"
        else:
            verdict = "" if number >= before / ALLOWANCE else f"fell from {before:,}: keep it with --write"
        bad += before is None or verdict.startswith(("GREW", "ABOVE"))
        lines.append(f"{name:<44}{number:>14,}  {verdict}".rstrip())
    for name, base, most in RATIOS:
        ratio = counts[name] / counts[base]
        bad += ratio > most
        lines.append(f"{name} / bare: {ratio:.2f} (at most {most})" + (" MISSED" if ratio > most else ""))
    return lines, bad


def main():
    counts = count()
    if sys.argv[1:] == ["--write"]:
        TABLE.write_text(json.dumps(counts, indent=1) + "\n")
    kept = json.loads(TABLE.read_text()) if TABLE.exists() else {}
    lines, bad = judged(counts, kept)
    print("\n".join(lines))
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
