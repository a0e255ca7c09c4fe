"""What the service does, says and traces when WMI fails it, or when a caller may not ask."""

import contextlib
import itertools
import re
import select
import socket
import threading

import pytest

from machine import BUILD, MOF, SERVICE, WMI_HOST, wait_until
from peers import (CALL_CANCELLED, NOT_FOUND, OK, PROVIDER_LOAD_FAILURE, Peer, counters, device,
                   event, events_until, fetched, framed, listing, names, plain, published, response,
                   send)

SCANNERS = ["SCANNER1", "SCANNER2"]
SCANNER1 = 'UPOS_Scanner.DeviceID="SCANNER1"'

BLOCKS = 1  # a switch that is no failure
OBJECT_DISCONNECTED = 0x80010108
PECULIAR = 0x80040999  # given by nobody but the switch of a test
ACCESS_DENIED = 0x80070005
CLASS_NOT_REGISTERED = 0x80040154
CRITICAL_ERROR = 0x8004100A
PROVIDER_NOT_FOUND = 0x80041011

REFUSED = "<<{}>> * CoImpersonateClient() FAILED!! * Semaphore released!!"
DENIED = "<<CreateInstanceEnumAsync>> * CheckAccess() DENIED!! quitting... * Semaphore released!!"


def shown(code):
    """As the direct client prints it."""
    return f"0x{code:08X}"


def signed(code):
    """As the trace and the console print it."""
    return code - (1 << 32)


@pytest.fixture(scope="module")
def till(shared_machine):
    """The sample till and the running service, which traces, for all tests of this file."""
    till = shared_machine.start_till()
    shared_machine.switch_trace_on()
    shared_machine.install_service()
    shared_machine.wait_for_event_port(till.events)
    till.is_served = True
    return till


class Wmi:
    """The stand-in's switches, all off again after the test, and the trace since its start."""

    def __init__(self, machine):
        self.machine = machine
        self.switches = set()
        self.mark = len(machine.trace())

    def set(self, **switches):
        for name, value in switches.items():
            self.switches.add(name)
            self.machine.set_wmi(name, value)

    def clear(self):
        for name in self.switches:
            if name == "Mof":
                self.machine.set_wmi(name, MOF)
            else:
                self.machine.delete_registry(WMI_HOST, name)
        self.switches.clear()

    def trace(self):
        return self.machine.trace()[self.mark:]

    def host_trace(self):
        """The lines of the service host alone."""
        return [line for line in self.trace() if re.match(r"\[|Failed|Starting", line)]


@pytest.fixture
def wmi(request, shared_machine, till):
    # After a test that started the service with switches set, it has to be as if nothing had been.
    if "stopped" not in request.fixturenames and not till.is_served:
        shared_machine.restart_service(till.events)
        assert names(shared_machine, "UPOS_Scanner") == (SCANNERS, OK)
        till.is_served = True
    wmi = Wmi(shared_machine)
    yield wmi
    wmi.clear()


@pytest.fixture
def stopped(shared_machine, till, wmi):
    """For a test that starts the service itself."""
    till.is_served = False
    shared_machine.end_service()
    wmi.mark = len(shared_machine.trace())


def exit_code(machine):
    """What the service control manager knows of the service's end."""
    out = machine.run("sc", "query", SERVICE).out
    return int(re.search(r"WIN32_EXIT_CODE\s*: (\d+)", out)[1])


@pytest.fixture
def watcher(shared_machine, wmi):
    watcher = shared_machine.watch_events()
    yield watcher
    watcher.kill()


def wait_until_received(machine, till):
    """Until the event thread has dealt with all that was sent: it traces what it cannot read."""
    before = len(machine.trace())
    send(till.events, "this cannot be read")
    wait_until(lambda: "<<XMLAdapter XML Exception >> : " in machine.trace()[before:],
               "the event thread to read on")


def assert_nothing_published(machine, till, watcher, *documents):
    send(till.events, *documents)
    wait_until_received(machine, till)
    assert not select.select([watcher.stdout], [], [], 0.5)[0], watcher.stdout.readline()
    assert watcher.poll() is None


# -- the registrations


def test_without_its_provider_registration_the_service_still_forwards_events(
        shared_machine, till, wmi, stopped, watcher):
    wmi.set(RegisterProvider=PECULIAR)
    shared_machine.restart_service(till.events)
    assert wmi.host_trace() == [
        "[RegisterDecoupledInstance] CreateInstance t_Result = 0",
        f"[RegisterDecoupledInstance] exit t_Result = {signed(PECULIAR)}"]
    assert names(shared_machine, "UPOS_Scanner") == ([], PROVIDER_LOAD_FAILURE)
    assert fetched(shared_machine, SCANNER1) == PROVIDER_LOAD_FAILURE
    probes = (f"PROBE{number}" for number in itertools.count())
    wait_until(lambda: arrives(till, watcher, next(probes)), "the subscriber to be connected again")
    assert published(till, watcher, event("A"), event("B")) == [plain("A"), plain("B")]
    assert shared_machine.service_state() == "RUNNING"


def arrives(till, watcher, device_id):
    """Whether a subscription has found the provider's next process, which takes a while. Reads up
    to the event of that device: those of earlier calls may arrive before it."""
    send(till.events, event(device_id))
    if not select.select([watcher.stdout], [], [], 0.2)[0]:
        return False
    events_until(watcher, device_id)
    return True


@pytest.mark.parametrize("switch", ["RegisterEvents", "GetService", "GetSink"])
def test_without_its_event_registration_the_service_stops_with_that_code(
        shared_machine, till, wmi, stopped, switch):
    wmi.set(**{switch: PECULIAR})
    shared_machine.run("sc", "start", SERVICE)
    wait_until(lambda: shared_machine.service_state() == "STOPPED", "the service to stop")
    wait_until(lambda: shared_machine.service_process() is None, "its process to end")
    assert exit_code(shared_machine) == PECULIAR
    assert wmi.trace() == [
        "No configuration file found, disabling settings",
        "[RegisterDecoupledInstance] CreateInstance t_Result = 0",
        "[RegisterDecoupledInstance] exit t_Result = 0",
        f"[Process_DecoupledInstance] exit t_Result = {signed(PECULIAR)}",
        f"[Process] exit t_Result = {signed(PECULIAR)}",
        f"[ServiceDispatch]Failed to start process with error : {signed(PECULIAR)}"]
    assert not shared_machine.has_event_port(till.events)
    assert shared_machine.wmi_counter("ProviderReferences") == 0
    assert [shared_machine.wmi_counter(f"Live{kind}") for kind in ("Objects", "Services")] == [0, 0]


@pytest.mark.parametrize("option", ["-c", "-d"])
def test_a_console_mode_says_why_it_could_not_start(shared_machine, till, wmi, stopped, option):
    wmi.set(RegisterEvents=PECULIAR)
    done = shared_machine.quillmon(option)
    says = f"Service could not be started, process returned with error {signed(PECULIAR)}"
    assert done.returncode == 1
    assert wmi.host_trace() == [
        "Starting Interactively",
        "[RegisterDecoupledInstance] CreateInstance t_Result = 0",
        "[RegisterDecoupledInstance] exit t_Result = 0",
        f"[Process_DecoupledInstance] exit t_Result = {signed(PECULIAR)}",
        f"[Process] exit t_Result = {signed(PECULIAR)}",
        f"Failed to start process with error : {signed(PECULIAR)}"]
    if option == "-d":
        assert done.stdout == f"{says}\r\n".encode()
    else:
        echo, _, rest = done.out.rpartition(says)
        assert rest == "\n"
        assert [line[20:] for line in echo.replace("\r", "").splitlines()] == wmi.trace()


@pytest.mark.parametrize("mof, code", [("", PROVIDER_NOT_FOUND), (None, CRITICAL_ERROR)],
                         ids=["without the registration", "without a repository"])
def test_a_machine_without_the_class_definitions_stops_the_service(
        shared_machine, till, wmi, stopped, mof, code):
    file = shared_machine.c / "other.mof"
    if mof is not None:
        file.write_text(mof)
    else:
        file.unlink(missing_ok=True)
    wmi.set(Mof="C:\\other.mof")
    shared_machine.run("sc", "start", SERVICE)
    wait_until(lambda: shared_machine.service_state() == "STOPPED", "the service to stop")
    assert exit_code(shared_machine) == code
    assert wmi.host_trace() == [
        "[RegisterDecoupledInstance] CreateInstance t_Result = 0",
        f"[RegisterDecoupledInstance] exit t_Result = {signed(code)}",
        f"[Process_DecoupledInstance] exit t_Result = {signed(code)}",
        f"[Process] exit t_Result = {signed(code)}",
        f"[ServiceDispatch]Failed to start process with error : {signed(code)}"]


def test_a_machine_without_wmi_stops_the_service(shared_machine, till, wmi, stopped):
    shared_machine.run("regsvr32", "/s", "/u", BUILD / "wmi_host.dll")
    try:
        shared_machine.run("sc", "start", SERVICE)
        wait_until(lambda: shared_machine.service_state() == "STOPPED", "the service to stop")
        code = signed(CLASS_NOT_REGISTERED)
        assert exit_code(shared_machine) == CLASS_NOT_REGISTERED
        assert wmi.host_trace() == [
            f"[RegisterDecoupledInstance] CreateInstance t_Result = {code}",
            f"[RegisterDecoupledInstance] exit t_Result = {code}",
            f"[Process_DecoupledInstance] exit t_Result = {code}",
            f"[Process] exit t_Result = {code}",
            f"[ServiceDispatch]Failed to start process with error : {code}"]
    finally:
        shared_machine.run("regsvr32", "/s", BUILD / "wmi_host.dll")


# -- events


@pytest.mark.parametrize("switch", [{"MissingClasses": "QuillmonEvent"}, {"GetObject": PECULIAR}],
                         ids=["missing", "refused"])
def test_without_the_event_class_at_its_start_the_service_never_forwards_an_event(
        shared_machine, till, wmi, stopped, switch):
    wmi.set(**switch)
    shared_machine.restart_service(till.events)
    watcher = shared_machine.watch_events()
    assert_nothing_published(shared_machine, till, watcher, event("A"), event("B"))
    assert names(shared_machine, "UPOS_Scanner") == ([], PROVIDER_LOAD_FAILURE)
    wmi.clear()
    # Lists are served from now on; the event thread has looked for its class once.
    assert names(shared_machine, "UPOS_Scanner") == (SCANNERS, OK)
    assert_nothing_published(shared_machine, till, watcher, event("C"))
    assert shared_machine.service_state() == "RUNNING"
    watcher.kill()


def test_the_event_class_is_fetched_once_even_while_the_event_port_is_taken(
        shared_machine, till, wmi, stopped):
    wmi.set(MissingClasses="QuillmonEvent")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as holder:
        holder.bind(("0.0.0.0", till.events))
        assert shared_machine.run("sc", "start", SERVICE).returncode == 0
        wait_until(lambda: f"[EventThread] Unable to open event port {till.events}, next attempt in "
                   "1000 milliseconds" in wmi.trace(), "the first attempt")
        wmi.clear()
        assert names(shared_machine, "UPOS_Scanner") == (SCANNERS, OK)
    shared_machine.wait_for_event_port(till.events)
    watcher = shared_machine.watch_events()
    assert_nothing_published(shared_machine, till, watcher, event("A"))
    watcher.kill()


@pytest.mark.parametrize("switches", [
    {"SpawnInstance": PECULIAR}, {"PutProperty": "codename", "Put": PECULIAR}],
    ids=["no instance", "no last property"])
def test_one_event_that_cannot_be_made_ends_events_for_good(
        shared_machine, till, wmi, stopped, switches):
    shared_machine.restart_service(till.events)
    watcher = shared_machine.watch_events()
    assert published(till, watcher, event("A")) == [plain("A")]
    wmi.set(**switches)
    # An event of a foreign maker is dropped before it could fail.
    send(till.events, event("B", maker="Norvia"))
    wait_until_received(shared_machine, till)
    wmi.clear()
    assert published(till, watcher, event("C")) == [plain("C")]
    wmi.set(**switches)
    send(till.events, event("D"))
    wait_until_received(shared_machine, till)
    wmi.clear()
    # Sticky, and kept so: the failure is over, the events are not resumed.
    assert_nothing_published(shared_machine, till, watcher, event("E"), event("F"))
    assert names(shared_machine, "UPOS_Scanner") == (SCANNERS, OK)
    watcher.kill()


@pytest.mark.parametrize("property, expected", [
    ("classname", ("(null)", "A", "modifyInstance", "7")),
    ("deviceid", ("Scanner", "(null)", "modifyInstance", "7")),
    ("eventtype", ("Scanner", "A", "(null)", "7"))])
def test_only_the_last_property_decides_about_an_event(
        shared_machine, till, wmi, watcher, property, expected):
    wmi.set(PutProperty=property, Put=PECULIAR)
    send(till.events, event("A", code="7"))
    wait_until_received(shared_machine, till)
    wmi.clear()
    assert published(till, watcher, event("B")) == [expected, plain("B")]


def test_an_event_that_cannot_be_delivered_is_lost_alone(shared_machine, till, wmi, watcher):
    assert published(till, watcher, event("A")) == [plain("A")]
    wmi.set(IndicateEvent=PECULIAR)
    send(till.events, event("B"), event("C"))
    wait_until_received(shared_machine, till)
    wmi.clear()
    assert published(till, watcher, event("D")) == [plain("D")]
    assert shared_machine.has_event_port(till.events)


# -- lists and single devices


def test_a_list_ends_with_the_status_of_the_class_that_is_not_found(shared_machine, till, wmi):
    assert names(shared_machine, "UPOS_Scanner") == (SCANNERS, OK)
    wmi.set(MissingClasses="UPOS_Scanner;UPOS_Belt")
    wmi.mark = len(shared_machine.trace())
    assert names(shared_machine, "UPOS_Scanner") == ([], NOT_FOUND)
    lines = wmi.trace()
    assert "<<CreateInstanceEnumAsync>> *  Enumeration of 'UPOS_Scanner' returned rc=0" in lines
    assert "<<CreateInstanceEnumAsync>> *  getting objects for UPOS_Scanner\n" in lines
    assert not [line for line in lines if "PutField" in line]
    # Kept: without a device the class's status is the list's too.
    assert names(shared_machine, "UPOS_Belt") == ([], NOT_FOUND)
    assert names(shared_machine, "UPOS_Scale") == (["SCALE1"], OK)
    assert fetched(shared_machine, SCANNER1) == NOT_FOUND
    assert "<<GetObjectAsync>> * Get Instance Path failed" in wmi.trace()
    wmi.clear()
    assert names(shared_machine, "UPOS_Scanner") == (SCANNERS, OK)


def test_a_list_ends_with_the_status_of_a_refused_class(shared_machine, till, wmi):
    wmi.set(GetObject=PECULIAR)
    assert names(shared_machine, "UPOS_Scanner") == ([], shown(PECULIAR))
    assert fetched(shared_machine, SCANNER1) == shown(PECULIAR)


@pytest.mark.parametrize("passing", [0, 1])
def test_a_list_ends_where_no_instance_can_be_made(shared_machine, till, wmi, passing):
    wmi.set(SpawnInstanceAfter=passing, SpawnInstance=PECULIAR)
    assert names(shared_machine, "UPOS_Scanner") == (SCANNERS[:passing], shown(PECULIAR))


def test_a_device_whose_instance_cannot_be_made_is_not_fetched(shared_machine, till, wmi):
    wmi.set(SpawnInstance=PECULIAR)
    assert fetched(shared_machine, SCANNER1) == shown(PECULIAR)
    assert wmi.trace()[-1] == "<<GetObjectAsync>> * Get Instance Path failed"


def test_a_property_that_cannot_be_put_is_left_out_in_silence(shared_machine, till, wmi):
    wmi.set(PutProperty="ModelName", Put=PECULIAR)
    rows, status = listing(shared_machine, "UPOS_Scanner", "DeviceID", "ModelName", "Interface")
    assert status == OK
    assert rows == [{"DeviceID": name, "ModelName": "(null)", "Interface": "USB"}
                    for name in SCANNERS]
    found = fetched(shared_machine, SCANNER1)
    assert (found["DeviceID"], found["ModelName"]) == ("SCANNER1", "(null)")
    lines = wmi.trace()
    for prefix in ("\tPutField -", "<<Put Field >>"):
        assert f"{prefix} Name: DeviceID, Type: string, Value: SCANNER1" in lines
        assert not [line for line in lines if line.startswith(f"{prefix} Name: ModelName")]


@pytest.mark.parametrize("passing", [0, 1])
def test_a_list_goes_on_to_the_end_when_its_client_takes_no_more(
        shared_machine, till, wmi, passing):
    wmi.set(IndicateObjectAfter=passing, IndicateObject=PECULIAR)
    assert names(shared_machine, "UPOS_Scanner") == (SCANNERS[:passing], shown(PECULIAR))
    put = [line for line in wmi.trace() if line.startswith("\tPutField - Name: DeviceID")]
    assert [line.rsplit(" ", 1)[1] for line in put] == SCANNERS


def test_a_fetched_device_that_its_client_does_not_take_is_still_a_success(
        shared_machine, till, wmi):
    # The provider says success without a device, which WMI turns into not found.
    wmi.set(IndicateObject=PECULIAR)
    assert fetched(shared_machine, SCANNER1) == NOT_FOUND
    assert "<<GetObjectAsync>> * Get Instance Path failed" not in wmi.trace()


def test_failures_of_wmi_leave_nothing_behind(shared_machine, till, wmi):
    assert names(shared_machine, "UPOS_Scanner") == (SCANNERS, OK)
    before = counters(shared_machine)
    assert before["Violations"] == 0
    for switch in ("GetObject", "SpawnInstance", "Put", "IndicateObject", "Impersonate"):
        wmi.set(**{switch: PECULIAR})
        names(shared_machine, "UPOS_Scanner")
        fetched(shared_machine, SCANNER1)
        wmi.clear()
    assert names(shared_machine, "UPOS_Scanner") == (SCANNERS, OK)
    assert counters(shared_machine) == before


# -- callers


def asked(wmi):
    """How many requests went to the device server."""
    return sum(line.startswith("<<Request>>: ") for line in wmi.trace())


def test_a_caller_who_cannot_be_impersonated_is_refused(shared_machine, till, wmi):
    wmi.set(Impersonate=ACCESS_DENIED)
    assert names(shared_machine, "UPOS_Scanner") == ([], shown(ACCESS_DENIED))
    assert REFUSED.format("CreateInstanceEnumAsync") in wmi.trace()
    assert fetched(shared_machine, SCANNER1) == shown(ACCESS_DENIED)
    assert wmi.trace()[-1] == REFUSED.format("GetObjectAsync")
    assert asked(wmi) == 0


def test_a_caller_without_rights_sees_an_empty_list_and_still_fetches(shared_machine, till, wmi):
    # Both on purpose: a denied list is a success, and a single device is not denied to anybody.
    wmi.set(CallerWithoutRights=1)
    assert names(shared_machine, "UPOS_Scanner") == ([], OK)
    assert DENIED in wmi.trace() and asked(wmi) == 0
    assert fetched(shared_machine, SCANNER1)["DeviceID"] == "SCANNER1"
    assert asked(wmi) == 1


@pytest.mark.parametrize("level, listed", [(0, []), (2, SCANNERS), (3, SCANNERS)],
                         ids=["anonymous", "impersonation", "delegation"])
def test_the_callers_level_decides_about_lists_from_the_first_request_on(
        shared_machine, till, wmi, stopped, level, listed):
    wmi.set(ImpersonationLevel=level)
    shared_machine.restart_service(till.events)
    for _ in range(2):
        assert names(shared_machine, "UPOS_Scanner") == (listed, OK)
        assert fetched(shared_machine, SCANNER1)["DeviceID"] == "SCANNER1"
    assert wmi.trace().count(DENIED) == (0 if listed else 2)
    assert shared_machine.wmi_counter("Initialize") == 1
    assert shared_machine.wmi_counter("Violations") == 0


def test_a_first_caller_who_cannot_be_impersonated_leaves_a_provider_that_works(
        shared_machine, till, wmi, stopped):
    wmi.set(Impersonate=ACCESS_DENIED)
    shared_machine.restart_service(till.events)
    assert names(shared_machine, "UPOS_Scanner") == ([], shown(ACCESS_DENIED))
    wmi.clear()
    assert names(shared_machine, "UPOS_Scanner") == (SCANNERS, OK)
    assert shared_machine.wmi_counter("Initialize") == 1


# -- clients that give up


def test_a_cancelled_list_ends_and_the_next_one_is_whole(shared_machine, till, wmi):
    assert names(shared_machine, "UPOS_Scanner") == (SCANNERS, OK)
    before = counters(shared_machine)
    wmi.set(CancelAfter=1)
    assert names(shared_machine, "UPOS_Scanner") == (["SCANNER1"], CALL_CANCELLED)
    wmi.clear()
    assert names(shared_machine, "UPOS_Scanner") == (SCANNERS, OK)
    assert counters(shared_machine) == before and before["Violations"] == 0


@contextlib.contextmanager
def held_answers(machine, till):
    """A device server in the till's place that answers each request with one scanner, once it is
    let: yields it and what lets it."""
    let = threading.Event()

    def hold(connection, _):
        let.wait(60)
        connection.sendall(framed(response(device("D1"))))

    with Peer(answer=hold) as peer:
        machine.configure(upos__requestSocket__Port=peer.port)
        try:
            yield peer, let.set
        finally:
            let.set()
            machine.configure(upos__requestSocket__Port=till.requests,
                              provider__eventSocket__Port=till.events)


def test_a_client_that_dies_while_it_waits_gives_its_turn_back(shared_machine, till, wmi):
    assert names(shared_machine, "UPOS_Scanner") == (SCANNERS, OK)
    before = counters(shared_machine)
    with held_answers(shared_machine, till) as (peer, let):
        client = shared_machine.start_list("UPOS_Scanner")
        wait_until(lambda: peer.requests, "the client's request")
        client.kill()
        client.wait()
        let()
        assert names(shared_machine, "UPOS_Scanner") == (["D1"], OK)
    assert names(shared_machine, "UPOS_Scanner") == (SCANNERS, OK)
    assert counters(shared_machine) == before


# -- clients that block, and many at once


def wait_for_put(wmi):
    """Returns once the service is about to hand over a device; its sink may block it then."""
    wait_until(lambda: any(line.startswith("\tPutField") for line in wmi.trace()), "a device")


def listed_by(client):
    out, _ = client.communicate(timeout=60)
    return out.decode().split()[1:]


def test_a_client_that_does_not_take_its_devices_holds_its_slot_and_no_event(
        shared_machine, till, wmi, watcher):
    assert names(shared_machine, "UPOS_Scanner") == (SCANNERS, OK)
    wmi.set(IndicateObject=BLOCKS)
    wmi.mark = len(shared_machine.trace())
    blocked = shared_machine.start_list("UPOS_Scanner")
    wait_for_put(wmi)
    waiting = shared_machine.start_list("UPOS_Scale")
    wait_until(lambda: wmi.trace().count("<<<< CreateInstanceEnumAsync >>>>") == 2, "the second")
    assert published(till, watcher, event("A"), event("B")) == [plain("A"), plain("B")]
    assert blocked.poll() is None and waiting.poll() is None
    assert asked(wmi) == 1
    wmi.clear()
    assert listed_by(blocked) == SCANNERS
    assert listed_by(waiting) == ["SCALE1"]


def test_a_client_that_dies_in_the_middle_of_taking_its_devices_leaves_nothing_behind(
        shared_machine, till, wmi):
    assert names(shared_machine, "UPOS_Scanner") == (SCANNERS, OK)
    before = counters(shared_machine)
    wmi.set(IndicateObject=BLOCKS)
    wmi.mark = len(shared_machine.trace())
    client = shared_machine.start_list("UPOS_Scanner")
    wait_for_put(wmi)
    client.kill()
    client.wait()
    wmi.clear()
    assert names(shared_machine, "UPOS_Scanner") == (SCANNERS, OK)
    assert counters(shared_machine) == before


def test_a_sink_whose_other_end_is_gone_ends_the_list_with_its_code(shared_machine, till, wmi):
    wmi.set(IndicateObject=OBJECT_DISCONNECTED)
    assert names(shared_machine, "UPOS_Scanner") == ([], shown(OBJECT_DISCONNECTED))
    wmi.clear()
    assert names(shared_machine, "UPOS_Scanner") == (SCANNERS, OK)


def test_an_event_sink_that_blocks_keeps_events_waiting_and_no_request(
        shared_machine, till, wmi, watcher):
    wmi.set(IndicateEvent=BLOCKS)
    send(till.events, *(event(f"D{i}") for i in range(20)), event("END"))
    for _ in range(3):
        assert names(shared_machine, "UPOS_Scanner") == (SCANNERS, OK)
    assert not select.select([watcher.stdout], [], [], 0.2)[0]
    wmi.clear()
    assert events_until(watcher, "END") == [plain(f"D{i}") for i in range(20)]


def test_lists_that_are_cancelled_while_they_wait_for_a_slot_leave_it_to_the_next(
        shared_machine, till, wmi):
    assert names(shared_machine, "UPOS_Scanner") == (SCANNERS, OK)
    before = counters(shared_machine)
    with held_answers(shared_machine, till) as (_, let):
        wmi.mark = len(shared_machine.trace())
        crowd = shared_machine.start(str(BUILD / "wmi_client.exe"), "parallel", 20, "UPOS_Scanner")
        wait_until(
            lambda: wmi.trace().count("<<<< CreateInstanceEnumAsync >>>>") == 20, "the lists")
        crowd.kill()
        crowd.wait()
        let()
        assert names(shared_machine, "UPOS_Scanner") == (["D1"], OK)
        wait_until(lambda: names(shared_machine, "UPOS_Scanner") == (["D1"], OK)
                   and counters(shared_machine) == before, "the cancelled lists to be gone")
