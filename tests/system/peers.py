"""Whom the tests play around the service: device servers that answer, connect and send events,
WMI clients and subscribers, and what a hostile peer would send.
"""

import contextlib
import ctypes
import os
import re
import socket
import struct
import threading
import time

from machine import WMI_HOST, wait_until
from ports import reserve_port

# What WMI answers, as the direct client prints it.
OK = "0x00000000"
FAILED = "0x80041001"
NOT_FOUND = "0x80041002"
ACCESS_DENIED = "0x80041003"
INVALID_CLASS = "0x80041010"
PROVIDER_LOAD_FAILURE = "0x80041013"
CALL_CANCELLED = "0x80041032"


# -- documents

ESC, BS = b"\x1b", b"\x08"
START = "<?xml version='1.0' encoding='UTF-8' standalone='no' ?>"
UPDATE_REQUEST = (START + "<request><type>updateInstances</type></request>").encode()


def framed(text):
    return ESC + (text if isinstance(text, bytes) else text.encode()) + BS


def fields_of(device_id, maker, fields):
    """The fields of a device; each of `fields` is a text, or (type word, text)."""
    fields = {"DeviceID": device_id, "ManufacturerName": maker, **fields}
    typed = {key: value if isinstance(value, tuple) else ("string", value)
             for key, value in fields.items()}
    return "".join(f'<field name="{key}" type="{word}">{value}</field>'
                   for key, (word, value) in typed.items())


def device(name="SCANNER1", cls="UPOS_Scanner", **fields):
    """One instance of an answer."""
    return f'<instance name="{cls}">{fields_of(name, "Veltran", fields)}</instance>'


def response(*instances):
    return "<response>" + "".join(instances) + "</response>"


NORMAL = framed(response(device()))


def event(device_id, kind="modifyInstance", cls="Scanner", code="", maker="Veltran"):
    """An event document for a datagram."""
    return (f'<event type="{kind}" classname="{cls}" modifyInstanceCode="{code}">'
            f"{fields_of(device_id, maker, {})}</event>")


def document(device_id, kind="addInstance", cls="Scanner", code="", maker="Veltran",
             provider="UPOS_LogicalDevice", start=START, **fields):
    """An event document for a stream."""
    return (f'{start}<event type="{kind}" classname="{cls}" modifyInstanceCode="{code}"'
            f' provider="{provider}">{fields_of(device_id, maker, fields)}</event>')


# -- device servers

def reset(connection):
    """Closes a connection so that the other side sees it reset."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


class Peer:
    """A device server that is asked: listens on 127.0.0.1 and answers each connection on a thread
    of its own.

    `answer` is what it answers with: bytes, or a function that gets (connection, request bytes).
    `requests` holds the bytes of each request, marks included, as they came.
    """

    def __init__(self, port=None, answer=NORMAL):
        self.answer = answer
        self.on_connect = None  # a function that takes the connection before its request is read
        self.requests = []
        self.connections = []
        self.port = port or reserve_port()
        self.listener = socket.socket()
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.listener.bind(("127.0.0.1", self.port))
        self.listener.listen(128)
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        with contextlib.suppress(OSError):
            while True:
                connection, _ = self.listener.accept()
                self.connections.append(connection)
                threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, connection):
        with contextlib.suppress(OSError), connection:
            if self.on_connect:
                self.on_connect(connection)
                return
            request = b""
            while not request.endswith(BS):
                piece = connection.recv(65536)
                if not piece:
                    break
                request += piece
            self.requests.append(request)
            if callable(self.answer):
                self.answer(connection, request)
            else:
                connection.sendall(self.answer)

    def close(self):
        """Nobody listens any more; a connect is refused from now on."""
        # A thread that waits in accept keeps the socket alive; a shutdown wakes it.
        with contextlib.suppress(OSError):
            self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        for connection in self.connections:
            with contextlib.suppress(OSError):
                connection.shutdown(socket.SHUT_RDWR)
        deadline = time.monotonic() + 10
        while True:
            with socket.socket() as probe:
                if probe.connect_ex(("127.0.0.1", self.port)) != 0:
                    return
            assert time.monotonic() < deadline, "the listening socket did not close"
            time.sleep(0.01)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


class DeviceServer:
    """A device server that connects: its connection to the event port."""

    def __init__(self, port):
        def connected():
            try:
                return socket.create_connection(("127.0.0.1", port))
            except ConnectionRefusedError:
                return None
        self.connection = wait_until(connected, "the service to listen")
        self.connection.settimeout(20)

    def send(self, *documents):
        self.connection.sendall("".join(documents).encode())

    def receive(self, size):
        received = b""
        while len(received) < size:
            part = self.connection.recv(size - len(received))
            if not part:
                break
            received += part
        return received

    def close(self):
        self.connection.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


@contextlib.contextmanager
def sender_in_order():
    """A socket whose datagrams arrive in the order in which this thread sends them: from one
    processor, since each has a queue of its own for what the machine sends to itself."""
    processors = os.sched_getaffinity(0)
    os.sched_setaffinity(0, {min(processors)})
    try:
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            yield sender
    finally:
        os.sched_setaffinity(0, processors)


def send(port, *datagrams):
    """Sends datagrams to the event port, in order; an event document is given as text."""
    with sender_in_order() as sender:
        for datagram in datagrams:
            sender.sendto(framed(datagram) if isinstance(datagram, str) else datagram,
                          ("127.0.0.1", port))


# -- WMI clients

def ask(machine, *arguments):
    """A call of the direct client, of which each machine keeps one."""
    if not hasattr(machine, "asking"):
        machine.asking = machine.start_wmi_client()
    return machine.asking.run(*arguments)


def status_of(done):
    """The HRESULT that ended the direct client's call."""
    return OK if done.returncode == 0 else done.out.split()[-1]


def table(done):
    """What the direct client printed before its end: a row of {property: text} an instance."""
    lines = [line for line in done.stdout.decode().replace("\r", "").split("\n") if "\t" in line]
    header = lines[0].split("\t") if lines else []
    return [dict(zip(header, line.split("\t"), strict=True)) for line in lines[1:]]


def listing(machine, class_name, *properties):
    """The instances of a class, of at least two properties, and the status at the end."""
    done = ask(machine, "list", class_name, *properties)
    return table(done), status_of(done)


def names(machine, class_name):
    """The ids that a list of a class gives, and the status at the end."""
    found, status = listing(machine, class_name, "DeviceID", "ModelName")
    return [row["DeviceID"] for row in found], status


def fetched(machine, path):
    """The properties of the object that the path names, with __PATH; or the status of a failure."""
    done = ask(machine, "get", path)
    if done.returncode != 0:
        return status_of(done)
    lines = done.stdout.decode().replace("\r", "").splitlines()
    return dict(line.split(" = ", 1) for line in lines)


def counters(machine):
    """What the stand-in knows of its objects in the service, and of the service's mistakes."""
    known = {name: machine.wmi_counter(name)
             for name in ("LiveObjects", "LiveServices", "LiveSinks", "Violations")}
    return {**known, "LastViolation": machine.query_registry(f"{WMI_HOST}\\Counters",
                                                             "LastViolation")}


# -- subscribers

EVENT = re.compile(
    r'QuillmonEvent classname="(.*)" deviceid="(.*)" eventtype="(.*)" codename="(.*)"')


def events_until(watcher, device_id):
    """The events before the one of that device, each (classname, deviceid, eventtype, codename):
    whoever sends that one last also sees what did not arrive."""
    seen = []
    for line in watcher.stdout:
        found = EVENT.fullmatch(line.decode().rstrip("\r\n"))
        assert found, line
        if found[2] == device_id:
            return seen
        seen.append(found.groups())
    raise AssertionError(f"no event of {device_id}, but {seen}")


def published(till, watcher, *datagrams):
    """What subscribers get for these datagrams, and nothing that comes later."""
    send(till.events, *datagrams, event("END"))
    return events_until(watcher, "END")


def plain(device_id):
    """What subscribers get for event(device_id)."""
    return ("Scanner", device_id, "modifyInstance", "")


def next_event(watcher):
    """What a subscriber gets: (deviceid, eventtype, codename)."""
    line = watcher.stdout.readline().decode().rstrip("\r\n")
    found = EVENT.fullmatch(line)
    assert found, f"no event, but {line!r}"
    return found.groups()[1:]


def published_in_stream(server, watcher, *documents):
    """What subscribers get for these documents."""
    server.send(*documents, document("END"), document("END", "delInstance"))
    seen = []
    while (each := next_event(watcher))[0] != "END":
        seen.append(each)
    next_event(watcher)  # its deletion
    return seen


def settle(machine, server):
    """Returns once all that was sent before on this connection is in the cache."""
    path = 'UPOS_LogicalDevice.DeviceID="SETTLED"'
    server.send(document("SETTLED"))
    wait_until(lambda: fetched(machine, path) != FAILED, "the cache to learn of a device")
    server.send(document("SETTLED", "delInstance"))
    wait_until(lambda: fetched(machine, path) == FAILED, "the cache to forget a device")


def forget(machine, server, *device_ids):
    server.send(*(document(device_id, "delInstance") for device_id in device_ids))
    settle(machine, server)


# -- the installed service with its peers

SCANNER = [["SCANNER1"]]


def rows(out):
    """The values that the client printed, without the names."""
    return [line.split("\t") for line in out.decode().replace("\r\n", "\n").split("\n")[1:] if line]


class Setting:
    """The service in the adapter strategy on a machine, its device server, and a client."""

    def __init__(self, machine):
        self.machine = machine
        self.peer = Peer()
        self.event_port = reserve_port()
        self.configure()
        machine.install_service()
        machine.wait_for_event_port(self.event_port)
        self.client = machine.start_wmi_client()

    def configure(self, **keys):
        self.machine.configure(**{
            "upos__requestSocket__Port": self.peer.port,
            "provider__eventSocket__Port": self.event_port,
            "provider__maxQueryThreads": 2, **keys})

    @staticmethod
    def result(done):
        """A client's rows, or the code that its call failed with."""
        return rows(done.stdout) if done.returncode == 0 else status_of(done)

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

    def memory_peak(self):
        return self.machine.service_memory_peak()


# -- hostile peers

PLACES = ["file:///C:/secret.txt", "C:\\secret.txt", "C:/secret.txt", "/secret.txt", "secret.txt",
          "file://localhost/C:/secret.txt", "../secret.txt", "http://127.0.0.1:{port}/secret.txt",
          "//127.0.0.1:{port}/secret.txt"]


class Watched:
    """A file of which each opening is seen, and a listener of which each connection is."""

    def __init__(self, file):
        file.write_text("<!ENTITY a 'secret'>")
        self.libc = ctypes.CDLL(None, use_errno=True)
        self.notices = self.libc.inotify_init1(os.O_NONBLOCK)
        assert self.notices >= 0
        in_open = 0x20
        assert self.libc.inotify_add_watch(self.notices, os.fsencode(file), in_open) >= 0
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.listener.setblocking(False)
        self.port = self.listener.getsockname()[1]
        file.read_text()
        socket.create_connection(("127.0.0.1", self.port)).close()
        assert self.seen() == ["opened", "connected"]  # so it would be seen

    def seen(self):
        found = []
        with contextlib.suppress(BlockingIOError):
            os.read(self.notices, 4096)
            found.append("opened")
        with contextlib.suppress(BlockingIOError):
            self.listener.accept()[0].close()
            found.append("connected")
        return found

    def close(self):
        os.close(self.notices)
        self.listener.close()
