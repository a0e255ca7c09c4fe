"""A soak: the installed service under a steady mixed load, watched from outside. See scripts/soak.

What is counted: each call of a WMI client against what the till answered and what the
service says it was asked, each event that the till sent against what a subscriber received. What is
sampled: the service's process, its memory as Linux sees it, its handles as the system's table of
all handles lists them. Both have to stay: the verdict at the end is the growth after the warm-up, fitted
to the quiet samples. Those are taken every 20 seconds when no call is under way, since each one's
threads and their stacks come and go.
"""

import argparse
import collections
import contextlib
import csv
import itertools
import os
import queue
import re
import shutil
import socket
import statistics
import subprocess
import sys
import threading
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "system"))

from machine import BUILD, ROOT, Till, WmiClient, temporary_machine, wait_until  # noqa: E402
from peers import EVENT, FAILED, OK, counters, framed, reset, status_of, table  # noqa: E402
from ports import reserve_port  # noqa: E402

REGISTRY = "HKLM\\SOFTWARE\\Veltran\\Veltran Kestrune"
LOG_SIZE, LOG_BACKUPS = 1_000_000, 3
RETRY_TIMEOUT = 0.5  # seconds without a new attempt after a failed connect
AWAY = 1.0           # seconds that the device server stays away
# What the sample till publishes in both strategies; its other devices are foreign or in the cupboard.
LISTS = {
    "UPOS_Scanner": ["SCANNER1", "SCANNER2"],
    "UPOS_Scale": ["SCALE1"],
    "UPOS_PINPad": [],
    "UPOS_LogicalDevice": ["SCANNER1", "SCALE1", "PRINTER1", "DRAWER1", "DISPLAY1", "MSR1",
                           "KEYBOARD1", "KEYLOCK1", "SCANNER2"],
}
DEVICES = LISTS["UPOS_LogicalDevice"]
COMES_AND_GOES, FOREIGN = "MICR1", "PINPAD1"

BEHIND = 20  # events that may be under way before the load waits: a busy machine slows it down
PERIOD = 20  # seconds from one quiet sample and restart of the device server to the next

# The verdict's bounds on the fitted growth from the end of the warm-up to the end.
MEMORY_KIB, MEMORY_BYTES_PER_OPERATION = 256, 24
HANDLES = 3


class Subscriber:
    """Everything that a WMI event client has received, in order: (device id, type, code)."""

    def __init__(self, machine):
        self.received = []
        self.watcher = machine.watch_events()
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.watcher.stdout:
            _, *event = EVENT.fullmatch(line.decode().rstrip("\r\n")).groups()
            self.received.append(tuple(event))


class RestartedTill:
    """The till, which is restarted from time to time, and what it did in all its lives."""

    def __init__(self, machine, strategy, requests, events):
        self.machine, self.strategy = machine, strategy
        self.ports = (requests, events)
        self.expected = []  # what a subscriber has to receive
        self.sent = 0       # events that it was told to send one by one
        self.logged = 0     # those that its log speaks of
        self.answered = 0   # requests, by its own count
        self.starts = 0
        self.known = set()  # by the cache of the proxy strategy
        self.away = [[0.0, None]]  # from, until
        self.start()

    def start(self):
        arguments = (["--strategy", "proxy", "--event-classname", "whole"]
                     if self.strategy == "proxy" else [])
        self.till = Till(self.machine, *self.ports, ROOT / "samples" / "till.xml", arguments)
        self.starts += 1
        self.lines = queue.SimpleQueue()
        self.reader = threading.Thread(
            target=self._read, args=(self.till.process.stdout, self.lines), daemon=True)
        self.reader.start()
        if self.strategy == "proxy":
            self._take_up_again()
        self.away[-1][1] = time.monotonic() + 2 * RETRY_TIMEOUT

    def _read(self, output, lines):
        for raw in output:
            line = raw.decode()
            if re.search(r"\bevent (add|modify|del)Instance ", line):
                self.logged += 1
            lines.put(line)

    def expect(self, text):
        while text not in (line := self.lines.get(timeout=300)):
            pass
        return line

    def _take_up_again(self):
        """After each connect: a device that the service knew has one listing too many now, as
        docs/protocol.md says, and a deletion takes it away unpublished."""
        self.expect("inventory -> ")
        for device_id in DEVICES:
            if device_id in self.known:
                self.send(f"event {device_id} delInstance")
            else:
                self.known.add(device_id)
                self.expected.append((device_id, "addInstance", ""))

    def send(self, command, *expected):
        self.sent += 1
        self.expected += expected
        self.till.type(command)

    def change(self, device_id, code):
        self.send(f"change {device_id} {code}", (device_id, "modifyInstance", str(code)))

    def stop(self):
        """Right behind what it sent last."""
        self.away.append([time.monotonic(), None])
        self.till.type("status")
        self.till.type("quit")
        counts = self.expect("answered, ")
        self.answered += int(re.search(r"(\d+) answered", counts)[1])
        self.till.stop()
        self.reader.join(timeout=20)

    def connect_anew(self):
        self.till.type("reconnect")
        self._take_up_again()

    def was_away(self, begin, end):
        return any(begin <= (until or end) and end >= since for since, until in self.away)


class Clients:
    """WMI clients that ask all the time, each in a process of its own, and check each answer."""

    def __init__(self, machine, server, stop, pause):
        self.server, self.stop, self.pause = server, stop, pause
        self.changed = threading.Condition()
        self.is_held = False
        self.under_way = 0
        self.calls = collections.Counter()  # ok, not found, away
        self.wrong = []
        self.threads = [
            threading.Thread(target=self._ask, args=(WmiClient(machine), questions))
            for questions in (self._enumerations(0), self._enumerations(2), self._retrievals())]

    def start(self):
        for thread in self.threads:
            thread.start()

    def join(self):
        for thread in self.threads:
            thread.join()

    def total(self):
        return sum(self.calls.values())

    @contextlib.contextmanager
    def held(self):
        """No call is under way meanwhile."""
        with self.changed:
            self.is_held = True
            self.changed.wait_for(lambda: self.under_way == 0)
        yield
        with self.changed:
            self.is_held = False
            self.changed.notify_all()

    @contextlib.contextmanager
    def _call(self):
        with self.changed:
            self.changed.wait_for(lambda: not self.is_held)
            self.under_way += 1
        try:
            yield
        finally:
            with self.changed:
                self.under_way -= 1
                self.changed.notify_all()

    @staticmethod
    def _enumerations(first):
        names = itertools.cycle(LISTS)
        for class_name in itertools.islice(names, first, None):
            yield ("list", class_name, "DeviceID", "ModelName")

    @staticmethod
    def _retrievals():
        for device_id in itertools.cycle([*DEVICES, "NOBODY"]):
            yield ("get", f'UPOS_LogicalDevice.DeviceID="{device_id}"')

    def _ask(self, client, questions):
        while not self.stop.wait(self.pause):
            question = next(questions)
            with self._call():
                begin = time.monotonic()
                try:
                    done = client.run(*question, timeout=330)
                except AssertionError as error:
                    self.wrong.append(f"{question}: {error}")
                    return
                self._judge(question, done, self.server.strategy == "adapter"
                            and self.server.was_away(begin, time.monotonic()))

    def _judge(self, question, done, is_away):
        command, name, *_ = question
        status = status_of(done)
        if command == "list":
            ids = {row["DeviceID"] for row in table(done)} - {COMES_AND_GOES}
            is_right = status == OK and ids == set(LISTS[name])
        elif "NOBODY" in name:
            # Away or unknown, the client gets the same failure; only the till's count tells.
            is_right = status == FAILED
        else:
            is_right = status == OK and f'DeviceID = {name.split(chr(34))[1]}\n' in done.out
        if status == FAILED and is_away:
            self.calls["while away"] += 1
        elif is_right:
            self.calls["answered"] += 1
        else:
            self.wrong.append(f"{question}: {status} {done.out[-200:]!r}")


class Samples:
    """What the service's process uses, each line also in a CSV file at once."""

    COLUMNS = ("seconds", "rss_kib", "anonymous_kib", "handles", "descriptors", "threads",
               "cpu_seconds", "quiet", "calls", "events_expected", "events_received", "restarts")

    def __init__(self, machine, file):
        self.process = Path("/proc") / str(machine.service_process())
        self.counter = machine.start(str(BUILD / "handle_count.exe"), "quillmon.exe")
        self.rows = []
        self.file = file
        self.writer = csv.writer(file)
        self.writer.writerow(self.COLUMNS)
        self.begin = time.monotonic()

    def take(self, *counts):
        self._keep(self._look(), 0, counts)

    def take_quiet(self, *counts):
        """The lowest of a second's, for threads that end after their call has."""
        looks = []
        for _ in range(10):
            looks.append(self._look())
            time.sleep(0.1)
        self._keep(min(looks, key=lambda look: look[1]), 1, counts)

    def _look(self):
        self.counter.stdin.write(b"\n")
        self.counter.stdin.flush()
        handles = int(self.counter.stdout.readline())
        assert handles > 0, "the service's handles cannot be counted"
        status = dict(line.split(":", 1) for line in
                      (self.process / "status").read_text().splitlines())
        times = (self.process / "stat").read_text().rpartition(")")[2].split()
        return (round(time.monotonic() - self.begin, 1), int(status["VmRSS"].split()[0]),
                int(status["RssAnon"].split()[0]), handles,
                len(list((self.process / "fd").iterdir())), int(status["Threads"]),
                (int(times[11]) + int(times[12])) / os.sysconf("SC_CLK_TCK"))

    def _keep(self, look, quiet, counts):
        row = (*look, quiet, *counts)
        self.rows.append(dict(zip(self.COLUMNS, row, strict=True)))
        self.writer.writerow(row)
        self.file.flush()

    def quiet(self, since=0.0):
        return [row for row in self.rows if row["quiet"] and row["seconds"] >= since]

    def growth(self, column, since):
        """From then to the end: the rise of a line fitted to the quiet samples."""
        rows = self.quiet(since)
        seconds = [row["seconds"] for row in rows]
        line = statistics.linear_regression(seconds, [row[column] for row in rows])
        return line.slope * (seconds[-1] - seconds[0])


def stranger(strategy, port):
    """Somebody who sends what is no event, and leaves."""
    if strategy == "adapter":
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            for datagram in (b"", b"noise", b"x" * 1025, framed("<event"), framed("<other/>")):
                sender.sendto(datagram, ("127.0.0.1", port))
        return
    for leave in (socket.socket.close, reset):
        connection = socket.create_connection(("127.0.0.1", port))
        connection.sendall(b"noise</event><?xml version='1.0' encoding='UTF-8' standalone='no' ?><")
        leave(connection)


def start_service(machine, strategy):
    requests, events = reserve_port(), reserve_port()
    machine.configure(
        upos__requestSocket__Port=requests, upos__requestSocket__retryTimeout=int(RETRY_TIMEOUT * 1000),
        provider__eventSocket__Port=events, provider__maxQueryThreads=2,
        provider__dataUpdate__frequency=0)
    folder = machine.c / "Veltran"
    (folder / "Log").mkdir(parents=True)
    (folder / "zontrace.cfg").write_text(f"BackupCount={LOG_BACKUPS}\nFileSize={LOG_SIZE}\n")
    machine.set_registry(REGISTRY, "INSTALLDIR", "C:\\Veltran\\")
    machine.switch_trace_on()
    machine.install_service()
    if strategy == "proxy":
        machine.choose_option("-o")
    machine.restart_service(events)
    return requests, events, folder / "Log" / "Quillmon.log"


def drive(server, strategy, seconds, sample, settled, quiet):
    """The events, a few a second, until the time is over."""
    codes = itertools.count(1)
    begin = time.monotonic()
    for tick in itertools.count(1):
        tick_began = time.monotonic()
        server.change("SCANNER1", next(codes))
        server.change("PRINTER1", next(codes))
        server.send(f"change {FOREIGN} {next(codes)}")
        if tick % 4 == 0:
            server.send(f"attach {COMES_AND_GOES}", (COMES_AND_GOES, "addInstance", ""))
            server.change(COMES_AND_GOES, next(codes))
            server.send(f"detach {COMES_AND_GOES}", (COMES_AND_GOES, "delInstance", ""))
        if tick % 10 == 0:
            stranger(strategy, server.ports[1])
        if tick % PERIOD == 0:
            quiet()
            server.stop()
            time.sleep(AWAY)
            server.start()
        elif tick % PERIOD == PERIOD // 2 and strategy == "proxy":
            settled()
            server.connect_anew()
        sample(tick)
        if time.monotonic() - begin >= seconds:
            return
        time.sleep(max(0.0, tick_began + 1 - time.monotonic()))


def compare(expected, received):
    """(those that are missing, those that came and should not have, whether the order is kept)."""
    left = collections.Counter(received)
    missing = []
    for event in expected:
        if left[event] > 0:
            left[event] -= 1
        else:
            missing.append(event)
    surplus = list(left.elements())
    gone, kept = collections.Counter(missing), []
    for event in reversed(expected):
        if gone[event] > 0:
            gone[event] -= 1
        else:
            kept.append(event)
    return missing, surplus, bool(surplus) or kept[::-1] == received


class Verdict:
    def __init__(self, strategy, file):
        self.strategy, self.file = strategy, file
        self.failed = 0

    def say(self, line):
        print(f"{self.strategy}: {line}", flush=True)
        print(line, file=self.file, flush=True)

    def check(self, is_kept, line):
        self.failed += not is_kept
        self.say(f"{'ok  ' if is_kept else 'FAIL'} {line}")


def soak(machine, strategy, seconds, folder):
    requests, events, log = start_service(machine, strategy)
    subscriber = Subscriber(machine)
    server = RestartedTill(machine, strategy, requests if strategy == "adapter" else None, events)

    lost = 0  # given up; named at the end

    def behind():
        return len(server.expected) - len(subscriber.received) - lost

    def settled():
        nonlocal lost
        with contextlib.suppress(AssertionError):
            wait_until(lambda: behind() <= 0, "the events", seconds=300)
        lost += max(0, behind())

    settled()
    WmiClient(machine).run("list", "UPOS_Scale", "DeviceID", "ModelName")
    live, asked = counters(machine), machine.wmi_counter("Requests")
    stop = threading.Event()
    clients = Clients(machine, server, stop, pause=0.5 if strategy == "adapter" else 2.0)
    server.answered -= 1 if strategy == "adapter" else 0  # the call above
    interval = 1 if seconds <= 300 else 5
    with open(folder / "samples.csv", "w", newline="") as samples_file, open(
            folder / "verdict.txt", "w") as verdict_file:
        samples = Samples(machine, samples_file)

        def counts():
            return (clients.total(), len(server.expected), len(subscriber.received),
                    server.starts - 1)

        def sample(tick):
            if tick % interval == 0:
                samples.take(*counts())
            if behind() > BEHIND:
                with clients.held():
                    settled()

        def quiet():
            with clients.held():
                settled()  # what the service has not read yet may die with a connection
                samples.take_quiet(*counts())

        clients.start()
        try:
            drive(server, strategy, seconds, sample, settled, quiet)
        finally:
            stop.set()
            clients.join()
        settled()
        server.stop()
        verdict = Verdict(strategy, verdict_file)
        judge(verdict, machine, server, clients, subscriber, samples, live, asked, log)
    machine.end_service()
    for file in log.parent.iterdir():
        shutil.copy(file, folder)
    return verdict.failed == 0


def judge(verdict, machine, server, clients, subscriber, samples, live, asked, log):
    is_proxy = server.strategy == "proxy"
    seconds = samples.rows[-1]["seconds"]
    verdict.say(f"{seconds / 60:.1f} minutes, {clients.total()} calls, {len(server.expected)} events"
                f" to publish of {server.sent} sent one by one, {server.starts - 1} restarts of the"
                f" device server, {samples.rows[-1]['cpu_seconds']:.0f} s of CPU")

    verdict.check(not clients.wrong, f"each call's answer is right: {clients.calls['answered']}; "
                  f"{clients.calls['while away']} failed while the device server was away")
    for line in clients.wrong[:10]:
        verdict.say(f"     {line}")
    if not is_proxy:
        # One that was answered just before the end may not have reached its client.
        surplus = server.answered - clients.calls["answered"]
        verdict.check(0 <= surplus <= clients.calls["while away"],
                      f"the device server answered {server.answered} requests, clients received "
                      f"{clients.calls['answered']} answers")
    asked = machine.wmi_counter("Requests") - asked
    verdict.check(asked == clients.total(), f"the provider was asked {asked} times")

    missing, surplus, is_in_order = compare(server.expected, subscriber.received)
    verdict.check(server.logged == server.sent, f"the device server sent {server.logged} events")
    verdict.check(len(missing) <= (0 if is_proxy else len(server.expected) // 1000),
                  f"of {len(server.expected)} events to publish {len(missing)} are lost")
    for event in missing[:20]:
        verdict.say(f"     lost: {event}")
    verdict.check(not surplus and is_in_order, f"{len(subscriber.received)} events were received, in"
                  f" order, {len(surplus)} of them unexpected")
    for event in surplus[:20]:
        verdict.say(f"     unexpected: {event}")

    left = counters(machine)
    verdict.check(left == live, f"COM references held after the load {left}, before it {live}")

    logs = sorted(log.parent.glob("Quillmon.log*"))
    sizes = [file.stat().st_size for file in logs]
    verdict.check(1 < len(logs) <= 1 + LOG_BACKUPS and max(sizes) <= LOG_SIZE,
                  f"the trace was rotated: files of {sizes} bytes")

    warm_up = min(300.0, seconds / 6)
    quiet = samples.quiet(warm_up)
    operations = (seconds - quiet[0]["seconds"]) / seconds * (clients.total() + server.sent)
    bound = MEMORY_KIB + MEMORY_BYTES_PER_OPERATION * operations / 1024
    first, last = quiet[0], quiet[-1]
    verdict.say(f"in quiet after {first['seconds']:.0f} s and at the end: resident memory "
                f"{first['rss_kib']} and {last['rss_kib']} KiB, handles {first['handles']} and "
                f"{last['handles']}, threads {first['threads']} and {last['threads']}")
    memory = samples.growth("rss_kib", warm_up)
    verdict.check(memory <= bound, f"memory grew by {memory:.0f} KiB in {len(quiet)} quiet samples, "
                  f"{memory * 1024 / operations:.1f} bytes an operation; bound {bound:.0f} KiB")
    for column in ("handles", "descriptors"):
        growth = samples.growth(column, warm_up)
        verdict.check(growth <= HANDLES, f"{column} grew by {growth:.1f}; bound {HANDLES}")
    verdict.say("kept" if verdict.failed == 0 else f"NOT KEPT: {verdict.failed} of the above")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("minutes", type=float)
    parser.add_argument("strategy", choices=("adapter", "proxy"))
    arguments = parser.parse_args()
    folder = ROOT / "build" / "soak" / arguments.strategy
    folder.mkdir(parents=True, exist_ok=True)
    with temporary_machine() as machine:
        kept = soak(machine, arguments.strategy, arguments.minutes * 60, folder)
    plot = Path(__file__).with_name("soak.gnuplot")
    subprocess.run(["gnuplot", "-e", f"strategy='{arguments.strategy}'", plot], cwd=folder, check=True)
    return 0 if kept else 1


if __name__ == "__main__":
    sys.exit(main())
