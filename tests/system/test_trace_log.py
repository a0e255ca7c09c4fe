"""The trace log of the real program: when it is written, where, what is in it, its rotation."""

import re
import shutil
import threading
import time

import pytest

from machine import WmiClient, wait_until
from peers import (FAILED, NORMAL, OK, UPDATE_REQUEST, DeviceServer, Peer, device, document, fetched,
                   framed, names, response)
from ports import reserve_port

ALL_PROCESSORS = True

KEY = "HKLM\\SOFTWARE\\Veltran\\Veltran Kestrune"
LINE = re.compile(rb"(\d\d/\d\d/\d{4} \d\d:\d\d:\d\d)  (.*?)\r\n", re.DOTALL)

NO_CONFIGURATION = "No configuration file found, disabling settings"
START = ["[RegisterDecoupledInstance] CreateInstance t_Result = 0",
         "[RegisterDecoupledInstance] exit t_Result = 0"]


class Tracing:
    """The installed service at rest, and what decides about its trace."""

    def __init__(self, machine):
        self.machine = machine
        self.peer = Peer()
        self.event_port = reserve_port()
        machine.configure(upos__requestSocket__Port=self.peer.port,
                          provider__eventSocket__Port=self.event_port,
                          provider__maxQueryThreads=4)
        machine.install_service()
        self.client = machine.start_wmi_client()
        self.install_dir = machine.c / "Veltran"
        self.log = machine.log
        self.switches = []
        self.has_key = False

    def clean(self):
        self.switch_gone()
        self.machine.end_service()
        if self.has_key:
            self.machine.run("reg", "delete", KEY, "/f")
            self.has_key = False
        shutil.rmtree(self.install_dir, ignore_errors=True)
        for file in self.machine.home.glob("Quillmon.log*"):
            file.unlink()
        self.peer.answer = NORMAL
        self.log = self.machine.log

    def switch_on(self):
        switch = self.machine.switch_trace_on()
        self.switches.append(switch)
        return switch

    @staticmethod
    def switch_off(switch):
        switch.stdin.write(b"off\n")
        switch.stdin.flush()
        assert switch.stdout.readline().strip() == b"off"

    def switch_gone(self):
        """The enabling event ends with the last program that holds it."""
        for switch in self.switches:
            switch.stdin.close()
            switch.wait(timeout=20)
        self.switches = []

    def start(self):
        self.machine.restart_service(self.event_port)

    def request(self):
        assert self.client.run("list", "UPOS_Scanner", "DeviceID").returncode == 0

    def set_install_dir(self, value="C:\\Veltran\\", log_folder=True):
        self.install_dir.mkdir()
        if log_folder:
            (self.install_dir / "Log").mkdir()
            self.log = self.install_dir / "Log" / "Quillmon.log"
        self.set_registry(value)

    def set_registry(self, value, kind="REG_SZ"):
        self.has_key = True
        self.machine.set_registry(KEY, "INSTALLDIR", value, kind)

    def make_key(self):
        self.has_key = True
        assert self.machine.run("reg", "add", KEY, "/f").returncode == 0

    def set_trace_configuration(self, content):
        if isinstance(content, str):
            content = content.replace("\n", "\r\n").encode("latin-1")
        (self.install_dir / "zontrace.cfg").write_bytes(content)

    def messages(self):
        return self.machine.trace(self.log)

    def files(self):
        """The names of the log and its copies, wherever they are."""
        return sorted(file.name for folder in (self.machine.home, self.install_dir / "Log")
                      for file in folder.glob("Quillmon.log*"))


@pytest.fixture(scope="module")
def installed(shared_machine):
    tracing = Tracing(shared_machine)
    yield tracing
    tracing.peer.close()


@pytest.fixture
def tracing(installed):
    installed.clean()
    return installed


# -- when

def test_without_the_enabling_event_there_is_no_file(tracing):
    tracing.set_install_dir()
    tracing.start()
    tracing.request()
    assert tracing.files() == []


def test_an_event_that_is_not_signalled_enables_nothing(tracing):
    tracing.switch_off(tracing.switch_on())
    tracing.start()
    tracing.request()
    assert tracing.files() == []


def test_an_event_that_comes_while_the_service_runs_enables_the_next_call(tracing):
    tracing.start()
    tracing.request()
    assert tracing.files() == []
    tracing.switch_on()
    tracing.request()
    assert tracing.messages()[:2] == [NO_CONFIGURATION, "<<<< CreateInstanceEnumAsync >>>>"]


def test_once_enabled_neither_a_reset_nor_the_end_of_the_event_stops_it(tracing):
    switch = tracing.switch_on()
    tracing.start()
    assert tracing.messages() == [NO_CONFIGURATION, *START]
    tracing.switch_off(switch)
    tracing.request()
    after_reset = len(tracing.messages())
    assert after_reset > 3
    tracing.switch_gone()
    tracing.request()
    assert len(tracing.messages()) > after_reset


def test_a_service_that_starts_after_the_event_s_end_traces_nothing(tracing):
    tracing.switch_on()
    tracing.switch_gone()
    tracing.start()
    tracing.request()
    assert tracing.files() == []


# -- what

def test_a_line_is_the_local_time_two_blanks_the_message_and_cr_lf(tracing):
    tracing.switch_on()
    before = int(time.time())
    tracing.start()
    tracing.request()
    after = int(time.time())
    log = tracing.log.read_bytes()
    lines = LINE.findall(log)
    assert b"".join(stamp + b"  " + text + b"\r\n" for stamp, text in lines) == log
    times = [time.mktime(time.strptime(stamp.decode(), "%m/%d/%Y %H:%M:%S")) for stamp, _ in lines]
    assert before <= times[0] and times == sorted(times) and times[-1] <= after


def test_the_start_is_traced_to_the_letter(tracing):
    tracing.switch_on()
    tracing.start()
    assert re.sub(rb"(?m)^\d\d/\d\d/\d{4} \d\d:\d\d:\d\d", b"TIME", tracing.log.read_bytes()) == (
        b"TIME  No configuration file found, disabling settings\r\n"
        b"TIME  [RegisterDecoupledInstance] CreateInstance t_Result = 0\r\n"
        b"TIME  [RegisterDecoupledInstance] exit t_Result = 0\r\n")


def without_addresses(messages):
    return [re.sub(r"\(0{7}[0-9A-F]{9}\)", "(ADDRESS)", message) for message in messages]


def test_an_enumeration_is_traced_to_the_letter(tracing):
    tracing.switch_on()
    tracing.start()
    answer = response(device("SC1", SerialNumber="7"), device("SC2", ManufacturerName="Other"))
    tracing.peer.answer = framed(answer)
    tracing.request()
    request = ('<?xml version="1.0" encoding="UTF-8" standalone="no" ?><request>'
               "<type>enumerateInstances</type><class>UPOS_Scanner</class></request>")
    adapter = "<<UPOSAdapter::enumerateInstances>>:"
    field = "<<UPOSXMLAdapter>> field"
    clone = "<<UPOSConnector::Receive2()>> Calling clone"
    assert without_addresses(tracing.messages()[3:]) == [
        "<<CProvider_IWbemServices::Initialize>> * Creating Semaphore with size: 4 *\n",
        "<<<< CreateInstanceEnumAsync >>>>",
        "<<UPOSAdapter(ADDRESS) created",
        "<<CreateInstanceEnumAsync>> *  Enumerating instances of 'UPOS_Scanner'",
        f"{adapter} xml->toXML(UPOS_Scanner, REQUEST, ENUMERATE, ...)",
        "<<UPOSXMLAdapter>> toXML(className='UPOS_Scanner', type='request', "
        "cmd='enumerateInstances', id='')",
        f"{adapter} Invoking request to Java code - class '{request}'",
        f"<<Request>>: '{request}'",
        "<<configureTimers>>: Loading timeout for the retry when java drivers are out...",
        "<<configureTimers>>: Timeout is 10000 milliseconds.",
        "<<configureTimers>>: Creating Timer queue...",
        "<<configureTimers>>: CreateTimerQueue() succeeded!!",
        "<<XMLAdapter>>: Creating socket",
        clone,
        "",
        f"{clone} OUT_MARK",
        answer,
        "<<XMLAdapter>>: Receiving data",
        answer,
        f"{adapter} got response, converting from XML - class '{request}'",
        f"{adapter} answer: '{answer}'",
        "<<UPOSXMLAdapter>> instanceList(error) length: 0",
        "<<UPOSXMLAdapter>> instanceList(instance) length: 2",
        f"{field} 0 name='DeviceID', type='string', value='SC1', dev='SC1' add=0",
        f"{field} 1 name='ManufacturerName', type='string', value='Veltran', dev='Veltran' add=1",
        f"{field} 2 name='SerialNumber', type='string', value='7', dev='7' add=1",
        f"{field} 0 name='DeviceID', type='string', value='SC2', dev='SC2' add=0",
        f"{field} 1 name='ManufacturerName', type='string', value='Other', dev='Other' add=0",
        "<<fromXML>> Discarding NON-ORVEX device",
        f"{adapter} after fromXML - answer: '{answer}'",
        f"{adapter} calling xml->getInstances()",
        f"{adapter} xml->getInstances() returned",
        f"{adapter} Returning request",
        "<<CreateInstanceEnumAsync>> *  Enumeration of 'UPOS_Scanner' returned rc=0",
        "<<CreateInstanceEnumAsync>> *  getting objects for UPOS_Scanner\n",
        "\tPutField - Name: DeviceID, Type: string, Value: SC1",
        "\tPutField - Name: ManufacturerName, Type: string, Value: Veltran",
        "\tPutField - Name: SerialNumber, Type: string, Value: 7",
        "<<UPOSAdapter(ADDRESS) destroyed"]


@pytest.fixture
def streaming(machine):
    """A machine whose service traces in the proxy strategy, and a device server connected to it."""
    machine.switch_trace_on()
    port = machine.start_proxy_service(provider__dataUpdate__frequency=0)
    machine.wait_for_trace("Polling time set to 0")  # the last line of the start
    machine.mark = len(machine.trace())
    with DeviceServer(port) as server:
        yield server


def traced_since(machine):
    """The messages since the last call."""
    messages = machine.trace()[machine.mark:]
    machine.mark += len(messages)
    return [re.sub(r" [0-9A-F]{16}$", " ADDRESS", message)
            for message in without_addresses(messages)]


PROCESS_EVENT = "<<CIMDeviceUtil:processEvent>>"


def event_lines(text, provider, *fields):
    """Of the reading of an event that comes from a stream."""
    proxy = "<<ProxyImpXmlAdapter>>"
    return [f"Event received: {text}",
            f"{proxy} fromXMLEvent(event='{text}')",
            f"{proxy}     provider={provider} fieldlist_length={len(fields)}",
            *(f"{proxy}         name={name} type=string value={value}" for name, value in fields)]


def test_a_stream_is_traced_to_the_letter(machine, streaming):
    whole = document("T1", cls="UPOS_Scanner", SerialNumber="7")
    pieces = whole[:80], whole[80:-len("</event>")], "</event>"
    for piece in pieces:  # each a receive of its own
        streaming.send(piece)
        machine.wait_for_trace(f"Data received from socket: {piece}")
    what = f"{PROCESS_EVENT}: provider='UPOS_LogicalDevice' type='addInstance'"
    machine.wait_for_trace(f"{what} returning")
    assert traced_since(machine) == [
        "Adding client ADDRESS",
        *(f"Data received from socket: {piece}" for piece in pieces),
        *event_lines(whole, "UPOS_LogicalDevice", ("DeviceID", "T1"),
                     ("ManufacturerName", "Veltran"), ("SerialNumber", "7")),
        f"{what} devicFound=0000000000000000",
        "Instance count before adding T1 is 0",
        "Adding instance UPOS_LogicalDevice with ID T1",
        "Instance count after adding T1 is 1",
        "Adding CIMDevice: T1",
        f"{what} returning"]


def test_an_event_of_a_foreign_maker_is_traced_with_its_provider_and_fields(machine, streaming):
    foreign = document("F1", maker="Acme", provider="Somebody", ModelName="M")
    streaming.send(foreign)
    what = f"{PROCESS_EVENT}: provider='Somebody' type='NA'"
    machine.wait_for_trace(f"{what} returning")
    assert [line for line in traced_since(machine) if "Data received" not in line] == [
        "Adding client ADDRESS",
        *event_lines(foreign, "Somebody", ("DeviceID", "F1"), ("ManufacturerName", "Acme"),
                     ("ModelName", "M")),
        f"{what} devicFound=0000000000000000",
        f"{what} returning"]


def test_a_client_that_goes_is_traced(machine, streaming):
    machine.wait_for_trace("Adding client")
    streaming.connection.close()
    machine.wait_for_trace("Deleting client: ")
    assert traced_since(machine) == ["Adding client ADDRESS", "Deleting client: ADDRESS"]


def test_requests_in_the_proxy_strategy_are_traced_to_the_letter(machine, streaming):
    streaming.send(document("T1", cls="UPOS_Scanner"), document("T2", cls="UPOS_Scale"))
    wait_until(lambda: sum("returning" in line for line in machine.trace()) == 2, "two devices")
    traced_since(machine)
    update = UPDATE_REQUEST.decode()
    proxy = "<<ProxyImpXmlAdapter>>"

    def built(class_name, command, device_id, size, *adding):
        what = f"toXML className={class_name} type=request cmd={command} id={device_id}"
        return [f"{proxy} {what}",
                f"CIMContainer::getInstances({class_name})",
                *adding,
                f"{proxy} updateInstances className={class_name} id={device_id} device list "
                f"size={size}",
                f"{proxy} {what} returning '{update}'"]

    sent = [f"{proxy} sendRequest() isPollingTime()=1",
            f"Sending message to clients: {update}"]
    adding = ["CIMContainer::adding instance (id=T1)"]
    adapter = "<<UPOSAdapter::enumerateInstances>>:"

    assert names(machine, "UPOS_Scanner") == (["T1"], OK)
    assert traced_since(machine) == [
        "<<CProvider_IWbemServices::Initialize>> * Creating Semaphore with size: 1 *\n",
        "<<<< CreateInstanceEnumAsync >>>>",
        "<<UPOSAdapter(ADDRESS) created",
        "<<CreateInstanceEnumAsync>> *  Enumerating instances of 'UPOS_Scanner'",
        f"{adapter} xml->toXML(UPOS_Scanner, REQUEST, ENUMERATE, ...)",
        *built("UPOS_Scanner", "enumerateInstances", "", 1, *adding),
        f"{adapter} Invoking request to Java code - class '{update}'",
        f"<<Request>>: '{update}'",
        *sent,
        f"{adapter} got response, converting from XML - class '{update}'",
        f"{adapter} answer: ''",
        f"{adapter} after fromXML - answer: ''",
        f"{adapter} calling xml->getInstances()",
        f"{adapter} xml->getInstances() returned",
        f"{adapter} Returning request",
        "<<CreateInstanceEnumAsync>> *  Enumeration of 'UPOS_Scanner' returned rc=0",
        "<<CreateInstanceEnumAsync>> *  getting objects for UPOS_Scanner\n",
        "\tPutField - Name: DeviceID, Type: string, Value: T1",
        "\tPutField - Name: ManufacturerName, Type: string, Value: Veltran",
        "<<UPOSAdapter(ADDRESS) destroyed"]
    # The poll is due each time: a second request goes out as well.
    assert streaming.receive(len(UPDATE_REQUEST)) == UPDATE_REQUEST

    assert names(machine, "UPOS_Belt") == ([], OK)
    assert built("UPOS_Belt", "enumerateInstances", "", 0)[1:3] == [
        line for line in traced_since(machine) if line.startswith(("CIMC", f"{proxy} updateI"))]
    assert streaming.receive(len(UPDATE_REQUEST)) == UPDATE_REQUEST

    assert fetched(machine, 'UPOS_Scanner.DeviceID="nobody"') == FAILED
    assert traced_since(machine) == [
        "<<<< GetObjectAsync >>>>",
        "GetIntanceByPath: Path: ''",
        "GetIntanceByPath: className='UPOS_Scanner', deviceID='nobody'",
        "<<UPOSAdapter(ADDRESS) created",
        *built("UPOS_Scanner", "getInstance", "nobody", 1, *adding),
        "<<UPOSAdapter::getInstance>>: Invoking request",
        f"<<Request>>: {update}",
        *sent,
        "Answer: ''",
        "GetIntanceByPath: Number of Keys: 1",
        "GetIntanceByPath: Number of Props In Instance: 0",
        "<<UPOSAdapter(ADDRESS) destroyed",
        "<<GetObjectAsync>> * Get Instance Path failed"]
    assert streaming.receive(len(UPDATE_REQUEST)) == UPDATE_REQUEST


def test_a_trace_switched_on_while_an_answer_is_on_its_way_shows_its_arrival(tracing):
    tracing.start()
    answer = response(device("SC1"))

    def switch_on_and_answer(connection, _):
        tracing.switch_on()
        connection.sendall(framed(answer))

    tracing.peer.answer = switch_on_and_answer
    tracing.request()
    clone = "<<UPOSConnector::Receive2()>> Calling clone"
    # The answer may come in several pieces: the last one brings the end mark.
    messages = [line for line in tracing.messages() if line != clone]
    end = messages.index(f"{clone} OUT_MARK")
    assert messages[:1] == [NO_CONFIGURATION]
    assert all(answer.startswith(piece) for piece in messages[1:end])
    assert messages[end + 1:end + 4] == [answer, "<<XMLAdapter>>: Receiving data", answer]


def test_an_answer_is_traced_as_it_came_byte_by_byte(tracing):
    tracing.switch_on()
    tracing.start()
    answer = response(device("SC1", ModelName="\r\n01/02/2026 03:04:05  [Process]\n1\t\x7f\x9b"))
    raw = answer.encode("latin-1").replace(b"\x9b", b"\xc2\x9b")
    tracing.peer.answer = framed(raw)
    tracing.request()
    assert b"  <<UPOSAdapter::enumerateInstances>>: answer: '" + raw + b"'\r\n" in tracing.log.read_bytes()


def test_a_lookup_is_traced_to_the_letter(tracing):
    tracing.start()
    tracing.request()
    tracing.switch_on()
    path = 'UPOS_Scale.DeviceID="SC%1"'
    answer = response(device("SC%1", "UPOS_Scale"))
    tracing.peer.answer = framed(answer)
    assert tracing.client.run("get", path).returncode == 0
    request = ('<?xml version="1.0" encoding="UTF-8" standalone="no" ?><request>'
               "<type>getInstance</type><class>UPOS_Scale</class><id>SC%1</id></request>")
    field = "<<UPOSXMLAdapter>> field"
    clone = "<<UPOSConnector::Receive2()>> Calling clone"
    assert without_addresses(tracing.messages()) == [
        NO_CONFIGURATION,
        "<<<< GetObjectAsync >>>>",
        "GetIntanceByPath: Path: ''",
        "GetIntanceByPath: className='UPOS_Scale', deviceID='SC%1'",
        "<<UPOSAdapter(ADDRESS) created",
        "<<UPOSXMLAdapter>> toXML(className='UPOS_Scale', type='request', cmd='getInstance', "
        "id='SC%1')",
        "<<UPOSAdapter::getInstance>>: Invoking request",
        f"<<Request>>: {request}",
        "<<XMLAdapter>>: Creating socket",
        clone,
        "",
        f"{clone} OUT_MARK",
        answer,
        "<<XMLAdapter>>: Receiving data",
        answer,
        f"Answer: '{answer}'",
        "<<UPOSXMLAdapter>> instanceList(error) length: 0",
        "<<UPOSXMLAdapter>> instanceList(instance) length: 1",
        f"{field} 0 name='DeviceID', type='string', value='SC%1', dev='SC%1' add=0",
        f"{field} 1 name='ManufacturerName', type='string', value='Veltran', dev='Veltran' add=1",
        "GetIntanceByPath: Number of Keys: 1",
        "GetIntanceByPath: Number of Props In Instance: 2",
        "<<Put Field >> Name: DeviceID, Type: string, Value: SC%1",
        "<<Put Field >> Name: ManufacturerName, Type: string, Value: Veltran",
        "<<UPOSAdapter(ADDRESS) destroyed"]


def test_lines_of_requests_that_run_at_once_are_whole(tracing):
    tracing.switch_on()
    tracing.start()
    names = [f"SCANNER{i}" for i in range(10)]
    tracing.peer.answer = framed(response(*map(device, names)))
    clients = [WmiClient(tracing.machine) for _ in range(4)]
    failed = []

    def ask(client):
        for _ in range(3):
            if client.run("list", "UPOS_Scanner", "DeviceID").returncode != 0:
                failed.append(client)

    threads = [threading.Thread(target=ask, args=(client,)) for client in clients]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert failed == []
    log = tracing.log.read_bytes()
    lines = log.removesuffix(b"\r\n").split(b"\r\n")
    assert all(LINE.fullmatch(line + b"\r\n") for line in lines)
    assert log.count(b"\tPutField - Name: DeviceID, Type: string, Value: SCANNER") == 4 * 3 * 10
    assert log.count(b"<<UPOSAdapter(") == 4 * 3 * 2


# -- where

def test_without_the_registry_key_the_log_is_beside_the_executable(tracing):
    tracing.switch_on()
    tracing.start()
    assert tracing.files() == ["Quillmon.log"]
    assert tracing.machine.log.exists()


def test_a_log_that_is_there_is_continued(tracing):
    tracing.log.write_bytes(b"older line\r\n")
    tracing.switch_on()
    tracing.start()
    assert tracing.log.read_bytes().startswith(b"older line\r\n")
    assert tracing.messages()[1:] == [NO_CONFIGURATION, *START]


NAMED = "Name of Config file to read : "


def test_the_installation_folder_s_log_folder_takes_the_log(tracing):
    tracing.set_install_dir()
    tracing.switch_on()
    tracing.start()
    assert not tracing.machine.log.exists()
    assert tracing.messages() == [NAMED + "C:\\Veltran\\zontrace.cfg", NO_CONFIGURATION, *START]


@pytest.mark.parametrize("length", [99, 100, 121, 200])
def test_an_installation_folder_of_any_length_takes_the_log(tracing, length):
    folder = "C:\\Veltran\\".ljust(length - 1, "x") + "\\"
    tracing.set_install_dir(folder, log_folder=False)
    log = tracing.install_dir / folder[len("C:\\Veltran\\"):-1] / "Log" / "Quillmon.log"
    log.parent.mkdir(parents=True)
    tracing.log = log
    tracing.switch_on()
    tracing.start()
    assert not tracing.machine.log.exists()
    assert tracing.messages()[0] == f"{NAMED}{folder}zontrace.cfg"


def test_without_the_log_folder_the_log_is_beside_the_executable(tracing):
    tracing.set_install_dir(log_folder=False)
    tracing.set_trace_configuration("BackupCount=2\n")
    tracing.switch_on()
    tracing.start()
    assert tracing.messages() == [
        NAMED + "C:\\Veltran\\zontrace.cfg", "Key : BackupCount, Value : 2", *START]
    assert not (tracing.install_dir / "Log").exists()


def test_a_log_that_cannot_be_opened_there_is_written_beside_the_executable(tracing):
    tracing.set_install_dir()
    tracing.log.mkdir()
    tracing.log = tracing.machine.log
    tracing.switch_on()
    tracing.start()
    assert tracing.messages() == [NAMED + "C:\\Veltran\\zontrace.cfg", NO_CONFIGURATION, *START]


def test_a_folder_without_its_last_backslash_takes_the_log_but_misnames_the_configuration(tracing):
    tracing.set_install_dir("C:\\Veltran")
    tracing.set_trace_configuration("BackupCount=2\n")
    tracing.switch_on()
    tracing.start()
    assert tracing.messages() == [NAMED + "C:\\Veltranzontrace.cfg", NO_CONFIGURATION, *START]


def test_a_key_without_the_value_looks_for_the_configuration_in_the_current_folder(tracing):
    tracing.make_key()
    tracing.switch_on()
    tracing.start()
    assert tracing.messages() == [NAMED + "zontrace.cfg", NO_CONFIGURATION, *START]


@pytest.mark.parametrize("kind, value, named", [
    ("REG_SZ", "", ""),
    ("REG_SZ", "Q:\\nowhere\\", "Q:\\nowhere\\"),
    ("REG_SZ", "%s%n%p\\", "%s%n%p\\"),
    ("REG_SZ", "<>|?*", "<>|?*"),
    ("REG_DWORD", "0", ""),
    ("REG_DWORD", "0x41424344", "DCBA"),
], ids=["empty", "no such drive", "conversions", "no file name", "number 0", "a number's bytes"])
def test_a_nonsense_installation_folder_leaves_the_log_beside_the_executable(
        tracing, kind, value, named):
    tracing.set_registry(value, kind)
    tracing.switch_on()
    tracing.start()
    assert tracing.messages() == [f"{NAMED}{named}zontrace.cfg", NO_CONFIGURATION, *START]
    assert tracing.machine.log.exists()


# -- the configuration file

def settings(tracing, content):
    """What the service traces of a zontrace.cfg, between its name and the start's own lines."""
    tracing.set_install_dir()
    tracing.set_trace_configuration(content)
    tracing.switch_on()
    tracing.start()
    messages = tracing.messages()
    assert messages[0] == NAMED + "C:\\Veltran\\zontrace.cfg"
    assert messages[-2:] == START
    return messages[1:-2]


def accepted(*settings_):
    return [f"Key : {key}, Value : {value}" for key, value in settings_]


def test_a_valid_line_is_accepted_as_its_clamped_number(tracing):
    size, count = "FileSize", "BackupCount"
    rows = [
        ("BackupCount = 3", (count, 3)),
        ("FileSize=1000000", (size, 1000000)),
        (" \t FileSize \t =\t 1100000 \t", (size, 1100000)),
        ("FileSize:1200000", (size, 1200000)),
        ('FileSize : "1300000"', (size, 1300000)),
        ("FileSize='1400000'", (size, 1400000)),
        ("FileSize=\" 1500000 \"", (size, 1500000)),
        ("FileSize=1600000 # bytes", (size, 1600000)),
        # clamped
        ("FileSize=20000000", (size, 10000000)),
        ("FileSize=10000001", (size, 10000000)),
        ("FileSize=99999999999999999999", (size, 10000000)),
        ("FileSize=-1", (size, 0)),
        ("FileSize=-99999999999999999999", (size, 0)),
        ("BackupCount=9", (count, 5)),
        ("BackupCount=5", (count, 5)),
        ("BackupCount=-1", (count, 0)),
        # no numbers, or not only
        ("BackupCount=many", (count, 0)),
        ("BackupCount=2abc", (count, 2)),
        ("BackupCount=+3", (count, 3)),
        ("BackupCount=1.9", (count, 1)),
        ("BackupCount=0x4", (count, 0)),
        ("BackupCount=%d%s%n", (count, 0)),
        ("FileSize==1700000", (size, 0)),
        ("FileSize:=1700000", (size, 0)),
        ('FileSize="1700000', (size, 0)),
        ("FileSize='1700000\"", (size, 0)),
        ('FileSize=""1700000""', (size, 0)),
        # nothing
        ("FileSize=", None),
        ("FileSize= \t ", None),
        ('FileSize=""', None),
        ("FileSize=''", None),
        ("FileSize", None),
        ("FileSize 7", None),
        ("=FileSize=7", None),
        (":FileSize=7", None),
        ("", None),
        # comments
        ("#FileSize=7", None),
        ("!FileSize=7", None),
        (" \t# FileSize=7", None),
        # other keys
        ("filesize=7", None),
        ("FILESIZE=7", None),
        ("BackUpCount=7", None),
        ("FileSizes=7", None),
        ("File Size=7", None),
        ("\"FileSize\"=7", None),
        ("[default]", None),
        ("%s%n%p=%s%n%p", None),
        # longer than the 1023 bytes that are read at once: the rest is a line of its own
        ("#".ljust(1023, "x") + "FileSize=1800000", (size, 1800000)),
        ("FileSize=1900000".ljust(1023, " ") + "BackupCount=1", (size, 1900000), (count, 1)),
        ("FileSize".ljust(1023, " ") + "=7", None),
        ("x" * 100000, None),
        ("FileSize=" + "0" * 900 + "2000000", (size, 2000000)),
        ("BackupCount=4", (count, 4)),
    ]
    expected = [setting for _, *all_ in rows for setting in all_ if setting]
    content = "\n".join(row[0] for row in rows)  # the last line without its end
    assert settings(tracing, content) == accepted(*expected)


def test_lines_may_end_as_elsewhere(tracing):
    assert settings(tracing, b"BackupCount=1\nFileSize=1000000\n\nBackupCount=2\r\n") == accepted(
        ("BackupCount", 1), ("FileSize", 1000000), ("BackupCount", 2))


@pytest.mark.parametrize("content", [
    b"",
    b"\r\n\r\n",
    b"# only a comment",
    b"\xef\xbb\xbfFileSize=7",
    "FileSize=7\r\n".encode("utf-16"),
    bytes(range(256)) * 400,
    b"\0FileSize=7\n",
], ids=["empty", "blank", "a comment", "behind a byte order mark", "UTF-16", "any bytes",
        "behind a zero byte"])
def test_a_file_that_says_nothing_changes_nothing(tracing, content):
    assert settings(tracing, content) == []


def test_a_folder_in_its_place_is_no_configuration(tracing):
    tracing.set_install_dir()
    (tracing.install_dir / "zontrace.cfg").mkdir()
    tracing.switch_on()
    tracing.start()
    assert tracing.messages() == [NAMED + "C:\\Veltran\\zontrace.cfg", NO_CONFIGURATION, *START]


def test_it_is_read_once_in_a_process(tracing):
    assert settings(tracing, "BackupCount=1\n") == accepted(("BackupCount", 1))
    tracing.set_trace_configuration("BackupCount=2\nFileSize=100\n")
    tracing.request()
    assert not [line for line in tracing.messages()[3:] if line.startswith(("Key :", NAMED))]
    assert tracing.files() == ["Quillmon.log"]


# -- rotation

FIELDS = 150


def fill(tracing):
    """One request that traces some 70,000 bytes, at last a line for each of its fields."""
    fields = "".join(f'<field name="ModelName" type="string">{i}</field>' for i in range(FIELDS))
    tracing.peer.answer = framed(response(device().replace("</instance>", fields + "</instance>")))
    tracing.request()


def check_rotation(tracing, limit, copies):
    """The copies are there and no more; each file was full when it was put aside, not before;
    together they hold the newest lines without a gap."""
    names = ["Quillmon.log"] + [f"Quillmon.log.{i}" for i in range(1, copies + 1)]
    assert tracing.files() == names
    folder = tracing.log.parent
    contents = [(folder / name).read_bytes() for name in reversed(names)]
    for content in contents:
        lines = content.removesuffix(b"\r\n").split(b"\r\n")
        assert all(LINE.fullmatch(line + b"\r\n") for line in lines)
        # The file's second blank does not count, so one byte more than the limit fits.
        assert len(content) <= limit + 1 or len(lines) == 1
    for older, newer in zip(contents, contents[1:]):
        first = newer[:newer.index(b"\r\n") + 2]
        assert len(older) + len(first) - 1 > limit
    numbers = [int(number) for number in re.findall(
        rb"PutField - Name: ModelName, Type: string, Value: (\d+)", b"".join(contents))]
    assert numbers and numbers == list(range(FIELDS))[-len(numbers):]
    assert contents[-1].endswith(b") destroyed\r\n")


@pytest.mark.parametrize("configured, copies", [(0, 0), (1, 1), (3, 3), (9, 5)])
def test_so_many_copies_are_kept(tracing, configured, copies):
    tracing.set_install_dir()
    tracing.set_trace_configuration(f"BackupCount={configured}\nFileSize=2500\n")
    tracing.switch_on()
    tracing.start()
    fill(tracing)
    check_rotation(tracing, 2500, copies)


def test_a_size_in_quotes_behind_a_colon_rotates(tracing):
    tracing.set_install_dir()
    tracing.set_trace_configuration('BackupCount : 2\nFileSize : "500"\n')
    tracing.switch_on()
    tracing.start()
    fill(tracing)
    check_rotation(tracing, 500, 2)


def test_a_size_that_is_not_reached_rotates_nothing(tracing):
    tracing.set_install_dir()
    tracing.set_trace_configuration("BackupCount=2\nFileSize=20000000\n")
    tracing.switch_on()
    tracing.start()
    fill(tracing)
    assert tracing.files() == ["Quillmon.log"]
    assert tracing.messages()[1:3] == accepted(("BackupCount", 2), ("FileSize", 10000000))


def older_files(tracing):
    tracing.set_install_dir()
    tracing.log.write_bytes(b"x" * 3000 + b"\r\n")
    for number in range(1, 5):
        (tracing.log.parent / f"Quillmon.log.{number}").write_text(f"copy {number}")


@pytest.mark.parametrize("content", [
    "", "BackupCount=3\nFileSize=0\n", "BackupCount=3\nFileSize=-5\n", "FileSize=many\n"])
def test_without_a_size_the_longest_log_is_continued(tracing, content):
    older_files(tracing)
    before = tracing.files()
    tracing.set_trace_configuration(content)
    tracing.switch_on()
    tracing.start()
    assert tracing.files() == before
    assert tracing.log.read_bytes().startswith(b"x" * 3000 + b"\r\n")
    assert tracing.messages()[-2:] == START


def test_each_copy_moves_up_by_one_and_the_oldest_is_dropped(tracing):
    older_files(tracing)
    tracing.set_trace_configuration("BackupCount=3\nFileSize=2000\n")
    tracing.switch_on()
    tracing.start()
    folder = tracing.log.parent
    assert tracing.messages() == [*accepted(("FileSize", 2000)), *START]
    first = (folder / "Quillmon.log.1").read_bytes()
    assert first.startswith(b"x" * 3000) and first.endswith(b"  Key : BackupCount, Value : 3\r\n")
    assert (folder / "Quillmon.log.2").read_text() == "copy 1"
    assert (folder / "Quillmon.log.3").read_text() == "copy 2"
    assert (folder / "Quillmon.log.4").read_text() == "copy 4"  # beyond the count: left alone
    assert len(tracing.files()) == 5


def test_a_size_that_is_read_before_the_number_of_copies_deletes_a_log_that_is_too_long(tracing):
    older_files(tracing)
    tracing.set_trace_configuration("FileSize=2000\nBackupCount=3\n")
    tracing.switch_on()
    tracing.start()
    assert tracing.messages() == [*accepted(("FileSize", 2000), ("BackupCount", 3)), *START]
    for number in range(1, 5):
        assert (tracing.log.parent / f"Quillmon.log.{number}").read_text() == f"copy {number}"


def test_a_gap_among_the_copies_does_no_harm(tracing):
    older_files(tracing)
    folder = tracing.log.parent
    (folder / "Quillmon.log.1").unlink()
    tracing.set_trace_configuration("BackupCount=3\nFileSize=2000\n")
    tracing.switch_on()
    tracing.start()
    assert tracing.messages() == [*accepted(("FileSize", 2000)), *START]
    assert (folder / "Quillmon.log.3").read_text() == "copy 2"
    assert (folder / "Quillmon.log.1").read_bytes().startswith(b"x" * 3000)
    assert not (folder / "Quillmon.log.2").exists()


# -- links

# Wine renames and deletes what a link points at; Windows, the link itself. So nothing rotates here.

def test_a_log_that_is_a_link_is_written_through(tracing):
    tracing.set_install_dir()
    target = tracing.install_dir / "elsewhere.txt"
    target.write_bytes(b"older line\r\n")
    tracing.log.symlink_to(target)
    tracing.switch_on()
    tracing.start()
    assert target.read_bytes().startswith(b"older line\r\n")
    assert tracing.messages()[-2:] == START


def test_a_log_folder_that_is_a_link_is_followed(tracing):
    tracing.set_install_dir(log_folder=False)
    target = tracing.install_dir / "elsewhere"
    target.mkdir()
    (tracing.install_dir / "Log").symlink_to(target, target_is_directory=True)
    tracing.log = target / "Quillmon.log"
    tracing.switch_on()
    tracing.start()
    assert tracing.messages()[-2:] == START


def test_a_log_that_is_a_link_to_itself_is_written_beside_the_executable(tracing):
    tracing.set_install_dir()
    tracing.log.symlink_to(tracing.log)
    tracing.log = tracing.machine.log
    tracing.switch_on()
    tracing.start()
    assert tracing.messages()[-2:] == START
