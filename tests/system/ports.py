"""Ports for the tests: each belongs to one test until the test's process ends.

A port that the system gives to whoever asks for any would be free again for anybody between the
question and its use, and a connection that is tried to it while nobody listens can meet itself.
"""

import random
import socket
import sys
import time
from pathlib import Path

_held = {}  # port: the socket whose name marks it as taken


def _outside_the_ephemeral_range():
    """The ports that the system gives to nobody who asks for any."""
    first, last = 49152, 65535
    if sys.platform == "linux":
        words = Path("/proc/sys/net/ipv4/ip_local_port_range").read_text().split()
        first, last = map(int, words)
    return max(range(10000, first), range(last + 1, 65536), key=len)


def _take(port):
    """Marks the port by a name that is there once in a network and gone with this process. Only
    Linux has such names; elsewhere one run of the tests has the machine to itself."""
    if port in _held:
        return False
    mark = None
    if sys.platform == "linux":
        mark = socket.socket(socket.AF_UNIX)
        try:
            mark.bind(f"\0quillmon-test-port-{port}")
        except OSError:
            mark.close()
            return False
    _held[port] = mark
    return True


def _is_free(port, *options):
    for kind in (socket.SOCK_STREAM, socket.SOCK_DGRAM):
        with socket.socket(socket.AF_INET, kind) as probe:
            for option in options:
                probe.setsockopt(socket.SOL_SOCKET, option, 1)
            try:
                probe.bind(("0.0.0.0", port))
            except OSError:
                return False
    return True


def reserve_port():
    """A port, of TCP and UDP, that nobody uses and no other test gets."""
    ports = _outside_the_ephemeral_range()
    for port in (random.choice(ports) for _ in range(1000)):
        if _take(port) and _is_free(port):
            return port
    raise AssertionError("of a thousand ports none is free")


def reserve_this_port(port, seconds=300):
    """Waits for a port that programs have by default: another run of the tests on this machine may
    be using it, or any program's connection for its time."""
    deadline = time.monotonic() + seconds
    while port not in _held and not _take(port):
        assert time.monotonic() < deadline, f"another run of the tests keeps port {port}"
        time.sleep(0.1)
    while not _is_free(port, socket.SO_REUSEADDR):  # connections that have ended are no matter
        assert time.monotonic() < deadline, f"a program that is no test keeps port {port}"
        time.sleep(0.1)
