"""What WMI clients that nobody here wrote, and the direct client, see of a till's devices."""

import subprocess
import threading

import pytest

from machine import BUILD, wait_until
from peers import (FAILED, INVALID_CLASS, OK, Peer, ask, counters, device, event, events_until,
                   fetched, framed, listing, names, response, send, status_of, table)

ALL_PROCESSORS = True

LOGICAL = ["SCANNER1", "SCALE1", "PRINTER1", "DRAWER1", "DISPLAY1", "MSR1", "KEYBOARD1", "KEYLOCK1",
           "SCANNER2"]
CONNECT = 'Set wmi = GetObject("winmgmts:\\\\.\\root\\cimv2")\n'


@pytest.fixture
def answering(shared_machine, till):
    """Puts another device server in the till's place for one test."""
    peers = []

    def answer(*instances):
        peers.append(Peer(answer=framed(response(*instances))))
        configure(shared_machine, till, upos__requestSocket__Port=peers[-1].port)
        return peers[-1]

    yield answer
    configure(shared_machine, till)
    for peer in peers:
        peer.close()


def configure(machine, till, **keys):
    machine.configure(**{"upos__requestSocket__Port": till.requests,
                         "provider__eventSocket__Port": till.events, **keys})


# -- wmic


def test_wmic_lists_scanners_of_our_own_and_of_sold_on_makers(shared_machine, till):
    assert shared_machine.wmic("UPOS_Scanner", "DeviceID", "ManufacturerName", "GoodScanCount") == [
        {"DeviceID": "SCANNER1", "ManufacturerName": "Veltran", "GoodScanCount": "1843207"},
        {"DeviceID": "SCANNER2", "ManufacturerName": "OEM", "GoodScanCount": "204871"}]


def test_wmic_lists_the_scale(shared_machine, till):
    assert shared_machine.wmic("UPOS_Scale", "DeviceID", "ModelName", "GoodWeightReadCount") == [
        {"DeviceID": "SCALE1", "ModelName": "Checkout scale 15 kg",
         "GoodWeightReadCount": "402118"}]


def test_wmic_lists_every_published_device_as_a_logical_one(shared_machine, till):
    rows = shared_machine.wmic("UPOS_LogicalDevice", "DeviceID", "DeviceCategory")
    assert [row["DeviceID"] for row in rows] == LOGICAL
    assert {row["DeviceCategory"] for row in rows} == {
        "Scanner", "Scale", "POSPrinter", "CashDrawer", "LineDisplay", "MSR", "POSKeyboard",
        "Keylock"}


def test_wmic_sees_no_row_of_a_class_without_devices(shared_machine, till):
    done = shared_machine.run("wmic", "path", "UPOS_Belt", "get", "DeviceID,ModelName")
    assert (done.stdout, done.returncode) == (b"", 0)


def test_wmic_fails_for_an_unknown_class(shared_machine, till):
    done = shared_machine.run("wmic", "path", "UPOS_Nonsense", "get", "DeviceID")
    assert done.stdout == b"" and done.returncode != 0


# -- VBScript


def test_a_script_walks_the_instances_of_a_class(shared_machine, till):
    assert shared_machine.script(CONNECT + '''
For Each device In wmi.InstancesOf("UPOS_LogicalDevice")
  WScript.Echo device.DeviceID
Next''') == LOGICAL


def test_a_script_gets_values_of_the_properties_types(shared_machine, till):
    assert shared_machine.script(CONNECT + '''
Set device = wmi.Get("UPOS_POSPrinter.DeviceID=""PRINTER1""")
Sub Show(name)
  value = device.Properties_(name).Value
  If IsNull(value) Then
    WScript.Echo name & " Null"
  Else
    WScript.Echo name & " " & TypeName(value) & " " & value
  End If
End Sub
Show "DeviceID"
Show "ModelName"
Show "InstallationDate"
Show "RecLineCharsList"
Show "PaperCutCount"
Show "ReceiptCharacterPrintedCount"
Show "CapStatisticsReporting"
Show "CapUpdateFirmware"
Show "CapUpdateStatistics"
WScript.Echo device.PaperCutCount + 1
If Not device.CapUpdateFirmware Then WScript.Echo "no update"
''') == [
        "DeviceID String PRINTER1",
        "ModelName String RP-80 receipt & journal",
        "InstallationDate String 20220214081500.000000+060",
        "RecLineCharsList String 42,56",
        "PaperCutCount Long 391276",
        "ReceiptCharacterPrintedCount Long 598213774",
        "CapStatisticsReporting Boolean True",
        "CapUpdateFirmware Boolean False",
        "CapUpdateStatistics Null",
        "391277",
        "no update"]


def test_a_script_selects_with_a_condition(shared_machine, till):
    assert shared_machine.script(CONNECT + '''
For Each device In wmi.ExecQuery("SELECT * FROM UPOS_Scanner WHERE ManufacturerName = 'OEM'")
  WScript.Echo device.DeviceID & " " & device.ModelName
Next
For Each device In wmi.ExecQuery("SELECT * FROM UPOS_Scanner WHERE GoodScanCount = 1843207")
  WScript.Echo device.DeviceID
Next
WScript.Echo wmi.ExecQuery("SELECT * FROM UPOS_Scanner WHERE DeviceID = 'NOBODY'").Count
''') == ["SCANNER2 Corded hand scanner", "SCANNER1", "0"]


def test_a_script_learns_that_a_device_or_a_class_is_not_there(shared_machine, till):
    assert shared_machine.script(CONNECT + '''
On Error Resume Next
wmi.Get "UPOS_Scanner.DeviceID=""NOBODY"""
WScript.Echo Hex(Err.Number)
Err.Clear
wmi.Get "UPOS_Nonsense.DeviceID=""SCANNER1"""
WScript.Echo Hex(Err.Number)
''') == ["80041001", "80041002"]


# -- the direct client


def test_a_device_is_fetched_by_its_path(shared_machine, till):
    for path in ('UPOS_Scanner.DeviceID="SCANNER1"',
                 '\\\\.\\root\\cimv2:UPOS_Scanner.DeviceID="SCANNER1"'):
        found = fetched(shared_machine, path)
        assert found["__PATH"] == '\\\\.\\root\\cimv2:UPOS_Scanner.DeviceID="SCANNER1"'
        assert found["DeviceID"] == "SCANNER1"
        assert found["ModelName"] == "VS-3200 bi-optic"
        assert found["GoodScanCount"] == "1843207"
        assert found["CapUpdateFirmware"] == "True"
        assert found["CapUpdateStatistics"] == "(null)"


def test_a_device_is_fetched_as_a_logical_one_too(shared_machine, till):
    found = fetched(shared_machine, 'UPOS_LogicalDevice.DeviceID="SCALE1"')
    assert found["__PATH"].endswith(':UPOS_LogicalDevice.DeviceID="SCALE1"')
    assert found["ManufacturerName"] == "OEM"
    assert "GoodWeightReadCount" not in found


@pytest.mark.parametrize("path", [
    'UPOS_Scanner.DeviceID="NOBODY"',
    'UPOS_Scanner.DeviceID="SCALE1"',
    'UPOS_Scanner.DeviceID="scanner1"',
    'UPOS_Belt.DeviceID="SCANNER1"',
    'UPOS_MICR.DeviceID="MICR1"',
])
def test_a_device_that_is_not_there_fails_to_be_fetched(shared_machine, till, path):
    assert fetched(shared_machine, path) == FAILED


def test_a_query_selects_properties_and_rows(shared_machine, till):
    done = ask(shared_machine, "query", "SELECT DeviceID, Interface FROM UPOS_LogicalDevice "
               "WHERE Interface = 'USB'")
    assert status_of(done) == OK
    assert table(done) == [{"DeviceID": name, "Interface": "USB"} for name in (
        "SCANNER1", "PRINTER1", "DISPLAY1", "SCANNER2")]


def test_a_class_without_devices_is_an_empty_success(shared_machine, till):
    assert names(shared_machine, "UPOS_Belt") == ([], OK)


def test_an_unknown_class_never_reaches_the_provider(shared_machine, till):
    before = shared_machine.wmi_counter("Requests")
    assert names(shared_machine, "UPOS_Nonsense") == ([], INVALID_CLASS)
    assert shared_machine.wmi_counter("Requests") == before


def test_the_common_class_lists_each_device_in_each_of_its_classes(shared_machine, till):
    found, status = names(shared_machine, "UPOS_Device")
    assert status == OK
    assert sorted(found) == sorted(LOGICAL * 2)


def test_a_list_shows_the_devices_as_they_are_now(shared_machine, till):
    assert names(shared_machine, "UPOS_MICR") == ([], OK)
    till.type("attach MICR1")
    till.expect("event addInstance")
    try:
        assert names(shared_machine, "UPOS_MICR") == (["MICR1"], OK)
        assert fetched(shared_machine, 'UPOS_MICR.DeviceID="MICR1"')["GoodReadCount"] == "1190"
    finally:
        till.type("detach MICR1")
        till.expect("event delInstance")
    assert names(shared_machine, "UPOS_MICR") == ([], OK)


# -- fields and properties

# A field's type word and value, and what the property then holds. uint64 is converted to the same
# 32 bits with a sign as uint32, on purpose: a larger number stays a text, which no number property
# takes. Lists of numbers are put as their text.
CONVERSIONS = [
    ("UPOS_Scanner", "GoodScanCount", "uint32", "0", "0"),
    ("UPOS_Scanner", "GoodScanCount", "uint32", "2147483647", "2147483647"),
    ("UPOS_Scanner", "GoodScanCount", "uint32", "2147483648", "(null)"),
    ("UPOS_Scanner", "GoodScanCount", "uint32", "many", "(null)"),
    ("UPOS_Scanner", "GoodScanCount", "uint32", "", "(null)"),
    ("UPOS_POSKeyboard", "KeyPressedCount", "uint64", "2147483647", "2147483647"),
    ("UPOS_POSKeyboard", "KeyPressedCount", "uint64", "2147483648", "(null)"),
    ("UPOS_POSKeyboard", "KeyPressedCount", "uint64", "18446744073709551615", "(null)"),
    ("UPOS_Scanner", "ModelName", "uint64", "18446744073709551615", "18446744073709551615"),
    ("UPOS_Scanner", "CapUpdateFirmware", "boolean", "true", "True"),
    ("UPOS_Scanner", "CapUpdateFirmware", "boolean", "false", "False"),
    ("UPOS_Scanner", "CapUpdateFirmware", "boolean", "True", "True"),
    ("UPOS_Scanner", "CapUpdateFirmware", "boolean", "perhaps", "(null)"),
    ("UPOS_Scanner", "CapUpdateFirmware", "uint32", "1", "(null)"),
    ("UPOS_POSPrinter", "RecLineCharsList", "ArrayInt32", "1,2,x", "1,2,x"),
    ("UPOS_POSPrinter", "RecLineCharsList", "ArrayInt32", "42,56,68", "42,56,68"),
    ("UPOS_POSPrinter", "PaperCutCount", "ArrayInt32", "42", "(null)"),
    ("UPOS_Scanner", "InstallationDate", "datetime", "20220214081500.000000+060",
     "20220214081500.000000+060"),
    ("UPOS_Scanner", "InstallationDate", "datetime", "tomorrow", "tomorrow"),
    ("UPOS_Scanner", "ModelName", "float", "1.5", "1.5"),
    ("UPOS_Scanner", "ModelName", "klingon", "text", "text"),
    ("UPOS_Scanner", "ModelName", "STRING", "text", "text"),
    ("UPOS_Scanner", "ModelName", "end", "text", "text"),
    ("UPOS_Scanner", "ModelName", "", "no word", "no word"),
    ("UPOS_Scanner", "GoodScanCount", "Uint32", "7", "(null)"),
    ("UPOS_Scanner", "GoodScanCount", "end", "7", "(null)"),
    ("UPOS_Scanner", "GoodScanCount", "string", "7", "(null)"),
    ("UPOS_Scanner", "ModelName", "uint32", "7", "(null)"),
    ("UPOS_Scanner", "ModelName", "boolean", "true", "(null)"),
]


@pytest.mark.parametrize("cls", ["UPOS_Scanner", "UPOS_POSKeyboard", "UPOS_POSPrinter"])
def test_a_type_word_decides_about_its_own_field_only(shared_machine, till, answering, cls):
    rows = [row[1:] for row in CONVERSIONS if row[0] == cls]
    answering(*(device(f"D{i}", cls, **{prop: (word, text)}, SerialNumber="last")
                for i, (prop, word, text, _) in enumerate(rows)))
    found, status = listing(shared_machine, cls, "DeviceID", "SerialNumber",
                            *sorted({row[0] for row in rows}))
    assert (status, len(found)) == (OK, len(rows))
    for (prop, word, text, expected), instance in zip(rows, found):
        assert (instance[prop], instance["SerialNumber"]) == (expected, "last"), (prop, word, text)


def test_a_fetched_devices_fields_are_converted_the_same_way(shared_machine, till, answering):
    rows = {prop: (word, text, expected) for cls, prop, word, text, expected in CONVERSIONS
            if cls == "UPOS_POSPrinter" or prop == "CapUpdateFirmware"}
    answering(device("D1", "UPOS_POSPrinter", **{
        prop: (word, text) for prop, (word, text, _) in rows.items()}))
    found = fetched(shared_machine, 'UPOS_POSPrinter.DeviceID="D1"')
    assert {prop: found[prop] for prop in rows} == {
        prop: expected for prop, (_, _, expected) in rows.items()}


def test_text_beyond_ascii_arrives(shared_machine, till, answering):
    answering(device("D1", ModelName="Waage für Käse, 5 €"))
    assert fetched(shared_machine, 'UPOS_Scanner.DeviceID="D1"')["ModelName"] == (
        "Waage für Käse, 5 €")


def test_an_unknown_field_is_skipped_and_the_others_stay(shared_machine, till, answering):
    answering(device("D1", NoSuchProperty="x", __CLASS="y", ModelName="known"))
    found = fetched(shared_machine, 'UPOS_Scanner.DeviceID="D1"')
    assert (found["DeviceID"], found["ModelName"]) == ("D1", "known")
    assert "NoSuchProperty" not in found
    assert listing(shared_machine, "UPOS_Scanner", "DeviceID", "ModelName") == (
        [{"DeviceID": "D1", "ModelName": "known"}], OK)


# -- makers


@pytest.mark.parametrize("cls, maker, is_published", [
    ("UPOS_POSPrinter", "Veltran", True),
    ("UPOS_POSPrinter", "ORVEX", True),
    ("UPOS_POSPrinter", "OEM", False),
    ("UPOS_POSPrinter", "Norvia", False),
    ("UPOS_POSPrinter", "veltran", False),
    ("UPOS_Scanner", "OEM", True),
    ("UPOS_Scale", "OEM", True),
    ("UPOS_Scale", "oem", False),
    ("UPOS_Scale", "", False),
])
def test_only_some_makers_are_published(
        shared_machine, till, answering, cls, maker, is_published):
    answering(device("D1", cls, ManufacturerName=maker))
    assert names(shared_machine, cls) == (["D1"] if is_published else [], OK)
    found = fetched(shared_machine, f'{cls}.DeviceID="D1"')
    assert found["ManufacturerName"] == maker if is_published else found == FAILED


def test_a_foreign_device_of_the_till_cannot_be_fetched(shared_machine, till):
    assert names(shared_machine, "UPOS_PINPad") == ([], OK)
    assert fetched(shared_machine, 'UPOS_PINPad.DeviceID="PINPAD1"') == FAILED
    assert fetched(shared_machine, 'UPOS_LogicalDevice.DeviceID="PINPAD1"') == FAILED


def test_a_discarded_devices_fields_turn_up_in_the_next_kept_one(
        shared_machine, till, answering):
    # Odd, and kept: the discarded fields stand in front of the next kept instance's.
    answering(
        device("ALIEN1", ManufacturerName="Norvia", ModelName="alien", SerialNumber="A-1"),
        device("ALIEN2", ManufacturerName="Norvia", GoodScanCount=("uint32", "7")),
        device("OURS1", ModelName="ours"),
        device("OURS2", ModelName="ours too"),
        device("ALIEN3", ManufacturerName="Norvia", SerialNumber="A-3"))
    assert listing(
        shared_machine, "UPOS_Scanner", "DeviceID", "ManufacturerName", "ModelName", "SerialNumber",
        "GoodScanCount") == ([
            {"DeviceID": "OURS1", "ManufacturerName": "Veltran", "ModelName": "ours",
             "SerialNumber": "A-1", "GoodScanCount": "7"},
            {"DeviceID": "OURS2", "ManufacturerName": "Veltran", "ModelName": "ours too",
             "SerialNumber": "(null)", "GoodScanCount": "(null)"}], OK)


def test_of_several_instances_for_one_id_the_first_is_fetched(shared_machine, till, answering):
    answering(device("D1", ModelName="first"), device("D1", ModelName="second"))
    assert fetched(shared_machine, 'UPOS_Scanner.DeviceID="D1"')["ModelName"] == "first"


# -- many clients


def test_requests_of_every_outcome_leave_nothing_behind(shared_machine, till, answering):
    names(shared_machine, "UPOS_Scanner")  # initialises the provider
    before = counters(shared_machine)
    assert before["Violations"] == 0
    for _ in range(2):
        assert len(names(shared_machine, "UPOS_LogicalDevice")[0]) == len(LOGICAL)
        assert names(shared_machine, "UPOS_Belt") == ([], OK)
        assert fetched(shared_machine, 'UPOS_Scale.DeviceID="SCALE1"')["DeviceID"] == "SCALE1"
        assert fetched(shared_machine, 'UPOS_Scale.DeviceID="NOBODY"') == FAILED
    peer = answering()
    peer.answer = framed('<response><error name="x"/></response>')
    assert names(shared_machine, "UPOS_Scanner") == ([], FAILED)
    assert fetched(shared_machine, 'UPOS_Scanner.DeviceID="D1"') == FAILED
    assert counters(shared_machine) == before


def test_many_clients_at_once_each_get_everything(shared_machine, till):
    before = counters(shared_machine)
    clients = [shared_machine.start_list(cls)
               for cls in ["UPOS_LogicalDevice", "UPOS_Scanner", "UPOS_Belt"] * 3]
    clients += [shared_machine.start("wmic", "path", "UPOS_Scale", "get", "DeviceID")
                for _ in range(2)]
    outputs = [client.communicate(timeout=60)[0] for client in clients]
    assert [client.returncode for client in clients] == [0] * len(clients)
    lists = [output.decode().split() for output in outputs[:9]]
    assert lists == [["DeviceID", *LOGICAL], ["DeviceID", "SCANNER1", "SCANNER2"], []] * 3
    assert [output.decode("utf-16").split() for output in outputs[9:]] == [
        ["DeviceID", "SCALE1"]] * 2
    wait_until(lambda: counters(shared_machine) == before, "the last request to be done with")


class Gate:
    """A device server that holds every answer back until it is opened."""

    def __init__(self):
        self.gate = threading.Event()
        self.peer = Peer(answer=self.hold)

    def hold(self, connection, request):
        self.gate.wait(60)
        connection.sendall(framed(response(device())))

    def open(self):
        self.gate.set()


@pytest.fixture
def gate(shared_machine, till):
    gate = Gate()
    yield gate
    gate.open()
    gate.peer.close()


def start_with_limit(machine, till, gate, limit):
    """Restarts the service with provider.maxQueryThreads as written, or left out when None."""
    keys = {} if limit is None else {"provider__maxQueryThreads": limit}
    configure(machine, till, upos__requestSocket__Port=gate.peer.port, **keys)
    machine.restart_service(till.events)


def entered(machine):
    """How many enumerations the provider has been called for."""
    return machine.trace().count("<<<< CreateInstanceEnumAsync >>>>")


@pytest.fixture(scope="module")
def traced(shared_machine, till):
    """The trace, switched on for the rest of this file."""
    shared_machine.switch_trace_on()


# What the platform reads as a number counts: digits up to the first other character, else 0. A
# negative limit is refused by the platform, and then limits nothing.
@pytest.mark.parametrize("written, size, admitted", [
    (None, "1", 1), ("1", "1", 1), ("4", "4", 4), ("2 threads", "2", 2), ("-3", "-3", 6)])
def test_as_many_requests_as_configured_are_served_at_once(
        shared_machine, till, gate, traced, written, size, admitted):
    start_with_limit(shared_machine, till, gate, written)
    before = entered(shared_machine)
    clients = [shared_machine.start_list("UPOS_Scanner") for _ in range(6)]
    try:
        wait_until(lambda: entered(shared_machine) == before + 6, "all requests to be entered")
    except AssertionError as problem:
        raise AssertionError(
            f"{entered(shared_machine) - before} of 6 entered, clients "
            f"{[client.poll() for client in clients]}, trace: {shared_machine.trace()[-20:]}"
        ) from problem
    wait_until(lambda: len(gate.peer.requests) >= admitted, "the admitted requests")
    with pytest.raises(AssertionError):
        wait_until(lambda: len(gate.peer.requests) > admitted, "one more", seconds=0.7)
    gate.open()
    for client in clients:
        assert client.communicate(timeout=60)[0].split() == [b"DeviceID", b"SCANNER1"]
    assert len(gate.peer.requests) == 6
    sizes = [line for line in shared_machine.trace() if "Creating Semaphore" in line]
    assert sizes[-1] == (
        f"<<CProvider_IWbemServices::Initialize>> * Creating Semaphore with size: {size} *\n")


@pytest.mark.parametrize("written", ["0", "nonsense"])
def test_a_limit_of_zero_admits_nobody_while_all_else_goes_on(
        shared_machine, till, gate, traced, written):
    start_with_limit(shared_machine, till, gate, written)
    gate.open()
    before = entered(shared_machine)
    watcher = shared_machine.watch_events()
    lister = shared_machine.start_list("UPOS_Scanner")
    fetcher = shared_machine.start(
        str(BUILD / "wmi_client.exe"), "get", 'UPOS_Scanner.DeviceID="SCANNER1"')
    wait_until(lambda: entered(shared_machine) > before, "the request to be entered")
    send(till.events, event("SCANNER9"), event("END"))
    assert events_until(watcher, "END") == [("Scanner", "SCANNER9", "modifyInstance", "")]
    for client in (lister, fetcher):
        with pytest.raises(subprocess.TimeoutExpired):
            client.wait(timeout=1.5)
    assert gate.peer.requests == []
    shared_machine.stop_service()
    for client in (lister, fetcher):
        out, _ = client.communicate(timeout=20)
        assert client.returncode == 1 and b": 0x8004" in out
    watcher.kill()


# -- console modes


@pytest.mark.parametrize("option", ["-c", "-d"])
def test_a_console_mode_serves_clients_and_only_one_of_them_echoes_its_trace(
        shared_machine, till, traced, option):
    shared_machine.end_service()
    configure(shared_machine, till)
    log_before = len(shared_machine.trace())
    console = shared_machine.start_quillmon(option)
    try:
        shared_machine.wait_for_event_port(till.events)
        assert names(shared_machine, "UPOS_Scanner") == (["SCANNER1", "SCANNER2"], OK)
        assert fetched(shared_machine, 'UPOS_Scale.DeviceID="SCALE1"')["DeviceID"] == "SCALE1"
        watcher = shared_machine.watch_events()
        send(till.events, event("SCANNER9"), event("END"))
        assert events_until(watcher, "END") == [("Scanner", "SCANNER9", "modifyInstance", "")]
        watcher.kill()
        assert shared_machine.service_state() == "STOPPED"
        assert shared_machine.wmi_counter("Violations") == 0
        assert console.poll() is None
    finally:
        console.kill()
        out = console.stdout.read()
        wait_until(lambda: not shared_machine.has_event_port(till.events), "its port to be free")
    logged = shared_machine.trace()[log_before:]
    logged = logged[:1 + max(i for i, line in enumerate(logged) if "destroyed" in line)]
    assert "Starting Interactively" in logged
    # A file line has two blanks behind the time stamp, the echo has the stamp's own one; the
    # console makes CR LF of each line feed.
    echo = out.decode("latin-1").replace("\r\n", "\n")
    echoed = [line[20:] for line in echo.split("\r\n") if line]
    assert echoed == (logged if option == "-c" else [])
