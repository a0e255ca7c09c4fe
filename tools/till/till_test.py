"""quillmon-till as a program, over real sockets.

QUILLMON_TILL names it: the words of the command, parted by | (an emulator may come first).
"""

import contextlib
import os
import queue
import re
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import xml.etree.ElementTree as ElementTree
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "tests" / "system"))

from ports import reserve_port  # noqa: E402

PROGRAM = [word for word in os.environ["QUILLMON_TILL"].split("|") if word]
ESC, BS = b"\x1b", b"\x08"
PATIENCE = 30  # seconds; only ever waited for when something is broken
RESETS = (ConnectionResetError, ConnectionAbortedError)

INVENTORY = """<till>
  <device class="UPOS_Scanner" id="S1">
    <field name="ManufacturerName" type="string">Veltran</field>
    <field name="GoodScanCount" type="uint32">7</field>
  </device>
  <device class="UPOS_Scale" id="W1">
    <field name="ManufacturerName" type="string">ORVEX</field>
  </device>
  <device class="UPOS_MSR" id="M1" attached="false">
    <field name="ManufacturerName" type="string">ORVEX</field>
  </device>
</till>
"""

SCALES = (
    b'<?xml version="1.0" encoding="UTF-8"?><response><instance name="UPOS_Scale">'
    b'<field name="DeviceID" type="string">W1</field>'
    b'<field name="ManufacturerName" type="string">ORVEX</field></instance></response>'
)


DECLARATION = b"<?xml version='1.0' encoding='UTF-8' standalone='no' ?>"
UPDATE_REQUEST = DECLARATION + b"<request><type>updateInstances</type></request>"


def event(kind, code, category, device, maker, more=""):
    return DECLARATION + (
        f'<event type="{kind}" classname="{category}" modifyInstanceCode="{code}" '
        f'provider="UPOS_{category}"><field name="DeviceID" type="string">{device}</field>'
        f'<field name="ManufacturerName" type="string">{maker}</field>{more}</event>'
    ).encode()


def device_event(kind, device, code=""):
    """As it goes out on a stream: with all fields of the inventory's device."""
    return event(kind, code, *{
        "S1": ("Scanner", "S1", "Veltran", '<field name="GoodScanCount" type="uint32">7</field>'),
        "W1": ("Scale", "W1", "ORVEX"), "M1": ("MSR", "M1", "ORVEX")}[device])


ATTACHED = device_event("addInstance", "S1") + device_event("addInstance", "W1")
CHANGES = [device_event("modifyInstance", "S1", str(code)) for code in (1, 2, 3)]
REFRESHED = device_event("modifyInstance", "S1") + device_event("modifyInstance", "W1")


def request(kind, class_name, device=None):
    text = f"<request><type>{kind}</type><class>{class_name}</class>"
    return (text + (f"<id>{device}</id>" if device else "") + "</request>").encode()


ASK = request("enumerateInstances", "UPOS_Scale")


class Program:
    """A running quillmon-till."""

    def __init__(self, folder, *arguments, no_stdin=False):
        self.process = subprocess.Popen(
            [*PROGRAM, *arguments, *(["--no-stdin"] if no_stdin else [])],
            cwd=folder, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.lines = queue.Queue()
        self.errors = queue.Queue()
        self.readers = [
            threading.Thread(target=self._read, args=each)
            for each in ((self.process.stdout, self.lines), (self.process.stderr, self.errors))]
        for reader in self.readers:
            reader.start()

    @staticmethod
    def _read(stream, lines):
        for line in stream:
            lines.put(line.decode().rstrip("\r\n"))
        lines.put(None)

    def expect(self, pattern, lines=None):
        """Waits for a whole line that matches; those before it are dropped."""
        seen = []
        while True:
            line = (lines or self.lines).get(timeout=PATIENCE)
            if line is None:
                raise AssertionError(f"no line like {pattern!r} in {seen}; errors: "
                                     f"{list(self.errors.queue)}")
            seen.append(line)
            if match := re.fullmatch(pattern, line):
                return match

    def expect_error(self, pattern):
        return self.expect(pattern, self.errors)

    def type(self, line):
        self.process.stdin.write(line.encode() + b"\n")
        self.process.stdin.flush()

    def wait(self):
        code = self.process.wait(PATIENCE)
        for reader in self.readers:
            reader.join(PATIENCE)
        return code

    def expect_end(self):
        """Nothing more was said before it ended."""
        assert self.wait() == 0
        assert list(self.lines.queue) == list(self.errors.queue) == [None]

    def memory(self):
        with open(f"/proc/{self.process.pid}/status") as status:
            return int(re.search(r"VmRSS:\s+(\d+) kB", status.read())[1]) * 1024

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
        self.wait()
        for each in (self.process.stdin, self.process.stdout, self.process.stderr):
            with contextlib.suppress(BrokenPipeError):
                each.close()


class Till(Program):
    """In the adapter role, with an event port of its own."""

    def __init__(self, folder, *options, port=0, inventory="till.xml", **more):
        self.events = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.events.bind(("127.0.0.1", 0))
        self.events.settimeout(PATIENCE)
        super().__init__(folder, inventory, "--request-port", str(port),
                         "--event-port", str(self.events.getsockname()[1]), *options, **more)
        self.port = int(self.expect(r"quillmon-till: ready: requests on 127\.0\.0\.1:(\d+), .*")[1])

    def misbehave(self, mode):
        self.type(f"misbehave {mode}")
        self.expect(f"answers from now on: {mode}")

    def event(self):
        return self.events.recv(65536)

    def connect(self):
        return socket.create_connection(("127.0.0.1", self.port), PATIENCE)

    def exchange(self, message):
        """Sends a framed message; all bytes that come back until the connection ends."""
        with self.connect() as client:
            client.sendall(ESC + message + BS)
            return receive_all(client)

    def ask(self, *words):
        """The ids of the instances in the answer to a request, or the error's name."""
        return parse(self.exchange(request(*words)))

    def close(self):
        super().close()
        self.events.close()


class Service:
    """The event port of a service in the proxy strategy; one till connects to it at a time."""

    def __init__(self, port=None):
        self.port = port or reserve_port()
        self.listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.listener.bind(("127.0.0.1", self.port))
        self.client = None

    def listen(self):
        # A window of its own for each connection: what is not read soon waits in the till.
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 65536)
        self.listener.listen()
        self.listener.settimeout(PATIENCE)

    def accept(self):
        self.hang_up()
        self.client = self.listener.accept()[0]
        self.client.settimeout(PATIENCE)
        self.client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def send(self, text):
        self.client.sendall(text)

    def receive(self, size):
        """That many bytes, or fewer when the connection ends."""
        received = b""
        while len(received) < size and (piece := self.client.recv(size - len(received))):
            received += piece
        return received

    def expect(self, *documents):
        expected = b"".join(documents)
        received = self.receive(len(expected))
        assert received == expected, received

    def is_silent(self, seconds=0.3):
        self.client.settimeout(seconds)
        try:
            return not self.client.recv(1)
        except TimeoutError:
            return True
        finally:
            self.client.settimeout(PATIENCE)

    def hang_up(self):
        if self.client:
            self.client.close()
        self.client = None

    def close(self):
        self.hang_up()
        self.listener.close()


def receive_all(client):
    received = b""
    while piece := client.recv(65536):
        received += piece
    return received


def least_time_in_pieces(message):
    """Seconds in which no till sends it in pieces of 64 bytes, 10 ms apart: how many receives it
    takes says nothing, since pieces come together on the way."""
    return 0.8 * 0.01 * ((len(message) - 1) // 64)


def parse(answer):
    assert answer[:1] == ESC and answer[-1:] == BS, answer
    root = ElementTree.fromstring(answer[1:-1])
    assert root.tag == "response", answer
    error = root.find("error")
    return error.get("name") if error is not None else [each[0].text for each in root]


class TillTestCase(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.write("till.xml", INVENTORY)

    def write(self, name, text):
        with open(os.path.join(self.folder, name), "w", encoding="utf-8", newline="\n") as file:
            file.write(text)

    def start(self, *options, **more):
        till = Till(self.folder, *options, **more)
        self.addCleanup(till.close)
        return till

    def run_to_end(self, *arguments):
        """Exit code, standard output and error output of a run that ends by itself."""
        done = subprocess.run([*PROGRAM, *arguments], cwd=self.folder, capture_output=True,
                              stdin=subprocess.DEVNULL, timeout=PATIENCE)
        return (done.returncode, done.stdout.decode().replace("\r", ""),
                done.stderr.decode().replace("\r", ""))


class AdapterTest(TillTestCase):
    # Requests

    def test_answers_exactly_one_framed_document(self):
        till = self.start()
        self.assertEqual(till.exchange(ASK), ESC + SCALES + BS)
        till.expect(r"request enumerateInstances UPOS_Scale -> 1 instance, %d bytes" % len(SCALES))

    def test_lists_classes_and_finds_devices(self):
        till = self.start()
        for words, devices in (
                (("enumerateInstances", "UPOS_Scanner"), ["S1"]),
                (("enumerateInstances", "UPOS_LogicalDevice"), ["S1", "W1"]),
                (("enumerateInstances", "UPOS_PINPad"), []),
                (("getInstance", "UPOS_Scanner", "S1"), ["S1"]),
                (("getInstance", "UPOS_LogicalDevice", "W1"), ["W1"]),
                (("getInstance", "UPOS_Scanner", "W1"), []),
                (("getInstance", "UPOS_Scanner", "s1"), []),
                (("getInstance", "UPOS_MSR", "M1"), []),
                (("getInstance", "UPOS_Scanner", "no\nsuch"), [])):
            self.assertEqual(till.ask(*words), devices, words)
        till.expect(r"request getInstance UPOS_Scanner no\\x0asuch -> 0 instances, \d+ bytes")

    def test_answers_with_an_error_what_it_cannot_answer(self):
        till = self.start()
        self.assertEqual(till.ask("enumerateInstanceNames", "UPOS_Scale"),
                         "unknown request type 'enumerateInstanceNames'")
        till.expect(r"request refused: unknown request type 'enumerateInstanceNames'")
        for nonsense in (b"", b"rubbish", b"<request>", b"\x00\x01\xff", b"<request/>",
                         b"<!DOCTYPE r [<!ENTITY e 'x'>]><request><type>&e;</type></request>",
                         b"<a>" * 100000):
            error = parse(till.exchange(nonsense))
            self.assertTrue(error.startswith("malformed request: "), error)
            till.expect(r"request refused: malformed request: .*")
        self.assertEqual(till.ask("enumerateInstances", "UPOS_Scale"), ["W1"])

    def test_reads_a_request_in_pieces_with_noise_around_it(self):
        till = self.start()
        with till.connect() as client:
            client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            for byte in b"noise\x08\x00" + ESC + ASK + BS + b"more":
                client.send(bytes([byte]))
            self.assertEqual(receive_all(client), ESC + SCALES + BS)

    def test_refuses_a_request_of_more_than_one_mebibyte(self):
        till = self.start()
        for start in (ESC, b""):
            with till.connect() as client:
                # Whether all of it can be sent is the till's choice; the answer must arrive.
                with contextlib.suppress(*RESETS, BrokenPipeError):
                    client.sendall(start + b"x" * (2 * 1024 * 1024))
                self.assertEqual(parse(receive_all(client)), "larger than 1 MiB")
            till.expect(r"request refused: larger than 1 MiB")
        largest = request("getInstance", "UPOS_Scale", "x" * 1000000)
        self.assertEqual(parse(till.exchange(largest)), [])

    def test_answers_many_clients_at_once_while_others_dawdle(self):
        till = self.start()
        with contextlib.ExitStack() as stack:
            for _ in range(20):
                stack.enter_context(till.connect()).sendall(ESC + b"<request>")
            clients = [stack.enter_context(till.connect()) for _ in range(50)]
            for number, client in enumerate(clients):
                client.sendall(ESC + request("enumerateInstances",
                                             ("UPOS_Scale", "UPOS_Scanner")[number % 2]))
            for client in reversed(clients):
                client.sendall(BS)
            for number, client in enumerate(clients):
                self.assertEqual(parse(receive_all(client)), [("W1", "S1")[number % 2]])

    def test_refuses_too_many_connections_and_recovers(self):
        till = self.start()
        with contextlib.ExitStack() as stack:
            for _ in range(256):
                stack.enter_context(till.connect())
            with till.connect() as one_more:
                with contextlib.suppress(*RESETS):
                    self.assertEqual(one_more.recv(1), b"")
            till.expect(r"connection dropped: too many at once")
        for _ in range(256):
            till.expect(r"connection dropped: it ended without a request")
        self.assertEqual(till.ask("enumerateInstances", "UPOS_Scale"), ["W1"])

    def test_gives_up_on_a_client_that_does_not_send(self):
        till = self.start("--request-timeout", "200")
        with till.connect() as client:
            client.sendall(ESC + b"<request>")
            self.assertEqual(receive_all(client), b"")
        till.expect(r"connection dropped: no whole request in time")

    def test_gives_up_on_a_client_that_does_not_read(self):
        till = self.start("--misbehave", "huge 50000", "--request-timeout", "1000")
        with till.connect() as client:
            client.sendall(ESC + ASK + BS)
            till.expect(r"connection dropped: the client does not take the answer")
        till.misbehave("none")
        self.assertEqual(till.ask("enumerateInstances", "UPOS_Scale"), ["W1"])

    def test_notes_a_client_that_goes_away(self):
        till = self.start()
        with till.connect() as client:
            client.sendall(ESC + b"<request>")
        till.expect(r"connection dropped: it ended within the request")

    def test_closes_the_connection_although_the_client_does_not(self):
        till = self.start()
        with till.connect() as client:
            client.sendall(ESC + ASK + BS)
            self.assertEqual(receive_all(client), ESC + SCALES + BS)
            # The till has ended its side; a little later the connection is gone altogether.
            deadline = time.monotonic() + PATIENCE
            with self.assertRaises((*RESETS, BrokenPipeError)):
                while time.monotonic() < deadline:
                    client.send(b"x")
                    time.sleep(0.05)

    # Misbehaviour

    def test_misbehaves_with_its_answers(self):
        till = self.start()
        whole = ESC + SCALES + BS
        for mode, answer, least_time in (
                ("close-early", b"", 0), ("pieces", whole, least_time_in_pieces(whole)),
                ("byte-at-a-time", whole, 0), ("truncate", ESC + SCALES[:len(SCALES) // 2], 0),
                ("not-xml", ESC + b"This is no XML: <&" + BS, 0), ("slow 200", whole, 0.2),
                ("none", whole, 0)):
            till.misbehave(mode)
            before = time.monotonic()
            self.assertEqual(till.exchange(ASK), answer, mode)
            self.assertGreaterEqual(time.monotonic() - before, least_time, mode)
        till.misbehave("error")
        self.assertEqual(parse(till.exchange(ASK)), "simulated failure")
        till.misbehave("huge 20000")
        devices = parse(till.exchange(ASK))
        self.assertEqual((len(devices), devices[-1]), (20000, "HUGE020000"))

    def test_puts_garbage_around_the_frame(self):
        till = self.start("--misbehave", "garbage")
        before, _, rest = till.exchange(ASK).partition(ESC)
        message, _, after = rest.partition(BS)
        self.assertEqual(message, SCALES)
        self.assertIn(BS, before)
        self.assertIn(b"\0", before)
        self.assertIn(ESC, after)

    def test_stalls_until_the_client_goes(self):
        till = self.start("--misbehave", "stall", "--request-timeout", "1000")
        with till.connect() as client:
            client.sendall(ESC + ASK + BS)
            till.expect(r"request enumerateInstances .* \(stall\)")
            client.settimeout(1.5)
            with self.assertRaises(TimeoutError):
                client.recv(1)

    def test_resets_the_connection_on_demand(self):
        till = self.start("--misbehave", "reset")
        with self.assertRaises(RESETS):
            till.exchange(ASK)

    def test_a_slow_answer_holds_up_nobody_else(self):
        till = self.start("--misbehave", "slow 200000")
        with till.connect() as patient:
            patient.sendall(ESC + ASK + BS)
            till.expect(r"request .* \(slow 200000\)")
            till.misbehave("none")
            self.assertEqual(till.ask("enumerateInstances", "UPOS_Scale"), ["W1"])

    def test_misbehaves_with_its_events(self):
        till = self.start("--misbehave-events", "pieces")
        whole = ESC + event("modifyInstance", "1", "Scale", "W1", "ORVEX") + BS
        half = len(whole) // 2
        for mode, datagrams in (
                ("pieces", [whole[:half], whole[half:]]), ("twice", [whole + whole]),
                ("empty", [b"", whole]), ("truncate", [whole[:half]]),
                ("oversize", [ESC + b"x" * 4094 + BS]),
                ("not-xml", [ESC + b"This is no XML: <&" + BS]), ("none", [whole])):
            till.type(f"misbehave-events {mode}")
            till.type("change W1 1")
            self.assertEqual([till.event() for _ in datagrams], datagrams, mode)
        till.expect(r"event modifyInstance Scale W1 code 1, \d+ bytes \(pieces\)")
        till.type("misbehave-events garbage")
        till.type("change W1 1")
        before, _, after = till.event().partition(whole)
        self.assertTrue(before and after and ESC not in before)

    # Events and commands

    def test_sends_exactly_these_bytes(self):
        till = self.start()
        for line, document in (
                ("attach M1", event("addInstance", "", "MSR", "M1", "ORVEX")),
                ("change M1 1", event("modifyInstance", "1", "MSR", "M1", "ORVEX")),
                ("detach M1", event("delInstance", "", "MSR", "M1", "ORVEX")),
                ('event S1 oddEvent "<5>"',
                 event("oddEvent", "&lt;5&gt;", "Scanner", "S1", "Veltran"))):
            till.type(line)
            self.assertEqual(till.event(), ESC + document + BS)
        till.expect(r"event addInstance MSR M1, \d+ bytes")
        till.expect(r"event modifyInstance MSR M1 code 1, \d+ bytes")

    def test_attach_and_detach_change_the_list_and_an_event_on_demand_does_not(self):
        till = self.start()
        for line in ("attach M1", "detach S1", "event W1 delInstance"):
            till.type(line)
            till.event()
        self.assertEqual(till.ask("enumerateInstances", "UPOS_LogicalDevice"), ["W1", "M1"])
        self.assertEqual(till.ask("getInstance", "UPOS_Scanner", "S1"), [])

    def test_set_changes_the_answers(self):
        till = self.start()
        till.type('set W1 ModelName "Big & <heavy>"')
        till.type("set W1 ManufacturerName OEM")
        till.expect("set W1 ManufacturerName = OEM")
        answer = till.exchange(request("getInstance", "UPOS_Scale", "W1"))
        for name, value in (("ModelName", b"Big &amp; &lt;heavy&gt;"),
                            ("ManufacturerName", b"OEM")):
            self.assertIn(b'<field name="%b" type="string">%b</field>' % (name.encode(), value),
                          answer)

    def test_says_when_an_event_is_too_long_for_the_service(self):
        till = self.start()
        till.type("set S1 ManufacturerName " + "x" * 1000)
        till.type("change S1 1")
        till.expect_error(r"quillmon-till: the event has \d+ bytes: "
                          r"the service loses datagrams of more than 1024")

    def test_a_script_runs_in_order_with_its_waits(self):
        self.write("day.script", "# a day\r\nattach\tM1 \r\nwait 300\nchange M1 2\n  \n  #\n"
                                 'detach "M1"\nquit')
        before = time.monotonic()
        till = self.start("--script", "day.script", no_stdin=True)
        self.assertEqual(till.event(), ESC + event("addInstance", "", "MSR", "M1", "ORVEX") + BS)
        self.assertEqual(till.event(),
                         ESC + event("modifyInstance", "2", "MSR", "M1", "ORVEX") + BS)
        self.assertGreaterEqual(time.monotonic() - before, 0.3)
        self.assertEqual(till.event(), ESC + event("delInstance", "", "MSR", "M1", "ORVEX") + BS)
        self.assertEqual(till.wait(), 0)

    def test_a_byte_order_mark_in_front_of_a_command_does_not_count(self):
        self.write("day.script", "\uFEFFattach M1\n")
        till = self.start("--script", "day.script")
        self.assertEqual(till.event(), ESC + event("addInstance", "", "MSR", "M1", "ORVEX") + BS)
        till.type("\uFEFFdetach M1")
        self.assertEqual(till.event(), ESC + event("delInstance", "", "MSR", "M1", "ORVEX") + BS)

    def test_a_script_goes_on_after_a_command_that_makes_no_sense(self):
        self.write("day.script", "attach S1\nattach M1\n")
        till = self.start("--script", "day.script")
        till.expect_error(r"quillmon-till: day\.script:1: 'S1' is attached already")
        self.assertEqual(till.event(), ESC + event("addInstance", "", "MSR", "M1", "ORVEX") + BS)

    def test_typed_mistakes_are_named_and_survived(self):
        till = self.start()
        for line, complaint in (
                ("attach X", r"unknown device 'X' \(list shows the devices\)"),
                ("attach S1", "'S1' is attached already"), ("detach M1", "'M1' is not attached"),
                ("change M1 1", "'M1' is not attached"),
                *((word, rf"unknown command '{word}' \(help lists the commands\)")
                  for word in ("dance", "Attach")),
                *((line, "usage: " + re.escape(usage)) for line, usage in (
                    ("attach", "attach ID"), ("attach A B", "attach ID"), ("detach", "detach ID"),
                    ("change", "change ID [CODE]"), ("change A B C", "change ID [CODE]"),
                    ("set A B", "set ID FIELD VALUE"), ("event A", "event ID TYPE [CODE]"),
                    ("list all", "list"), ("quit now", "quit"), ("wait", "wait MS"),
                    ("misbehave-events batch 3 4", "misbehave-events MODE"),
                    ("disconnect now", "disconnect"), ("reconnect now", "reconnect"))),
                *((f"wait {time}", f"'{time}' is not a number of milliseconds from 0 to 3600000")
                  for time in ("soon", "-1", "3600001", "99999999999")),
                ('attach "A', "a double quote is not closed"),
                ('attach "A"B', "a blank is missing after a double quote"),
                ("set S1 DeviceID S3", "a device's id cannot be changed"),
                ('set S1 "" x', "a field needs a name"),
                ("set S1 ModelName \b", "an argument is not UTF-8 text that a document can carry"),
                ("misbehave sulk", r"unknown misbehaviour 'sulk' \(one of: none, stall, .*"),
                ("misbehave oversize", "unknown misbehaviour 'oversize' .*"),
                ("misbehave stall 5", "'stall' takes no number"),
                *((f"misbehave huge {number}", "'huge' takes a number from 1 to 200000")
                  for number in ("", "0", "200001", "5x", "-5")),
                ("misbehave-events stall", "unknown misbehaviour 'stall' .*"),
                ("disconnect", "there is no connection in the adapter role"),
                ("reconnect", "there is no connection in the adapter role")):
            till.type(line)
            till.expect_error("quillmon-till: " + complaint)
        till.type("help")
        till.expect(r"  attach ID .*")
        for line in ("list", "status"):
            till.type(line)
        till.expect(r"attached UPOS_Scanner             S1               Veltran")
        till.expect(r"detached UPOS_MSR                 M1               ORVEX")
        till.expect(r"requests on 127\.0\.0\.1:%d: 0 answered, 0 refused; answers: none" % till.port)
        till.expect(r"events to 127\.0\.0\.1:%d: 0 sent; events: none"
                    % till.events.getsockname()[1])
        till.expect("3 devices, 2 attached")

    def test_quiet_keeps_the_ready_line_only(self):
        till = self.start("--quiet")
        self.assertEqual(till.ask("enumerateInstances", "UPOS_Scale"), ["W1"])
        till.type("attach M1")
        till.event()
        till.type("quit")
        till.expect_end()

    # Beginning and end

    def test_ends_at_the_end_of_standard_input(self):
        till = self.start()
        till.process.stdin.close()
        self.assertEqual(till.wait(), 0)
        self.assertEqual(list(till.errors.queue), [None])

    def test_in_the_background_it_outlives_standard_input(self):
        self.write("end.script", "wait 3000\nquit\n")
        till = self.start("--script", "end.script", no_stdin=True)
        till.process.stdin.close()
        self.assertEqual(till.ask("enumerateInstances", "UPOS_Scale"), ["W1"])
        self.assertEqual(till.wait(), 0)

    def test_ends_while_clients_are_connected(self):
        till = self.start("--misbehave", "stall")
        with till.connect() as client, till.connect():
            client.sendall(ESC + ASK + BS)
            till.expect(r"request .* \(stall\)")
            till.type("quit")
            self.assertEqual(till.wait(), 0)

    def test_can_be_started_again_on_its_port_at_once(self):
        till = self.start(port=reserve_port())
        till.ask("enumerateInstances", "UPOS_Scale")
        till.type("quit")
        till.wait()
        self.assertEqual(self.start(port=till.port).port, till.port)

    def test_names_a_port_in_use(self):
        till = self.start()
        code, out, errors = self.run_to_end("till.xml", "--request-port", str(till.port))
        self.assertEqual((code, out), (1, ""))
        self.assertRegex(errors, r"\Aquillmon-till: request port %d: .+\n\Z" % till.port)

    def test_names_what_is_wrong_with_its_files(self):
        for name, text in (("wrong.xml", "<till>\n  <device id='S'/>\n</till>\n"),
                           ("cut.xml", "<till>\n  <device"),
                           ("wrong.script", "attach M1\n\nattach X\n"),
                           ("strange.script", "attach M1\ndance\n"),
                           ("proxy.script", "disconnect\n")):
            self.write(name, text)
        for arguments, complaint in (
                (["nowhere.xml"], r"nowhere\.xml: .+"),
                (["wrong.xml"], r"wrong\.xml:2: 'device' needs the attribute 'class'"),
                (["cut.xml"], r"cut\.xml:2: .+"),
                (["till.xml", "--script", "nowhere.script"], r"nowhere\.script: .+"),
                (["till.xml", "--script", "wrong.script"],
                 r"wrong\.script:3: unknown device 'X' \(list shows the devices\)"),
                (["till.xml", "--script", "strange.script"],
                 r"strange\.script:2: unknown command 'dance' \(help lists the commands\)"),
                (["till.xml", "--script", "proxy.script"],
                 r"proxy\.script:1: there is no connection in the adapter role")):
            code, out, errors = self.run_to_end(*arguments, "--request-port", "0")
            self.assertEqual((code, out), (1, ""), arguments)
            self.assertRegex(errors, r"\Aquillmon-till: %s\n\Z" % complaint)

    def test_names_what_is_wrong_with_its_command_line(self):
        for arguments in ("", "till.xml more", "till.xml --sing", "till.xml --request-port 65536",
                          "till.xml --event-port 0", "till.xml --request-timeout x",
                          "till.xml --misbehave sulk", "till.xml --misbehave-events stall",
                          "till.xml --strategy both", "till.xml --strategy proxy --misbehave stall",
                          "till.xml --strategy proxy --misbehave-events oversize",
                          "till.xml --event-classname long"):
            code, out, errors = self.run_to_end(*arguments.split())
            self.assertEqual((code, out), (2, ""), arguments)
            self.assertRegex(errors, r"\Aquillmon-till: [^\n]+\n\Z")

    def test_explains_itself(self):
        code, out, errors = self.run_to_end("--help")
        self.assertEqual((code, errors), (0, ""))
        for word in ("--request-port", "--strategy ROLE", "--event-classname FORM", "attach ID",
                     "byte-at-a-time", "batch-bare N", "reconnect ", "Exit codes: 0 "):
            self.assertIn(word, out)
        code, out, errors = self.run_to_end("--version")
        self.assertRegex(out, r"\Aquillmon-till \d+\.\d+\.\d+\n\Z")
        self.assertEqual((code, errors), (0, ""))

    def test_only_checks_when_asked(self):
        self.write("day.script", "attach M1\nwait 5\nmisbehave slow 5\nlist\n")
        self.write("proxy.script", "disconnect\nmisbehave-events batch 3\nreconnect\n")
        for options in (["--script", "day.script"],
                        ["--script", "proxy.script", "--strategy", "proxy"]):
            self.assertEqual(self.run_to_end("till.xml", "--check", *options),
                             (0, "quillmon-till: till.xml: 3 devices (2 attached)\n", ""))


class ProxyTest(TillTestCase):
    def listen(self, port=None):
        service = self.bind(port)
        service.listen()
        return service

    def bind(self, port=None):
        service = Service(port)
        self.addCleanup(service.close)
        return service

    def start_for(self, service, *options, **more):
        till = Program(self.folder, "till.xml", "--strategy", "proxy",
                       "--event-port", str(service.port), *options, **more)
        self.addCleanup(till.close)
        till.expect(r"quillmon-till: ready: events to 127\.0\.0\.1:%d \(proxy\), "
                    r"3 devices \(2 attached\)" % service.port)
        return till

    def connect(self, *options, **more):
        """A service and a till that has connected to it and sent its inventory."""
        service = self.listen()
        till = self.start_for(service, *options, **more)
        service.accept()
        service.expect(ATTACHED)
        return service, till

    # The stream

    def test_sends_exactly_its_attached_devices_when_it_has_connected(self):
        service, till = self.connect()
        till.expect(r"connected to 127\.0\.0\.1:%d" % service.port)
        till.expect(r"inventory -> 2 events")
        self.assertTrue(service.is_silent())

    def test_opens_no_request_port(self):
        with socket.create_server(("127.0.0.1", 0)) as taken:
            self.connect("--request-port", str(taken.getsockname()[1]))  # and nobody minds

    def test_sends_the_events_of_its_commands_with_all_fields(self):
        service, till = self.connect()
        for line, document in (("attach M1", device_event("addInstance", "M1")),
                               ("change S1 4", device_event("modifyInstance", "S1", "4")),
                               ("change S1", device_event("modifyInstance", "S1")),
                               ("detach M1", device_event("delInstance", "M1")),
                               ("event W1 NA 7", device_event("NA", "W1", "7"))):
            till.type(line)
            service.expect(document)
        till.expect(r"event modifyInstance Scanner S1 code 4, \d+ bytes")

    def test_a_changed_field_of_any_length_goes_out_with_the_next_event(self):
        service, till = self.connect()
        till.type("set W1 ModelName " + "&" * 5000)
        till.type("change W1")
        service.expect(event("modifyInstance", "", "Scale", "W1", "ORVEX",
                             f'<field name="ModelName" type="string">{"&amp;" * 5000}</field>'))

    def test_may_name_the_whole_class(self):
        service = self.listen()
        self.start_for(service, "--event-classname", "whole")
        service.accept()
        service.expect(ATTACHED.replace(b' classname="', b' classname="UPOS_'))

    def test_answers_update_requests_with_its_devices(self):
        service, till = self.connect()
        service.send(UPDATE_REQUEST)
        service.expect(REFRESHED)
        till.expect(r"request updateInstances -> 2 events")
        service.send(UPDATE_REQUEST + UPDATE_REQUEST)
        service.expect(REFRESHED, REFRESHED)
        till.type("status")
        till.expect(r"update requests: 3 answered, 0 refused")
        till.expect(r"events to 127\.0\.0\.1:%d \(connected\): 8 sent; events: none" % service.port)

    def test_reads_an_update_request_in_pieces_and_of_any_shape(self):
        service, till = self.connect()
        for byte in (b'\r\n<?xml version="1.0" encoding="UTF-8"?>\n<request>\n'
                     b"<type>updateInstances</type>\n</request>\n"):
            service.send(bytes([byte]))
        service.expect(REFRESHED)

    def test_refuses_other_requests_and_goes_on(self):
        service, till = self.connect()
        service.send(ASK + b"<rubbish</request>")
        till.expect(r"request refused: unknown request type 'enumerateInstances'")
        till.expect(r"request refused: malformed request: .*")
        service.send(UPDATE_REQUEST)
        service.expect(REFRESHED)

    def test_leaves_a_service_whose_request_never_ends(self):
        service, till = self.connect()
        with contextlib.suppress(*RESETS, BrokenPipeError):
            service.send(b"<request>" + b"x" * (2 * 1024 * 1024))
        till.expect(r"connection to 127\.0\.0\.1:%d lost: a request larger than 1 MiB"
                    % service.port)
        service.accept()
        service.expect(ATTACHED)

    def test_sends_ten_thousand_devices(self):
        ids = [f"W{n}" for n in range(10000)]
        self.write("till.xml", "<till>" + "".join(
            f'<device class="UPOS_Scale" id="{each}"><field name="ManufacturerName" '
            'type="string">ORVEX</field></device>' for each in ids) + "</till>")
        service = self.listen()
        till = Program(self.folder, "till.xml", "--strategy", "proxy", "--event-port",
                       str(service.port))
        self.addCleanup(till.close)
        service.accept()
        service.expect(*(event("addInstance", "", "Scale", each, "ORVEX") for each in ids))
        till.expect(r"inventory -> 10000 events")

    # The connection

    def test_waits_for_the_service(self):
        service = self.bind() # bound and not listening: refused
        till = self.start_for(service)
        till.expect(r"waiting for 127\.0\.0\.1:%d: .+" % service.port)
        time.sleep(1) # some attempts, of which nothing is said
        self.assertEqual(list(till.lines.queue), [])
        service.listen()
        service.accept()
        service.expect(ATTACHED)
        till.expect(r"connected to 127\.0\.0\.1:%d" % service.port)

    def test_connects_again_when_the_service_has_been_restarted(self):
        service, till = self.connect()
        till.expect(r"inventory -> 2 events")
        till.type("attach M1")
        attached = device_event("addInstance", "M1")
        service.expect(attached)
        service.close()
        till.expect(r"connection to 127\.0\.0\.1:%d lost: .+" % service.port)
        again = self.listen(service.port)
        again.accept()
        again.expect(ATTACHED, attached)
        till.expect(r"connected to 127\.0\.0\.1:%d" % service.port)
        again.send(UPDATE_REQUEST)
        again.expect(REFRESHED, device_event("modifyInstance", "M1"))

    def test_its_pause_grows_while_connections_do_not_last(self):
        service = self.listen()
        self.start_for(service)
        service.accept()
        for least in (0.1, 0.2, 0.4, 0.8):
            before = time.monotonic()
            service.hang_up()
            service.accept()
            self.assertGreater(time.monotonic() - before, 0.8 * least)

    def test_forgets_the_beginning_of_a_request_with_its_connection(self):
        service, till = self.connect()
        service.send(UPDATE_REQUEST[:60])
        service.hang_up()
        service.accept()
        service.expect(ATTACHED)
        service.send(UPDATE_REQUEST)
        service.expect(REFRESHED)

    def test_stays_away_from_disconnect_to_reconnect_and_keeps_its_list(self):
        service, till = self.connect()
        till.type("change S1 1")
        till.type("disconnect")
        self.assertEqual(receive_all(service.client), device_event("modifyInstance", "S1", "1"))
        till.expect(r"staying away from 127\.0\.0\.1:%d" % service.port)
        for line in ("attach M1", "detach S1"):
            till.type(line)
            till.expect_error(
                r"quillmon-till: the event was not sent: the service is not connected")
        till.type("status")
        till.expect(r"events to 127\.0\.0\.1:%d \(not connected\): .*" % service.port)
        service.listener.settimeout(0.5)
        with self.assertRaises(TimeoutError):
            service.listener.accept()
        service.listener.settimeout(PATIENCE)
        till.type("reconnect")
        service.accept()
        service.expect(device_event("addInstance", "W1"), device_event("addInstance", "M1"))

    def test_reconnects_at_once_when_told(self):
        service, till = self.connect()
        till.type("reconnect")
        before = service.client
        with contextlib.suppress(*RESETS):
            self.assertEqual(before.recv(1), b"")
        service.accept()
        service.expect(ATTACHED)

    def test_a_script_begins_when_it_is_connected(self):
        self.write("day.script", "attach M1\nwait 100\ndetach M1\nquit\n")
        service = self.bind()
        till = self.start_for(service, "--script", "day.script", no_stdin=True)
        till.expect(r"waiting for .+")
        service.listen()
        service.accept()
        expected = ATTACHED + device_event("addInstance", "M1") + device_event("delInstance", "M1")
        self.assertEqual(receive_all(service.client), expected)
        service.hang_up()
        self.assertEqual(till.wait(), 0)
        self.assertEqual(list(till.errors.queue), [None])

    # Misbehaviour

    def test_misbehaves_with_its_events(self):
        service, till = self.connect()
        whole = CHANGES[0]
        for mode, expected, least_time in (
                ("pieces", whole, least_time_in_pieces(whole)), ("byte-at-a-time", whole, 0),
                ("no-declaration", whole.removeprefix(DECLARATION), 0),
                ("other-declaration", b'<?xml version="1.0" encoding="UTF-8"?>'
                 + whole.removeprefix(DECLARATION), 0),
                ("twice", whole + whole, 0), ("truncate", whole[:len(whole) // 2], 0),
                ("not-xml", DECLARATION + b"<event>This is no XML: <&</event>", 0),
                ("stall", b"", 0), ("none", whole, 0)):
            till.type(f"misbehave-events {mode}")
            before = time.monotonic()
            till.type("change S1 1")
            service.expect(expected)
            self.assertGreaterEqual(time.monotonic() - before, least_time, mode)
        till.expect(r"event modifyInstance Scanner S1 code 1, \d+ bytes \(stall\)")

    def test_sends_an_event_long_after_one_in_pieces(self):
        service, till = self.connect()
        till.type("misbehave-events pieces")
        for change in ("change S1 1", "change S1 2"):
            till.type(change)
            service.expect(device_event("modifyInstance", "S1", change[-1]))
            self.assertTrue(service.is_silent())  # the pause after the last piece is over as well

    def test_puts_garbage_around_an_event(self):
        service, till = self.connect()
        for line in ("misbehave-events garbage", "change S1 1", "misbehave-events none",
                     "change W1 2"):
            till.type(line)
        end = device_event("modifyInstance", "W1", "2")
        received = b""
        while not received.endswith(end):
            received += service.client.recv(65536)
        before, _, after = received.partition(CHANGES[0])
        self.assertTrue(before)
        self.assertGreater(len(after), len(end))

    def test_sends_several_events_at_once(self):
        service, till = self.connect()
        bare = [change.removeprefix(DECLARATION) for change in CHANGES]
        for mode, expected in (("batch 3", b"".join(CHANGES)),
                               ("batch-first 3", CHANGES[0] + bare[1] + bare[2]),
                               ("batch-bare 3", b"".join(bare))):
            till.type(f"misbehave-events {mode}")
            till.type("change S1 1")
            till.type("change S1 2")
            till.expect(r"event modifyInstance Scanner S1 code 2, \d+ bytes \(%s\)" % mode)
            self.assertTrue(service.is_silent())
            till.type("change S1 3")
            service.expect(expected)

    def test_what_it_holds_back_is_sent_before_it_behaves_and_forgotten_with_its_connection(self):
        service, till = self.connect()
        for line in ("misbehave-events batch 3", "change S1 1", "misbehave-events batch 200"):
            till.type(line)
        service.expect(CHANGES[0])
        till.type("change S1 2")
        till.type("reconnect")
        service.accept()
        service.expect(ATTACHED)  # of which nothing is held back
        till.expect(r"inventory -> 2 events \(batch 200\)")

    def test_ends_the_connection_within_an_event_and_comes_back(self):
        service, till = self.connect()
        till.type("misbehave-events cut")
        till.type("change S1 1")
        self.assertEqual(receive_all(service.client), CHANGES[0][:len(CHANGES[0]) // 2])
        till.expect(r"connection to 127\.0\.0\.1:%d ended on purpose" % service.port)
        service.accept()
        service.expect(ATTACHED)
        till.type("misbehave-events reset")
        till.type("change S1 1")
        with self.assertRaises(RESETS):
            receive_all(service.client)
        service.accept()
        service.expect(ATTACHED)

    def test_typed_mistakes_are_named(self):
        _, till = self.connect()
        for line, complaint in (
                ("misbehave stall",
                 "nothing is answered in the proxy role: misbehave-events is its command"),
                ("misbehave-events oversize", "unknown misbehaviour 'oversize' .*"),
                ("misbehave-events batch", "'batch' takes a number from 1 to 200000")):
            till.type(line)
            till.expect_error("quillmon-till: " + complaint)

    # Beginning and end

    def test_sends_what_it_has_begun_before_it_quits(self):
        service, till = self.connect()
        till.type("misbehave-events pieces")
        till.type("change S1 1")
        till.type("quit")
        self.assertEqual(receive_all(service.client), CHANGES[0])
        service.hang_up()
        self.assertEqual(till.wait(), 0)

    def test_reads_requests_until_the_service_closes_when_it_quits(self):
        # A reset would lose what the service has not read by then.
        service, till = self.connect()
        till.type("change S1 1")
        till.type("quit")
        self.assertEqual(receive_all(service.client), CHANGES[0])
        service.send(UPDATE_REQUEST)
        self.assertTrue(service.is_silent())
        service.send(UPDATE_REQUEST)  # to a connection that has been reset this fails
        self.assertEqual(list(till.errors.queue), [])
        service.hang_up()
        self.assertEqual(till.wait(), 0)

    def start_for_a_service_that_does_not_read(self):
        self.write("till.xml", INVENTORY.replace("Veltran", "V" * 4_000_000))
        service = self.listen()
        till = self.start_for(service, "--misbehave-events", "twice")
        service.accept()
        till.expect(r"inventory -> 2 events \(twice\)")
        return till

    def test_ends_although_the_service_does_not_read(self):
        till = self.start_for_a_service_that_does_not_read()
        before = time.monotonic()
        till.type("quit")
        self.assertEqual(till.wait(), 0)
        self.assertGreater(time.monotonic() - before, 4) # it did wait for the service

    def test_says_when_the_service_does_not_take_its_events(self):
        till = self.start_for_a_service_that_does_not_read()
        for _ in range(9):
            till.type("change S1 1")
        till.expect_error(r"quillmon-till: the event was not sent: .+")

    def test_ends_while_it_waits_for_the_service(self):
        till = self.start_for(self.bind())
        till.expect(r"waiting for .+")
        till.type("quit")
        self.assertEqual(till.wait(), 0)
        self.assertEqual(list(till.errors.queue), [None])

    def test_quiet_keeps_the_ready_line_only(self):
        service, till = self.connect("--quiet")
        service.send(UPDATE_REQUEST)
        service.expect(REFRESHED)
        till.type("quit")
        service.hang_up()
        till.expect_end()


class NativeTest(TillTestCase):
    def test_ends_cleanly_at_a_signal(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            for no_stdin in (True, False):
                till = self.start(no_stdin=no_stdin)
                with till.connect():
                    till.process.send_signal(number)
                    self.assertEqual(till.wait(), 0)
                self.assertEqual(list(till.errors.queue), [None])

    def test_a_flood_without_end_does_not_fill_the_memory(self):
        till = self.start()
        self.assertEqual(till.ask("enumerateInstances", "UPOS_Scale"), ["W1"])
        before = till.memory()
        for start in (ESC, b""):
            with contextlib.suppress(*RESETS, BrokenPipeError), till.connect() as client:
                client.sendall(start)
                for _ in range(64):
                    client.sendall(b"x" * (1024 * 1024))
        self.assertEqual(till.ask("enumerateInstances", "UPOS_Scale"), ["W1"])
        self.assertLess(till.memory() - before, 32 * 1024 * 1024)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-b", *sys.argv[1:]])
