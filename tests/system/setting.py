"""The installed service in the adapter strategy, with a scripted device server and a client."""

import contextlib

from machine import BUILD, bound_datagram_ports, wait_until
from peer import NORMAL, Peer
from ports import reserve_port

SCANNER = [["SCANNER1"]]


def rows(out):
    """The values that the client printed, without the names."""
    return [line.split("\t") for line in out.decode().replace("\r\n", "\n").split("\n")[1:] if line]


class Setting:
    """The service on a machine, its device server, and a client."""

    def __init__(self, machine):
        self.machine = machine
        self.peer = Peer()
        self.event_port = reserve_port()
        self.configure()
        machine.install_service()
        wait_until(lambda: self.event_port in bound_datagram_ports(), "the service to start")
        self.client = machine.start_wmi_client()

    def configure(self, **keys):
        self.machine.configure(**{
            "upos__requestSocket__Port": self.peer.port,
            "provider__eventSocket__Port": self.event_port,
            "provider__maxQueryThreads": 2, **keys})

    @staticmethod
    def result(done):
        """A client's rows, or the code that its call failed with."""
        if done.returncode != 0:
            return done.out.split()[-1]
        return rows(done.stdout)

    def list(self, *properties, class_name="UPOS_Scanner"):
        return self.result(self.client.run("list", class_name, "DeviceID", *properties))

    def answer(self, answer, *properties):
        self.peer.answer = answer
        return self.list(*properties)

    @contextlib.contextmanager
    def survived(self):
        """Behind it the service still runs in the same process and answers properly."""
        process = self.machine.service_process()
        yield self
        assert self.answer(NORMAL) == SCANNER
        assert self.machine.service_process() == process is not None

    def start_list(self, class_name):
        return self.machine.start(str(BUILD / "wmi_client.exe"), "list", class_name, "DeviceID")

    def memory_peak(self):
        return self.machine.service_memory_peak()
