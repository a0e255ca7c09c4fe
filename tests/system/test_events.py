"""What subscribers to QuillmonEvent see of the datagrams that reach the event port."""

import re
import socket

import pytest

from machine import SERVICE, wait_until
from peers import EVENT, OK, counters, event, events_until, framed, names, plain, published, send
from ports import reserve_port

ALL_PROCESSORS = True

CHANGED = "modifyInstance"
LONGEST = 1024  # of a datagram, with its marks


@pytest.fixture(scope="module")
def till(shared_machine):
    """The sample till and the running service, which traces, for all tests of this file."""
    till = shared_machine.start_till()
    shared_machine.switch_trace_on()
    shared_machine.install_service()
    shared_machine.wait_for_event_port(till.events)
    return till


# -- the till's events


def published_by(till, watcher):
    """What subscribers get of what the till sends: the last one is its own, since another sender's
    might overtake it."""
    till.type("event SCANNER1 LAST")
    seen = []
    while (found := EVENT.fullmatch(watcher.stdout.readline().decode().rstrip()))[3] != "LAST":
        seen.append(found.groups())
    return seen


def test_events_arrive_as_quillmon_events_with_their_four_properties(shared_machine, till, watcher):
    for command in ("attach MICR1", "change MICR1 7", "detach MICR1"):
        till.type(command)
    assert [watcher.stdout.readline().decode().rstrip() for _ in range(3)] == [
        'QuillmonEvent classname="MICR" deviceid="MICR1" eventtype="addInstance" codename=""',
        'QuillmonEvent classname="MICR" deviceid="MICR1" eventtype="modifyInstance" codename="7"',
        'QuillmonEvent classname="MICR" deviceid="MICR1" eventtype="delInstance" codename=""']


def test_a_foreign_makers_events_are_not_published(shared_machine, till, watcher):
    for name in ("PINPAD1", "DISPLAY2", "PRINTER2", "SCANNER2", "SCALE1"):
        till.type(f"change {name} 4")
    assert published_by(till, watcher) == [
        ("Scanner", "SCANNER2", CHANGED, "4"), ("Scale", "SCALE1", CHANGED, "4")]


# -- makers, words and attributes


@pytest.mark.parametrize("cls, maker, is_published", [
    ("Scanner", "Veltran", True),
    ("Scanner", "ORVEX", True),
    ("Scanner", "OEM", True),
    ("Scale", "OEM", True),
    ("RFIDScanner", "OEM", True),
    ("scanner", "OEM", False),
    ("POSPrinter", "OEM", False),
    ("POSPrinter", "Veltran", True),
    ("Scanner", "veltran", False),
    ("Scanner", "Veltran ", False),
    ("Scanner", "Norvia", False),
    ("Scanner", "", False),
])
def test_the_maker_decides(till, watcher, cls, maker, is_published):
    assert published(till, watcher, event("D1", cls=cls, maker=maker)) == (
        [(cls, "D1", CHANGED, "")] if is_published else [])


def test_only_the_exact_word_na_is_kept_back(till, watcher):
    words = ["na", "NA ", " NA", "Na", "NA", "N/A", "", "anything"]
    assert published(till, watcher, *(event("D1", kind=word) for word in words)) == [
        ("Scanner", "D1", word, "") for word in words if word != "NA"]


FIELD = '<field name="{}" type="string">{}</field>'
MAKER = FIELD.format("ManufacturerName", "Veltran")


@pytest.mark.parametrize("document, expected", [
    (f"<event>{MAKER}</event>", ("", "", "", "")),
    (f'<event type="x">{MAKER}</event>', ("", "", "x", "")),
    (f'<event provider="p" other="o" type="x">{MAKER}</event>', ("", "", "x", "")),
    (f'<event type="x">{FIELD.format("deviceid", "A")}{FIELD.format("MANUFACTURERNAME", "ORVEX")}'
     "</event>", ("", "A", "x", "")),
    (f'<event type="x">{FIELD.format("DeviceID", "A")}{MAKER}{FIELD.format("DEVICEID", "B")}'
     "</event>", ("", "B", "x", "")),
    (f'<event type="x">{MAKER}{FIELD.format("ManufacturerName", "Norvia")}</event>',
     ("", "", "x", "")),
    (f'<event type="x"><deep><field name="DeviceID">A</field>{MAKER}</deep></event>',
     ("", "A", "x", "")),
    (f'<?xml version="1.0"?><message><event type="x">{MAKER}</event>'
     f'<event type="y">{MAKER}</event></message>', ("", "", "x", "")),
    (f'<event type="&lt;a&gt; &amp; &quot;b&quot;">{MAKER}</event>', ("", "", '<a> & "b"', "")),
    (f'<event type="x"><field name="DeviceID"> a <b>c</b><![CDATA[<d>]]></field>{MAKER}</event>',
     ("", " a c<d>", "x", "")),
    (f'<event type="x"><a><a><a>{"<b>" * 60}{MAKER}{"</b>" * 60}</a></a></a></event>',
     ("", "", "x", "")),
    (f'<event type="x">{MAKER}</event>\0no XML any more <', ("", "", "x", "")),
], ids=["no attributes", "only a type", "other attributes", "names in any case", "the last id",
        "one maker that keeps", "fields below", "the first event", "escapes", "mixed content",
        "fields far below",
        "up to the NUL"])
def test_a_document_is_read_for_its_first_event(till, watcher, document, expected):
    assert published(till, watcher, document) == [expected]


@pytest.mark.parametrize("document", [
    '<event type="x"/>',
    f'<event type="x">{FIELD.format("DeviceID", "A")}</event>',
    f'<Event type="x">{MAKER}</Event>',
    f"<notification>{MAKER}</notification>",
], ids=["no field", "no maker", "another case", "no event"])
def test_a_document_without_an_event_of_a_maker_is_dropped(till, watcher, document):
    assert published(till, watcher, document) == []


def test_text_beyond_ascii_is_published_as_it_is(till, watcher):
    assert published(till, watcher, event("Käse ÿ", kind="€", cls="Scanner-µ", code="„1“")) == [
        ("Scanner-µ", "Käse ÿ", "€", "„1“")]


# -- datagrams and their marks


@pytest.mark.parametrize("datagrams, expected", [
    ([framed(event("A")) + framed(event("B"))], ["A", "B"]),
    ([b"\x08 before" + framed(event("A")) + b"between\x08\x08" + framed(event("B")) + b"after"],
     ["A", "B"]),
    ([framed(event("A"))[:40], framed(event("A"))[40:]], ["A"]),
    ([framed(event("A"))[:1], framed(event("A"))[1:-1], framed(event("A"))[-1:]], ["A"]),
    ([framed(event("A")) + framed(event("B"))[:70], framed(event("B"))[70:] + framed(event("C"))],
     ["A", "B", "C"]),
    ([framed(event("A"))[:40], b"", framed(event("A"))[40:]], ["A"]),
    ([framed(event("A"))[:40], b"x" * 2000, framed(event("A"))[40:]], ["A"]),
    ([b"\x1bno end mark", event("A"), event("B")], ["B"]),
], ids=["two in one", "bytes outside the marks", "split in two", "split at the marks",
        "one and a half", "empty amid a message", "oversize amid a message",
        "an open message swallows the next"])
def test_messages_are_what_stands_between_the_marks(till, watcher, datagrams, expected):
    assert published(till, watcher, *datagrams) == [plain(name) for name in expected]


def padded(device_id, length):
    """A datagram of that length that holds one event."""
    datagram = framed(event(device_id))
    return datagram + b"." * (length - len(datagram))


@pytest.mark.parametrize("datagram", [
    b"",
    b"\x08",
    b"\x1b\x08",
    b"\x00" * 100,
    bytes(range(256)).replace(b"\x1b", b""),
    b"no marks at all",
    padded("LOST", LONGEST + 1),
    padded("LOST", 60000),
    padded("LOST", 65507),
    framed("<event"),
    framed(event("LOST")[:-1]),
    framed(event("LOST").replace("</field>", "", 1)),
    framed(event("LOST") + "<"),
    framed(event("LOST") + event("LOST")),
    framed("This is no XML: <&"),
    framed(b"\xff\xfe\xfd"),
    framed(event("LOST").encode().replace(b"Scanner", b"\xe4\xff")),
    framed('<!DOCTYPE event>' + event("LOST")),
    framed('<!DOCTYPE event [<!ENTITY id "LOST">]>' + event("&id;")),
    framed('<!DOCTYPE event [<!ENTITY id SYSTEM "file:///etc/hostname">]>' + event("&id;")),
    framed(event("&undefined;")),
    framed("<a>" * 150 + "</a>" * 100),
], ids=["empty", "end mark", "no text", "zeros", "all bytes", "no marks", "one byte too long",
        "60000 bytes", "65507 bytes", "a piece of a tag", "cut", "unbalanced", "more behind",
        "two roots", "no XML", "no characters", "not UTF-8", "document type", "entity",
        "external entity", "unknown entity", "deep"])
def test_a_bad_datagram_costs_only_itself(till, watcher, datagram):
    assert published(till, watcher, event("BEFORE"), datagram, event("AFTER")) == [
        plain("BEFORE"), plain("AFTER")]


def test_a_datagram_of_the_full_length_is_taken(till, watcher):
    assert published(till, watcher, padded("A", LONGEST)) == [plain("A")]


def test_an_unreadable_document_is_traced(shared_machine, till, watcher):
    before = len(shared_machine.trace())
    assert published(till, watcher, '<!DOCTYPE event>' + event("LOST")) == []
    lines = shared_machine.trace()[before:]
    assert "<<XMLAdapter XML Exception >> : " in lines
    assert len(lines) == 2 and lines[1] != ""


# -- subscribers


def test_every_subscriber_gets_every_event_in_order(shared_machine, till):
    watchers = [shared_machine.watch_events() for _ in range(3)]
    sent = [event(f"D{i}", code=str(i)) for i in range(20)]
    expected = [("Scanner", f"D{i}", CHANGED, str(i)) for i in range(20)]
    send(till.events, *sent, event("END"))
    for watcher in watchers:
        assert events_until(watcher, "END") == expected
        watcher.kill()


def test_a_subscriber_that_leaves_takes_nothing_from_the_others(shared_machine, till, watcher):
    leaving = shared_machine.watch_events()
    leaving.kill()
    leaving.wait()
    assert published(till, watcher, *(event(f"D{i}") for i in range(5))) == [
        plain(f"D{i}") for i in range(5)]


def test_a_subscription_with_a_condition_gets_what_fits(shared_machine, till):
    watcher = shared_machine.watch_events("SELECT * FROM QuillmonEvent WHERE classname = 'Scale'")
    send(till.events, event("A"), event("B", cls="Scale"), event("C"), event("END", cls="Scale"))
    assert events_until(watcher, "END") == [("Scale", "B", CHANGED, "")]
    watcher.kill()


def test_events_leave_nothing_behind(shared_machine, till, watcher):
    def counted():
        names(shared_machine, "UPOS_Belt")  # the stand-in counts at the end of a request
        return counters(shared_machine)

    before = counted()
    assert len(published(till, watcher, *(event(f"D{i}") for i in range(50)))) == 50
    # The last event is let go of after its subscribers have it.
    wait_until(lambda: counted() == before, "the last event to be gone")
    assert before["Violations"] == 0


# -- events beside requests


def test_a_burst_arrives_in_order_while_a_list_waits_for_the_device_server(
        shared_machine, till, watcher):
    till.type("misbehave stall")
    till.expect("answers from now on: stall")
    stuck = shared_machine.start_list("UPOS_Scanner")
    try:
        till.expect("request enumerateInstances UPOS_Scanner")
        ids = [f"D{i:03}" for i in range(100)]
        assert published(till, watcher, *map(event, ids)) == [plain(name) for name in ids]
        assert stuck.poll() is None
    finally:
        till.type("misbehave none")
        stuck.kill()
        # The stalled answer holds the one slot until the service's connection ends.
        shared_machine.restart_service(till.events)


# -- the event port


def configure(machine, till, port, **keys):
    machine.configure(upos__requestSocket__Port=till.requests,
                      provider__eventSocket__Port=port, **keys)


@pytest.fixture
def restored(shared_machine, till):
    """Brings the configuration and the service back after a test with others."""
    yield
    configure(shared_machine, till, till.events)
    shared_machine.restart_service(till.events)


def restart_without_waiting(machine):
    machine.end_service()
    assert machine.run("sc", "start", SERVICE).returncode == 0


def test_a_port_in_use_is_traced_once_per_attempt_and_taken_when_free(
        shared_machine, till, restored):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as holder:
        port = reserve_port()
        holder.bind(("0.0.0.0", port))
        # The pause is the port's own, whatever the one after a failed connect.
        configure(shared_machine, till, port, upos__requestSocket__retryTimeout=4294967295)
        attempt = re.compile(rf"\[EventThread\] Unable to open event port {port}, next attempt in "
                             r"(\d+) milliseconds")

        def pauses():
            return [int(found[1]) for found in map(attempt.fullmatch, shared_machine.trace())
                    if found]

        restart_without_waiting(shared_machine)
        wait_until(lambda: len(pauses()) >= 3, "three attempts")
        assert pauses()[:3] == [1000, 2000, 4000]
        assert names(shared_machine, "UPOS_Scanner") == (["SCANNER1", "SCANNER2"], OK)
        assert shared_machine.service_state() == "RUNNING"
    shared_machine.wait_for_event_port(port)
    watcher = shared_machine.watch_events()
    seen = pauses()
    send(port, event("A"), event("END"))
    assert events_until(watcher, "END") == [plain("A")]
    assert pauses() == seen
    watcher.kill()
