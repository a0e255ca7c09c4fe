"""quillmon.properties: whatever it holds, the service starts, with the values that Windows'
private-profile reader finds in it."""

import contextlib
import errno
import socket
import time

import pytest

from machine import SERVICE, wait_until
from peers import FAILED, Peer, event, events_until, plain, send
from ports import reserve_port, reserve_this_port

REQUEST_PORT, EVENT_PORT = 42115, 42114  # where nothing else is configured
THREADS = "provider.maxQueryThreads"
EVENTS = "provider.eventSocket.Port"
REQUESTS = "upos.requestSocket.Port"
RETRY = "upos.requestSocket.retryTimeout"
SEMAPHORE = "<<CProvider_IWbemServices::Initialize>> * Creating Semaphore with size: "
TIMEOUT = "<<configureTimers>>: Timeout is "
SKIPPED = "<<XMLAdapter>>: Just recently Java failed, I will skip it for now..."
EXPIRED = "<<TimeoutExpired>>: Timeout expired! Java drivers will be hit again."


class Configured:
    """The installed service at rest, tracing once it runs, and its configuration file."""

    def __init__(self, machine):
        self.machine = machine
        self.folder = machine.c / "POS" / "JavaPOS" / "Config"
        self.file = self.folder / "quillmon.properties"
        self.folder.mkdir(parents=True)
        self.peer = Peer()
        self.events = reserve_port()
        machine.switch_trace_on()
        machine.install_service()
        self.client = machine.start_wmi_client()

    def write(self, content):
        self.file.write_bytes(content.encode("latin-1") if isinstance(content, str) else content)

    def keys(self, **values):
        """A file of working ports, and of `values` (None: left out), each as it stands there."""
        keys = {REQUESTS: self.peer.port, EVENTS: self.events, RETRY: 1,
                **{key.replace("__", "."): value for key, value in values.items()}}
        self.write("[default]\r\n" + "".join(
            f"{key}={value}\r\n" for key, value in keys.items() if value is not None))

    def start(self):
        """Starts the service afresh, with a log of its own; returns once its event port is open or
        was refused."""
        self.machine.end_service()
        self.machine.log.unlink(missing_ok=True)
        assert self.machine.run("sc", "start", SERVICE).returncode == 0
        self.machine.wait_for_trace("[RegisterDecoupledInstance] exit t_Result = 0")
        wait_until(
            lambda: self.open_ports() or "[EventThread] Unable" in self.machine.log.read_text(),
            "the event port to be opened or refused")

    def open_ports(self):
        return self.machine.service_datagram_ports()

    def list(self):
        """Whether the device server was asked and its answer arrived."""
        done = self.client.run("list", "UPOS_Scanner", "DeviceID")
        if done.returncode != 0:
            assert done.out.split()[-1] == FAILED, done.out
            return False
        assert done.out.splitlines() == ["DeviceID", "SCANNER1"]
        return True

    def count(self, message):
        return self.machine.trace().count(message)

    def traced(self, beginning):
        """What follows `beginning` in the one message that begins so."""
        (message,) = [message for message in self.machine.trace() if message.startswith(beginning)]
        return message[len(beginning):]


@pytest.fixture(scope="module")
def installed(shared_machine):
    configured = Configured(shared_machine)
    yield configured
    configured.peer.close()


@pytest.fixture
def configured(installed):
    installed.machine.end_service()
    if installed.file.is_dir():
        installed.file.rmdir()
    installed.file.unlink(missing_ok=True)
    installed.folder.mkdir(parents=True, exist_ok=True)
    return installed


# -- upos.requestSocket.Port, which is read for each request

@pytest.fixture(scope="module")
def running(installed):
    """The service, running; each test sets what it needs of the file."""
    installed.keys()
    installed.start()
    assert installed.list()
    return installed


PORT_TEXTS = {
    "plain": "{port}",
    "between blanks": " \t {port} \t ",
    "in double quotes": '"{port}"',
    "in single quotes": "'{port}'",
    "with a plus": "+{port}",
    "with zeros": "000{port}",
    "up to a letter": "{port}abc",
    "up to a point": "{port}.9",
    "up to a blank": "{port} 17",
    "up to a semicolon": "{port};17",
    "beyond 16 bits is cut": "{plus_16_bits}",
    "negative is cut": "{minus_16_bits}",
    "beyond 32 bits is cut": "{plus_32_bits}",
}


@pytest.mark.parametrize("text", PORT_TEXTS.values(), ids=PORT_TEXTS.keys())
def test_a_request_port_that_reads_as_the_device_server_s_reaches_it(running, text):
    port = running.peer.port
    running.keys(**{REQUESTS: text.format(
        port=port, plus_16_bits=port + 2 ** 16, minus_16_bits=port - 2 ** 16,
        plus_32_bits=port + 2 ** 32)})
    assert running.list()


@pytest.mark.parametrize("text", ["many", "0", "65536", "x{port}", "\"\"{port}", "%d", "=", "-"])
def test_a_request_port_that_reads_as_0_reaches_nobody(running, text):
    asked = len(running.peer.connections)
    running.keys(**{REQUESTS: text.format(port=running.peer.port)})
    running.machine.log.write_bytes(b"")
    assert not running.list()
    assert len(running.peer.connections) == asked
    assert running.traced("<<XMLAdapter>>: Unable to connect to socket! aborting (Reason: ")
    running.machine.wait_for_trace(EXPIRED)  # until then the next request would be skipped


def test_a_request_port_that_is_changed_counts_for_the_next_request(running):
    with Peer() as second:
        running.keys(**{REQUESTS: second.port})
        assert running.list()
        assert len(second.requests) == 1
        running.keys()
        assert running.list()
        assert len(second.requests) == 1


SHAPES = {
    "line feeds only": "[default]\n{key}={port}\n",
    "no end of the last line": "[default]\r\n{key}={port}",
    "blanks everywhere": "  [default]  \r\n\r\n\t {key} \t=\t {port} \r\n",
    "upper case": "[DEFAULT]\r\n{KEY}={port}\r\n",
    "the first of two keys": "[default]\r\n{key}={port}\r\n{key}=1\r\n",
    "the first of two sections": "[default]\r\n{key}={port}\r\n[default]\r\n{key}=1\r\n",
    "behind another section": "[other]\r\n{key}=1\r\n[default]\r\n{key}={port}\r\n",
    "behind nonsense": "no section\r\n[default]\r\nno key\r\n=1\r\n[\r\n]\r\n{key}={port}\r\n",
    "behind a comment": "; a\r\n[default]\r\n;{key}=1\r\n#{key}=1\r\n{key}={port}\r\n",
    "behind an endless line": "x" * 100000 + "\r\n[default]\r\n{key}={port}\r\n",
    "behind an endless value": "[default]\r\na=" + "x" * 100000 + "\r\n{key}={port}\r\n",
    "among many keys": "[default]\r\n" + "".join(
        f"key{i}={i}\r\n" for i in range(5000)) + "{key}={port}\r\n",
}


@pytest.mark.parametrize("shape", SHAPES.values(), ids=SHAPES.keys())
def test_the_key_is_found(running, shape):
    running.write(shape.format(key=REQUESTS, KEY=REQUESTS.upper(), port=running.peer.port))
    assert running.list()


def test_the_key_is_found_behind_a_byte_order_mark_and_a_line_end(running):
    running.write(b"\xef\xbb\xbf\r\n[default]\r\n" + f"{REQUESTS}={running.peer.port}".encode())
    assert running.list()


def test_the_key_is_found_in_utf_16(running):
    running.write(f"[default]\r\n{REQUESTS}={running.peer.port}\r\n".encode("utf-16"))
    assert running.list()


@pytest.fixture(scope="module")
def at_default(installed):
    """A device server at the port that holds where none is configured."""
    reserve_this_port(REQUEST_PORT)
    with Peer(REQUEST_PORT) as peer:
        yield peer


def times_listed(peer):
    """How often it was asked for scanners. Services of other tests, too, have moments without a
    configuration; those ask for all devices."""
    return sum(b"<class>UPOS_Scanner</class>" in request for request in peer.requests)


DEFAULTS = {
    "an empty file": "",
    "an empty section": "[default]\r\n",
    "an empty value": "[default]\r\n{key}=\r\n",
    "a blank value": "[default]\r\n{key}= \t \r\n",
    "no section, as in Java": "{key}={port}\r\n",
    "a colon, as in Java": "[default]\r\n{key}: {port}\r\n",
    "a blank, as in Java": "[default]\r\n{key} {port}\r\n",
    "another section": "[Default Section]\r\n{key}={port}\r\n",
    "a section without its bracket": "[default\r\n{key}={port}\r\n",
    "another section below": "[default]\r\n[other]\r\n{key}={port}\r\n",
    "a comment": "[default]\r\n;{key}={port}\r\n",
    "a number sign": "[default]\r\n#{key}={port}\r\n",
    "a key that goes on": "[default]\r\n{key}s={port}\r\n",
    "any bytes": bytes(range(256)).decode("latin-1") * 10,
}


@pytest.mark.parametrize("content", DEFAULTS.values(), ids=DEFAULTS.keys())
def test_the_default_request_port_holds(running, at_default, content):
    asked = times_listed(at_default)
    if REQUESTS in content or "{key}" in content:
        content = content.format(key=REQUESTS, port=running.peer.port)
    running.write(content)
    assert running.list()
    assert times_listed(at_default) == asked + 1


# -- what is read at the start

@contextlib.contextmanager
def occupied(port):
    """A UDP port that is taken by this test."""
    reserve_this_port(port)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as holder:
        holder.bind(("0.0.0.0", port))
        yield


NO_FILES = {
    "no file": lambda configured: None,
    "no folder": lambda configured: configured.folder.rmdir(),
    "a folder in its place": lambda configured: configured.file.mkdir(),
    "an empty file": lambda configured: configured.write(""),
    "another section": lambda configured: configured.write(
        f"[other]\r\n{THREADS}=7\r\n{EVENTS}=7\r\n{REQUESTS}=7\r\n{RETRY}=7\r\n"),
    "empty values": lambda configured: configured.write(
        f"[default]\r\n{THREADS}=\r\n{EVENTS}=\r\n{REQUESTS}=\r\n{RETRY}=\r\n"),
}


@pytest.mark.parametrize("make", NO_FILES.values(), ids=NO_FILES.keys())
def test_without_configuration_every_default_holds(configured, at_default, make):
    make(configured)
    asked = times_listed(at_default)
    with occupied(EVENT_PORT):
        configured.start()
        assert configured.traced("[EventThread] Unable to open event port ") == (
            "42114, next attempt in 1000 milliseconds")
        assert configured.list()
    assert times_listed(at_default) == asked + 1
    assert configured.traced(SEMAPHORE) == "1 *\n"
    assert configured.traced(TIMEOUT) == "10000 milliseconds."


@pytest.mark.parametrize("threads, size, retry, milliseconds", [
    ("2", 2, "3000", 3000),
    (" 7\t", 7, "3000 ms", 3000),
    ('"3"', 3, "'3000'", 3000),
    ("2x", 2, "1.9", 1),
    ("", 1, "", 10000),
    ("+4", 4, "+5", 5),
    ("4294967298", 2, "soon", 0),
    ("2147483647", 2147483647, "4294967296", 0),
    ("2147483648", -2147483648, "2147483648", -2147483648),
    ("-1", -1, "-1", -1),
    ("99999999999", 1215752191, "99999999999", 1215752191),
])
def test_the_threads_and_the_retry_timeout_are_read_as_32_bits(
        configured, threads, size, retry, milliseconds):
    configured.keys(**{THREADS: threads, RETRY: retry})
    configured.start()
    # A number below 0 makes no semaphore, and without one everybody is admitted.
    assert configured.list()
    assert configured.traced(SEMAPHORE) == f"{size} *\n"
    assert configured.traced(TIMEOUT) == f"{milliseconds} milliseconds."


@pytest.mark.parametrize("threads", ["0", "many", "%d", "4294967296"])
def test_threads_that_read_as_0_admit_nobody(configured, threads):
    configured.keys(**{THREADS: threads})
    configured.start()
    client = configured.machine.start_list("UPOS_Scanner")
    configured.machine.wait_for_trace(") created")
    assert configured.traced(SEMAPHORE) == "0 *\n"
    time.sleep(0.5)  # an admitted request would be answered by then
    assert configured.machine.trace()[-1].endswith(") created")
    client.kill()


def test_a_retry_timeout_of_0_tries_each_request(configured):
    configured.keys(**{RETRY: "0", REQUESTS: reserve_port()})
    configured.start()
    for count in (1, 2, 3):
        assert not configured.list()
        wait_until(lambda: configured.count(EXPIRED) == count, "the pause to end")
    assert configured.count("<<XMLAdapter>>: Creating socket") == 3
    assert configured.count(SKIPPED) == 0


@pytest.mark.parametrize("retry", ["-1", "2147483648"])
def test_a_retry_timeout_below_0_is_a_pause_of_weeks(configured, retry):
    configured.keys(**{RETRY: retry, REQUESTS: reserve_port()})
    configured.start()
    assert not configured.list()
    configured.keys()  # the device server is back
    for _ in range(2):
        assert not configured.list()
    assert configured.count(SKIPPED) == 2
    assert configured.count(EXPIRED) == 0


EVENT_PORT_TEXTS = {
    "between blanks": "  {port}  ",
    "in double quotes": '"{port}"',
    "up to a letter": "{port}abc",
    "beyond 16 bits is cut": "{plus_16_bits}",
    "negative is cut": "{minus_16_bits}",
    "beyond 32 bits is cut": "{plus_32_bits}",
}


@pytest.mark.parametrize("text", EVENT_PORT_TEXTS.values(), ids=EVENT_PORT_TEXTS.keys())
def test_an_event_port_that_reads_as_a_free_one_is_opened(configured, text):
    port = configured.events
    configured.keys(**{EVENTS: text.format(
        port=port, plus_16_bits=port + 2 ** 16, minus_16_bits=port - 2 ** 16,
        plus_32_bits=port + 2 ** 32)})
    configured.start()
    wait_until(lambda: configured.open_ports() == {port}, "the event port")
    assert configured.list()


def test_without_a_configured_event_port_events_arrive_at_42114(configured):
    reserve_this_port(EVENT_PORT)
    configured.keys(**{EVENTS: None})
    configured.start()
    watcher = configured.machine.watch_events()
    send(EVENT_PORT, event("A"), event("END"))
    assert events_until(watcher, "END") == [plain("A")]
    watcher.kill()


@pytest.mark.parametrize("text", ["many", "0", "65536"])
def test_an_event_port_that_reads_as_0_is_any_free_one(configured, text):
    configured.keys(**{EVENTS: text})
    configured.start()
    wait_until(lambda: len(configured.open_ports()) == 1, "an event port")
    assert configured.open_ports().isdisjoint({0, configured.events, EVENT_PORT})
    assert configured.list()


def test_an_event_port_that_is_changed_counts_from_the_next_start(configured):
    configured.keys()
    configured.start()
    wait_until(lambda: configured.open_ports() == {configured.events}, "the event port")
    other = reserve_port()
    configured.keys(**{EVENTS: other})
    assert configured.list()
    assert configured.open_ports() == {configured.events}
    configured.start()
    wait_until(lambda: configured.open_ports() == {other}, "the other event port")


@pytest.mark.parametrize("ip, frequency", [
    ("", ""), ("nonsense", "often"), ("%s%n" + "x" * 5000, "-99999999999")],
    ids=["empty", "nonsense", "endless"])
def test_the_proxy_strategy_s_keys_do_not_matter_without_it(configured, ip, frequency):
    configured.keys(**{"provider.eventSocket.IP": ip, "provider.dataUpdate.frequency": frequency})
    configured.start()
    wait_until(lambda: configured.open_ports() == {configured.events}, "the event port")
    assert configured.list()


def refuses(address, port):
    with contextlib.closing(socket.socket()) as connection:
        return connection.connect_ex((address, port)) == errno.ECONNREFUSED


@pytest.mark.parametrize("keys", [{}, {"provider__eventSocket__IP": "127.0.0.3"}],
                         ids=["by default", "as configured"])
def test_the_proxy_strategy_listens_on_one_address_and_by_default_at_42114(machine, keys):
    reserve_this_port(EVENT_PORT)
    machine.configure(**keys)
    machine.install_service()
    machine.choose_option("-o")
    machine.restart_service(EVENT_PORT)
    addresses = ["127.0.0.1", "127.0.0.2", "127.0.0.3"]
    assert [each for each in addresses if not refuses(each, EVENT_PORT)] == (
        list(keys.values()) or addresses[:1])


def test_the_file_is_looked_for_on_the_current_drive(configured, tmp_path):
    configured.keys()
    configured.machine.log.unlink(missing_ok=True)
    # The host's files are drive Z:, and there is no \POS on it.
    with occupied(EVENT_PORT):
        console = configured.machine.start_quillmon("-d", cwd=tmp_path)
        configured.machine.wait_for_trace("[EventThread] Unable to open event port 42114,")
        console.kill()
        console.wait()
