"""Quillmon with its calls of the system failing one after the other (tests/faults)."""

import bisect
import functools
import json
import subprocess

from machine import BUILD, wait_until

ANY, PLATFORM, MEMORY = 0, 1, 2

MEMORY_OF = {"malloc", "calloc", "realloc"}  # counted in bytes

# What runs out in the XML library is the unit tests' (adapter/OutOfMemory_test.cpp). Where the
# compiler's runtime has no memory for a "once" or for what belongs to a thread it ends the program.
SKIPPED = ["xercesc_3_2::", "pthread_once", "enterOnceObject", "__cxa_guard_acquire",
           "__emutls_get_address"]

NM = "x86_64-w64-mingw32-nm"
IMAGE_BASE = 0x140000000


@functools.lru_cache(maxsize=1)
def functions():
    """The program's functions: (offset, name), in order."""
    lines = subprocess.run([NM, "-C", BUILD / "quillmon.exe"], check=True, capture_output=True,
                           text=True).stdout.splitlines()
    found = [line.split(" ", 2) for line in lines]
    assert len(found) > 1000, "the program has no symbols"
    return sorted((int(address, 16) - IMAGE_BASE, name) for address, kind, name in found
                  if address and kind in "tT")


def function_at(offset):
    number = bisect.bisect(functions(), (offset, chr(0x10FFFF))) - 1
    return functions()[number][1]


class Faults:
    """The fault shell on a machine, and the program that it has started."""

    def __init__(self, machine):
        self.machine = machine
        self.process = machine.start(str(BUILD / "fault_shell.exe"))
        assert self.process.stdout.readline().strip() == b"ready"
        self.name_ranges("mutexes", ["pthread_mutex_"])

    def tell(self, *words):
        self.process.stdin.write("\t".join(map(str, words)).encode() + b"\n")
        self.process.stdin.flush()
        return self.process.stdout.readline().decode().strip()

    def do(self, *words):
        answer = self.tell(*words)
        assert answer == "ok", answer

    def walk(self, kind=ANY, depth=12, only="", skip=("UPOSLog::",), below=()):
        """What is to be failed from now on: nothing that is called from functions whose names begin
        with one of `skip`, and only what is called from those of `below`, if any. Two ways to a
        function are two if they differ within `depth` return addresses."""
        skip = [*skip, *SKIPPED]
        self.do("walk", kind, depth, only)
        self.name_ranges("skip", skip)
        self.name_ranges("below", below)

    def name_ranges(self, verb, prefixes):
        ends = [offset for offset, _ in functions()][1:] + [1 << 32]
        (self.machine.c / "ranges").write_text("".join(
            f"{offset} {end}\n" for (offset, name), end in zip(functions(), ends)
            if name.startswith(tuple(prefixes))))
        self.do(verb, r"C:\ranges")

    def start(self, *options, armed=False, program=r"C:\Quillmon\quillmon.exe"):
        self.do("start", int(armed), " ".join([program, *options]))

    def arm(self):
        self.do("arm")

    def disarm(self):
        self.do("disarm")

    def report(self):
        return json.loads(self.tell("report"))

    def failed(self):
        """The function that failed since the last arming, or None."""
        return self.report()["failed"]

    def held(self):
        """What the program holds: {function that made it: how many}; memory as its bytes."""
        return {name: size if name in MEMORY_OF else number
                for name, (number, size, _) in self.report()["functions"].items() if number}

    def failures(self):
        """How often each function has been failed so far."""
        return {name: failures
                for name, (_, _, failures) in self.report()["functions"].items()}

    def exit_code(self, milliseconds=0):
        """The program's, or None while it runs."""
        answer = self.tell("wait", milliseconds)
        return None if answer == "running" else int(answer)

    def quit(self):
        """Ends the program's message loop."""
        self.do("quit")

    def kill(self):
        self.do("kill")

    @property
    def output(self):
        """What the program has written to its console."""
        return (self.machine.c / "faults.out").read_bytes().decode("latin-1").replace("\r\n", "\n")

    def way(self):
        """Where the failed call was made: the program's functions, the innermost first."""
        frames = [int(frame, 16) for frame in self.report()["stack"]]
        return " < ".join(function_at(frame - 1) for frame in frames if frame)

    def settled(self):
        """What the program holds once it has come to rest."""
        held = []

        def same():
            held.append(self.held())
            return len(held) > 5 and all(one == held[-1] for one in held[-5:])
        wait_until(same, "the program to come to rest")
        return held[-1]

    def more_than(self, before):
        """What the program holds beyond that, once it has come to rest."""
        def more():
            return {name: number - before.get(name, 0) for name, number in self.held().items()
                    if number > before.get(name, 0)}
        if more():
            self.settled()
        return more()
