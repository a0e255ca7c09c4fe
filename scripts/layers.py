#!/usr/bin/env python3
"""scripts/layers.py: checks that each component of src/ includes only itself and those below it.

The order is the list `components` in CMakeLists.txt, from the lowest to the highest.
"""

import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
COMPONENTS = re.search(r"set\(components ([^)]*)\)", (ROOT / "CMakeLists.txt").read_text())[1].split()


def upward():
    for component in COMPONENTS:
        for source in sorted((ROOT / "src" / component).rglob("*.*")):
            if source.suffix not in (".h", ".cpp"):
                continue
            for number, line in enumerate(source.read_text().splitlines(), 1):
                included = re.match(r'#include "(\w+)/', line)
                if included and included[1] not in COMPONENTS[:COMPONENTS.index(component) + 1]:
                    yield f"{source.relative_to(ROOT)}:{number}: {component} must not include {included[1]}"


if set(COMPONENTS) != {folder.name for folder in (ROOT / "src").iterdir()}:
    sys.exit("the components in CMakeLists.txt are not the folders of src/")
found = list(upward())
if found:
    print("\n".join(found))
sys.exit(bool(found))
