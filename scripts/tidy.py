#!/usr/bin/env python3
"""scripts/tidy.py FILE...: runs clang-tidy over the FILEs that build/host compiles, two at a time.

build/lint records the files that were clean. A file is analysed again only after a change to itself,
to a header that it includes, to its compile command, to .clang-tidy or to the tool.
"""

import concurrent.futures
import hashlib
import json
import os
import shlex
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
STAMPS = ROOT / "build" / "lint"
TIDY = "clang-tidy-14"


def digest(*texts):
    return hashlib.sha256(b"\0".join(texts)).hexdigest()


content_digests = {}


def content(path):
    if path not in content_digests:
        data = Path(path).read_bytes() if os.path.exists(path) else b"gone"
        content_digests[path] = digest(data)
    return content_digests[path].encode()


def compiler(entry, *more):
    """The compile command without its output and without a compiler cache."""
    words = shlex.split(entry["command"])
    words = words[next(i for i, word in enumerate(words) if "clang++" in word):]
    out = words.index("-o")
    return words[:out] + words[out + 2:] + list(more)


def included(entry):
    """The source and all its headers, the system's too."""
    rule = subprocess.run(compiler(entry, "-M"), cwd=entry["directory"], check=True,
                          stdout=subprocess.PIPE, text=True).stdout
    names = rule.partition(":")[2].replace("\\\n", " ").split()
    return sorted({os.path.join(entry["directory"], name) for name in names})


def key(entry, files, tool):
    return digest(tool, content(ROOT / ".clang-tidy"), " ".join(compiler(entry)).encode(),
                  *(text for path in files for text in (path.encode(), content(path))))


def lint(entry, tool):
    """What there is to say about the file: nothing if it is clean."""
    stamp = STAMPS / (os.path.relpath(entry["file"], ROOT).replace("/", "_") + ".json")
    if stamp.exists():
        kept = json.loads(stamp.read_text())
        if kept["key"] == key(entry, kept["files"], tool):
            return ""
    files = included(entry)
    before = key(entry, files, tool)
    result = subprocess.run([TIDY, "--quiet", "-p", ROOT / "build" / "host", entry["file"]],
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if result.returncode != 0:
        return result.stdout or f"{TIDY} failed on {entry['file']}"
    stamp.write_text(json.dumps({"key": before, "files": files}))
    return ""


def main():
    STAMPS.mkdir(parents=True, exist_ok=True)
    wanted = {str(ROOT / name) for name in sys.argv[1:]}
    database = json.loads((ROOT / "build" / "host" / "compile_commands.json").read_text())
    entries = {entry["file"]: entry for entry in database if entry["file"] in wanted}
    tool = subprocess.run([TIDY, "--version"], check=True, stdout=subprocess.PIPE).stdout
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        found = [text for text in pool.map(lambda entry: lint(entry, tool), entries.values()) if text]
    print("\n".join(found), end="")
    return 1 if found else 0


sys.exit(main())
