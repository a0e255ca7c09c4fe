"""leftovers.py [--remove]: names the machines that tests have left behind, of which nobody runs a
test any more, and what still runs in the build's other prefixes; ends with 1 if there are any.
--remove ends and removes them, as an interrupted run leaves them, and ends with 0.
"""

import contextlib
import fcntl
import os
import shutil
import sys
from pathlib import Path

from machine import MACHINES, WINE, processes_of, remove_prefix, wine


def is_owned(machine):
    """Whether the test that made this machine still runs."""
    with contextlib.suppress(FileNotFoundError), open(machine / "owner") as owner:
        try:
            fcntl.flock(owner, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            return True
    return False


def running_prefixes():
    """The prefixes in the build folder in which something runs, be their files there or not."""
    found = set()
    for folder in Path("/proc").iterdir():
        with contextlib.suppress(OSError):  # ended meanwhile, somebody else's, or no process
            for variable in (folder / "environ").read_bytes().split(b"\0"):
                name, _, prefix = variable.partition(b"=")
                if name == b"WINEPREFIX" and Path(os.fsdecode(prefix)).is_relative_to(WINE):
                    found.add(Path(os.fsdecode(prefix)))
    return found


def leftovers():
    """The machines and the other prefixes."""
    prefixes = running_prefixes()
    machines = {prefix.parent for prefix in prefixes if prefix.is_relative_to(MACHINES)}
    if MACHINES.exists():
        machines |= set(MACHINES.iterdir())
    return ([machine for machine in machines if not is_owned(machine)],
            [prefix for prefix in prefixes if not prefix.is_relative_to(MACHINES)])


def main():
    machines, prefixes = leftovers()
    if sys.argv[1:] == ["--remove"]:
        for machine in machines:
            remove_prefix(machine / "prefix")
            shutil.rmtree(machine, ignore_errors=True)
        for prefix in prefixes:
            wine(prefix, "--end")
        return 0
    for prefix in [*(machine / "prefix" for machine in machines), *prefixes]:
        print(f"leftovers.py: {prefix}: {'' if prefix.exists() else 'no '}files, processes "
              f"{processes_of(prefix)}", file=sys.stderr)
    return 1 if machines or prefixes else 0


if __name__ == "__main__":
    sys.exit(main())
