"""Every call of the system that can fail does so once, each in a run of its own, in the program
that ships: when it starts, in its trace and on its command line. test_failing_calls.py has the
walks through a program that runs.
"""

import re
from collections import Counter, defaultdict

from peers import OK, PROVIDER_LOAD_FAILURE, names
from faults import (KESTRUNE, MEMORY_FUNCTIONS, TRACE, configure_trace, is_setup, kill,
                    log_folder, machine, shared, traced, walks)  # noqa: F401, two are fixtures
from machine import SERVICE, wait_until

NO_MEMORY = "ends -2147024882"
# {function: what becomes of the starts in which it fails}
START = {
    "CoInitializeEx": [NO_MEMORY, "without events"],
    "CoInitializeSecurity": [NO_MEMORY],
    "CoCreateInstance": ["without provider", NO_MEMORY],
    "CreateThread": ["ends -2147217407"],
    "GetMessageA": ["parked"],
}
# Without memory: no path in main; no provider object; no context for the event thread.
START_MEMORY = ["runs", "exits 1", "without provider", "ends -2147217402"]
PARKED = "[Process] exit t_Result = 0"


def started(machine):
    """What has become of a start: 'runs', 'without provider', 'without events', 'ends CODE' or
    'parked'."""
    faults = machine.faults

    def state():
        if faults.exit_code() is not None:
            return "ends"
        if PARKED in traced(machine):
            return "parked"
        if faults.shared.without_events:
            return "without events"
        if faults.is_chosen("GetMessageA"):  # fails last of all: the port is open before it
            return None
        return "runs" if machine.has_event_port(machine.events) else None

    found = wait_until(state, faults)
    faults.disarm()
    if found == "ends":
        code = re.search(r"returned with error (-?\d+)\n", faults.output)
        if code is None:
            return f"exits {faults.exit_code()}"
        assert faults.exit_code() == 1
        assert f"Failed to start process with error : {code[1]}" in traced(machine)
        assert f"[Process] exit t_Result = {code[1]}" in traced(machine)
        return f"ends {code[1]}"
    if found == "runs":
        _, status = names(machine, "UPOS_Scanner")
        if status == PROVIDER_LOAD_FAILURE:
            return "without provider"
        assert status == OK, (status, traced(machine)[-5:])
    return found


def walk_starts(machine, option, beyond=()):
    faults, held = machine.faults, {}
    for _ in faults.walk(beyond=beyond):
        for file in log_folder(machine).iterdir():
            file.unlink()
        faults.start(option, armed=True)
        outcome = started(machine)
        failed = faults.failed
        assert outcome in (START_MEMORY if failed in MEMORY_FUNCTIONS else
                           START.get(failed, ["runs"])), f"{outcome}: {faults}"
        if outcome == "runs":
            faults.quit()
            wait_until(lambda: PARKED in traced(machine), "the message loop to end")
            assert machine.wmi_counter("ProviderReferences") == 0
            if failed not in MEMORY_FUNCTIONS:  # whose first exception sets the runtime up
                held[str(faults)] = faults.settled()
        if faults.exit_code() is None:
            kill(machine)
    undisturbed = held["nothing failed"]
    for what, holds in held.items():
        more = {name: number for name, number in holds.items()
                if number > undisturbed.get(name, 0)}
        assert not more or is_setup(more), f"{what}: holds more than without: {more}"


@walks("""OpenSCManagerA OpenServiceA QueryServiceStatus CoInitializeEx CoInitializeSecurity
       CoCreateInstance CreateThread GetMessageA WSAStartup socket bind""")
def test_a_start_in_which_a_call_fails_has_the_documented_outcome(machine):
    walk_starts(machine, "-d")


@walks("CreateMutexA CreateEventA WSAStartup socket bind listen _beginthreadex")
def test_a_start_of_the_proxy_strategy_in_which_a_call_fails_has_the_documented_outcome(machine):
    """What it calls beyond the adapter strategy's start."""
    def start_the_other():
        machine.faults.start("-d", armed=True)
        started(machine)
    other = machine.faults.learn(start_the_other)
    kill(machine)
    walk_starts(machine, "-O", beyond=other)


# -- the trace

# Where the settings are not found or not read, there are none.
UNSETTLED = {"RegOpenKeyExA", "RegQueryValueExA", "_fsopen", "fgets"}
WITHOUT_SETTINGS = [
    "No configuration file found, disabling settings", "Name of Config file to read : zontrace.cfg"]
# A copy that is not moved on is overwritten by the next.
MOVING = {"MoveFileA", "DeleteFileA"}


@walks("""OpenEventW RegOpenKeyExA RegQueryValueExA _fsopen fgets fwrite fclose CreateEventA
       CreateThread GetFileAttributesExA MoveFileA DeleteFileA""")
def test_a_call_that_fails_costs_the_trace_a_line_or_stops_it(machine):
    """A line that cannot be written, or a rotation that cannot start, keeps the writers' turn for
    good; every other failure costs a line at most."""
    configure_trace(machine, "BackupCount=5\nFileSize=150\n")
    faults = machine.faults

    def files():
        return [*log_folder(machine).iterdir(), *machine.home.glob("Quillmon.log*")]

    def lines():
        return [line for file in files() for line in machine.trace(file)]

    def state():
        assert faults.exit_code() is None, faults
        if faults.shared.turn_kept:
            return "tracing stops"
        return "runs" if machine.has_event_port(machine.events) else None

    outcomes, seen = defaultdict(set), {}
    for _ in faults.walk(what=lambda _, way: TRACE in way, depth=4):
        for file in files():
            file.unlink()
        faults.start("-d", armed=True)
        outcome = wait_until(state, faults)
        faults.disarm()
        outcomes[outcome].add(faults.failed)
        kill(machine)
        if outcome == "runs":
            seen[str(faults)] = faults.failed, lines()
    _, whole = seen["nothing failed"]
    whole = Counter(whole)
    assert len(whole) > 5 and len(files()) > 2
    for what, (failed, kept) in seen.items():
        missing, extra = whole - Counter(kept), Counter(kept) - whole
        if failed in UNSETTLED or failed in MEMORY_FUNCTIONS:
            missing = [line for line in missing if not line.startswith(("Name of ", "Key : "))]
            extra = set(extra) - set(WITHOUT_SETTINGS)
        assert failed in MOVING or len(missing) <= 1, f"{what}: {missing}"
        assert not extra, f"{what}: {extra}"
    assert outcomes["tracing stops"] == {"_fsopen", "CreateThread"}


@walks("GetModuleFileNameA")
def test_the_trace_of_a_program_of_unknown_place_is_in_the_root_folder(machine):
    machine.delete_registry(KESTRUNE, "INSTALLDIR")
    for _ in machine.faults.walk(what=lambda function, _: function == "GetModuleFileNameA"):
        machine.faults.start("-d", armed=True)
        machine.wait_for_event_port(machine.events)
        machine.faults.disarm()
        kill(machine)
        if machine.faults.failed:
            assert "Starting Interactively" in machine.trace(machine.c / "Quillmon.log")
    machine.set_registry(KESTRUNE, "INSTALLDIR", "C:\\POS\\")


# -- the command line

NOT_STARTED = ["You should start your application using the Services panel",
               "Quillmon Services not started"]
VERSION = ["ORVEX point-of-service device management", "Quillmon Service for Windows",
           "No level info found"]
INSTALLED = ["Quillmon Services has been registered", "Starting Service"]
STARTED = "Quillmon Services has been started."
REFUSED = "Could not start service : "
REMOVED = "Quillmon Services has been uninstalled"


def run_command(faults, *option, program=r"C:\Quillmon\quillmon.exe"):
    """(function, exit code, printed lines) of a run."""
    faults.start(*option, armed=True, program=program)
    code = faults.exit_code(60000)
    faults.disarm()
    assert code == 0 or (code == 1 and faults.failed in MEMORY_FUNCTIONS), f"{code}: {faults}"
    return faults.failed, code, faults.output.splitlines()


def expect_lines(failed, code, lines, expected):
    """A line that cannot be printed is lost, and so is the rest without memory."""
    if failed == "puts":
        assert len(lines) == len(expected) - 1 and set(lines) < set(expected)
    elif code == 1:
        assert lines == expected[:len(lines)]
    else:
        assert lines == expected


@walks("OpenSCManagerA GetCurrentDirectoryA puts fflush")
def test_the_version_is_printed_whatever_call_fails(machine):
    faults, known = machine.faults, ()
    for program in (r"C:\Quillmon\quillmon.exe", "quillmon.exe"):
        def print_version():
            expect_lines(*run_command(faults, "-v", program=program), VERSION)
        for _ in faults.walk(beyond=known):
            print_version()
        known = faults.learn(print_version)


@walks("StartServiceCtrlDispatcherA")
def test_a_start_without_its_dispatcher_is_refused(machine):
    faults, function = machine.faults, "StartServiceCtrlDispatcherA"
    for _ in faults.walk(what=lambda called, _: called == function):
        if faults.shared.chosen >= 0:
            expect_lines(*run_command(faults), NOT_STARTED)
            continue
        faults.start(armed=True)  # Wine lets it wait for half a minute for a service manager
        wait_until(lambda: function in map(faults.function, faults.made()), function)
        kill(machine)


@walks("OpenSCManagerA CreateServiceA StartServiceA puts fflush")
def test_an_installation_in_which_a_call_fails_says_so(machine):
    for _ in machine.faults.walk():
        failed, code, lines = run_command(machine.faults, "-i")
        last = {"OpenSCManagerA": REFUSED + "6", "CreateServiceA": REFUSED + "6",
                "StartServiceA": REFUSED + "1055"}.get(failed, STARTED)
        expect_lines(failed, code, lines, [*INSTALLED, last])
        registered = machine.service_state() is not None
        assert code == 1 or registered == (failed not in ("OpenSCManagerA", "CreateServiceA"))
        if registered:
            assert machine.quillmon("-u").out == REMOVED + "\n"
            wait_until(lambda: machine.service_state() is None, "the service to be gone")


@walks("OpenSCManagerA OpenServiceA ControlService DeleteService puts fflush")
def test_a_removal_says_uninstalled_once_the_service_was_opened(machine):
    state = None
    for _ in machine.faults.walk():
        if state is None:
            machine.run("sc", "create", SERVICE, "binPath=", r"C:\Quillmon\quillmon.exe")
        failed, code, lines = run_command(machine.faults, "-u")
        kept = failed in ("OpenSCManagerA", "OpenServiceA", "DeleteService")
        said = failed not in ("OpenSCManagerA", "OpenServiceA", "puts") and code == 0
        assert lines == [REMOVED] * said, failed
        state = machine.service_state()
        assert code == 1 or state == ("STOPPED" if kept else None), failed
