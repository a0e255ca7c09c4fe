"""The test bench: machines on which the product and its floor run side by side under Wine.

Each side is a Windows of its own (a Wine prefix) with the WMI stand-in, one provider (the product,
or the floor program in its place) and one bench_client, which is WMI client and device server in
one. All processes, their wineservers among them, share one core, so that a round is a sequence of
steps and not a race.
"""

import contextlib
import os
import re
import select
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests" / "system"))

import machine as machines  # noqa: E402
from ports import reserve_port  # noqa: E402

BUILD = machines.BUILD
DISTRIBUTED = ROOT / "build" / "windows-distributed"  # linked with the XML library as distributed
SECONDS = 120


class Failed(Exception):
    """A program of the bench did not do what it was asked to."""


class Program:
    """A program under Wine that answers each line with a line."""

    def __init__(self, machine, exe, *arguments):
        self.name = Path(exe).name
        self.process = machine.start(str(exe), *arguments)
        self.rest = b""

    def read(self, seconds=SECONDS):
        deadline = time.monotonic() + seconds
        while b"\n" not in self.rest:
            left = max(0, deadline - time.monotonic())
            piece = b""
            if select.select([self.process.stdout], [], [], left)[0]:
                piece = os.read(self.process.stdout.fileno(), 65536)
            if not piece:
                raise Failed(f"{self.name}: no answer")
            self.rest += piece
        line, self.rest = self.rest.split(b"\n", 1)
        return line.decode().strip()

    def expect(self, text):
        line = self.read()
        if line != text:
            raise Failed(f"{self.name}: {line}")

    def ask(self, *words):
        self.process.stdin.write(" ".join(map(str, words)).encode() + b"\n")
        self.process.stdin.flush()
        line = self.read()
        if line.startswith(("failed", "unknown")):
            raise Failed(f"{self.name}: {' '.join(map(str, words))}: {line}")
        return line

    def end(self):
        self.process.kill()
        self.process.wait()


class Side:
    """One machine; `kind` is "product", "floor" or "distributed" (the product, linked with the XML
    library as it is distributed)."""

    def __init__(self, machine, kind, strategy):
        self.machine, self.kind, self.strategy = machine, kind, strategy
        if kind == "distributed":
            machine.exe.write_bytes((DISTRIBUTED / "quillmon.exe").read_bytes())
        machine.set_wmi("Quiet", 1)
        self.events = reserve_port()
        self.requests = reserve_port()
        self.client = Program(machine, BUILD / "bench_client.exe", self.requests)
        self.client.expect("ready")
        self.provider = None
        self.server = None

    def start_provider(self, requests=None):
        """`requests`: another request port than the client's. Returns at once: the product does not
        say when it is ready."""
        port = self.requests if requests is None else requests
        if self.kind == "floor":
            self.provider = Program(self.machine, BUILD / "floor_provider.exe", self.strategy, port,
                                    self.events)
            return
        self.machine.configure(upos__requestSocket__Port=port,
                               upos__requestSocket__retryTimeout=3600000,
                               provider__eventSocket__Port=self.events)
        mode = {"adapter": "-d", "proxy": "-O"}[self.strategy]
        self.provider = Program(self.machine, "C:\\Quillmon\\quillmon.exe", mode)

    def trace(self, configuration=None):
        """The program that traces; `configuration` is the log's, none where it has none."""
        if configuration:
            folder = self.machine.c / "Log"
            (folder / "Log").mkdir(parents=True)
            (folder / "zontrace.cfg").write_bytes(configuration.read_bytes())
            self.machine.set_registry("HKLM\\SOFTWARE\\Veltran\\Veltran Kestrune", "INSTALLDIR",
                                      "C:\\Log\\")
        program = Program(self.machine, BUILD / "bench_trace.exe")
        program.expect("ready")
        return program

    def end_provider(self):
        self.provider.end()

    def watch(self):
        """Subscribes, once the event port is open."""
        kind = {"adapter": "udp", "proxy": "tcp"}[self.strategy]
        deadline = time.monotonic() + 20
        while True:
            try:
                return self.client.ask("watch", kind, self.events)
            except Failed:
                if time.monotonic() > deadline:
                    raise
                time.sleep(0.05)

    def watch_port_opened(self):
        """Returns once the provider has opened its event port, the last step of its start."""
        machines.wait_until(lambda: self.events in machines.bound_datagram_ports(),
                            "the event port")

    def measure(self, *command):
        """Microseconds, as the client sees them."""
        return float(self.client.ask(*command))

    def processor_time(self):
        """What all processes of this side have used so far, in microseconds; without the provider's
        where it has ended."""
        if self.server is None:
            self.server = self._find_server()
        running = [self.provider.process.pid] if self.provider.process.returncode is None else []
        return sum(map(processor_time, [self.client.process.pid, self.server, *running]))

    def _find_server(self):
        for process in machines.processes_of(self.machine.prefix):
            with contextlib.suppress(OSError):  # ended meanwhile
                if Path(f"/proc/{process}/comm").read_text().startswith("wineserver"):
                    return process
        raise Failed("no wineserver")


@contextlib.contextmanager
def sides(*kinds, strategy="adapter"):
    """A side of each kind, until the end of the block."""
    with contextlib.ExitStack() as stack:
        yield [Side(stack.enter_context(machines.temporary_machine()), kind, strategy)
               for kind in kinds]


def processor_time(pid):
    """What all threads of a process have used, ended ones too, in microseconds: the kernel's clock
    of that process."""
    return time.clock_gettime_ns((~pid << 3) | 2) / 1000


class Memory:
    """What a process holds, seen from the host, in KiB."""

    def __init__(self, process):
        self.folder = Path("/proc") / str(process.pid)

    def _status(self, name):
        text = (self.folder / "status").read_text()
        return int(re.search(rf"^{name}:\s+(\d+) kB$", text, re.MULTILINE)[1])

    def now(self):
        return self._status("VmRSS")

    def forget_peak(self):
        (self.folder / "clear_refs").write_text("5")

    def peak(self):
        return self._status("VmHWM")


def use_one_core():
    """This process and everything that it starts from now on."""
    os.sched_setaffinity(0, {max(os.sched_getaffinity(0))})
