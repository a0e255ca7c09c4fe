"""Every call of the system that can fail does so once, each in a run of its own, in the program
that ships: what it then answers, traces and holds. These walks go through a program that runs;
test_failing_calls_at_start.py has the others.

A function that a walk's table does not name makes no difference there: its result goes unchecked on
purpose, or the failure is met on the spot. Where memory runs out a request fails, and no other.
"""

import contextlib
import re
import socket
import threading
from pathlib import Path

from faults import (MEMORY_FUNCTIONS, is_setup, kill, machine, own_imports, shared, start,
                    traced, walks)  # noqa: F401, machine and shared are fixtures
from machine import wait_until
from peers import (ACCESS_DENIED, EVENT, FAILED, OK, PROVIDER_LOAD_FAILURE, DeviceServer, document,
                   event, fetched, names, send)

OUT_OF_MEMORY = "0x80041006"
CALL_COMPLETE = "0x80010117"  # what a refused impersonation gives


class Walk:
    """The runs of one walk through a program that runs; the loop's body begins with run()."""

    def __init__(self, machine, **what):
        self.machine, self.faults, self.what, self.setups = machine, machine.faults, what, 0

    def __iter__(self):
        for _ in self.faults.walk(**self.what):
            yield self

    def run(self, action):
        """The action's outcome while the chosen call fails."""
        mark = len(traced(self.machine))
        self.faults.arm()
        outcome = action()
        self.faults.disarm()
        self.failed = self.faults.failed
        code = self.faults.exit_code()
        assert code is None, f"{self} and ended the program with {code}"
        self.lines = traced(self.machine)[mark:]
        return outcome

    def __str__(self):
        return str(self.faults)

    def expect_held(self, before):
        """Nothing is held that was not before; returns what is."""
        more = self.faults.more_than(before)
        if is_setup(more) and self.setups < self.faults.shared.threads:
            self.setups += 1  # once a thread; how many serve depends on how busy the machine is
            return self.faults.held()
        assert not more, f"{self}: holds more than before: {more}"
        return before


def at_rest(machine, action):
    """What the program holds after the action, once nothing more is set up for good. (A request once
    kept the memory of three mutexes.)"""
    for _ in range(10):  # what is made at the first time that two threads meet comes when it comes
        action()
        before = machine.faults.settled()
        action()
        if not machine.faults.more_than(before):
            return before
    raise AssertionError(f"more with every run: {machine.faults.more_than(before)}")


# -- requests

SCANNERS = ["S1", "S2"]
DENIED = "<<CreateInstanceEnumAsync>> * CheckAccess() DENIED!! quitting... * Semaphore released!!"
EXCHANGE = {
    "socket": "<<XMLAdapter>>: Unable to create socket! aborting (Reason: 10024)... Will reject "
              "requests for the next 100 milliseconds...",
    "connect": "<<XMLAdapter>>: Unable to connect to socket! aborting (Reason: 10055)... Will "
               "reject requests for the next 100 milliseconds...",
    "recv": "<<XMLAdapter>>: Receiving data",
}
CLOSED = "<<XMLAdapter>>: closesocket() failed (Reason: 10050)"

# {function: (what the client gets, a line of the trace)}
LISTING = {
    "ConvertStringSecurityDescriptorToSecurityDescriptorA": (
        ([], ACCESS_DENIED), "<<CreateInstanceEnumAsync>> * "
        "ConvertStringSecurityDescriptorToSecurityDescriptor() FAILED!! *"),
    "CoImpersonateClient": (
        ([], CALL_COMPLETE),
        "<<CreateInstanceEnumAsync>> * CoImpersonateClient() FAILED!! * Semaphore released!!"),
    # A caller of whom nothing is known is a denied one, who sees an empty list.
    "OpenThreadToken": (([], OK), DENIED),
    "AccessCheck": (([], OK), DENIED),
    "WideCharToMultiByte": (([], FAILED), None),
    "MultiByteToWideChar": (([], FAILED), None),
    **{name: (([], FAILED), line) for name, line in EXCHANGE.items()},
    "closesocket": ((SCANNERS, OK), CLOSED),
}
NOT_FETCHED = "<<GetObjectAsync>> * Get Instance Path failed"
FETCHING = {
    "CoImpersonateClient": (
        CALL_COMPLETE,
        "<<GetObjectAsync>> * CoImpersonateClient() FAILED!! * Semaphore released!!"),
    "WideCharToMultiByte": (FAILED, NOT_FETCHED),
    "MultiByteToWideChar": (FAILED, NOT_FETCHED),
    # Unchecked on purpose: what is not converted, WMI does not take.
    "VariantChangeType": (lambda whole: {**whole, "CapUpdateStatistics": "(null)"}, None),
    **{name: (FAILED, line) for name, line in EXCHANGE.items()},
}


def walk_requests(machine, action, status_of, table):
    before = at_rest(machine, action)
    whole = action()
    assert status_of(whole) == OK
    for step in Walk(machine):
        outcome = step.run(action)
        if step.failed is None:
            assert outcome == whole
        elif step.failed in MEMORY_FUNCTIONS:
            assert outcome == whole or status_of(outcome) in (FAILED, OUT_OF_MEMORY) or (
                outcome == ([], OK) and DENIED in step.lines), f"{outcome}: {step}"
        else:
            expected, line = table.get(step.failed, (whole, None))
            if callable(expected):
                expected = whole if outcome == whole else expected(whole)
            # A failure in the middle of a list leaves what came before it.
            assert outcome == expected or status_of(outcome) == status_of(expected) == FAILED, (
                f"{outcome}: {step}")
            assert line is None or line in step.lines, str(step)
        if outcome != whole:
            # The next one is served again; after a failed connect it waits for its time.
            wait_until(lambda: action() == whole, f"an answer after {step}")
        before = step.expect_held(before)


@walks("""ConvertStringSecurityDescriptorToSecurityDescriptorA CoImpersonateClient OpenThreadToken
       AccessCheck CoRevertToSelf WideCharToMultiByte MultiByteToWideChar WSAStartup socket connect
       send recv closesocket VariantChangeType""")
def test_a_call_that_fails_costs_its_own_list_at_most(machine):
    start(machine, "-d")
    walk_requests(machine, lambda: names(machine, "UPOS_Scanner"),
                  lambda outcome: outcome[1], LISTING)


@walks("""ConvertStringSecurityDescriptorToSecurityDescriptorA CoImpersonateClient CoRevertToSelf
       WideCharToMultiByte MultiByteToWideChar WSAStartup socket connect send recv closesocket
       VariantChangeType""")
def test_a_call_that_fails_costs_its_own_retrieval_at_most(machine):
    start(machine, "-d")
    walk_requests(machine, lambda: fetched(machine, 'UPOS_Scanner.DeviceID="S1"'),
                  lambda outcome: OK if isinstance(outcome, dict) else outcome, FETCHING)


@walks("""CreateSemaphoreA CreateMutexA CreateEventA CoGetClassObject CoImpersonateClient
       OpenThreadToken GetTokenInformation CoRevertToSelf CreateTimerQueue""")
def test_a_call_that_fails_in_the_first_request_costs_no_later_one(machine):
    """It sets the provider up, and the timers of the back-off. Whatever is missing then, the next
    request is served."""
    faults = machine.faults
    start(machine, "-d")
    names(machine, "UPOS_Scanner")
    second = faults.learn(lambda: names(machine, "UPOS_Scanner"))
    kill(machine)
    for _ in faults.walk(beyond=second):
        start(machine, "-d")
        faults.arm()
        outcome = names(machine, "UPOS_Scanner")
        faults.disarm()
        failed = faults.failed
        what = f"{outcome}: {faults}"
        if failed in MEMORY_FUNCTIONS:
            assert outcome == (SCANNERS, OK) or (
                outcome[1] in (FAILED, OUT_OF_MEMORY, PROVIDER_LOAD_FAILURE)) or (
                outcome == ([], OK) and DENIED in traced(machine)), what
        elif failed == "CreateEventA":  # refused by WMI, with the provider's out-of-memory
            assert outcome == ([], PROVIDER_LOAD_FAILURE), what
        elif failed not in LISTING:
            assert outcome == (SCANNERS, OK), what
        told = "<<configureTimers>>: CreateTimerQueue() failed (1450)" in traced(machine)
        assert told or failed != "CreateTimerQueue"
        wait_until(lambda: names(machine, "UPOS_Scanner") == (SCANNERS, OK), f"a list after {what}")
        kill(machine)


@walks("CreateTimerQueueTimer")
def test_a_pause_that_no_timer_would_end_is_none(machine):
    start(machine, "-d")
    machine.peer.close()
    expired = "<<TimeoutExpired>>: Timeout expired! Java drivers will be hit again."
    failed = "<<signalServerIsOfflineFor5Seconds>>: CreateTimerQueueTimer failed (1450)\n"

    def ends():
        return sum(line in (expired, failed) for line in traced(machine))

    def action():
        count = ends()
        outcome = names(machine, "UPOS_Scanner")
        wait_until(lambda: ends() > count, "the pause to end")
        return outcome

    action()
    before = machine.faults.held()
    for step in Walk(machine, what=lambda function, _: function == "CreateTimerQueueTimer"):
        assert step.run(action) == ([], FAILED)
        assert (failed in step.lines) == (step.failed is not None)
        mark = len(traced(machine))
        assert action() == ([], FAILED)
        assert "<<XMLAdapter>>: Creating socket" in traced(machine)[mark:]
        step.expect_held(before)


# -- events

class Subscriber:
    """The ids of the devices whose events arrive, as they come."""

    def __init__(self, machine):
        self.seen = []
        self.watcher = machine.watch_events()
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.watcher.stdout:
            found = EVENT.fullmatch(line.decode().rstrip("\r\n"))
            if found:
                self.seen.append(found[2])

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.watcher.kill()


def walk_events(machine, subscriber, action, after):
    """`action` sends the events Ä and Ö while calls fail, `after` the event Ü, behind both of them;
    of Ä and Ö a failed call may cost some, but Ü arrives, and all of them when nothing failed. (The
    platform converts what is not ASCII.)"""
    faults = machine.faults

    def due():
        action()
        wait_until(lambda: faults.failed or "Ö" in subscriber.seen, "an event or a failure")

    def rest(what):
        after()
        wait_until(lambda: "Ü" in subscriber.seen, f"an event after {what}")

    def warm_up():
        subscriber.seen.clear()
        action()
        rest("none failed")

    before = at_rest(machine, warm_up)
    for step in Walk(machine):
        subscriber.seen.clear()
        step.run(due)
        rest(step)
        arrived = list(subscriber.seen)
        assert arrived == sorted(set(arrived)), f"{arrived}: {step}"
        assert step.failed or arrived == ["Ä", "Ö", "Ü"]
        before = step.expect_held(before)


@walks("MultiByteToWideChar recvfrom")
def test_a_call_that_fails_costs_no_later_datagram(machine):
    start(machine, "-d")
    with Subscriber(machine) as subscriber:
        walk_events(
            machine, subscriber, lambda: send(machine.events, event("Ä"), event("Ö")),
            lambda: send(machine.events, event("Ü")))


@walks("""CreateEventA WSAEventSelect _beginthreadex accept recv MultiByteToWideChar
       WSAEnumNetworkEvents""")
def test_a_call_that_fails_costs_no_later_connection(machine):
    start(machine, "-O")
    with Subscriber(machine) as subscriber:
        with DeviceServer(machine.events) as server:
            server.send(*map(document, "ÄÖÜ"))
            wait_until(lambda: subscriber.seen == ["Ä", "Ö", "Ü"], "the devices to be added")
        servers = []

        def connect(*device_ids):
            """The events reach a service that waits for them, so it calls what ends its wait."""
            faults = machine.faults
            waits = faults.shared.empty_receives
            server = DeviceServer(machine.events)
            servers.append(server)
            wait_until(lambda: faults.failed or faults.shared.empty_receives > waits,
                       "the service to wait for events, or a failure")
            server.send(*(document(name, "modifyInstance", code="1") for name in device_ids))

        def end():
            while servers:
                with servers.pop() as server, contextlib.suppress(OSError):  # closed already
                    server.connection.shutdown(socket.SHUT_WR)
                    server.receive(1)  # until the service has closed it too
            wait_until(lambda: "accept" not in machine.faults.held(), "the connections to end")

        def end_and_connect():
            end()
            connect("Ü")
            end()

        walk_events(machine, subscriber, lambda: connect("Ä", "Ö"), end_and_connect)


# -- completeness

# Its own imports that no walk fails, and why.
UNWALKED = {
    "fails only for what is no handle, pointer or string": """
        CloseHandle CloseServiceHandle RegCloseKey LocalFree SysFreeString VariantClear
        VariantInit SetEvent ResetEvent ReleaseMutex ReleaseSemaphore WaitForSingleObject
        WaitForMultipleObjects GetCurrentThread GetLastError SetLastError WSAGetLastError
        WSACleanup CoUninitialize MapGenericMask Sleep TranslateMessage DispatchMessageA inet_addr
        htons ntohs InitializeCriticalSection DeleteCriticalSection""",
    "the service control manager's, which ends a service that cannot report its state":
        "RegisterServiceCtrlHandlerA SetServiceStatus",
    "gives the default instead of failing": "GetPrivateProfileIntA GetPrivateProfileStringA",
    "called by tests alone": "getsockname",
    "where code is loaded from: an old system lacks the settings and stays as it was":
        "GetModuleHandleW GetProcAddress GetSystemDirectoryW",
}
# What our code calls of the compiler's library, or has called there, that computes, or ends.
COMPUTES = """_time64 _localtime64_s __acrt_iob_func memchr memcmp memcpy memmove memset strlen
              wcslen exit"""


def walked():
    """What stands in @walks above the tests of this file and of the other."""
    texts = [file.read_text() for file in Path(__file__).parent.glob("test_failing_calls*.py")]
    return {name for names in re.findall(r'@walks\("+([^"]+)"', "".join(texts))
            for name in names.split()}


def test_every_own_import_is_walked_or_known_not_to_fail():
    own = own_imports() - MEMORY_FUNCTIONS - set(COMPUTES.split())
    assert sorted(own) == sorted([*(walked() & own), *" ".join(UNWALKED.values()).split()])
