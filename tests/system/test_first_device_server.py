"""What the author of a device server gets: the sample in Java, which talks to the real service, and
the checks of its documents.

The sample runs on the host, whose loopback the service shares.
"""

import json
import shutil
import subprocess
import textwrap

import pytest

from machine import BUILD, ROOT, wait_until
from peers import FAILED, OK, device, fetched, listing, names, next_event, response
from ports import reserve_port

SAMPLES = ROOT / "samples" / "device-server"
DEVICES = [{"DeviceID": "SCANNER1", "ModelName": "Scanner <7>"},
           {"DeviceID": "SCALE1", "ModelName": "Scale 15 kg"}]


class Java:
    """A program of one file, compiled as it is started."""

    def __init__(self, file, *arguments):
        self.process = subprocess.Popen(["java", SAMPLES / file, *map(str, arguments)],
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)

    def expect(self, text):
        line = self.process.stdout.readline()
        assert text in line, line

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        self.process.stdout.close()


def test_the_page_shows_the_sample_as_it_is():
    page = (ROOT / "docs" / "first-device-server.md").read_text()
    sample = (SAMPLES / "DeviceServer.java").read_text()
    assert textwrap.indent(sample, "    ") in page


def check_server(machine, *arguments):
    """The checks of a device server that did not pass as they should, and why."""
    done = machine.run(str(BUILD / "quillmon-till.exe"), "check-server", "--json", "--events", "0",
                       *arguments)
    report = json.loads(done.out)
    return [each for each in report["checks"] if each["result"] != "ok"]


def test_the_java_sample_serves_the_adapter_strategy(shared_machine):
    machine, requests, events = shared_machine, reserve_port(), reserve_port()
    machine.configure(upos__requestSocket__Port=requests, provider__eventSocket__Port=events)
    if machine.service_state() is None:
        machine.install_service()
    machine.wait_for_event_port(events)
    watcher = machine.watch_events()
    with Java("DeviceServer.java", requests, events) as server:
        server.expect(f"requests on 127.0.0.1:{requests}")
        assert {next_event(watcher) for _ in DEVICES} == {
            ("SCANNER1", "addInstance", ""), ("SCALE1", "addInstance", "")}
        assert listing(machine, "UPOS_LogicalDevice", "DeviceID", "ModelName") == (DEVICES, OK)
        assert names(machine, "UPOS_Scale") == (["SCALE1"], OK)
        scanner = fetched(machine, 'UPOS_Scanner.DeviceID="SCANNER1"')
        assert (scanner["ManufacturerName"], scanner["HoursPoweredCount"]) == ("Veltran", "19874")
        assert fetched(machine, 'UPOS_Scale.DeviceID="SCANNER1"') == FAILED
        assert check_server(machine, f"127.0.0.1:{requests}", "--event-port", reserve_port()) == []
    watcher.kill()


def test_the_java_sample_serves_the_proxy_strategy(shared_machine):
    machine = shared_machine
    events = reserve_port()
    machine.configure(provider__eventSocket__Port=events, provider__dataUpdate__frequency=0)
    with Java("ProxyDeviceServer.java", events) as server:
        if machine.service_state() is None:
            machine.install_service()
        machine.choose_option("-o")
        machine.restart_service(events)
        while "connected" not in server.process.stdout.readline():
            pass
        wait_until(lambda: len(names(machine, "UPOS_LogicalDevice")[0]) == 2, "both devices")
        for _ in range(2):  # with each list the service asks for an update
            assert listing(machine, "UPOS_LogicalDevice", "DeviceID", "ModelName") == (DEVICES, OK)
        assert names(machine, "UPOS_Scanner") == (["SCANNER1"], OK)
        machine.restart_service(events)  # whose cache is empty
        wait_until(lambda: len(names(machine, "UPOS_LogicalDevice")[0]) == 2,
                   "both devices after the restart")


def test_the_java_sample_passes_the_checks_of_the_proxy_strategy(shared_machine):
    events = reserve_port()
    with Java("ProxyDeviceServer.java", events):
        assert check_server(shared_machine, "--strategy", "proxy", "--event-port", events,
                            "--devices", "2", "--timeout", "60000") == []


# -- quillmonctl check-document: the program beside it does the work

DOCUMENT = response(device("S1", GoodScanCount=("uint32", "2147483648")))


@pytest.fixture(scope="module")
def tool(shared_machine):
    for program in ("quillmonctl.exe", "quillmon-till.exe"):
        shutil.copy(BUILD / program, shared_machine.home)
    folder = shared_machine.c / "two words"
    folder.mkdir()
    (folder / "an answer.xml").write_text(DOCUMENT)
    return lambda *arguments, **options: shared_machine.run(
        "C:\\Quillmon\\quillmonctl.exe", *arguments, **options)


def test_a_document_is_reported_on_and_the_exit_code_is_handed_through(tool):
    done = tool("check-document", "C:\\two words\\an answer.xml")
    assert done.returncode == 3
    assert done.out.startswith(f"C:\\two words\\an answer.xml: {len(DOCUMENT)} bytes: an answer, ")
    assert "PROBLEM  instance 1 (S1), field GoodScanCount, adapter strategy: " in done.out
    assert all(len(line) <= 80 for line in done.out.splitlines())
    missing = tool("check-document", "C:\\nowhere.xml")
    assert missing.returncode == 1
    assert missing.err.startswith("quillmon-till: failed: reading C:\\nowhere.xml\n  error 2: ")


def test_a_document_for_scripts_comes_from_standard_input(shared_machine, tool):
    process = shared_machine.start("C:\\Quillmon\\quillmonctl.exe", "--json", "check-document", "-")
    out, _ = process.communicate(DOCUMENT.encode(), timeout=60)
    assert process.returncode == 3
    report = json.loads(out)
    assert (report["status"], report["bytes"]) == (0, len(DOCUMENT))
    assert [each["code"] for each in report["findings"]] == ["not-converted"]


def test_a_wrong_command_line_starts_nothing(tool):
    done = tool("check-document")
    assert (done.returncode, done.err) == (
        2, "quillmonctl: FILE is required (--help tells more)\n")


def test_the_missing_program_beside_it_is_one_clear_failure(shared_machine, tool):
    program = shared_machine.home / "quillmon-till.exe"
    away = program.rename(program.with_suffix(".away"))
    try:
        done = tool("check-document", "C:\\two words\\an answer.xml")
        for_scripts = tool("check-document", "C:\\two words\\an answer.xml", "--json")
    finally:
        away.rename(program)
    assert done.returncode == for_scripts.returncode == 1
    assert done.err.startswith(
        "quillmonctl: failed: starting C:\\Quillmon\\quillmon-till.exe\n  error 2: ")
    assert "what to do: It belongs beside quillmonctl.exe" in done.err
    assert json.loads(for_scripts.out)["error"]["code"] == 2
