#!/usr/bin/env python3
"""scripts/results.py PART...: summarises the parts of scripts/test from their runners' reports.

A part is NAME=FILE. FILE is ctest's report, gtest's report, or lines "ok NAME" and "failed NAME
COMMAND". For a test in ctest's report, the cases are counted from the report that the test itself
wrote (PROGRAM.report.xml in the build folder). Ends with one line "N passed, N failed".
"""

import re
import shlex
import sys
import xml.etree.ElementTree as xml
from pathlib import Path


class Part:
    def __init__(self, name):
        self.name, self.passed, self.skipped = name, 0, 0
        self.failed, self.outputs, self.again = [], [], []


def cases(report):
    """(name, state) of each case in a report of gtest or pytest."""
    for case in xml.parse(report).iter("testcase"):
        name = f"{case.get('classname')}.{case.get('name')}"
        if case.find("failure") is not None or case.find("error") is not None:
            yield name, "failed"
        elif case.find("skipped") is not None or case.get("status") == "notrun":
            yield name, "skipped"
        else:
            yield name, "passed"


def count(part, prefix, found):
    for name, state in found:
        if state == "failed":
            part.failed.append(f"{prefix}{name}")
        elif state == "skipped":
            part.skipped += 1
        else:
            part.passed += 1


def read_ctest(part, report):
    build = Path("build") / part.name
    reports = {path.name.removesuffix(".report.xml"): path for path in build.rglob("*.report.xml")}
    whole, gtest, pytest = [], [], []  # what is to be run again, and which cases of it
    narrow = True
    for test in xml.parse(report).iter("testcase"):
        name, failed = test.get("name"), test.get("status") != "run"
        output = test.findtext("system-out") or ""
        before = len(part.failed)
        if name in reports:
            count(part, f"{name}: ", cases(reports[name]))
        elif ran := re.search(r"^Ran (\d+) tests? in", output, re.M):
            bad = sum(map(int, re.findall(r"(?:failures|errors)=(\d+)", output)))
            part.passed += int(ran[1]) - bad
            part.failed += [f"{name}: {bad} of its cases"] * bad
        elif not failed:
            part.passed += 1
        mine = part.failed[before:]
        if failed:
            whole.append(name)
            part.outputs.append((name, output))
            if mine and name in reports:
                names = [each.partition(": ")[2] for each in mine]
                if name.startswith("system."):
                    pytest += [each.rpartition(".")[2].partition("[")[0] for each in names]
                else:
                    gtest += names
            else:
                narrow = False
                if not mine:
                    part.failed.append(f"{name}: ended without a result")
    if whole:
        command = f"ctest --preset {part.name} -R " + shlex.quote(
            f"^({'|'.join(map(re.escape, whole))})$")
        if narrow and pytest:
            command = "PYTEST_ADDOPTS=" + shlex.quote(
                "-k '" + " or ".join(sorted(set(pytest))) + "'") + " " + command
        if narrow and gtest:
            command = f"GTEST_FILTER={shlex.quote(':'.join(gtest))} " + command
        part.again.append(command)


def read(name, file):
    part = Part(name)
    if not file.exists():
        part.failed.append("it wrote no report")
        part.again.append("scripts/test")
    elif file.suffix == ".txt":
        for line in file.read_text().splitlines():
            state, what, *command = line.split(maxsplit=2)
            if state == "ok":
                part.passed += 1
            else:
                part.failed.append(what)
                part.again += command
    elif xml.parse(file).getroot().tag == "testsuite":
        read_ctest(part, file)
    else:
        count(part, "", cases(file))
        if part.failed:
            part.again.append(
                f"tests/fixed build/host-tsan/thread_tests --gtest_filter={shlex.quote(':'.join(part.failed))}")
    return part


def main():
    parts = [read(name, Path(file)) for name, _, file in (word.partition("=") for word in sys.argv[1:])]
    for part in parts:
        for name, output in part.outputs:
            print(f"\n==== {part.name}: {name}\n{output.rstrip()}")
    print()
    for part in parts:
        skipped = f", {part.skipped} skipped" if part.skipped else ""
        print(f"{part.name:<12} {part.passed:4} passed, {len(part.failed)} failed{skipped}")
    failed = [f"{part.name}: {each}" for part in parts for each in part.failed]
    if failed:
        print("\nFailed:", *failed, sep="\n  ")
        print("\nJust that again:\n  " + "; ".join(each for part in parts for each in part.again))
    print(f"{sum(part.passed for part in parts)} passed, {len(failed)} failed")
    return 1 if failed else 0


sys.exit(main())
