"""Quillmon with a call of the system failing, another one in each run (tests/faults)."""

import bisect
import ctypes
import functools
import mmap
import subprocess

import pytest

from machine import BUILD, wait_until
from peers import Peer, device, framed, response
from ports import reserve_port

MEMORY_FUNCTIONS = {"malloc", "calloc", "SysAllocString", "SysAllocStringLen"}
KESTRUNE = "HKLM\\SOFTWARE\\Veltran\\Veltran Kestrune"

# Nothing fails that these call. What runs out in the XML library is the unit tests'
# (adapter/OutOfMemory_test.cpp). Where the compiler's runtime has no memory for a "once" or for
# what belongs to a thread it ends the program.
LIBRARIES = ("xercesc_3_2::", "pthread_once", "enterOnceObject", "__cxa_guard_acquire",
             "__emutls_get_address")
TRACE = "UPOSLog::"  # has a walk of its own


# -- what the DLL in the program shares, as tests/faults/faults.cpp declares it

class Function(ctypes.Structure):
    _fields_ = [("name", ctypes.c_char * 56), ("held", ctypes.c_int64)]


class Call(ctypes.Structure):
    _fields_ = [("id", ctypes.c_uint64), ("function", ctypes.c_int32), ("run", ctypes.c_int32),
                ("frames", ctypes.c_uint64 * 24)]


class Shared(ctypes.Structure):
    _fields_ = [*((name, ctypes.c_int32) for name in ("armed", "run", "depth", "chosen")),
                ("mutexes", ctypes.c_uint64 * 2),
                *((name, ctypes.c_int32) for name in (
                    "failed", "turn_kept", "without_events", "threads", "empty_receives",
                    "function_count", "call_count")),
                ("functions", Function * 128), ("calls", Call * (1 << 14))]


# -- the program's code

def nm(*arguments):
    return subprocess.run(["x86_64-w64-mingw32-nm", *arguments], check=True, capture_output=True,
                          text=True).stdout.splitlines()


@functools.lru_cache(maxsize=1)
def symbols():
    """The program's functions: (offset, name), in order."""
    found = [line.split(" ", 2) for line in nm("-C", BUILD / "quillmon.exe")]
    assert len(found) > 1000, "the program has no symbols"
    return sorted((int(address, 16) - 0x140000000, name) for address, kind, name in found
                  if address and kind in "tT" and not name.startswith("."))


@functools.lru_cache(maxsize=None)
def function_at(offset):
    return symbols()[bisect.bisect(symbols(), (offset, chr(0x10FFFF))) - 1][1]


def own_imports():
    """The functions that the program imports from the system and its own components call."""
    called = {line.split()[-1].removeprefix("__imp_")
              for line in nm("-u", *BUILD.glob("src/*/libquillmon_*.a")) if line}
    imported = {line.split()[-1] for line in nm(BUILD / "quillmon.exe")}
    return {name for name in called if f"__imp_{name}" in imported}


class Faults:
    """The fault shell on a machine, and the program that it has started."""

    def __init__(self, machine):
        self.machine = machine
        file = machine.c / "faults.bin"
        file.write_bytes(bytes(ctypes.sizeof(Shared)))
        with file.open("r+b") as opened:
            self.shared = Shared.from_buffer(mmap.mmap(opened.fileno(), 0))
        mutexes = [offset for offset, name in symbols() if name.startswith("pthread_mutex")]
        self.shared.mutexes[:] = mutexes[0], mutexes[-1]
        self.shared.depth, self.shared.chosen = 12, -1
        self.walked = set()  # the functions that failed in a walk of this test
        self.process = machine.start(str(BUILD / "fault_shell.exe"))

    def tell(self, *words):
        """A command of the fault shell; the program's exit code, or None while it runs."""
        self.process.stdin.write(" ".join(map(str, words)).encode() + b"\n")
        self.process.stdin.flush()
        answer = self.process.stdout.readline().decode().strip()
        return None if answer == "running" else int(answer)

    # -- the program

    def start(self, *options, armed=False, program=r"C:\Quillmon\quillmon.exe"):
        self.shared.without_events = self.shared.turn_kept = self.shared.function_count = 0
        for function in self.shared.functions:
            function.held = 0
        self.arm() if armed else self.disarm()
        self.tell("start", program, *options)

    def exit_code(self, milliseconds=0):
        """The program's, or None while it runs."""
        return self.tell("wait", milliseconds)

    def quit(self):
        """Ends the program's message loop."""
        self.tell("quit")

    def kill(self):
        self.tell("kill")
        assert self.shared.function_count, "faults.dll was not loaded"

    @property
    def output(self):
        """What the program has written to its console."""
        return (self.machine.c / "faults.out").read_bytes().decode("latin-1").replace("\r\n", "\n")

    # -- the call that fails

    def walk(self, what=lambda function, way: TRACE not in way, beyond=(), depth=12):
        """Yields once a run, in which the loop's body arms and disarms around what is walked: first
        a run in which nothing fails, then one for each call that was made, until none is new.

        Walked are the calls that `what` accepts and that are not among `beyond`. Two ways to a
        function are two if they differ within `depth` return addresses."""
        self.shared.depth = depth
        done = set(beyond)
        while True:
            self.shared.chosen = -1
            yield
            due = [call for call in sorted(self.made() - done)
                   if self.is_ours(call) and what(self.function(call), self.way(call))]
            for self.shared.chosen in due:
                yield
                if self.failed:
                    done.add(self.shared.chosen)
                    self.walked.add(self.failed)
            if done.isdisjoint(due):
                self.shared.chosen = -1
                return

    def learn(self, action):
        """The calls that the action makes."""
        self.shared.chosen = -1
        self.arm()
        action()
        self.disarm()
        return self.made()

    def arm(self):
        self.shared.failed = 0
        self.shared.run += 1
        self.shared.armed = 1

    def disarm(self):
        self.shared.armed = 0

    def made(self):
        """The calls that were made in this run, in which none failed."""
        shared = self.shared
        return {i for i in range(shared.call_count) if shared.calls[i].run == shared.run}

    def function(self, call):
        return self.shared.functions[self.shared.calls[call].function].name.decode()

    def frames(self, call):
        """The program's functions that led to the call, the innermost first."""
        return [function_at(frame - 1) for frame in self.shared.calls[call].frames if frame]

    def way(self, call):
        return " < ".join(self.frames(call))

    def is_ours(self, call):
        """Not what the libraries call for themselves, nor the compiler's start before main."""
        frames = self.frames(call)
        return not any(frame.startswith(LIBRARIES) for frame in frames) and (
            "main" in frames or not frames[-1].endswith("CRTStartup"))

    def is_chosen(self, function):
        """Whether it is the one that fails, or has failed, in this run."""
        return self.shared.chosen >= 0 and self.function(self.shared.chosen) == function

    @property
    def failed(self):
        """The function that has failed in this run, or None."""
        return self.function(self.shared.chosen) if self.shared.failed else None

    def __str__(self):
        chosen = self.shared.chosen
        return "nothing failed" if chosen < 0 else f"{self.failed} failed in {self.way(chosen)}"

    # -- what the program holds

    def held(self):
        """What the program holds: {function that made it: how many}; memory as its bytes."""
        return {function.name.decode(): function.held
                for function in self.shared.functions if function.held}

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


# -- what all walks need

def walks(functions):
    """Marks a test: in it these functions fail, besides those of memory."""
    functions = set(functions.split())

    def decorate(test):
        @functools.wraps(test)
        def checked(machine):
            machine.faults.walked.clear()
            test(machine)
            missing = functions - machine.faults.walked
            assert not missing, f"did not fail: {missing}"
        return checked
    return decorate


def log_folder(machine):
    return machine.c / "POS" / "Log"


def traced(machine):
    return machine.trace(log_folder(machine) / "Quillmon.log")


def configure_trace(machine, settings):
    (machine.c / "POS" / "zontrace.cfg").write_text(settings)


def kill(machine):
    """Ends the program; returns once its event port, which the next one will have, is closed."""
    machine.faults.kill()
    if machine.service_process() is None:  # which would have it open
        wait_until(lambda: not machine.has_event_port(machine.events), "its port to be closed")


def start(machine, *options):
    """The program, ready for whatever comes."""
    machine.faults.start(*options)
    machine.wait_for_event_port(machine.events)


@pytest.fixture(scope="module")
def shared(shared_machine):
    """The machine of all walks of a file."""
    machine = shared_machine
    machine.set_registry(KESTRUNE, "INSTALLDIR", "C:\\POS\\")
    log_folder(machine).mkdir(parents=True)
    machine.switch_trace_on()
    machine.events = reserve_port()
    machine.faults = Faults(machine)
    return machine


@pytest.fixture
def machine(shared):
    """No program, a fresh trace that is never rotated, and a device server with two scanners. It
    answers whoever connects: a request whose send fails is not looked at, and would wait with it."""
    for file in log_folder(shared).iterdir():
        file.unlink()
    configure_trace(shared, "FileSize=10000000\n")
    answer = framed(response(  # with what the platform converts: text that is not ASCII, TRUE
        device("S1", ModelName="Ä", CapUpdateStatistics=("boolean", "TRUE")), device("S2")))

    def answer_unasked(connection):
        connection.sendall(answer)
        while connection.recv(65536):
            pass

    with Peer() as shared.peer:
        shared.peer.on_connect = answer_unasked
        shared.configure(
            upos__requestSocket__Port=shared.peer.port, upos__requestSocket__retryTimeout=100,
            provider__eventSocket__Port=shared.events)
        yield shared
        kill(shared)


def is_setup(more):
    """The compiler's runtime sets itself up at a thread's first exception, for as long as the
    thread lives."""
    return {"calloc"} <= more.keys() <= {
        "malloc", "calloc", "realloc", "CreateEventA", "CreateSemaphoreA", "DuplicateHandle"}
