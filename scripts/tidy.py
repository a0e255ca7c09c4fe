#!/usr/bin/env python3
"""scripts/tidy.py FILE...: runs clang-tidy over the FILEs. It uses the compile commands of the native
flavour and, for sources that only Windows has, those of the Windows flavour with clang's MinGW target:
its warnings count as well as GCC's.

The files of one target are analysed as one text, so that their headers are read once; those with a name
that clashes with an earlier file's are a text of their own, and so on. build/lint records what clashed and
what was clean; the latter is analysed again only after a change to a source, to a header that it includes,
to its compile command, to .clang-tidy or to the tool.
"""

import concurrent.futures
import hashlib
import json
import os
import re
import shlex
import shutil
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
STAMPS = ROOT / "build" / "lint"
TIDY = "clang-tidy-14"
PRECOMPILED = re.compile(r"(-Xclang )?-include(-pch)? (-Xclang )?\S+ ")

# In the tools the static analyser looks at each function without much of what it calls.
SHALLOW = ["-Xclang", "-analyzer-config", "-Xclang", "mode=shallow"]


def said(*command):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          stdin=subprocess.DEVNULL, text=True).stdout


def mingw_includes():
    """MinGW's include folders but the compiler's own, in whose place clang has others."""
    listed = said("x86_64-w64-mingw32-g++-posix", "-E", "-x", "c++", "-v", "-")
    folders = re.findall(r"^ (/.*)$", listed.partition("search starts here:\n#include <...>")[2],
                         re.MULTILINE)
    return [word for folder in folders
            if not re.search(r"/gcc/[^/]+/[^/]+/include(-fixed)?$", folder)
            for word in ("-isystem", folder)]


def without(words, option, values):
    at = words.index(option) if option in words else len(words)
    return words[:at] + words[at + 1 + values:]


def by_target(wanted):
    """{(flavour, target): [(file, folder, compile command), ...]}: each file once."""
    groups, seen = {}, set()
    for flavour in ("host", "windows"):
        build = ROOT / "build" / flavour
        for entry in json.loads((build / "compile_commands.json").read_text()):
            if entry["file"] not in wanted or entry["file"] in seen:
                continue
            seen.add(entry["file"])
            words = shlex.split(PRECOMPILED.sub("", entry["command"]))
            target = re.search(r"CMakeFiles/(.*)\.dir/", words[words.index("-o") + 1])[1]
            words = words[next(i for i, word in enumerate(words) if "++" in word) + 1:]
            words = without(without(words, "-o", 1), "-c", 1)
            if flavour == "windows":
                words = ["--target=x86_64-w64-mingw32", "-nostdinc++", *mingw_includes(), *words]
            groups.setdefault((flavour, target), []).append(
                (entry["file"], entry["directory"], words))
    return groups, sorted(wanted - seen)


def digest(*texts):
    return hashlib.sha256(b"\0".join(texts)).hexdigest()


content_digests = {}


def content(path):
    if path not in content_digests:
        data = Path(path).read_bytes() if os.path.exists(path) else b"gone"
        content_digests[path] = digest(data)
    return content_digests[path].encode()


def key(command, sources, included, tool):
    configs = [str(ROOT / ".clang-tidy"), str(ROOT / "tests" / ".clang-tidy")]
    return digest(tool, " ".join(command).encode(),
                  *(text for path in (*configs, *sources, *included)
                    for text in (path.encode(), content(path))))


def lint(name, entries, tool):
    """What there is to say about the files: nothing if they are clean."""
    sources = [source for source, _, _ in entries]
    folder, words = entries[0][1:]
    part = Path(sources[0]).relative_to(ROOT).parts[0]
    if part == "tools":
        words = [*words, *SHALLOW]
    place = STAMPS / "tests" if part in ("tests", "bench") else STAMPS
    command = ["clang++-14", *words, *(f"-I{one}" for one in sorted(map(os.path.dirname, sources)))]
    stamp = STAMPS / f"{name}.json"
    kept = json.loads(stamp.read_text()) if stamp.exists() else {}
    if isinstance(kept, list) and set(kept) < set(sources): # it was not one text before
        return lint_apart(name, entries, kept, tool)
    if "key" in kept and kept["key"] == key(command, sources, kept["included"], tool):
        return ""
    text = place / name
    text.write_text("".join(Path(source).read_text() for source in sources))
    rule = STAMPS / f"{name}.d"
    places = [f"{os.path.relpath(source, ROOT)}:{line}" for source in sources
              for line, _ in enumerate(Path(source).read_text().splitlines(), 1)]
    line_of_text = re.escape(str(text)) + r":(\d+)"

    def placed(output):
        return re.sub(line_of_text, lambda at: places[int(at[1]) - 1], output)

    compiled = subprocess.run([*command, "-w", "-fsyntax-only", "-ferror-limit=0", "-MD", "-MF", rule,
                               text], cwd=folder, stderr=subprocess.PIPE, text=True)
    if compiled.returncode != 0:
        wrong = re.findall(line_of_text + r":\d+: error", compiled.stderr)
        clash = {str(ROOT / places[int(line) - 1].partition(":")[0]) for line in wrong}
        if not clash or clash == set(sources):
            return placed(compiled.stderr)
        stamp.write_text(json.dumps(sorted(clash)))
        return lint_apart(name, entries, clash, tool)
    included = sorted({os.path.join(folder, word) for word in
                       rule.read_text().partition(":")[2].replace("\\\n", " ").split()} - {str(text)})
    before = key(command, sources, included, tool)
    result = subprocess.run([TIDY, "--quiet", text, "--",
                             *command[1:]], cwd=folder, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True)
    if result.returncode == 0:
        stamp.write_text(json.dumps({"key": before, "included": included}))
        return ""
    return placed(result.stdout) or f"{TIDY} failed on {name}\n"


def lint_apart(name, entries, clash, tool):
    return "".join(lint(f"{text}.{name}", [entry for entry in entries if (entry[0] in clash) == apart],
                        tool) for text, apart in ((1, False), (2, True)))


def main():
    (STAMPS / "tests").mkdir(parents=True, exist_ok=True)
    shutil.copy(ROOT / "tests" / ".clang-tidy", STAMPS / "tests") # found beside the text
    groups, left_out = by_target({str(ROOT / name) for name in sys.argv[1:]})
    if left_out:
        sys.exit("no flavour compiles " + " ".join(left_out))
    tool = said(TIDY, "--version").encode()
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        found = list(pool.map(lambda group: lint(f"{group[0][0]}.{group[0][1]}.cpp", group[1], tool),
                              groups.items()))
    print("".join(found), end="")
    return 1 if any(found) else 0


sys.exit(main())
