"""The silent installer: tills are installed, upgraded, repaired, cleared, left alone where they must be."""

import os
import re
import shutil
import subprocess
from types import SimpleNamespace

import pytest

from machine import BUILD, ROOT, SERVICE, wait_until, windows_path
from ports import reserve_this_port

SERVICE_KEY = f"HKLM\\SYSTEM\\CurrentControlSet\\Services\\{SERVICE}"
TRACE_KEY = "HKLM\\SOFTWARE\\Veltran\\Veltran Kestrune"
OUR_KEY = "HKLM\\SOFTWARE\\ORVEX\\Quillmon"
WINDOWS_KEY = "HKLM\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion"
FOLDER = "C:\\Program Files\\Quillmon\\"
DEFAULTS = ROOT / "packaging" / "config"


@pytest.fixture(scope="module")
def packages(tmp_path_factory):
    """Two versions as they are made for a release, of one build."""
    folder = tmp_path_factory.mktemp("packages")
    (BUILD / "THIRD-PARTY-NOTICES.txt").touch()  # papers.py writes it; its content is not of interest
    stage = folder / "stage"
    subprocess.run(["cmake", "--install", BUILD, "--strip", "--prefix", stage], check=True,
                   stdout=subprocess.DEVNULL)

    def pack(name, version):
        subprocess.run([ROOT / "packaging" / "msi", stage, BUILD / "quillmon-setup.dll", version,
                        folder / name], check=True)
        return folder / name

    return SimpleNamespace(old=pack("old.msi", "0.0.1"), new=pack("new.msi", "0.0.2"))


class Computer:
    """A machine on which nothing of the product is installed."""

    def __init__(self, machine):
        for port in (42114, 42115):  # what is installed is not configured
            reserve_this_port(port)
        self.machine = machine
        shutil.rmtree(machine.home)
        machine.home = machine.c  # where programs are started
        machine.service_path = FOLDER + "quillmon.exe"
        self.folder = machine.c / "Program Files" / "Quillmon"
        self.pos = machine.c / "POS"
        self.configuration = self.pos / "JavaPOS" / "Config" / "quillmon.properties"
        machine.set_wmi("Mof", "")  # no class is known; the compiler that stands in adds them
        compiler = machine.c / "windows" / "system32" / "wbem" / "mofcomp.exe"
        compiler.unlink()  # it is linked to the template's
        shutil.copy(BUILD / "mofcomp.exe", compiler)
        machine.set_registry(WINDOWS_KEY, "CurrentMajorVersionNumber", 10, "REG_DWORD")
        self.log = ""

    def msiexec(self, option, package, *properties, silently=True):
        """Windows Installer's exit code; its log is in `log`. Only the last byte comes through."""
        file = self.machine.c / "msi.log"
        file.unlink(missing_ok=True)
        done = self.machine.run("msiexec", option, windows_path(package),
                                *(["/qn"] if silently else []), "/l*v", "C:\\msi.log", *properties)
        content = file.read_bytes()
        self.log = content.decode("utf-16" if content[:2] == b"\xff\xfe" else "latin-1")
        return {0: 0, 1603 % 256: 1603}[done.returncode]

    def install(self, package, *properties, silently=True):
        return self.msiexec("/i", package, *properties, silently=silently)

    def remove(self, package):
        return self.msiexec("/x", package)

    @property
    def said(self):
        """Of the log, what the custom actions said."""
        return "\n".join(line for line in self.log.splitlines() if not re.match(
            r"(Action|Feature|File|Folder|Key|Message type|Property|===|\d+:)", line))

    @property
    def version(self):
        return self.machine.query_registry(OUR_KEY, "Version")

    def files(self):
        """Every file on the drive that the product could have made."""
        return sorted(str(file.relative_to(self.machine.c)) for root in (self.folder, self.pos)
                      for file in root.rglob("*") if not file.is_dir())

    def assert_nothing_is_left(self):
        assert self.machine.service_state() is None and self.machine.service_process() is None
        assert not self.folder.exists() and not self.pos.exists()
        assert self.version is None
        assert self.machine.query_registry(TRACE_KEY, "INSTALLDIR") is None

    def clear(self, package):
        self.machine.set_wmi("MofcompExit", 0)
        if self.version is not None:
            assert self.remove(package) == 0, self.said
        for left in (self.folder, self.pos):
            shutil.rmtree(left, ignore_errors=True)
        self.machine.delete_registry(TRACE_KEY, "INSTALLDIR")
        self.machine.set_wmi("Mof", "")


@pytest.fixture(scope="module")
def one_computer(shared_machine):
    return Computer(shared_machine)


@pytest.fixture
def computer(one_computer, packages):
    yield one_computer
    one_computer.clear(packages.old if one_computer.version == "0.0.1" else packages.new)


def test_a_till_is_installed_upgraded_repaired_and_cleared(computer, packages):
    machine = computer.machine
    assert computer.install(packages.old) == 0, computer.said
    assert computer.version == "0.0.1"
    assert "ok    42 WMI classes and registrations, read back" in computer.log
    assert machine.service_state() == "RUNNING"
    assert machine.query_registry(SERVICE_KEY, "ImagePath") == f'"{FOLDER}quillmon.exe"'
    assert machine.query_registry(SERVICE_KEY, "Start") == "0x2"
    assert machine.query_registry(TRACE_KEY, "INSTALLDIR") == FOLDER
    installed = computer.files()
    assert {"POS/JavaPOS/Config/quillmon.properties", "Program Files/Quillmon/zontrace.cfg",
            "Program Files/Quillmon/quillmon.mof", "Program Files/Quillmon/samples/till.xml",
            "Program Files/Quillmon/THIRD-PARTY-NOTICES.txt"} < set(installed)

    process = machine.service_process()
    # Somebody else's default: nobody edited it, so the new version's takes its place.
    for file in (computer.configuration, computer.folder / "config" / "quillmon.properties"):
        file.write_bytes(b"; the default of an earlier version\r\n")
    assert computer.install(packages.new) == 0, computer.said
    assert computer.version == "0.0.2"
    assert "ok    42 WMI classes and registrations, read back" in computer.log
    assert machine.service_state() == "RUNNING"
    assert machine.service_process() not in (None, process)
    assert computer.files() == installed
    default = (DEFAULTS / "quillmon.properties").read_bytes()
    assert computer.configuration.read_bytes() == default

    (computer.folder / "quillmon.mof").unlink()
    machine.set_wmi("Mof", "")
    assert computer.install(packages.new, "REINSTALL=ALL") == 0, computer.said
    assert computer.files() == installed
    assert "ok    42 WMI classes and registrations, read back" in computer.log

    assert computer.remove(packages.new) == 0, computer.said
    computer.assert_nothing_is_left()


def test_what_was_edited_survives_an_upgrade_and_the_removal(computer, packages):
    machine = computer.machine
    assert computer.install(packages.old, "STRATEGY=proxy") == 0, computer.said
    proxy = f'"{FOLDER}quillmon.exe" -o'
    assert machine.query_registry(SERVICE_KEY, "ImagePath") == proxy
    edited = b"[default]\r\nprovider.maxQueryThreads=4\r\n"
    computer.configuration.write_bytes(edited)
    trace = computer.folder / "zontrace.cfg"
    trace.write_bytes(b"FileSize=5\r\n")
    log = computer.folder / "Log" / "Quillmon.log"
    log.write_text("a line")
    machine.stop_service()

    # The upgrade waits for a program that still runs.
    console = machine.start(FOLDER + "quillmon.exe", "-d")
    wait_until(machine.service_process, "the console mode")
    upgrade = machine.start("msiexec", "/i", windows_path(packages.new), "/qn", "/l*v",
                            "C:\\upgrade.log")
    upgrade_log = machine.c / "upgrade.log"
    wait_until(lambda: upgrade_log.exists() and
               b": InstallFinalize" in upgrade_log.read_bytes().replace(b"\0", b""),
               "the upgrade to begin")
    assert upgrade.poll() is None
    console.kill()
    assert upgrade.wait(timeout=60) == 0

    assert computer.version == "0.0.2"
    assert (computer.configuration.read_bytes(), trace.read_bytes(), log.read_text()) == (
        edited, b"FileSize=5\r\n", "a line")
    assert machine.service_state() == "STOPPED"
    assert machine.query_registry(SERVICE_KEY, "ImagePath") == proxy
    # Unless another strategy is asked for.
    assert computer.install(packages.new, "STRATEGY=adapter") == 0, computer.said
    assert machine.query_registry(SERVICE_KEY, "ImagePath") == f'"{FOLDER}quillmon.exe"'

    (computer.folder / "expected.json").write_text("{}")  # an administrator's
    assert computer.remove(packages.new) == 0, computer.said
    assert computer.files() == [
        "POS/JavaPOS/Config/quillmon.properties", "Program Files/Quillmon/expected.json",
        "Program Files/Quillmon/zontrace.cfg"]
    assert computer.configuration.read_bytes() == edited
    # What a removal has left is no obstacle.
    assert computer.install(packages.new) == 0, computer.said
    assert computer.configuration.read_bytes() == edited


def test_an_installation_that_fails_is_undone(computer, packages):
    # Another product's folder, with rights of its own.
    folder = computer.configuration.parent
    folder.mkdir(parents=True)
    (folder / "other.properties").write_text("")
    folder.chmod(0o777)
    computer.machine.set_wmi("MofcompExit", 3)
    assert computer.install(packages.old) == 1603
    assert "Quillmon error 8: " in computer.log and "mofcomp ended with code 3" in computer.log
    assert folder.stat().st_mode & 0o777 == 0o777
    assert computer.files() == ["POS/JavaPOS/Config/other.properties"]
    shutil.rmtree(computer.pos)
    computer.assert_nothing_is_left()
    assert computer.install(packages.old) == 1603
    computer.assert_nothing_is_left()


def test_a_removal_that_fails_is_undone(computer, packages):
    machine = computer.machine
    assert computer.install(packages.old, "STRATEGY=proxy") == 0, computer.said
    before = computer.files()
    # The service goes first; the classes then do not.
    (computer.folder / "quillmon-uninstall.mof").write_text("nonsense")
    assert computer.remove(packages.old) == 1603
    assert "Quillmon error 8: " in computer.log
    assert computer.version == "0.0.1" and computer.files() == before
    assert machine.service_state() == "RUNNING"
    assert machine.query_registry(SERVICE_KEY, "ImagePath") == f'"{FOLDER}quillmon.exe" -o'
    shutil.copy(ROOT / "mof" / "quillmon-uninstall.mof", computer.folder)


def test_device_events_go_to_the_event_log_on_request(computer, packages):
    machine = computer.machine
    source = "HKLM\\SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\Quillmon"
    assert computer.install(packages.old, "EVENTLOG=1") == 0, computer.said
    assert "ok    device events go to the Application log, read back" in computer.log
    assert machine.query_registry(source, "EventMessageFile").endswith("\\EventCreate.exe")
    assert computer.install(packages.new) == 0, computer.log  # it stays so
    assert "ok    device events go to the Application log, read back" in computer.log
    assert computer.remove(packages.new) == 0, computer.said
    assert "ok    device events go to the Application log no longer" in computer.log
    assert machine.query_registry(source, "EventMessageFile") is None
    computer.assert_nothing_is_left()


def test_an_older_windows_is_refused_before_anything_is_changed(computer, packages):
    machine = computer.machine
    machine.delete_registry(WINDOWS_KEY, "CurrentMajorVersionNumber")
    try:
        assert computer.install(packages.old) == 1603
    finally:
        machine.set_registry(WINDOWS_KEY, "CurrentMajorVersionNumber", 10, "REG_DWORD")
    assert ": LaunchConditions. Return value 0" in computer.log
    assert ": InstallInitialize" not in computer.log
    computer.assert_nothing_is_left()


@pytest.mark.parametrize("option", ["STRATEGY=foo", "STRATEGY=Proxy", "EVENTLOG=yes"])
def test_a_property_with_nonsense_is_refused(computer, packages, option):
    assert computer.install(packages.old, option) == 1603
    assert ": LaunchConditions. Return value 0" in computer.log
    computer.assert_nothing_is_left()


@pytest.mark.parametrize("named_again", [(), ("INSTALLDIR=C:\\Till Software\\Quillmon",)])
def test_another_folder_can_be_chosen_and_gets_its_rights_first(computer, packages, named_again):
    machine = computer.machine
    computer.configuration.parent.mkdir(parents=True)
    computer.configuration.parent.chmod(0o777)
    folder = "C:\\Till Software\\Quillmon\\"
    assert computer.install(packages.old, f"INSTALLDIR={folder}") == 0, computer.said
    order = computer.log.index
    assert order(": MakeFolders.") < order(": InstallFiles.") < order(": PutDefaults.")
    place = machine.c / "Till Software" / "Quillmon"
    for made in (place.parent, place, place / "Log", computer.configuration.parent):
        assert made.stat().st_mode & 0o002 == 0, made
    assert machine.query_registry(SERVICE_KEY, "ImagePath") == f'"{folder}quillmon.exe"'
    assert computer.install(packages.new, *named_again) == 0, computer.said  # it stays there
    assert (place / "quillmon.exe").exists() and not computer.folder.exists()
    assert machine.query_registry(TRACE_KEY, "INSTALLDIR") == folder
    assert computer.remove(packages.new) == 0, computer.said
    assert not place.exists()
    place.parent.rmdir()


def test_a_package_that_is_opened_does_what_it_does_silently(computer, packages):
    folder = "C:\\Till Software\\Quillmon\\"
    assert computer.install(packages.old, f"INSTALLDIR={folder}", "STRATEGY=proxy") == 0
    place = computer.machine.c / "Till Software" / "Quillmon"
    assert computer.install(packages.new, silently=False) == 0, computer.said
    assert computer.version == "0.0.2"
    assert computer.machine.query_registry(SERVICE_KEY, "ImagePath") == f'"{folder}quillmon.exe" -o'
    assert (place / "quillmon.exe").exists() and not computer.folder.exists()
    assert computer.remove(packages.new) == 0, computer.said
    place.parent.rmdir()


def test_an_older_version_and_a_second_installation_are_refused(computer, packages):
    assert computer.install(packages.new) == 0, computer.said
    assert computer.install(packages.old) == 1603
    assert ": LaunchConditions. Return value 0" in computer.log
    assert computer.install(packages.new, "INSTALLDIR=C:\\Other") == 1603
    assert f"Quillmon error 2: Quillmon is installed in {FOLDER}." in computer.log
    assert not (computer.machine.c / "Other").exists()
    assert computer.machine.service_state() == "RUNNING" and computer.version == "0.0.2"


def test_a_folder_of_somebody_else_is_refused(computer, packages):
    machine = computer.machine
    assert computer.install(packages.old, "INSTALLDIR=C:\\windows") == 1603
    assert "Quillmon error 4: C:\\windows holds something else: " in computer.log
    elsewhere = machine.c / "elsewhere"
    elsewhere.mkdir()
    computer.pos.symlink_to(elsewhere)
    assert computer.install(packages.old) == 1603
    assert "Quillmon error 5: C:\\POS is a link to another place." in computer.log
    computer.pos.unlink()
    assert list(elsewhere.iterdir()) == []
    elsewhere.rmdir()
    computer.assert_nothing_is_left()


@pytest.mark.skipif(os.geteuid() != 0, reason="gives a folder to another user")
@pytest.mark.parametrize("path", ["POS", "POS/JavaPOS/Config", "Program Files/Quillmon/Log",
                                  "POS/JavaPOS/Config/quillmon.properties"])
def test_what_belongs_to_a_user_is_refused(computer, packages, path):
    computer.configuration.parent.mkdir(parents=True)
    computer.configuration.write_bytes(b"")
    (computer.folder / "Log").mkdir(parents=True)
    os.chown(computer.machine.c / path, 65534, 65534)
    assert computer.install(packages.old) == 1603
    name = "C:\\" + path.replace("/", "\\")
    assert f"Quillmon error 5: {name} belongs neither to an administrator nor" in computer.log
    assert computer.machine.service_state() is None
    assert computer.files() == ["POS/JavaPOS/Config/quillmon.properties"]


def test_a_service_from_elsewhere_is_left_alone(computer, packages):
    machine = computer.machine
    other = machine.c / "Unpacked"
    other.mkdir()
    shutil.copy(BUILD / "quillmon.exe", other)
    machine.run("C:\\Unpacked\\quillmon.exe", "-i")
    assert computer.install(packages.old) == 1603
    assert f"Quillmon error 3: The service {SERVICE} is already there, as C:/Unpacked" in computer.log
    assert computer.files() == []
    assert machine.query_registry(SERVICE_KEY, "ImagePath") == "C:/Unpacked/quillmon.exe"
    machine.run("C:\\Unpacked\\quillmon.exe", "-u")
    wait_until(lambda: machine.service_state() is None, "the service to be gone")


def test_the_trace_stays_where_another_product_has_it(computer, packages):
    machine = computer.machine
    machine.set_registry(TRACE_KEY, "INSTALLDIR", "C:\\Veltran\\")
    theirs = machine.query_registry(TRACE_KEY, "INSTALLDIR")
    assert computer.install(packages.old) == 0, computer.said
    assert machine.query_registry(TRACE_KEY, "INSTALLDIR") == theirs
    assert not (computer.folder / "zontrace.cfg").exists()
    assert computer.remove(packages.old) == 0, computer.said
    assert machine.query_registry(TRACE_KEY, "INSTALLDIR") == theirs
