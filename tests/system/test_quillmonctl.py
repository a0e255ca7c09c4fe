"""The administrator's command line against the real, installed service."""

import json
import os
import re
import shutil
import socket
import threading
import zipfile
from pathlib import Path

import pytest

from machine import BUILD, ROOT, SERVICE, wait_until, windows_path
from peers import document
from ports import reserve_port

EXE = "C:\\Quillmon\\quillmonctl.exe"
KEY = f"HKLM\\SYSTEM\\CurrentControlSet\\Services\\{SERVICE}"
INSTALLDIR = "HKLM\\SOFTWARE\\Veltran\\Veltran Kestrune"
MAX_WIDTH = 80


class Tool:
    """The command line on a machine that also has mofcomp, which Wine has in name only."""

    def __init__(self, machine):
        self.machine = machine
        for file in (BUILD / "quillmonctl.exe", ROOT / "mof" / "quillmon.mof",
                     ROOT / "mof" / "quillmon-uninstall.mof"):
            shutil.copy(file, machine.home)
        self.compiler = machine.c / "windows" / "system32" / "wbem" / "mofcomp.exe"
        self.empty_compiler = self.compiler.read_bytes()
        self.put_compiler((BUILD / "mofcomp.exe").read_bytes())
        machine.set_wmi("Mof", "")
        self.till = machine.start_till()
        self.configuration = machine.c / "POS" / "JavaPOS" / "Config" / "quillmon.properties"
        self.normal = self.configuration.read_bytes()
        self.is_installed = False
        self.traces = False  # as a service does until its end

    def put_compiler(self, content):
        self.compiler.unlink(missing_ok=True)  # it is linked to the template's
        if content is not None:
            self.compiler.write_bytes(content)

    def run(self, *arguments, code=0, **options):
        """Its result; the text of a failure and of a report is in out."""
        restarts = code == 0 and (arguments == ("repair",) or "--restart" in arguments)
        before = self.machine.service_process() if restarts else None
        done = self.machine.run(EXE, *arguments, **options)
        done.out += done.err
        assert done.returncode == code, (arguments, done.returncode, done.out)
        if restarts:
            wait_until(lambda: not before or not Path(f"/proc/{before}").exists(),
                       "the old process to end")
            self.machine.wait_for_event_port(self.till.events)
        if "--json" not in arguments:
            for line in done.out.splitlines():
                assert len(line) <= MAX_WIDTH, line
        return done

    def text(self, *arguments, **options):
        return self.run(*arguments, **options).out

    def json(self, *arguments, **options):
        done = self.run(*arguments, "--json", **options)
        assert done.err == ""
        return json.loads(done.stdout.decode())

    def start(self, *arguments):
        return self.machine.start(EXE, *arguments)

    def install(self, *arguments):
        text = self.text("install", *arguments)
        self.is_installed = True
        self.machine.wait_for_event_port(self.till.events)
        return text

    def uninstall(self):
        self.run("uninstall")
        self.is_installed = False


@pytest.fixture(scope="module")
def tool(shared_machine):
    return Tool(shared_machine)


@pytest.fixture
def bare(tool):
    """A machine without the service."""
    if tool.is_installed or tool.machine.service_state() is not None:
        tool.uninstall()
    yield tool
    tool.is_installed = tool.machine.service_state() is not None


@pytest.fixture
def installed(tool, request):
    """A machine with the service, as a test before may have left it running."""
    if not tool.is_installed:
        tool.install()
    if tool.traces and "tracing" not in request.fixturenames:
        tool.run("repair")
        tool.traces = False
    yield tool
    if tool.configuration.read_bytes() != tool.normal:
        tool.configuration.write_bytes(tool.normal)


def binary_path(tool):
    return tool.machine.query_registry(KEY, "ImagePath")


def assert_nothing_is_left(tool):
    assert tool.machine.service_state() is None
    wmi = tool.json("status", code=3)["wmi"]
    assert wmi["classes"] == 0 and len(wmi["missing_registrations"]) == 3


# -- the command line itself

def test_the_version_is_the_project_s(tool):
    version = re.search(r"project\(quillmon VERSION ([\d.]+)",
                        (ROOT / "CMakeLists.txt").read_text())[1]
    assert tool.text("--version") == f"quillmonctl {version}\n"


def test_help_documents_each_exit_code_and_command(tool):
    text = tool.text("--help")
    for word in ("status", "devices", "get", "watch", "doctor", "config", "trace", "install",
                 "uninstall", "repair", "expect", "metrics", "--json", "Exit codes: 0 ",
                 "1 a step failed", "2 wrong command line", "\n3 the report", "\n4 no such",
                 "5 access denied", "6 no answer"):
        assert word in text, word


@pytest.mark.parametrize("line", [
    ["bogus"], ["get"], ["devices", "--bogus"], ["trace"], ["install", "--strategy", "both"],
    ["config", "set", "provider.maxQueryThreads"], ["devices", "--timeout", "2147484"],
    ["watch", "--seconds", "2147484"], []])
def test_a_wrong_command_line_ends_with_2_and_says_why(tool, line):
    text = tool.text(*line, code=2)
    text = " ".join(text.split())
    assert text.startswith("quillmonctl: ") and text.endswith(" (--help tells more)")
    assert not line or line[-1] in text or "required" in text


# -- install, uninstall, repair

def test_installing_registers_the_classes_and_a_running_service(bare):
    text = bare.install()
    assert "ok    42 WMI classes and registrations, read back\n" in text
    assert "ok    running in the adapter strategy\n" in text
    assert "ok    registered with WMI, 9 devices\n" in text
    assert binary_path(bare) == "C:/Quillmon/quillmon.exe"
    assert bare.machine.service_state() == "RUNNING"


def test_what_wine_does_not_take_is_a_warning_that_says_what_to_do(bare):
    warnings = bare.json("install")["warnings"]
    advice = {warning["advice"]: warning["text"] for warning in warnings}
    for command in ("sc failureflag QuillmonServ 1",
                    "sc failure QuillmonServ reset= 86400 "
                    "actions= restart/60000/restart/60000/restart/60000"):
        assert advice[command]
    assert advice["sc failureflag QuillmonServ 1"].startswith("error 124: ")
    assert bare.machine.service_state() == "RUNNING"


def test_the_service_starts_with_windows_at_once_and_waits_for_no_other(bare):
    bare.install()
    assert bare.machine.query_registry(KEY, "Start") == "0x2"
    assert bare.machine.query_registry(KEY, "DelayedAutoStart") is None
    assert bare.machine.query_registry(KEY, "DependOnService") is None


def test_installing_twice_changes_nothing_and_says_so(installed):
    before = binary_path(installed)
    text = installed.text("install", "--strategy", "proxy", code=1)
    assert "failed: installing the service QuillmonServ\n  error 1073: " in text
    assert "what to do: Run quillmonctl uninstall first" in text
    assert binary_path(installed) == before
    assert installed.machine.service_state() == "RUNNING"


def test_uninstalling_leaves_neither_service_nor_classes(bare):
    bare.install()
    text = bare.text("uninstall")
    assert text == "ok    the service is stopped and removed\nok    the WMI classes are removed\n"
    assert_nothing_is_left(bare)
    assert bare.text("uninstall") == "ok    no service was installed\nok    no WMI class was there\n"


def test_a_service_whose_program_is_gone_can_be_removed(bare):
    bare.install()
    bare.machine.stop_service()
    bare.machine.exe.unlink()
    bare.run("uninstall")
    shutil.copy(BUILD / "quillmon.exe", bare.machine.exe)
    assert_nothing_is_left(bare)


def test_the_proxy_strategy_is_the_option_o(bare):
    assert "ok    running in the proxy strategy\n" in bare.install("--strategy", "proxy")
    assert binary_path(bare) == "C:\\Quillmon\\quillmon.exe -o"
    status = bare.json("status", code=3)
    assert status["service"]["strategy"] == "proxy"
    assert status["sockets"]["event_port_open"] is True
    assert status["sockets"]["device_servers_connected"] == 0
    with socket.socket() as device_server:
        device_server.connect(("127.0.0.1", bare.till.events))
        wait_until(lambda: bare.json("status")["sockets"]["device_servers_connected"] == 1,
                   "the device server to be seen")
        assert f"1 connected to event port {bare.till.events}" in bare.text("status")


def test_a_path_with_blanks_is_quoted(bare):
    folder = bare.machine.c / "Program Files" / "Quillmon"
    folder.mkdir(exist_ok=True)
    shutil.copy(BUILD / "quillmon.exe", folder)
    program = "C:\\Program Files\\Quillmon\\quillmon.exe"
    bare.install("--program", program)
    assert binary_path(bare) == f'"{program}"'
    assert bare.json("status")["service"]["state"] == "running"


def test_a_program_that_would_be_started_instead_is_refused(bare):
    folder = bare.machine.c / "Program Files" / "Quillmon"
    folder.mkdir(exist_ok=True)
    shutil.copy(BUILD / "quillmon.exe", folder)
    planted = bare.machine.c / "Program.exe"
    planted.write_bytes(b"")
    text = bare.text("install", "--program", "C:\\Program Files\\Quillmon\\quillmon.exe", code=1)
    planted.unlink()
    assert "Windows could start C:\\Program.exe in its place" in " ".join(text.split())
    assert_nothing_is_left(bare)


def test_a_compiler_that_succeeds_without_registering_is_not_believed(bare):
    bare.put_compiler(bare.empty_compiler)
    try:
        text = " ".join(bare.text("install", code=1).split())
    finally:
        bare.put_compiler((BUILD / "mofcomp.exe").read_bytes())
    assert "failed: reading the classes back after compiling C:\\Quillmon\\quillmon.mof" in text
    assert "42 of 42 are missing, UPOS_Device first (mofcomp ended with code 0)" in text
    assert "what to do: Run mofcomp on that file by hand" in text
    assert_nothing_is_left(bare)


def test_a_missing_compiler_is_named(bare):
    bare.put_compiler(None)
    try:
        error = bare.json("install", code=1)["error"]
    finally:
        bare.put_compiler((BUILD / "mofcomp.exe").read_bytes())
    assert error["step"] == (
        "looking for WMI's compiler C:\\windows\\system32\\wbem\\mofcomp.exe")
    assert error["code"] == 2 and "repair" in error["advice"]
    assert_nothing_is_left(bare)


def test_a_compiler_that_fails_is_quoted(bare):
    bare.machine.set_wmi("MofcompExit", 1)
    try:
        text = " ".join(bare.text("install", code=1).split())
    finally:
        bare.machine.set_wmi("MofcompExit", 0)
    assert ("mofcomp ended with code 1 and said: An error occurred while opening the namespace"
            in text)
    assert_nothing_is_left(bare)


def test_a_program_that_registers_nothing_takes_the_classes_back(bare):
    error = bare.json("install", "--program", windows_path(BUILD / "service_config.exe"),
                      code=1)["error"]
    assert error["step"].startswith("registering the service (quillmon.exe -i): it is not there")
    assert error["undone"] == ["the service is removed again", "the WMI classes are removed again"]
    assert_nothing_is_left(bare)


def test_a_service_that_ends_at_once_is_removed_again(bare):
    bare.machine.set_wmi("RegisterEvents", 0x80041003)
    try:
        error = bare.json("install", code=5)["error"]
    finally:
        bare.machine.set_wmi("RegisterEvents", 0)
    assert error["step"] == "starting the service: it ended at once"
    assert error["code_text"] == "0x80041003"
    assert error["undone"] == ["the service is removed again", "the WMI classes are removed again"]
    assert_nothing_is_left(bare)


def test_missing_files_are_named_before_anything_is_done(bare):
    text = bare.text("install", "--mof-folder", "C:\\nowhere", code=1)
    assert "failed: looking for C:\\nowhere\\quillmon.mof\n  error 2: " in text
    text = bare.text("install", "--program", "C:\\nowhere\\quillmon.exe", code=1)
    assert "failed: looking for the service's program C:\\nowhere\\quillmon.exe" in text
    assert_nothing_is_left(bare)


def test_repairing_brings_the_classes_back_and_restarts_the_service(installed):
    installed.machine.set_wmi("Mof", "")
    before = installed.json("status", code=3)
    assert before["wmi"]["classes"] == 0
    text = installed.text("repair")
    assert "ok    42 WMI classes and registrations, read back\n" in text
    assert "ok    the service was restarted\nok    registered with WMI, 9 devices\n" in text
    after = installed.json("status")
    assert after["wmi"]["missing_classes"] == [] and after["wmi"]["devices"] == 9
    assert after["service"]["process"] != before["service"]["process"]


def changed_classes(tool, text, instead):
    file = tool.machine.home / "quillmon.mof"
    original = file.read_text()
    assert text in original
    file.write_text(original.replace(text, instead, 1))
    return file, original


def test_a_later_version_s_classes_are_compiled_over_this_one_s(installed):
    added = ("string UnifiedPOSVersion;", "string UnifiedPOSVersion; [read] string Colour;")
    file, original = changed_classes(installed, *added)
    installed.run("repair")
    assert installed.json("get", "SCANNER1")["Colour"] is None
    file.write_text(original)
    installed.run("uninstall")
    installed.machine.set_wmi("Mof", "")
    installed.install()


def test_a_change_that_derived_classes_do_not_bear_is_refused(installed):
    file, original = changed_classes(
        installed, "string UnifiedPOSVersion;", "uint32 UnifiedPOSVersion;")
    text = " ".join(installed.text("repair", code=1).split())
    file.write_text(original)
    assert "mofcomp ended with code 3 and said: " in text
    installed.run("repair")


def test_somebody_else_s_class_is_found_before_it_is_overwritten(bare):
    theirs = bare.machine.c / "theirs.mof"
    theirs.write_text('#pragma namespace("\\\\\\\\.\\\\root\\\\cimv2")\n'
                      'class UPOS_Scale { [key] string Serial; };\n')
    bare.machine.run("C:\\windows\\system32\\wbem\\mofcomp.exe", "C:\\theirs.mof")
    error = bare.json("install", code=1)["error"]
    assert error["step"] == (
        "checking WMI's classes: UPOS_Scale is already there, without the provider QuillmonService")
    assert "undone" not in error or error["undone"] == []
    assert bare.json("status", code=3)["wmi"]["classes"] == 1
    bare.machine.set_wmi("Mof", "")


def test_a_write_filter_that_protects_the_volume_is_named(installed):
    file = installed.machine.c / "filter.mof"
    file.write_text(r'''#pragma namespace("root\\standardcimv2\\embedded")
class UWF_Filter { [key] string Id; boolean CurrentEnabled; boolean NextEnabled; };
class UWF_Volume { [key] string Id; boolean CurrentSession; string DriveLetter; boolean Protected; };
instance of UWF_Filter { Id = "1"; CurrentEnabled = TRUE; NextEnabled = FALSE; };
instance of UWF_Volume { Id = "1"; CurrentSession = TRUE; DriveLetter = "C:"; Protected = TRUE; };
''')
    installed.machine.run("C:\\windows\\system32\\wbem\\mofcomp.exe", "C:\\filter.mof")
    text = " ".join(installed.text("repair").split())
    assert "WARN kept on the volume C:: the Unified Write Filter forgets it all" in text
    assert "until the next start C: is protected (UWF)" in " ".join(
        installed.machine.run(EXE, "doctor").out.split())
    installed.machine.set_wmi("Mof", "")
    installed.run("repair")


def test_removing_takes_the_file_out_of_those_that_wmi_compiles_again(bare):
    key, name = "HKLM\\SOFTWARE\\Microsoft\\WBEM\\CIMOM", "Autorecover MOFs"
    bare.machine.run("reg", "add", key, "/v", name, "/t", "REG_MULTI_SZ", "/d", "C:\\other.mof", "/f")
    bare.install()
    listed = bare.machine.run("reg", "query", key, "/v", name).out
    assert "C:\\other.mof\\0C:\\Quillmon\\quillmon.mof" in listed
    bare.uninstall()
    listed = bare.machine.run("reg", "query", key, "/v", name).out
    assert "C:\\other.mof" in listed and "quillmon.mof" not in listed


def test_repairing_can_leave_a_stopped_service_stopped(installed):
    installed.machine.stop_service()
    text = installed.text("repair", "--keep-stopped")
    assert "ok    the service is stopped and stays so\n" in text
    assert installed.machine.service_state() == "STOPPED"
    running = installed.text("repair")
    assert "ok    the service was restarted\n" in running


# -- status, devices, get, watch

def test_status_tells_the_whole_state(installed):
    status = installed.json("status")
    assert status["service"]["installed"] and status["service"]["state"] == "running"
    assert status["service"]["binary_path"] == binary_path(installed)
    assert status["service"]["strategy"] == "adapter"
    assert status["wmi"]["classes"] == 39 and status["wmi"]["devices"] == 9
    assert status["wmi"]["missing_registrations"] == [] and status["wmi"]["answers"] is True
    assert status["sockets"] == {
        "request_port": installed.till.requests, "request_port_reachable": True,
        "request_error": None, "event_port": installed.till.events, "event_port_open": True,
        "device_servers_connected": None}
    keys = {key["key"]: (key["value"], key["source"]) for key in status["configuration"]["keys"]}
    assert keys["upos.requestSocket.Port"] == (str(installed.till.requests), "file")
    assert keys["provider.maxQueryThreads"] == ("1", "default")
    text = installed.text("status")
    for line in ("strategy       adapter", "WMI classes    all 39 present",
                 "WMI provider   registered", "answering      yes, 9 devices", "trace          off",
                 f"device server  reachable on request port {installed.till.requests}"):
        assert line in text


def test_status_without_a_service_says_so_and_ends_with_3(bare):
    text = bare.text("status", code=3)
    assert text.startswith("service        not installed\nWMI classes    39 of 39 missing\n")
    assert "answering      no: error 0x80041010: Invalid class\n" in text


def test_nonsense_is_flagged_with_what_the_service_makes_of_it(installed):
    installed.configuration.write_bytes(
        installed.normal + b"provider.maxQueryThreads=many\r\nprovider.maxThreads=2\r\n")
    keys = {key["key"]: key for key in
            installed.json("status", code=3)["configuration"]["keys"]}
    assert keys["provider.maxQueryThreads"] == {
        "key": "provider.maxQueryThreads", "value": "many", "effective": "0", "source": "file",
        "nonsense": "must be a number from 1 to 1000"}
    text = installed.text("config", "check", code=3)
    assert ("  provider.maxQueryThreads = many: must be a number from 1 to 1000; the service\n"
            "    reads 0\n") in text
    assert "  provider.maxThreads: no key of the service; it is ignored\n" in text
    assert "NONSENSE, read as 0" in installed.text("status", code=3)


def test_a_device_server_that_is_down_is_named_with_its_port(installed):
    port = reserve_port()
    installed.run("config", "set", "upos.requestSocket.Port", port)
    text = installed.text("devices", code=1)
    assert "failed: listing UPOS_LogicalDevice through WMI\n  error 0x80041001: " in text
    assert "what to do: The service could not ask its device server." in text
    error = installed.json("devices", code=1)["error"]
    assert error["code"] == 0x80041001 and error["code_text"] == "0x80041001"
    assert (f"not reachable on request port {port}: error 10061" in
            " ".join(installed.text("status", code=3).split()))
    # The service connects no more until its pause is over; a new one has none.
    installed.configuration.write_bytes(installed.normal)
    installed.run("repair")


def test_a_stopped_service_is_named(installed):
    installed.machine.stop_service()
    text = " ".join(installed.text("devices", code=1).split())
    assert "error 0x80041013: Provider load failure" in text
    assert "what to do: The service is not registered with WMI. Check that it runs" in text
    assert "service        stopped\n" in installed.text("status", code=3)
    installed.run("repair")


def test_devices_are_listed_in_a_table_of_80_columns(installed):
    lines = installed.text("devices").splitlines()
    assert lines[0].split() == ["DEVICE", "CATEGORY", "MAKER", "MODEL", "SERIAL"]
    assert lines[1] == (
        "SCANNER1   Scanner      Veltran  VS-3200 bi-optic         VS32-004711")
    assert len(lines) == 10
    assert len(installed.text("devices", "Scale").splitlines()) == 2
    assert installed.text("devices", "Belt") == "No device of class UPOS_Belt.\n"


def test_devices_for_scripts_keep_their_types(installed):
    scale, = installed.json("devices", "UPOS_Scale")
    assert scale["DeviceID"] == "SCALE1" and scale["GoodWeightReadCount"] == 402118
    assert scale["CapUpdateFirmware"] is None
    assert scale["__PATH"].endswith('UPOS_Scale.DeviceID="SCALE1"')
    assert installed.json("devices", "Belt") == []


def test_an_unknown_class_ends_with_4(installed):
    text = installed.text("devices", "Nothing", code=4)
    assert "failed: listing UPOS_Nothing through WMI\n  error 0x80041010: Invalid class\n" in text


def test_a_device_is_fetched_by_its_id_by_class_and_id_and_by_its_path(installed):
    by_path = installed.json("get", 'UPOS_Scanner.DeviceID="SCANNER1"')
    assert by_path["ModelName"] == "VS-3200 bi-optic" and by_path["GoodScanCount"] == 1843207
    assert by_path["CapUpdateFirmware"] is True
    assert installed.json("get", "Scanner/SCANNER1") == by_path
    assert installed.json("get", "SCANNER1") == by_path
    assert "GoodScanCount" not in installed.json("get", "LogicalDevice/SCANNER1")
    text = installed.text("get", "Scanner/SCANNER1")
    assert re.search(r"^ModelName +VS-3200 bi-optic$", text, re.MULTILINE)


def test_an_unknown_device_ends_with_4(installed):
    text = " ".join(installed.text("get", "Scanner/NONE", code=4).split())
    assert 'failed: fetching UPOS_Scanner.DeviceID="NONE" through WMI error 0x8004100' in text
    assert "There is no such device. What there is: quillmonctl devices UPOS_Scanner" in text


def test_events_are_watched_line_by_line(installed):
    watcher = installed.start("watch", "--count", "3", "--seconds", "30")
    assert watcher.stdout.readline() == b"Watching device events; Ctrl-C ends.\n"
    for command in ("attach MICR1", "change MICR1 7", "detach MICR1"):
        installed.till.type(command)
    lines = watcher.stdout.read().decode().splitlines()
    assert [re.sub(r"^\d\d:\d\d:\d\d  ", "", line) for line in lines] == [
        "attached  MICR              MICR1", "changed   MICR              MICR1  code 7",
        "detached  MICR              MICR1"]
    assert watcher.wait() == 0


def test_events_for_scripts_are_an_object_a_line(installed):
    watcher = installed.start("watch", "--json", "--count", "1", "--seconds", "30")
    watcher.stdout.readline()
    installed.till.type("change SCALE1 2")
    event = json.loads(watcher.stdout.read())
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}", event.pop("time"))
    assert event == {"type": "modifyInstance", "class": "Scale", "device": "SCALE1", "code": "2"}


def test_too_few_events_in_time_end_with_6(installed):
    assert installed.text("watch", "--count", "1", "--seconds", "1", code=6) == (
        "Watching device events; Ctrl-C ends.\n")


# -- config

def test_a_key_is_set_and_everything_else_stays(installed):
    before = b"; our till\r\n[default]\r\n  provider.maxQueryThreads = 1\r\n# end\r\n[x]\r\na=1\r\n"
    installed.configuration.write_bytes(before)
    text = installed.text("config", "set", "PROVIDER.maxQueryThreads", "8")
    assert text == ("provider.maxQueryThreads = 8 (was 1), from the next start of the service on.\n")
    installed.run("config", "set", "provider.eventSocket.IP", "127.0.0.1")
    assert installed.configuration.read_bytes() == before.replace(b"= 1\r", b"= 8\r").replace(
        b"# end\r\n", b"# end\r\nprovider.eventSocket.IP=127.0.0.1\r\n")
    assert [file.name for file in installed.configuration.parent.iterdir()] == [
        "quillmon.properties"]


def test_the_file_is_made_where_there_is_none(installed):
    installed.configuration.unlink()
    result = installed.json("config", "set", "upos.requestSocket.Port", "4711")
    assert result["old"] is None and result["value"] == "4711"
    assert installed.configuration.read_bytes() == (
        b"[default]\r\nupos.requestSocket.Port=4711\r\n")


@pytest.mark.parametrize("key, value, why", [
    ("provider.maxQueryThreads", "0", "it must be a number from 1 to 1000"),
    ("provider.eventSocket.Port", "65536", "it must be a number from 1 to 65535"),
    ("provider.eventSocket.IP", "localhost", "it must be an IPv4 address such as 127.0.0.1"),
    ("upos.requestSocket.port2", "1", "no key of the service")])
def test_nonsense_is_not_set(installed, key, value, why):
    error = installed.json("config", "set", key, value, code=2)["error"]
    assert error["step"].endswith(why)
    assert installed.configuration.read_bytes() == installed.normal


def test_a_file_in_unicode_is_not_edited(installed):
    content = "[default]\r\n".encode("utf-16")
    installed.configuration.write_bytes(content)
    text = " ".join(installed.text("config", "set", "provider.maxQueryThreads", "2",
                                   code=1).split())
    assert "the file is in Unicode (UTF-16); save it as plain text" in text
    assert installed.configuration.read_bytes() == content


def test_every_key_is_shown_with_where_it_came_from(installed):
    shown = installed.json("config", "show")
    assert shown["file"] == "C:\\POS\\JavaPOS\\Config\\quillmon.properties"
    assert [key["key"] for key in shown["keys"]] == [
        "provider.maxQueryThreads", "provider.eventSocket.Port", "provider.eventSocket.IP",
        "provider.dataUpdate.frequency", "upos.requestSocket.Port",
        "upos.requestSocket.retryTimeout"]
    text = installed.text("config", "show")
    assert "provider.maxQueryThreads = 1 (default)\n    WMI requests served at once\n" in text
    assert f"upos.requestSocket.Port = {installed.till.requests} (from the file)\n" in text
    assert installed.text("config", "check").endswith("quillmon.properties: good\n")


# -- trace

@pytest.fixture
def tracing(installed):
    """A service that does not trace, and whose logs are rotated by size."""
    folder = installed.machine.c / "Veltran"
    (folder / "Log").mkdir(parents=True)
    (folder / "zontrace.cfg").write_bytes(b"BackupCount=5\r\nFileSize=100000\r\n")
    installed.machine.set_registry(INSTALLDIR, "INSTALLDIR", "C:\\Veltran\\")
    installed.run("repair")
    installed.traces = True
    installed.folder = folder
    yield installed
    installed.machine.run("reg", "delete", INSTALLDIR, "/f")
    shutil.rmtree(folder)


def test_the_trace_is_held_on_until_somebody_switches_it_off(tracing):
    holder = tracing.start("trace", "on")
    assert holder.stdout.readline() == b"The trace is enabled; the log is\n"
    assert holder.stdout.readline() == b"  C:\\Veltran\\Log\\Quillmon.log\n"
    assert tracing.json("status")["trace"]["event_signalled"] is True
    text = " ".join(tracing.text("trace", "off", code=3).split())
    assert "The service keeps tracing until it ends: that cannot be undone while it runs." in text
    assert holder.wait(timeout=20) == 0
    assert b"Somebody else has switched the trace off.\n" in holder.stdout.read()
    trace = tracing.json("status")["trace"]
    assert (trace["event_signalled"], trace["on"]) == (False, True)
    assert trace["log"] == "C:\\Veltran\\Log\\Quillmon.log" and trace["log_size"] > 0
    assert tracing.json("trace", "off", "--restart") == {
        "on": False, "service_still_traces": False, "restarted": True}
    assert tracing.json("status")["trace"]["on"] is False


def test_the_trace_goes_on_by_itself_once_the_service_has_seen_it(tracing):
    text = tracing.text("trace", "on", "--until-seen")
    assert "The service traces. The service keeps tracing until it ends" in " ".join(text.split())
    assert tracing.json("status")["trace"] == {
        "on": True, "event_signalled": False, "log": "C:\\Veltran\\Log\\Quillmon.log",
        "log_size": (tracing.folder / "Log" / "Quillmon.log").stat().st_size,
        "configuration_file": "C:\\Veltran\\zontrace.cfg", "file_size_limit": 100000,
        "backup_count": 5}


def logged_lines(tracing):
    """What the log and its copies hold, oldest first."""
    log = tracing.folder / "Log"
    files = [*sorted(log.glob("Quillmon.log.*"), reverse=True), log / "Quillmon.log"]
    whole = b"".join(file.read_bytes() for file in files).decode("latin-1")
    return whole.replace("\r\n", "\n").split("\n")[:-1]


def start_following(tracing, lines):
    follower = tracing.start("trace", "follow", "--lines", lines)
    assert follower.stdout.readline() == (
        b"Following C:\\Veltran\\Log\\Quillmon.log; Ctrl-C ends.\n")
    assert b"Nothing comes unless the trace is on" in follower.stdout.readline()
    return follower


def test_following_begins_with_the_last_lines_of_a_long_log(tracing):
    log = tracing.folder / "Log" / "Quillmon.log"
    lines = [f"{number:04}{'x' * (number % 97)}" for number in range(4000)]
    log.write_text("\n".join([*lines, "half a line"]))
    follower = start_following(tracing, 3000)
    followed = [follower.stdout.readline().decode()[2:-1] for _ in range(3000)]
    assert followed == lines[-3000:]
    with log.open("a") as file:
        file.write(" and its end\n")
    assert follower.stdout.readline()[2:] == b"half a line and its end\n"


def test_half_a_line_whose_end_was_lost_is_not_followed(tracing):
    log = tracing.folder / "Log" / "Quillmon.log"
    log.write_text("one\nhalf a li")
    follower = start_following(tracing, 1)
    assert follower.stdout.readline()[2:] == b"one\n"
    new = log.with_suffix(".new")
    new.write_text("two\n")
    new.replace(log)
    assert follower.stdout.readline() == (
        b"Lines were lost: the log was rotated faster than it was read.\n")
    assert follower.stdout.readline()[2:] == b"two\n"


def test_following_loses_no_line_through_the_rotation(tracing):
    tracing.run("trace", "on", "--until-seen")
    follower = start_following(tracing, 0)
    patience = threading.Timer(60, follower.kill)
    patience.start()
    tracing.run("get", "SCALE1")  # its first lines say that the follower has begun
    first = follower.stdout.readline().decode().rstrip("\n")
    before = {file.name for file in (tracing.folder / "Log").iterdir()}
    while len({file.name for file in (tracing.folder / "Log").iterdir()}) < len(before) + 2:
        tracing.run("devices")
    lines = logged_lines(tracing)
    expected = lines[lines.index(first[2:]):]  # each is shown behind a mark and a blank
    followed = [first, *(follower.stdout.readline().decode().rstrip("\n")
                         for _ in expected[1:])]
    patience.cancel()
    assert [line[2:] for line in followed] == expected
    assert {line[:2] for line in followed} >= {"  ", "? "}
    assert not any("\x1b" in line for line in followed)


def test_followed_lines_for_scripts_name_their_component(tracing):
    tracing.run("trace", "on", "--until-seen")
    follower = tracing.start("trace", "follow", "--json", "--lines", "100000")
    lines = (line for line in follower.stdout if line.startswith(b"{"))
    parsed = [json.loads(next(lines)) for _ in range(30)]
    assert {"time", "origin", "component", "message"} == set(parsed[0])
    assert {"service", "unclear"} <= {line["origin"] for line in parsed}
    assert all(re.fullmatch(r"\d\d/\d\d/\d{4} \d\d:\d\d:\d\d", line["time"]) for line in parsed)
    assert any(line["component"].startswith("<<") for line in parsed)


def test_a_size_before_the_number_of_copies_is_warned_of(tracing):
    def finding():
        checks = tracing.json("doctor")["checks"]
        return [check["finding"] for check in checks if check["check"] == "trace log"]
    assert finding() == []
    (tracing.folder / "zontrace.cfg").write_bytes(b"FileSize=100000\r\nBackupCount=5\r\n")
    assert finding()[0].startswith("FileSize stands before BackupCount in zontrace.cfg")


def test_a_log_that_rotation_deletes_is_not_followed(tracing):
    (tracing.folder / "zontrace.cfg").write_bytes(b"FileSize=20000\r\n")
    text = " ".join(tracing.text("trace", "follow", code=1).split())
    assert "rotation deletes the log (BackupCount is 0)" in text
    assert "what to do: Set BackupCount to 1 or more in C:\\Veltran\\zontrace.cfg" in text


# -- doctor

def test_the_doctor_gives_a_verdict_a_line(installed):
    text = installed.text("doctor")
    for line in ("ok    service        running, process ", "ok    WMI classes    all 39 are there",
                 "ok    devices        the provider lists 9", "ok    trace          off",
                 "ok    events         a subscription is accepted"):
        assert line in text
    checks = installed.json("doctor")
    assert checks["healthy"] is True
    assert all(check["advice"] for check in checks["checks"] if check["verdict"] != "good")


def test_the_doctor_finds_what_is_wrong(bare):
    result = bare.json("doctor", code=3)
    assert result["healthy"] is False
    bad = {check["check"]: check["advice"] for check in result["checks"]
           if check["verdict"] == "bad"}
    assert bad["service"] == "quillmonctl install" and bad["WMI classes"] == "quillmonctl repair"


def test_events_arrive_or_are_dropped_and_a_restart_mends_that(installed):
    def events(code, seconds=10):
        checks = installed.json("doctor", "--probe-events", "--timeout", seconds,
                                code=code)["checks"]
        return next(check for check in checks if check["check"] == "events")
    assert re.fullmatch(r"events arrive: a probe did after \d+ ms", events(0)["finding"])
    dropped = "events are dropped: 3 probes did not arrive"
    installed.machine.set_wmi("SpawnInstance", 0x80041001)
    try:
        assert events(3, seconds=6)["finding"] == dropped
    finally:
        installed.machine.set_wmi("SpawnInstance", 0)
    assert events(3, seconds=3) == {"check": "events", "verdict": "bad", "finding": dropped,
                                    "advice": "Restart the service: quillmonctl repair"}
    installed.run("repair")
    assert events(0)["verdict"] == "good"


def test_a_message_without_its_end_costs_a_probe_and_not_the_verdict(installed):
    with socket.socket(type=socket.SOCK_DGRAM) as sender:
        sender.sendto(b"\x1b<event", ("127.0.0.1", installed.till.events))
    assert "events arrive: a probe did after" in installed.text("doctor", "--probe-events")


def test_subscribers_see_the_probe_and_take_it_for_no_device(installed):
    watcher = installed.start("watch", "--json", "--count", "1", "--seconds", "30")
    watcher.stdout.readline()
    assert installed.run("doctor", "--probe-events")
    event = json.loads(watcher.stdout.read())
    assert re.fullmatch(r"quillmonctl-\d+-\d+", event["device"])
    assert (event["type"], event["class"], event["code"]) == ("probe", "QuillmonProbe", "")


def test_in_the_proxy_strategy_the_probe_leaves_no_device_and_events_do_not_depend_on_it(bare):
    bare.install("--strategy", "proxy")
    with socket.create_connection(("127.0.0.1", bare.till.events)) as device_server:
        device_server.sendall(document("SCANNER1").encode())
        wait_until(lambda: len(bare.json("devices")) == 1, "the device to be cached")
        before = bare.json("devices")
        for _ in range(2):
            text = bare.text("doctor", "--probe-events")
            assert "ok    events         events arrive: a probe did after " in text
        assert bare.json("devices") == before
        watcher = bare.start("watch", "--json", "--count", "1", "--seconds", "30")
        watcher.stdout.readline()
        device_server.sendall(document("SCANNER1", "modifyInstance", code="7").encode())
        assert json.loads(watcher.stdout.read())["code"] == "7"
    bare.uninstall()


def test_a_service_that_does_not_listen_is_not_probed(installed):
    installed.machine.stop_service()
    checks = installed.json("doctor", "--probe-events", code=3)["checks"]
    finding, = [check["finding"] for check in checks if check["check"] == "events"]
    assert finding == "not probed: the event port is not open"
    installed.run("repair")


def rights(tool, code):
    """What the doctor finds wrong with the rights, with its advice."""
    checks = tool.json("doctor", code=code)["checks"]
    return {check["finding"]: check["advice"] for check in checks
            if check["check"] == "rights" and check["verdict"] != "good"}


def test_files_that_only_administrators_may_change_are_good(installed):
    assert rights(installed, 0) == {}
    assert "ok    rights         only administrators may change" in installed.text("doctor")


@pytest.mark.parametrize("path, finding", [
    ("POS/JavaPOS/Config/quillmon.properties",
     "Everyone may change C:\\POS\\JavaPOS\\Config\\quillmon.properties"),
    ("POS/JavaPOS/Config", "Everyone may change C:\\POS\\JavaPOS\\Config"),
    ("POS", "Everyone may replace what is in C:\\POS"),
    ("Quillmon", "Everyone may change C:\\Quillmon"),
    ("Quillmon/quillmon.exe", "Everyone may change C:\\Quillmon\\quillmon.exe")])
def test_what_others_may_change_is_found_with_the_command_that_takes_it_away(
        installed, path, finding):
    file = installed.machine.c / path
    mode = file.stat().st_mode
    file.chmod(mode | 0o002)
    try:
        found = rights(installed, 3)
    finally:
        file.chmod(mode)
    name = "C:\\" + path.replace("/", "\\")
    children = "(OI)(CI)" if file.is_dir() else ""
    assert found == {finding: f'icacls "{name}" /grant:r "*S-1-1-0:{children}RX"'}
    assert rights(installed, 0) == {}


@pytest.mark.skipif(os.geteuid() != 0, reason="only root can give a file to somebody else")
def test_a_folder_of_somebody_else_is_found(installed):
    folder = installed.machine.c / "POS" / "JavaPOS"
    os.chown(folder, 4711, -1)
    try:
        found = rights(installed, 3)
    finally:
        os.chown(folder, os.geteuid(), -1)
    owner = "NT AUTHORITY\\ANONYMOUS LOGON"  # whoever it is
    assert found[f"C:\\POS\\JavaPOS belongs to {owner}"] == 'takeown /f "C:\\POS\\JavaPOS" /a'
    assert f"{owner} may replace what is in C:\\POS\\JavaPOS" in found and len(found) == 2


def test_a_folder_that_leads_elsewhere_is_named(installed):
    folder = installed.machine.c / "POS" / "JavaPOS"
    elsewhere = folder.rename(installed.machine.c / "elsewhere")
    folder.symlink_to(elsewhere)
    try:
        found = rights(installed, 0)
    finally:
        folder.unlink()
        elsewhere.rename(folder)
    assert found == {
        "C:\\POS\\JavaPOS leads elsewhere; what lies above there is not judged":
        'fsutil reparsepoint query "C:\\POS\\JavaPOS" shows where; rmdir "C:\\POS\\JavaPOS" removes '
        'the link alone.'}


def test_a_missing_folder_that_anybody_may_make_is_found(installed):
    drive = installed.machine.c
    mode = drive.stat().st_mode
    away = (drive / "POS").rename(drive / "away")
    drive.chmod(mode | 0o002)
    try:
        found = rights(installed, 3)
    finally:
        drive.chmod(mode)
        away.rename(drive / "POS")
    assert found["C:\\POS is missing, and Everyone may make it"].startswith(
        'mkdir "C:\\POS", then icacls "C:\\POS" /inheritance:r /grant:r "*S-1-5-18:(OI)(CI)F"')


def test_the_support_archive_holds_status_configuration_and_logs_and_no_secret(tracing):
    tracing.configuration.write_bytes(
        tracing.normal + b"; the password is hunter2\r\nadmin.password=hunter2\r\n")
    tracing.run("trace", "on", "--until-seen")
    text = tracing.text("doctor", "--archive", "C:\\support.zip")
    assert "Support archive C:\\support.zip:\n" in text
    with zipfile.ZipFile(tracing.machine.c / "support.zip") as archive:
        assert archive.testzip() is None
        content = {name: archive.read(name) for name in archive.namelist()}
    assert [name for name in content if not name.startswith("log/")] == [
        "status.json", "status.txt", "doctor.txt", "quillmon.properties", "zontrace.cfg"]
    assert content["log/Quillmon.log"] and json.loads(content["status.json"])["version"]
    assert f"upos.requestSocket.Port={tracing.till.requests}\r\n".encode() in (
        content["quillmon.properties"])
    assert b"admin.password" in content["quillmon.properties"]
    assert not any(b"hunter2" in each for each in content.values())


def test_an_archive_that_cannot_be_written_is_named(installed):
    text = installed.text("doctor", "--archive", "C:\\windows\\system.ini\\a.zip", code=1)
    assert "failed: making " in text and "error " in text
