"""The simulated device server as a program, over real sockets.

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
REFRESHED = device_event("modifyInstance", "S1") + device_event("modifyInstance", "W1")


def request(kind, class_name, device=None):
    text = f"<request><type>{kind}</type><class>{class_name}</class>"
    return (text + (f"<id>{device}</id>" if device else "") + "</request>").encode()


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


class DeviceServerTest(TillTestCase):
    # Requests

    def test_answers_exactly_one_framed_document(self):
        till = self.start()
        answer = till.exchange(request("enumerateInstances", "UPOS_Scale"))
        self.assertEqual(answer, ESC + SCALES + BS)
        till.expect(r"request enumerateInstances UPOS_Scale -> 1 instance, %d bytes" % len(SCALES))

    def test_lists_classes_and_finds_devices(self):
        till = self.start()
        self.assertEqual(till.ask("enumerateInstances", "UPOS_Scanner"), ["S1"])
        self.assertEqual(till.ask("enumerateInstances", "UPOS_LogicalDevice"), ["S1", "W1"])
        self.assertEqual(till.ask("enumerateInstances", "UPOS_PINPad"), [])
        self.assertEqual(till.ask("getInstance", "UPOS_Scanner", "S1"), ["S1"])
        self.assertEqual(till.ask("getInstance", "UPOS_LogicalDevice", "W1"), ["W1"])
        self.assertEqual(till.ask("getInstance", "UPOS_Scanner", "W1"), [])
        self.assertEqual(till.ask("getInstance", "UPOS_Scanner", "nobody"), [])

    def test_accepts_any_declaration(self):
        till = self.start()
        for declaration in (b"<?xml version='1.0' encoding='UTF-8' standalone='no' ?>",
                            b'<?xml version="1.0" encoding="UTF-16" standalone="no" ?>\n'):
            answer = till.exchange(declaration + request("enumerateInstances", "UPOS_Scale"))
            self.assertEqual(parse(answer), ["W1"])

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
            for byte in (b"noise\x08\x00" + ESC + request("enumerateInstances", "UPOS_Scale") + BS
                         + b"more"):
                client.send(bytes([byte]))
            self.assertEqual(receive_all(client), ESC + SCALES + BS)

    def test_refuses_a_request_of_more_than_one_mebibyte(self):
        till = self.start()
        for start in (ESC, b""):
            with till.connect() as client:
                # Whether all of it can be sent is the server's choice; the answer must arrive.
                with contextlib.suppress(*RESETS, BrokenPipeError):
                    client.sendall(start + b"x" * (2 * 1024 * 1024))
                self.assertEqual(parse(receive_all(client)), "larger than 1 MiB")
            till.expect(r"request refused: larger than 1 MiB")
        largest = request("getInstance", "UPOS_Scale", "x" * 1000000)
        self.assertEqual(parse(till.exchange(largest)), [])

    def test_answers_while_other_clients_dawdle(self):
        till = self.start()
        with contextlib.ExitStack() as stack:
            for _ in range(20):
                dawdler = stack.enter_context(till.connect())
                dawdler.sendall(ESC + b"<request>")
            self.assertEqual(till.ask("enumerateInstances", "UPOS_Scale"), ["W1"])

    def test_answers_many_clients_at_once(self):
        till = self.start()
        with contextlib.ExitStack() as stack:
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
        till = self.start("--misbehave", "huge 200000", "--request-timeout", "1000")
        with till.connect() as client:
            client.sendall(ESC + request("enumerateInstances", "UPOS_Scale") + BS)
            till.expect(r"connection dropped: the client does not take the answer")
        till.type("misbehave none")
        till.expect("answers from now on: none")
        self.assertEqual(till.ask("enumerateInstances", "UPOS_Scale"), ["W1"])

    def test_notes_a_client_that_goes_away(self):
        till = self.start()
        with till.connect() as client:
            client.sendall(ESC + b"<request>")
        till.expect(r"connection dropped: it ended within the request")

    def test_closes_the_connection_although_the_client_does_not(self):
        till = self.start()
        with till.connect() as client:
            client.sendall(ESC + request("enumerateInstances", "UPOS_Scale") + BS)
            self.assertEqual(receive_all(client), ESC + SCALES + BS)
            # The server has ended its side; a little later the connection is gone altogether.
            deadline = time.monotonic() + PATIENCE
            with self.assertRaises((*RESETS, BrokenPipeError)):
                while time.monotonic() < deadline:
                    client.send(b"x")
                    time.sleep(0.05)

    # Misbehaviour

    def test_stalls_until_the_client_goes(self):
        till = self.start("--misbehave", "stall", "--request-timeout", "1000")
        with till.connect() as client:
            client.sendall(ESC + request("enumerateInstances", "UPOS_Scale") + BS)
            till.expect(r"request enumerateInstances .* \(stall\)")
            client.settimeout(1.5)
            with self.assertRaises(TimeoutError):
                client.recv(1)

    def test_closes_early(self):
        till = self.start("--misbehave", "close-early")
        self.assertEqual(till.exchange(request("enumerateInstances", "UPOS_Scale")), b"")

    def test_resets(self):
        till = self.start("--misbehave", "reset")
        with self.assertRaises(RESETS):
            till.exchange(request("enumerateInstances", "UPOS_Scale"))

    def test_answers_in_pieces(self):
        till = self.start("--misbehave", "pieces")
        before = time.monotonic()
        self.assertEqual(till.exchange(request("enumerateInstances", "UPOS_Scale")),
                         ESC + SCALES + BS)
        self.assertGreater(time.monotonic() - before, least_time_in_pieces(ESC + SCALES + BS))

    def test_answers_byte_by_byte(self):
        till = self.start("--misbehave", "byte-at-a-time")
        self.assertEqual(till.exchange(request("enumerateInstances", "UPOS_Scale")),
                         ESC + SCALES + BS)

    def test_puts_garbage_around_the_frame(self):
        till = self.start("--misbehave", "garbage")
        answer = till.exchange(request("enumerateInstances", "UPOS_Scale"))
        before, _, rest = answer.partition(ESC)
        message, _, after = rest.partition(BS)
        self.assertEqual(message, SCALES)
        self.assertIn(BS, before)
        self.assertIn(b"\0", before)
        self.assertIn(ESC, after)

    def test_answers_with_errors(self):
        till = self.start("--misbehave", "error")
        self.assertEqual(till.ask("enumerateInstances", "UPOS_Scale"), "simulated failure")

    def test_answers_hugely(self):
        till = self.start("--misbehave", "huge 20000")
        devices = till.ask("enumerateInstances", "UPOS_Scale")
        self.assertEqual(len(devices), 20000)
        self.assertEqual(devices[-1], "HUGE020000")

    def test_truncates(self):
        till = self.start("--misbehave", "truncate")
        answer = till.exchange(request("enumerateInstances", "UPOS_Scale"))
        self.assertEqual(answer, ESC + SCALES[:len(SCALES) // 2])

    def test_answers_with_no_xml(self):
        till = self.start("--misbehave", "not-xml")
        answer = till.exchange(request("enumerateInstances", "UPOS_Scale"))
        self.assertEqual(answer, ESC + b"This is no XML: <&" + BS)

    def test_answers_slowly(self):
        till = self.start("--misbehave", "slow 400")
        before = time.monotonic()
        self.assertEqual(till.ask("enumerateInstances", "UPOS_Scale"), ["W1"])
        self.assertGreaterEqual(time.monotonic() - before, 0.4)

    def test_a_slow_answer_holds_up_nobody_else(self):
        till = self.start("--misbehave", "slow 200000")
        with till.connect() as patient:
            patient.sendall(ESC + request("enumerateInstances", "UPOS_Scale") + BS)
            till.expect(r"request .* \(slow 200000\)")
            till.type("misbehave none")
            till.expect("answers from now on: none")
            self.assertEqual(till.ask("enumerateInstances", "UPOS_Scale"), ["W1"])

    # Events and commands

    def test_sends_exactly_these_bytes(self):
        till = self.start()
        till.type("attach M1")
        self.assertEqual(till.event(), ESC + event("addInstance", "", "MSR", "M1", "ORVEX") + BS)
        till.type("change M1 1")
        self.assertEqual(till.event(),
                         ESC + event("modifyInstance", "1", "MSR", "M1", "ORVEX") + BS)
        till.type("detach M1")
        self.assertEqual(till.event(), ESC + event("delInstance", "", "MSR", "M1", "ORVEX") + BS)
        till.type("event S1 oddEvent \"<5>\"")
        self.assertEqual(till.event(),
                         ESC + event("oddEvent", "&lt;5&gt;", "Scanner", "S1", "Veltran") + BS)
        till.expect(r"event addInstance MSR M1, \d+ bytes")
        till.expect(r"event modifyInstance MSR M1 code 1, \d+ bytes")

    def test_attach_and_detach_change_the_list(self):
        till = self.start()
        till.type("attach M1")
        till.type("detach S1")
        till.event()
        till.event()
        self.assertEqual(till.ask("enumerateInstances", "UPOS_LogicalDevice"), ["W1", "M1"])
        self.assertEqual(till.ask("getInstance", "UPOS_Scanner", "S1"), [])

    def test_set_changes_the_answers(self):
        till = self.start()
        till.type("set W1 ModelName \"Big & heavy\"")
        till.expect("set W1 ModelName = Big & heavy")
        answer = till.exchange(request("getInstance", "UPOS_Scale", "W1"))
        self.assertIn(b'<field name="ModelName" type="string">Big &amp; heavy</field>', answer)

    def test_a_script_runs_in_order_with_its_waits(self):
        self.write("day.script", "# a day\nattach M1\nwait 300\nchange M1 2\n\ndetach M1\nquit\n")
        before = time.monotonic()
        till = self.start("--script", "day.script", no_stdin=True)
        self.assertEqual(till.event(), ESC + event("addInstance", "", "MSR", "M1", "ORVEX") + BS)
        self.assertEqual(till.event(),
                         ESC + event("modifyInstance", "2", "MSR", "M1", "ORVEX") + BS)
        self.assertGreaterEqual(time.monotonic() - before, 0.3)
        self.assertEqual(till.event(), ESC + event("delInstance", "", "MSR", "M1", "ORVEX") + BS)
        self.assertEqual(till.wait(), 0)

    def test_a_script_goes_on_after_a_command_that_makes_no_sense(self):
        self.write("day.script", "attach S1\nattach M1\n")
        till = self.start("--script", "day.script")
        till.expect_error(r"quillmon-till: day\.script:1: 'S1' is attached already")
        self.assertEqual(till.event(), ESC + event("addInstance", "", "MSR", "M1", "ORVEX") + BS)

    def test_typed_mistakes_are_named_and_survived(self):
        till = self.start()
        for line, complaint in (
                ("attach X", r"quillmon-till: unknown device 'X' \(list shows the devices\)"),
                ("dance", r"quillmon-till: unknown command 'dance' \(help lists the commands\)"),
                ("misbehave sulk", r"quillmon-till: unknown misbehaviour 'sulk' .*")):
            till.type(line)
            till.expect_error(complaint)
        till.type("help")
        till.expect(r"  attach ID .*")
        till.type("list")
        till.expect(r"detached UPOS_MSR +M1 +ORVEX")
        till.type("status")
        till.expect(r"requests on 127\.0\.0\.1:%d: 0 answered, 0 refused; answers: none" % till.port)

    def test_events_misbehave(self):
        till = self.start("--misbehave-events", "pieces")
        whole = ESC + event("modifyInstance", "1", "Scale", "W1", "ORVEX") + BS
        till.type("change W1 1")
        pieces = [till.event(), till.event()]
        self.assertEqual(b"".join(pieces), whole)
        till.type("misbehave-events twice")
        till.type("change W1 1")
        self.assertEqual(till.event(), whole + whole)
        till.type("misbehave-events empty")
        till.type("change W1 1")
        self.assertEqual([till.event(), till.event()], [b"", whole])
        till.type("misbehave-events oversize")
        till.type("change W1 1")
        self.assertEqual(len(till.event()), 4096)

    def test_quiet_keeps_the_ready_line_only(self):
        till = self.start("--quiet")
        self.assertEqual(till.ask("enumerateInstances", "UPOS_Scale"), ["W1"])
        till.type("attach M1")
        till.event()
        till.type("quit")
        self.assertEqual(till.wait(), 0)
        self.assertEqual(list(till.lines.queue), [None])
        self.assertEqual(list(till.errors.queue), [None])

    # Beginning and end

    def test_ends_at_quit(self):
        till = self.start()
        till.type("quit")
        self.assertEqual(till.wait(), 0)

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
        with till.connect() as client, till.connect() as idle:
            client.sendall(ESC + request("enumerateInstances", "UPOS_Scale") + BS)
            till.expect(r"request .* \(stall\)")
            till.type("quit")
            self.assertEqual(till.wait(), 0)

    def test_can_be_started_again_on_its_port_at_once(self):
        till = self.start(port=reserve_port())
        till.ask("enumerateInstances", "UPOS_Scale")
        till.type("quit")
        till.wait()
        again = self.start(port=till.port)
        self.assertEqual(again.port, till.port)

    def test_names_a_port_in_use(self):
        till = self.start()
        code, out, errors = self.run_to_end("till.xml", "--request-port", str(till.port))
        self.assertEqual((code, out), (1, ""))
        self.assertRegex(errors, r"\Aquillmon-till: request port %d: .+\n\Z" % till.port)

    def test_names_what_is_wrong_with_its_files(self):
        self.write("wrong.xml", "<till>\n  <device id='S'/>\n</till>\n")
        self.write("cut.xml", "<till>\n  <device")
        self.write("wrong.script", "attach M1\n\nattach X\n")
        self.write("strange.script", "attach M1\ndance\n")
        for arguments, complaint in (
                (["nowhere.xml"], r"nowhere\.xml: .+"),
                (["wrong.xml"], r"wrong\.xml:2: 'device' needs the attribute 'class'"),
                (["cut.xml"], r"cut\.xml:2: .+"),
                (["till.xml", "--script", "nowhere.script"], r"nowhere\.script: .+"),
                (["till.xml", "--script", "wrong.script"],
                 r"wrong\.script:3: unknown device 'X' \(list shows the devices\)"),
                (["till.xml", "--script", "strange.script"],
                 r"strange\.script:2: unknown command 'dance' \(help lists the commands\)")):
            code, out, errors = self.run_to_end(*arguments, "--request-port", "0")
            self.assertEqual((code, out), (1, ""), arguments)
            self.assertRegex(errors, r"\Aquillmon-till: %s\n\Z" % complaint)

    def test_names_what_is_wrong_with_its_command_line(self):
        for arguments in ([], ["till.xml", "more"], ["till.xml", "--sing"],
                          ["till.xml", "--request-port", "65536"],
                          ["till.xml", "--event-port", "0"], ["till.xml", "--request-timeout", "x"],
                          ["till.xml", "--misbehave", "sulk"],
                          ["till.xml", "--misbehave-events", "stall"]):
            code, out, errors = self.run_to_end(*arguments)
            self.assertEqual((code, out), (2, ""), arguments)
            self.assertRegex(errors, r"\Aquillmon-till: [^\n]+\n\Z")

    def test_explains_itself(self):
        code, out, errors = self.run_to_end("--help")
        self.assertEqual((code, errors), (0, ""))
        for word in ("--request-port", "attach ID", "byte-at-a-time", "Exit codes: 0 "):
            self.assertIn(word, out)
        code, out, errors = self.run_to_end("--version")
        self.assertRegex(out, r"\Aquillmon-till \d+\.\d+\.\d+\n\Z")
        self.assertEqual((code, errors), (0, ""))

    def test_only_checks_when_asked(self):
        self.write("day.script", "attach M1\n")
        code, out, errors = self.run_to_end("till.xml", "--check", "--script", "day.script")
        self.assertEqual((code, out, errors),
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
        self.assertEqual(service.receive(len(ATTACHED)), ATTACHED)
        return service, till

    # The stream

    def test_sends_exactly_its_attached_devices_when_it_has_connected(self):
        service, till = self.connect()
        till.expect(r"connected to 127\.0\.0\.1:%d" % service.port)
        till.expect(r"inventory -> 2 events")
        self.assertTrue(service.is_silent())

    def test_opens_no_request_port(self):
        with socket.socket() as taken:
            taken.bind(("127.0.0.1", 0))
            taken.listen()
            port = taken.getsockname()[1]
            service = self.listen()
            self.start_for(service, "--request-port", str(port)) # taken, and nobody minds
            service.accept()
            self.assertEqual(service.receive(len(ATTACHED)), ATTACHED)

    def test_sends_the_events_of_its_commands_with_all_fields(self):
        service, till = self.connect()
        for line, document in (("attach M1", device_event("addInstance", "M1")),
                               ("change S1 4", device_event("modifyInstance", "S1", "4")),
                               ("change S1", device_event("modifyInstance", "S1")),
                               ("detach M1", device_event("delInstance", "M1")),
                               ("event W1 NA 7", device_event("NA", "W1", "7"))):
            till.type(line)
            self.assertEqual(service.receive(len(document)), document)
        till.expect(r"event modifyInstance Scanner S1 code 4, \d+ bytes")

    def test_a_changed_field_goes_out_with_the_next_event(self):
        service, till = self.connect()
        till.type("set W1 ModelName \"Big & heavy\"")
        till.type("change W1")
        document = event("modifyInstance", "", "Scale", "W1", "ORVEX",
                         '<field name="ModelName" type="string">Big &amp; heavy</field>')
        self.assertEqual(service.receive(len(document)), document)

    def test_may_name_the_whole_class(self):
        service = self.listen()
        self.start_for(service, "--event-classname", "whole")
        service.accept()
        whole = ATTACHED.replace(b' classname="', b' classname="UPOS_')
        self.assertEqual(service.receive(len(whole)), whole)

    def test_answers_update_requests_with_its_devices(self):
        service, till = self.connect()
        self.assertEqual(len(UPDATE_REQUEST), 102)
        service.send(UPDATE_REQUEST)
        self.assertEqual(service.receive(len(REFRESHED)), REFRESHED)
        till.expect(r"request updateInstances -> 2 events")
        service.send(UPDATE_REQUEST + UPDATE_REQUEST)
        self.assertEqual(service.receive(2 * len(REFRESHED)), 2 * REFRESHED)
        till.type("status")
        till.expect(r"update requests: 3 answered, 0 refused")
        till.expect(r"events to 127\.0\.0\.1:%d \(connected\): 8 sent; events: none" % service.port)

    def test_reads_an_update_request_in_pieces_and_of_any_shape(self):
        service, till = self.connect()
        for byte in (b'\r\n<?xml version="1.0" encoding="UTF-8"?>\n<request>\n'
                     b"<type>updateInstances</type>\n</request>\n"):
            service.send(bytes([byte]))
        self.assertEqual(service.receive(len(REFRESHED)), REFRESHED)

    def test_refuses_other_requests_and_goes_on(self):
        service, till = self.connect()
        service.send(request("enumerateInstances", "UPOS_Scale") + b"<rubbish</request>")
        till.expect(r"request refused: unknown request type 'enumerateInstances'")
        till.expect(r"request refused: malformed request: .*")
        service.send(UPDATE_REQUEST)
        self.assertEqual(service.receive(len(REFRESHED)), REFRESHED)

    def test_leaves_a_service_whose_request_never_ends(self):
        service, till = self.connect()
        with contextlib.suppress(*RESETS, BrokenPipeError):
            service.send(b"<request>" + b"x" * (2 * 1024 * 1024))
        till.expect(r"connection to 127\.0\.0\.1:%d lost: a request larger than 1 MiB"
                    % service.port)
        service.accept()
        self.assertEqual(service.receive(len(ATTACHED)), ATTACHED)

    def test_sends_ten_thousand_devices(self):
        devices = "".join(
            f'<device class="UPOS_Scale" id="W{n}"><field name="ManufacturerName" type="string">'
            "ORVEX</field></device>" for n in range(10000))
        self.write("till.xml", f"<till>{devices}</till>")
        service = self.listen()
        till = Program(self.folder, "till.xml", "--strategy", "proxy", "--event-port",
                       str(service.port))
        self.addCleanup(till.close)
        service.accept()
        expected = b"".join(event("addInstance", "", "Scale", f"W{n}", "ORVEX")
                            for n in range(10000))
        self.assertEqual(service.receive(len(expected)), expected)
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
        self.assertEqual(service.receive(len(ATTACHED)), ATTACHED)
        till.expect(r"connected to 127\.0\.0\.1:%d" % service.port)

    def test_connects_again_when_the_service_has_been_restarted(self):
        service, till = self.connect()
        till.expect(r"inventory -> 2 events")
        till.type("attach M1")
        attached = device_event("addInstance", "M1")
        self.assertEqual(service.receive(len(attached)), attached)
        service.close()
        till.expect(r"connection to 127\.0\.0\.1:%d lost: .+" % service.port)
        again = self.listen(service.port)
        again.accept()
        self.assertEqual(again.receive(len(ATTACHED + attached)), ATTACHED + attached)
        till.expect(r"connected to 127\.0\.0\.1:%d" % service.port)
        again.send(UPDATE_REQUEST)
        refreshed = REFRESHED + device_event("modifyInstance", "M1")
        self.assertEqual(again.receive(len(refreshed)), refreshed)

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
        self.assertEqual(service.receive(len(ATTACHED)), ATTACHED)
        service.send(UPDATE_REQUEST)
        self.assertEqual(service.receive(len(REFRESHED)), REFRESHED)

    def test_stays_away_from_disconnect_to_reconnect(self):
        service, till = self.connect()
        till.type("change S1 1")
        till.type("disconnect")
        changed = device_event("modifyInstance", "S1", "1")
        self.assertEqual(receive_all(service.client), changed)
        till.expect(r"staying away from 127\.0\.0\.1:%d" % service.port)
        till.type("attach M1")
        till.expect_error(r"quillmon-till: the event was not sent: the service is not connected")
        till.type("status")
        till.expect(r"events to 127\.0\.0\.1:%d \(not connected\): .*" % service.port)
        service.listener.settimeout(0.5)
        with self.assertRaises(TimeoutError):
            service.listener.accept()
        service.listener.settimeout(PATIENCE)
        till.type("reconnect")
        service.accept()
        expected = ATTACHED + device_event("addInstance", "M1")
        self.assertEqual(service.receive(len(expected)), expected)

    def test_reconnects_at_once_when_told(self):
        service, till = self.connect()
        till.type("reconnect")
        before = service.client
        with contextlib.suppress(*RESETS):
            self.assertEqual(before.recv(1), b"")
        service.accept()
        self.assertEqual(service.receive(len(ATTACHED)), ATTACHED)

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

    def test_sends_in_pieces(self):
        service, till = self.connect()
        till.type("misbehave-events pieces")
        before = time.monotonic()
        till.type("change S1 1")
        document = device_event("modifyInstance", "S1", "1")
        self.assertEqual(service.receive(len(document)), document)
        self.assertGreater(time.monotonic() - before, least_time_in_pieces(document))

    def test_sends_byte_by_byte(self):
        service, till = self.connect("--misbehave-events", "byte-at-a-time")
        till.expect(r"inventory -> 2 events \(byte-at-a-time\)")
        till.type("misbehave-events none")
        till.type("change S1 1")
        document = device_event("modifyInstance", "S1", "1")
        self.assertEqual(service.receive(len(document)), document)

    def test_sends_several_events_at_once(self):
        service, till = self.connect()
        changes = [device_event("modifyInstance", "S1", str(code)) for code in (1, 2, 3)]
        bare = [change.removeprefix(DECLARATION) for change in changes]
        for mode, expected in (("batch 3", b"".join(changes)),
                               ("batch-first 3", changes[0] + bare[1] + bare[2]),
                               ("batch-bare 3", b"".join(bare)),
                               ("twice", b"".join(2 * change for change in changes))):
            till.type(f"misbehave-events {mode}")
            till.type("change S1 1")
            till.type("change S1 2")
            if mode.startswith("batch"):
                till.expect(r"event modifyInstance Scanner S1 code 2, \d+ bytes \(%s\)" % mode)
                self.assertTrue(service.is_silent())
            till.type("change S1 3")
            self.assertEqual(service.receive(len(expected)), expected)

    def test_sends_without_the_declaration_that_marks_the_start(self):
        service, till = self.connect()
        bare = device_event("modifyInstance", "S1", "1").removeprefix(DECLARATION)
        for mode, expected in (
                ("no-declaration", bare),
                ("other-declaration", b'<?xml version="1.0" encoding="UTF-8"?>' + bare)):
            till.type(f"misbehave-events {mode}")
            till.type("change S1 1")
            self.assertEqual(service.receive(len(expected)), expected)

    def test_sends_what_is_no_event(self):
        service, till = self.connect()
        whole = device_event("modifyInstance", "S1", "1")
        till.type("misbehave-events truncate")
        till.type("change S1 1")
        self.assertEqual(service.receive(len(whole) // 2), whole[:len(whole) // 2])
        till.type("misbehave-events not-xml")
        till.type("change S1 1")
        nonsense = DECLARATION + b"<event>This is no XML: <&</event>"
        self.assertEqual(service.receive(len(nonsense)), nonsense)
        till.type("misbehave-events garbage")
        till.type("change S1 1")
        till.type("misbehave-events none")
        till.type("change W1 2")
        end = device_event("modifyInstance", "W1", "2")
        received = b""
        while not received.endswith(end):
            received += service.client.recv(65536)
        before, _, after = received.partition(whole)
        self.assertTrue(before)
        self.assertGreater(len(after), len(end))
        till.type("misbehave-events stall")
        till.type("change S1 1")
        till.expect(r"event modifyInstance Scanner S1 code 1, \d+ bytes \(stall\)")
        service.send(UPDATE_REQUEST)
        till.expect(r"request updateInstances -> 2 events \(stall\)")
        self.assertTrue(service.is_silent())

    def test_ends_the_connection_within_an_event_and_comes_back(self):
        service, till = self.connect()
        half = device_event("modifyInstance", "S1", "1")
        half = half[:len(half) // 2]
        till.type("misbehave-events cut")
        till.type("change S1 1")
        self.assertEqual(receive_all(service.client), half)
        till.expect(r"connection to 127\.0\.0\.1:%d ended on purpose" % service.port)
        service.accept()
        self.assertEqual(service.receive(len(ATTACHED)), ATTACHED)
        till.type("misbehave-events reset")
        till.type("change S1 1")
        with self.assertRaises(RESETS):
            receive_all(service.client)
        service.accept()
        self.assertEqual(service.receive(len(ATTACHED)), ATTACHED)

    # Beginning and end

    def test_sends_what_it_has_begun_before_it_quits(self):
        service, till = self.connect()
        till.type("misbehave-events pieces")
        till.type("change S1 1")
        till.type("quit")
        self.assertEqual(receive_all(service.client), device_event("modifyInstance", "S1", "1"))
        service.hang_up()
        self.assertEqual(till.wait(), 0)

    def test_a_request_unread_at_the_end_reset_the_connection(self):
        # What the service had not read by then was lost with it.
        service, till = self.connect()
        till.type("change S1 1")
        till.type("quit")
        self.assertEqual(receive_all(service.client), device_event("modifyInstance", "S1", "1"))
        service.send(UPDATE_REQUEST)
        self.assertTrue(service.is_silent())
        service.send(UPDATE_REQUEST)  # to a connection that has been reset this fails
        self.assertEqual(list(till.errors.queue), [])
        service.hang_up()
        self.assertEqual(till.wait(), 0)

    def start_for_a_service_that_does_not_read(self, *options):
        self.write("till.xml", INVENTORY.replace("Veltran", "V" * 4_000_000))
        service = self.listen()
        till = self.start_for(service, "--misbehave-events", "twice", *options)
        service.accept()
        till.expect(r"inventory -> 2 events \(twice\)")
        return till

    def test_ends_although_the_service_does_not_read(self):
        till = self.start_for_a_service_that_does_not_read()
        before = time.monotonic()
        till.type("quit")
        self.assertEqual(till.wait(), 0)
        self.assertGreater(time.monotonic() - before, 4) # it did wait for the service

    def test_ends_while_it_waits_for_the_service(self):
        service = self.bind()
        till = self.start_for(service)
        till.expect(r"waiting for .+")
        till.type("quit")
        self.assertEqual(till.wait(), 0)
        self.assertEqual(list(till.errors.queue), [None])

    def test_says_when_the_service_does_not_take_its_events(self):
        till = self.start_for_a_service_that_does_not_read()
        for _ in range(9):
            till.type("change S1 1")
        till.expect_error(r"quillmon-till: the event was not sent: .+")

    def test_quiet_keeps_the_ready_line_only(self):
        service, till = self.connect("--quiet")
        service.send(UPDATE_REQUEST)
        self.assertEqual(service.receive(len(REFRESHED)), REFRESHED)
        till.type("quit")
        service.hang_up()
        self.assertEqual(till.wait(), 0)
        self.assertEqual(list(till.lines.queue), [None])
        self.assertEqual(list(till.errors.queue), [None])

    def test_names_what_is_wrong_with_its_command_line(self):
        for arguments in (["--strategy", "both"], ["--strategy", "proxy", "--misbehave", "stall"],
                          ["--strategy", "proxy", "--misbehave-events", "oversize"],
                          ["--misbehave-events", "batch 3"], ["--event-classname", "long"]):
            code, out, errors = self.run_to_end("till.xml", *arguments)
            self.assertEqual((code, out), (2, ""), arguments)
            self.assertRegex(errors, r"\Aquillmon-till: [^\n]+\n\Z")

    def test_checks_a_script_for_its_role(self):
        self.write("proxy.script", "disconnect\nmisbehave-events batch 3\nreconnect\n")
        code, out, errors = self.run_to_end("till.xml", "--check", "--script", "proxy.script",
                                            "--strategy", "proxy")
        self.assertEqual((code, errors), (0, ""))
        code, out, errors = self.run_to_end("till.xml", "--check", "--script", "proxy.script")
        self.assertEqual((code, out), (1, ""))
        self.assertEqual(errors, "quillmon-till: proxy.script:1: there is no connection in the "
                                 "adapter role\n")

    def test_explains_its_role(self):
        code, out, errors = self.run_to_end("--help")
        self.assertEqual((code, errors), (0, ""))
        for word in ("--strategy ROLE", "--event-classname FORM", "batch-bare N", "reconnect "):
            self.assertIn(word, out)


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
