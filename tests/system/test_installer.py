"""The silent installer: tills are installed, upgraded, cleared, left alone where they must be."""

import contextlib
import shutil
import subprocess
from pathlib import Path
from types import SimpleNamespace

import pytest

from machine import BUILD, ROOT, SERVICE, processes_of, wait_until, windows_path
from ports import reserve_this_port

UNINSTALL_KEY = "HKLM\\Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\Quillmon"
SERVICE_KEY = f"HKLM\\SYSTEM\\CurrentControlSet\\Services\\{SERVICE}"
TRACE_KEY = "HKLM\\SOFTWARE\\Veltran\\Veltran Kestrune"
WRONG_FOLDER, FOREIGN_SERVICE, NOT_REGISTERED = 11, 12, 15


def pack(folder, version):
    """The installer as it is made for a release, but compressed in less time."""
    subprocess.run([ROOT / "packaging" / "pack", BUILD, folder, "-G", "NSIS",
                    "-D", f"CPACK_PACKAGE_VERSION={version}", "-D", "CPACK_NSIS_COMPRESSOR=zlib"],
                   check=True, stdout=subprocess.DEVNULL)
    return next(folder.glob("*.exe"))


@pytest.fixture(scope="module")
def installers(tmp_path_factory):
    return SimpleNamespace(old=pack(tmp_path_factory.mktemp("old"), "0.0.1"),
                           new=pack(tmp_path_factory.mktemp("new"), "0.0.2"))


class Computer:
    """A machine on which nothing of the product is installed."""

    def __init__(self, machine):
        for port in (42114, 42115):  # what is installed is not configured
            reserve_this_port(port)
        self.machine = machine
        self.folder = machine.c / "Quillmon"
        shutil.rmtree(self.folder)
        machine.home = machine.c  # where programs are started
        machine.service_path = "C:/Quillmon/program/quillmon.exe"
        self.program = self.folder / "program"
        self.configuration = machine.c / "POS" / "JavaPOS" / "Config" / "quillmon.properties"
        machine.set_wmi("Mof", "")  # no class is known; the compiler that stands in adds them
        compiler = machine.c / "windows" / "system32" / "wbem" / "mofcomp.exe"
        compiler.unlink()  # it is linked to the template's
        shutil.copy(BUILD / "mofcomp.exe", compiler)

    def install(self, installer, option=""):
        # Through the command interpreter, which leaves blanks and quotes in an option as they are.
        return self.machine.run("cmd", "/c", f"{windows_path(installer)} /S {option}").returncode

    @property
    def said(self):
        return (self.folder / "setup.log").read_text(encoding="latin-1")

    @property
    def version(self):
        return self.machine.query_registry(UNINSTALL_KEY, "DisplayVersion")

    def files(self):
        """Every file on the drive that the product could have made."""
        roots = [self.folder, self.machine.c / "POS"]
        return sorted(str(file.relative_to(self.machine.c)) for root in roots
                      for file in root.rglob("*") if not file.is_dir())

    def uninstall(self):
        """As Windows does it: the uninstaller copies itself and returns at once."""
        assert self.machine.run("C:\\Quillmon\\uninstall.exe", "/S").returncode == 0
        wait_until(lambda: not self.copy_runs(), "the uninstaller's end", 60)
        assert not (self.folder / "uninstall.exe").exists()

    def copy_runs(self):
        """Whether the uninstaller's copy of itself, in a folder ~nsu..., still runs."""
        for process in processes_of(self.machine.prefix):
            with contextlib.suppress(OSError):  # ended meanwhile
                if b"~nsu" in Path(f"/proc/{process}/cmdline").read_bytes():
                    return True
        return False

    def clear(self):
        self.machine.set_wmi("MofcompExit", 0)
        if (self.folder / "uninstall.exe").exists():
            self.uninstall()
        for left in (self.folder, self.machine.c / "POS"):
            shutil.rmtree(left, ignore_errors=True)
        self.machine.delete_registry(TRACE_KEY, "INSTALLDIR")
        self.machine.set_wmi("Mof", "")


@pytest.fixture(scope="module")
def one_computer(shared_machine):
    return Computer(shared_machine)


@pytest.fixture
def computer(one_computer):
    yield one_computer
    one_computer.clear()


def test_a_till_is_installed_upgraded_and_cleared(computer, installers):
    machine = computer.machine
    assert computer.install(installers.old) == 0, computer.said
    assert computer.version == "0.0.1"
    assert "WMI classes and registrations, read back" in computer.said
    assert machine.service_state() == "RUNNING"
    # No blank, so nothing else can be started in its place.
    assert machine.query_registry(SERVICE_KEY, "ImagePath") == "C:/Quillmon/program/quillmon.exe"
    assert machine.query_registry(SERVICE_KEY, "Start") == "0x2"
    assert machine.query_registry(TRACE_KEY, "INSTALLDIR") == "C:\\Quillmon\\"
    installed = computer.files()
    assert "Quillmon/program/quillmon.mof" in installed
    assert "Quillmon/program/samples/till.xml" in installed
    assert "Quillmon/program/THIRD-PARTY-NOTICES.txt" in installed
    assert [file for file in installed if not file.startswith("Quillmon/program/")] == [
        "POS/JavaPOS/Config/quillmon.properties", "Quillmon/setup.log", "Quillmon/uninstall.exe",
        "Quillmon/zontrace.cfg"]

    process = machine.service_process()
    (computer.program / "obsolete.dll").write_text("of an earlier version")
    # Somebody else's default: nobody edited it, so the new version's takes its place.
    for file in (computer.configuration, computer.program / "config" / "quillmon.properties"):
        file.write_bytes(b"; the default of an earlier version\r\n")
    assert computer.install(installers.new) == 0, computer.said
    assert computer.version == "0.0.2"
    assert "WMI classes and registrations, read back" in computer.said
    assert machine.service_state() == "RUNNING"
    assert machine.service_process() not in (None, process)
    assert computer.files() == installed
    assert computer.configuration.read_bytes() == (
        ROOT / "packaging" / "config" / "quillmon.properties").read_bytes()

    computer.uninstall()
    assert not computer.folder.exists() and not (machine.c / "POS").exists()
    assert machine.service_state() is None and machine.service_process() is None
    assert computer.version is None
    assert machine.query_registry(TRACE_KEY, "INSTALLDIR") is None


def test_what_was_edited_survives_an_upgrade_and_the_removal(computer, installers):
    machine = computer.machine
    assert computer.install(installers.old, "/STRATEGY=proxy") == 0, computer.said
    proxy = "C:\\Quillmon\\program\\quillmon.exe -o"
    assert machine.query_registry(SERVICE_KEY, "ImagePath") == proxy
    edited = b"[default]\r\nprovider.maxQueryThreads=4\r\n"
    computer.configuration.write_bytes(edited)
    trace = computer.folder / "zontrace.cfg"
    trace.write_bytes(b"FileSize=5\r\n")
    log = computer.folder / "Log" / "Quillmon.log"
    log.write_text("a line")
    machine.stop_service()

    # The upgrade waits for a program that still runs.
    console = machine.start("C:\\Quillmon\\program\\quillmon.exe", "-d")
    command = Path(f"/proc/{console.pid}/cmdline")
    wait_until(lambda: command.read_bytes().startswith(b"C:\\Quillmon"), "the console mode")
    executable = computer.program / "quillmon.exe"
    running = executable.stat().st_ino
    upgrade = machine.start(windows_path(installers.new), "/S")
    wait_until(lambda: "0.0.2" in computer.said and "sc.exe query" in computer.said, "the upgrade")
    assert upgrade.poll() is None and executable.stat().st_ino == running
    console.kill()
    assert upgrade.wait(timeout=60) == 0, computer.said
    assert executable.stat().st_ino != running

    assert (computer.configuration.read_bytes(), trace.read_bytes(), log.read_text()) == (
        edited, b"FileSize=5\r\n", "a line")
    assert machine.service_state() == "STOPPED"
    assert machine.query_registry(SERVICE_KEY, "ImagePath") == proxy

    computer.uninstall()
    assert computer.files() == ["POS/JavaPOS/Config/quillmon.properties", "Quillmon/zontrace.cfg"]
    assert computer.configuration.read_bytes() == edited


def test_what_fails_is_undone(computer, installers):
    machine = computer.machine
    machine.set_wmi("MofcompExit", 3)
    assert computer.install(installers.old) == NOT_REGISTERED
    assert computer.files() == ["Quillmon/setup.log"]
    assert "mofcomp ended with code 3" in computer.said
    assert machine.service_state() is None and computer.version is None
    assert machine.query_registry(TRACE_KEY, "INSTALLDIR") is None

    machine.set_wmi("MofcompExit", 0)
    assert computer.install(installers.old) == 0, computer.said
    (computer.program / "of-the-old-version").write_text("")
    before = computer.files()
    machine.set_wmi("MofcompExit", 3)
    assert computer.install(installers.new) == NOT_REGISTERED
    assert computer.version == "0.0.1"
    assert computer.files() == before
    assert f'net.exe" start {SERVICE}' in computer.said.partition("Undoing")[2]


def test_a_second_installation_elsewhere_is_refused(computer, installers):
    assert computer.install(installers.old) == 0, computer.said
    assert computer.install(installers.new, "/D=C:\\Other") == WRONG_FOLDER
    assert not (computer.machine.c / "Other").exists()
    assert computer.machine.service_state() == "RUNNING" and computer.version == "0.0.1"


@pytest.mark.parametrize("folder", [
    "/D=C:\\Till Software\\Quillmon", '"/D=C:\\Till"', "/D=C:\\windows"])
def test_a_folder_that_is_not_for_the_service_is_refused(computer, installers, folder):
    assert computer.install(installers.old, folder) == WRONG_FOLDER
    assert computer.files() == [] and computer.machine.service_state() is None
    assert list(computer.machine.c.glob("Till*")) == []
    assert not (computer.machine.c / "windows" / "program").exists()


def test_a_service_from_elsewhere_is_left_alone(computer, installers):
    machine = computer.machine
    other = machine.c / "Unpacked"
    other.mkdir()
    shutil.copy(BUILD / "quillmon.exe", other)
    machine.run("C:\\Unpacked\\quillmon.exe", "-i")
    assert computer.install(installers.old) == FOREIGN_SERVICE
    assert computer.files() == []
    assert machine.query_registry(SERVICE_KEY, "ImagePath") == "C:/Unpacked/quillmon.exe"
    machine.run("C:\\Unpacked\\quillmon.exe", "-u")
    wait_until(lambda: machine.service_state() is None, "the service to be gone")


def test_the_trace_stays_where_another_product_has_it(computer, installers):
    machine = computer.machine
    machine.set_registry(TRACE_KEY, "INSTALLDIR", "C:\\Veltran\\")
    theirs = machine.query_registry(TRACE_KEY, "INSTALLDIR")
    assert computer.install(installers.old) == 0, computer.said
    assert machine.query_registry(TRACE_KEY, "INSTALLDIR") == theirs
    assert not (computer.folder / "zontrace.cfg").exists()
    computer.uninstall()
    assert machine.query_registry(TRACE_KEY, "INSTALLDIR") == theirs
