"""The installed service against whoever reaches its event port, in both strategies, and crowds of
clients: nothing is opened, nothing grows, what was promised is not lost, and events go on."""

import socket
import threading
import time
from pathlib import Path

import pytest

from machine import wait_until
from peers import (BS, ESC, EVENT, NORMAL, OK, PLACES, SCANNER, START, DeviceServer, Setting,
                   Watched, counters, device, document, event, forget, framed, names, plain,
                   published, published_in_stream, response, send, sender_in_order)

ALL_PROCESSORS = True


# -- the adapter strategy's datagrams

@pytest.fixture(scope="module")
def setting(template_machine):
    setting = Setting(template_machine())
    setting.events = setting.event_port
    yield setting
    setting.peer.close()


@pytest.fixture
def service(setting):
    with setting.survived():
        yield setting


@pytest.fixture
def watcher(setting):
    watcher = setting.machine.watch_events()
    yield watcher
    watcher.kill()


def event_socket(port):
    """What the host knows of the service's datagram socket: bytes that wait, datagrams dropped."""
    for line in Path("/proc/net/udp").read_text().splitlines()[1:]:
        words = line.split()
        if int(words[1].rpartition(":")[2], 16) == port:
            return int(words[4].partition(":")[2], 16), int(words[-1])
    raise AssertionError(f"nobody has port {port}")


def send_without_loss(port, message):
    """Sends a message, of any length, in datagrams that fit, each after the last was read."""
    dropped = event_socket(port)[1]
    with sender_in_order() as sender:
        for start in range(0, len(message), 64 * 1024):
            for piece in range(start, min(start + 64 * 1024, len(message)), 1024):
                sender.sendto(message[piece:piece + 1024], ("127.0.0.1", port))
            wait_until(lambda: event_socket(port)[0] == 0, "the datagrams to be read")
    assert event_socket(port)[1] == dropped


def test_each_of_ten_thousand_datagrams_at_once_is_published_or_counted_as_dropped(
        service, watcher, record_property):
    port = service.event_port
    dropped = event_socket(port)[1]
    burst = [framed(event(f"D{i}")) for i in range(10_000)]
    since = time.monotonic()
    send(port, *burst)
    wait_until(lambda: event_socket(port)[0] == 0, "the datagrams to be read", 60)
    dropped = event_socket(port)[1] - dropped
    seen = published(service, watcher)
    record_property("published", f"{len(seen)} in {time.monotonic() - since:.1f} s")
    assert len(seen) + dropped == 10_000
    assert seen == sorted(seen, key=lambda each: int(each[1][1:]))
    assert published(service, watcher, event("AFTER")) == [plain("AFTER")]


def test_a_message_of_two_mebibytes_is_taken(service, watcher):
    large = event("LARGE").replace(FIELD, f"<!--{'x' * 2 * 2**20}-->" + FIELD)
    send_without_loss(service.event_port, framed(large))
    assert published(service, watcher, event("AFTER")) == [plain("LARGE"), plain("AFTER")]


def test_a_message_of_more_than_64_mebibytes_is_dropped_and_its_rest_is_not_the_next_one(
        service, watcher):
    peak = service.memory_peak()
    send_without_loss(service.event_port, ESC + b"x" * (65 * 2**20))
    assert service.memory_peak() - peak < 200
    send(service.event_port, event("REST").encode() + BS)
    assert published(service, watcher, event("AFTER")) == [plain("AFTER")]


# -- documents that attack, as an event

def entities(levels):
    return ('<!DOCTYPE event [<!ENTITY e0 "' + "x" * 100 + '">' + "".join(
        f'<!ENTITY e{i} "{f"&e{i - 1};" * 10}">' for i in range(1, levels + 1))
        + "]>" + event(f"&e{levels};"))


FIELD = '<field name="DeviceID" type="string">'
HOSTILE = {
    "a billion laughs": entities(9),
    "an endless name": "<!DOCTYPE " + "x" * 500_000,
    "deep": event("D").replace(FIELD, "<a>" * 50_000 + "</a>" * 50_000 + FIELD),
    "deep and open": "<a>" * 150_000,
    "attributes": event("D").replace("<event", "<event " + " ".join(
        f'a{i}=""' for i in range(40_000))),
    "elements": event("D").replace(FIELD, "<a/>" * 100_000 + FIELD),
    "names": event("D").replace(FIELD, "".join(f"<a{i}/>" for i in range(50_000)) + FIELD),
    "fields": event("D").replace(FIELD, "<field/>" * 60_000 + FIELD),
    "nested fields": event("D").replace(
        FIELD, "<field>" * 60 + "x" * 100_000 + "</field>" * 60 + FIELD),
    "comments": event("D").replace(FIELD, "<!---->" * 70_000 + FIELD),
    "instructions": event("D").replace(FIELD, "<?a?>" * 100_000 + FIELD),
    "a long value": event("D" * 500_000),
    "an unknown encoding": '<?xml version="1.0" encoding="' + "x" * 100_000 + '"?>' + event("D"),
    "UTF-16 without its bytes": '<?xml version="1.0" encoding="UTF-16"?>' + event("D"),
    "UTF-7": '<?xml version="1.0" encoding="UTF-7"?>' + event("D"),
}
DOORS = [
    '<!DOCTYPE event [<!ENTITY a SYSTEM "@">]>' + event("&a;"),
    '<!DOCTYPE event SYSTEM "@">' + event("D"),
    '<!DOCTYPE event PUBLIC "-//x//y" "@">' + event("D"),
    '<!DOCTYPE event [<!ENTITY % p SYSTEM "@">%p;]>' + event("D"),
    '<?xml-stylesheet href="@" type="text/xsl"?>' + event("D"),
    event("D").replace("<event", '<event xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance" '
                       'xsi:noNamespaceSchemaLocation="@" xsi:schemaLocation="urn:a @"'),
    event("D").replace(FIELD, '<xi:include xmlns:xi="http://www.w3.org/2001/XInclude" href="@" '
                       'parse="text"/>' + FIELD),
]


@pytest.fixture
def watched(request):
    """A file and a port that no document may lead to."""
    watches = []

    def watch(machine):
        watches.append(Watched(machine.c / "secret.txt"))
        return watches[0]

    yield watch
    assert watches[0].seen() == []
    watches[0].close()


def doors(watched):
    return [door.replace("@", place.format(port=watched.port))
            for door in DOORS for place in PLACES]


@pytest.mark.parametrize("attack", HOSTILE, ids=str)
def test_a_hostile_event_in_datagrams_costs_little_and_only_itself(service, watcher, attack):
    message = framed(HOSTILE[attack])
    peak, used = service.memory_peak(), service.machine.service_time()
    send_without_loss(service.event_port, message)
    seen = published(service, watcher, event("AFTER"))
    assert seen[-1] == plain("AFTER") and len(seen) <= 2
    assert service.machine.service_time() - used < 30
    assert service.memory_peak() - peak < 50


def test_no_event_in_datagrams_opens_anything(service, watcher, watched):
    for text in doors(watched(service.machine)):
        send_without_loss(service.event_port, framed(text))
    assert published(service, watcher, event("AFTER"))[-1] == plain("AFTER")


# -- an answer without measure

def test_an_answer_of_fifty_megabytes_is_listed_while_events_go_on(
        service, watcher, record_property):
    ids = [f"D{i}" for i in range(1000)]
    texts = {"ModelName": "m" * 25_000, "SerialNumber": "s" * 25_000}
    answer = framed(response(*(device(name, **texts) for name in ids)))
    assert len(answer) > 50_000_000
    peak, since = service.memory_peak(), time.monotonic()

    def send_answer(connection, _):
        half = len(answer) // 2
        connection.sendall(answer[:half])
        assert published(service, watcher, event("AMID")) == [plain("AMID")]
        connection.sendall(answer[half:])

    listed = service.answer(send_answer)
    record_property("memory", f"{service.memory_peak() - peak:.0f} MiB "
                    f"for {len(answer) / 2**20:.0f} MiB in {time.monotonic() - since:.1f} s")
    assert listed == [[name] for name in ids]
    assert service.memory_peak() - peak < 12 * len(answer) / 2**20
    assert published(service, watcher, event("AFTER")) == [plain("AFTER")]


# -- crowds

class Crowd:
    """A device server that answers the first requests when `together` of them are there at once,
    and knows the most that ever were."""

    def __init__(self, together):
        self.together = together
        self.active = self.most = 0
        self.changed = threading.Condition()

    def __call__(self, connection, _):
        with self.changed:
            self.active += 1
            self.most = max(self.most, self.active)
            self.changed.notify_all()
            self.changed.wait_for(lambda: self.most >= self.together, 60)
            self.active -= 1
        connection.sendall(framed(response(*(device(f"D{i}") for i in range(3)))))


@pytest.mark.parametrize("limit", [1, 4, 64])
def test_two_hundred_lists_at_once_are_all_served_and_never_more_than_the_limit_together(
        setting, limit):
    setting.configure(provider__maxQueryThreads=limit)
    setting.machine.restart_service(setting.event_port)
    try:
        assert setting.answer(NORMAL) == SCANNER
        before = counters(setting.machine), len(setting.peer.requests)
        setting.peer.answer = crowd = Crowd(limit)
        done = setting.machine.wmi("parallel", 200, "UPOS_Scanner", timeout=200)
        assert done.out.splitlines() == ["3 0x00000000"] * 200
        assert crowd.most == limit and len(setting.peer.requests) == before[1] + 200
        assert setting.answer(NORMAL) == SCANNER
        assert counters(setting.machine) == before[0]
    finally:
        setting.configure()
        setting.machine.restart_service(setting.event_port)


# -- the proxy strategy's stream

@pytest.fixture(scope="module")
def proxy(template_machine):
    machine = template_machine()
    machine.event_port = machine.start_proxy_service(provider__dataUpdate__frequency=0)
    return machine


@pytest.fixture
def server(proxy):
    process = proxy.service_process()
    with DeviceServer(proxy.event_port) as server:
        server.connection.settimeout(120)
        yield server
    assert proxy.service_process() == process is not None


@pytest.fixture
def stream_watcher(proxy):
    watcher = proxy.watch_events()
    yield watcher
    watcher.kill()


@pytest.mark.parametrize("attack", HOSTILE, ids=str)
def test_a_hostile_event_in_the_stream_costs_little_and_only_itself(
        proxy, server, stream_watcher, attack):
    text = HOSTILE[attack].replace('type="modifyInstance"', 'type="addInstance"')
    # One that holds no end of an event would go on into the next.
    text += "" if "</event>" in text else "</event>"
    peak, used = proxy.service_memory_peak(), proxy.service_time()
    server.send(text)
    server.send(document("AFTER"), document("AFTER", "delInstance"))
    seen = published_in_stream(server, stream_watcher)
    assert seen[-2:] == [("AFTER", "addInstance", ""), ("AFTER", "delInstance", "")]
    assert len(seen) <= 3
    assert proxy.service_time() - used < 30
    assert proxy.service_memory_peak() - peak < 50
    if len(seen) == 3:
        forget(proxy, server, seen[0][0])


def test_no_event_in_the_stream_opens_anything(proxy, server, stream_watcher, watched):
    for text in doors(watched(proxy)):
        server.send(START + text)  # so that each is a document of its own
    server.send(document("AFTER"), document("AFTER", "delInstance"))
    assert published_in_stream(server, stream_watcher)[-1] == ("AFTER", "delInstance", "")


def test_three_thousand_events_at_once_arrive_all_and_in_order(
        proxy, server, stream_watcher, record_property):
    server.send(document("BURST"))
    since = time.monotonic()
    changes = [document("BURST", "modifyInstance", code=str(i)) for i in range(3000)]
    seen = published_in_stream(server, stream_watcher, *changes)
    record_property("seconds", f"{time.monotonic() - since:.1f}")
    assert seen == [("BURST", "addInstance", "")] + [
        ("BURST", "modifyInstance", str(i)) for i in range(3000)]
    forget(proxy, server, "BURST")


def test_documents_of_eight_device_servers_in_interleaved_pieces_do_not_mix(
        proxy, server, stream_watcher):
    others = [DeviceServer(proxy.event_port) for _ in range(8)]
    texts = [document(f"I{i}", ModelName="m" * 3000) + document(f"I{i}", "delInstance")
             for i in range(len(others))]
    for start in range(0, max(map(len, texts)), 700):
        for other, text in zip(others, texts):
            other.send(text[start:start + 700])
    seen = [EVENT.fullmatch(stream_watcher.stdout.readline().decode().rstrip()).group(2, 3)
            for _ in range(16)]
    for i in range(len(others)):
        assert [kind for name, kind in seen if name == f"I{i}"] == ["addInstance", "delInstance"]
    assert published_in_stream(server, stream_watcher) == []
    for other in others:
        other.close()


def test_thousands_of_connections_come_and_go_and_leave_nothing_behind(
        proxy, server, stream_watcher):
    assert published_in_stream(server, stream_watcher) == []  # so it is connected
    threads = proxy.service_status("Threads")
    for _ in range(2000):
        with socket.create_connection(("127.0.0.1", proxy.event_port)) as connection:
            connection.sendall(b"<")
            connection.shutdown(socket.SHUT_WR)
            assert connection.recv(1) == b""  # closed by the service, too
    wait_until(lambda: proxy.service_status("Threads") <= threads, "their threads to end", 60)
    assert published_in_stream(server, stream_watcher, document("ON"),
                               document("ON", "delInstance"))[0][0] == "ON"


def test_two_hundred_connections_at_once_keep_no_event_and_no_request_waiting(
        proxy, server, stream_watcher):
    assert published_in_stream(server, stream_watcher) == []  # so it is connected
    assert names(proxy, "UPOS_LogicalDevice")[1] == OK  # so the threads of COM's calls are there
    threads = proxy.service_status("Threads")
    crowd = []
    while len(crowd) < 200:  # a few at a time: what does not fit the queue is tried after a second
        crowd += [socket.create_connection(("127.0.0.1", proxy.event_port)) for _ in range(8)]
        wait_until(lambda: proxy.service_status("Threads") >= threads + len(crowd),
                   "them to be accepted", 60)
    peak = proxy.service_memory_peak()  # of which Wine's threads are 1 MiB each
    for connection in crowd:
        connection.sendall(document("NEVER")[:60].encode() + b"x" * 20_000)
    assert published_in_stream(server, stream_watcher, document("ON"),
                               document("ON", "delInstance"))[0][0] == "ON"
    assert names(proxy, "UPOS_LogicalDevice")[1] == OK
    # Each holds its text, up to three times while it grows, and what its thread's first document
    # touches of stack and heap: less than a quarter of a MiB.
    assert proxy.service_memory_peak() - peak < len(crowd) / 4
    for connection in crowd:
        connection.close()
    wait_until(lambda: proxy.service_status("Threads") <= threads, "their threads to end", 60)


def test_beside_three_hundred_idle_connections_an_event_of_300_kilobytes_is_taken(
        proxy, server, stream_watcher):
    assert published_in_stream(server, stream_watcher) == []  # so it is connected
    threads = proxy.service_status("Threads")
    idle = []
    for number in range(1, 301):
        idle.append(socket.create_connection(("127.0.0.1", proxy.event_port)))
        if number % 5 == 0:  # half of what may wait to be accepted
            wait_until(lambda: proxy.service_status("Threads") >= threads + number, "them to be in")
    large = document("LARGE").replace("<field", f"<!--{'x' * 300_000}--><field", 1)
    assert published_in_stream(server, stream_watcher, large, document("LARGE", "delInstance")) == [
        ("LARGE", "addInstance", ""), ("LARGE", "delInstance", "")]
    for connection in idle:
        connection.close()
    wait_until(lambda: proxy.service_status("Threads") <= threads, "their threads to end", 60)


def test_a_connection_that_never_ends_its_document_takes_64_mebibytes_and_is_dropped(
        proxy, server, stream_watcher):
    assert published_in_stream(server, stream_watcher) == []  # so it is connected
    peak = proxy.service_memory_peak()
    with DeviceServer(proxy.event_port) as endless:
        endless.connection.settimeout(120)
        sent = 0
        with pytest.raises(OSError):  # reset by the service
            while True:
                endless.send("x" * 1_000_000)
                sent += 1_000_000
    assert sent > 63_000_000
    assert proxy.service_memory_peak() - peak < 220
    assert published_in_stream(server, stream_watcher, document("ON"),
                               document("ON", "delInstance"))[0][0] == "ON"


def test_a_device_server_that_never_reads_keeps_no_request_and_no_event_waiting(
        proxy, server, stream_watcher):
    # Each request has an update sent to it; two hundred and more are not read.
    for _ in range(20):
        assert names(proxy, "UPOS_LogicalDevice")[1] == OK
    assert published_in_stream(server, stream_watcher, document("ON"),
                               document("ON", "delInstance"))[0][0] == "ON"
