"""What the programs that ship promise by themselves: read from the PE header, as the loader reads it."""

import functools
import re
import struct
import subprocess
import tempfile
from pathlib import Path

import pytest

from machine import BUILD, ROOT

# What Windows maps from its system folder whatever lies beside a program (its "known DLLs"). The
# service may need nothing else: it runs as the system.
KNOWN_LIBRARIES = {
    "advapi32.dll", "kernel32.dll", "msvcrt.dll", "ole32.dll", "oleaut32.dll", "user32.dll",
    "ws2_32.dll",
}
# What else a program needs of the system folder.
OTHER_LIBRARIES = {
    "quillmon.exe": set(),
    "quillmonctl.exe": {"iphlpapi.dll", "shell32.dll", "version.dll"},
    "quillmon-till.exe": {"mswsock.dll"},
    "quillmon-setup.dll": {"msi.dll"},
}


class Image:
    def __init__(self, path):
        self.data = path.read_bytes()
        (pe,) = struct.unpack_from("<I", self.data, 0x3C)
        assert self.data[pe:pe + 4] == b"PE\0\0"
        self.machine, sections, _, _, _, optional_size, self.characteristics = struct.unpack_from(
            "<HHIIIHH", self.data, pe + 4)
        optional = pe + 24
        (self.magic,) = struct.unpack_from("<H", self.data, optional)
        (self.subsystem, self.dll_characteristics) = struct.unpack_from(
            "<HH", self.data, optional + 68)
        self.directories = [
            struct.unpack_from("<II", self.data, optional + 112 + 8 * i) for i in range(16)]
        self.sections = [
            struct.unpack_from("<8sIIII12xI", self.data, optional + optional_size + 40 * i)
            for i in range(sections)]

    def offset(self, address):
        for _, size, start, raw_size, raw, _ in self.sections:
            if start <= address < start + max(size, raw_size):
                return address - start + raw
        raise ValueError(hex(address))

    def text(self, address):
        start = self.offset(address)
        return self.data[start:self.data.index(b"\0", start)].decode("ascii")

    def imports(self):
        """The libraries, each with the names of its functions that the loader looks for."""
        position = self.offset(self.directories[1][0])
        while True:
            table, _, _, name, thunks = struct.unpack_from("<IIIII", self.data, position)
            if not name and not thunks:
                return
            yield self.text(name).lower(), list(self.functions(self.offset(table)))
            position += 20

    def functions(self, position):
        while entry := struct.unpack_from("<Q", self.data, position)[0]:
            if not entry >> 63:  # by number otherwise
                yield self.text(entry + 2)
            position += 8


@pytest.fixture(scope="module", params=OTHER_LIBRARIES)
def program(request):
    return request.param


@pytest.fixture(scope="module")
def image(program):
    return Image(BUILD / program)


@pytest.fixture(scope="module")
def service():
    return Image(BUILD / "quillmon.exe")


def test_it_is_a_64_bit_console_program_or_library(program, image):
    assert (image.machine, image.magic, image.subsystem) == (0x8664, 0x20B, 3)
    is_library = image.characteristics & 0x2000 != 0
    assert is_library == program.endswith(".dll")


def test_addresses_are_random_with_high_entropy_and_data_is_not_executed(image):
    high_entropy, dynamic_base, nx = 0x0020, 0x0040, 0x0100
    wanted = high_entropy | dynamic_base | nx
    assert image.dll_characteristics & wanted == wanted


def test_it_can_be_relocated(image):
    assert image.characteristics & 0x0001 == 0  # relocations not stripped
    assert image.directories[5][1] > 0


def test_no_part_of_it_is_both_written_and_executed(image):
    executed, written = 0x20000000, 0x80000000
    flags = {name.rstrip(b"\0").decode(): flags for name, *_, flags in image.sections}
    assert flags[".text"] & executed
    assert [name for name in flags if flags[name] & executed and flags[name] & written] == []


def test_a_smashed_stack_and_an_overrun_buffer_end_it(image):
    assert b"stack smashing detected" in image.data
    assert b"buffer overflow detected" in image.data


def test_it_tells_nothing_of_the_machine_that_built_it(image):
    folders = {str(ROOT), str(BUILD), str(Path.home()), tempfile.gettempdir()}
    assert [each for each in folders if f"{each}/".encode() in image.data] == []


def test_it_needs_only_libraries_of_the_system_that_are_named_here(program, image):
    libraries = {name for name, _ in image.imports()}
    assert libraries <= KNOWN_LIBRARIES | OTHER_LIBRARIES[program]


HEADERS = """winsock2.h ws2tcpip.h mswsock.h windows.h iphlpapi.h objbase.h oleauto.h psapi.h sddl.h
             aclapi.h shellapi.h shlobj.h winver.h"""


@functools.cache
def names_declared_for(windows):
    """Whatever the headers name when they are told that the program is to run on that Windows."""
    text = "".join(f"#include <{header}>\n" for header in HEADERS.split())
    done = subprocess.run(
        ["x86_64-w64-mingw32-gcc-posix", "-E", "-P", "-x", "c", f"-D_WIN32_WINNT={windows}", "-"],
        input=text, capture_output=True, text=True, check=True)
    return set(re.findall(r"\w+", done.stdout))


def test_the_loader_of_an_old_windows_finds_each_function_that_it_needs(program, image):
    windows_7, windows_10 = "0x0601", "0x0A00"
    too_young = names_declared_for(windows_10) - names_declared_for(windows_7)
    assert "SetProcessMitigationPolicy" in too_young
    # An update brings them to Windows 7, so the headers name them there.
    too_young |= {"AddDllDirectory", "RemoveDllDirectory", "SetDefaultDllDirectories"}
    needed = {function for _, functions in image.imports() for function in functions}
    assert {"CreateFileW", "malloc"} <= needed
    assert sorted(needed & too_young) == []


def test_the_service_carries_its_name_and_version(service):
    for text in ("ORVEX Quillmon Services", "quillmon.exe", "FileVersion"):
        assert text.encode("utf-16-le") in service.data, text
