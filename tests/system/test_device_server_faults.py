"""The installed service against device servers that fail, stall, lie or attack.

Whatever a device server does, its request fails or gives what the answer really holds, and the
service answers the next one.
"""

import contextlib
import re
import socket
import threading
import time

import pytest

from machine import wait_until
from peers import (BS, ESC, FAILED, NORMAL, PLACES, SCANNER, Peer, Setting, Watched, device, framed,
                   reset, response, rows)

ALL_PROCESSORS = True


@pytest.fixture(scope="module")
def installed(shared_machine):
    setting = Setting(shared_machine)
    yield setting
    setting.peer.close()


@pytest.fixture
def service(installed):
    with installed.survived():
        yield installed


# -- what the device server receives

DECLARATION = b'<?xml version="1.0" encoding="UTF-8" standalone="no" ?>'


@pytest.fixture
def received(service):
    """The bytes of the next request, up to the end of its connection."""
    connections = []

    def answer(connection, request):
        connection.sendall(NORMAL)
        connections.append(request)
        while piece := connection.recv(65536):
            connections[-1] += piece
        connections.append(None)

    service.peer.answer = answer

    def wait():
        wait_until(lambda: None in connections, "the connection to end")
        assert len(connections) == 2
        return connections[0]

    return wait


def test_an_enumeration_is_sent_as_exactly_these_bytes(service, received):
    assert service.list() == SCANNER
    assert received() == (
        b"\x1b" + DECLARATION + b"<request><type>enumerateInstances</type>"
        b"<class>UPOS_Scanner</class></request>\x08")


@pytest.mark.parametrize("quoted, sent", [
    ("SCALE1", b"SCALE1"),
    ("A&B<C>D", b"A&amp;B&lt;C&gt;D"),
    ("it's", b"it's"),
    ('say \\"yes\\"', b'say \\"yes\\"'),
    ("C:\\\\dev", b"C:\\\\dev"),
    ("&amp;", b"&amp;amp;"),
    ("]]>", b"]]&gt;"),
    ("%s%n%p", b"%s%n%p"),
    (" ", b" "),
    ("x" * 5000, b"x" * 5000),
], ids=["plain", "markup", "apostrophe", "quotes stay escaped", "backslashes stay doubled",
        "an entity is text", "end of CDATA", "conversions", "blank", "long"])
def test_a_lookup_is_sent_as_exactly_these_bytes(service, received, quoted, sent):
    assert service.client.run("get", f'UPOS_Scale.DeviceID="{quoted}"').returncode == 0
    assert received() == (
        b"\x1b" + DECLARATION + b"<request><type>getInstance</type><class>UPOS_Scale</class><id>"
        + sent + b"</id></request>\x08")


def test_a_path_without_quotes_is_looked_up_as_a_whole(service, received):
    service.client.run("get", "UPOS_Scale.DeviceID=7")
    assert b"<class>UPOS_Scale</class><id>UPOS_Scale.DeviceID=7</id>" in received()


def test_each_request_has_a_connection_of_its_own(service):
    before = len(service.peer.connections)
    for _ in range(3):
        assert service.list() == SCANNER
    assert len(service.peer.connections) == before + 3


# -- frames

@pytest.mark.parametrize("answer, expected", [
    (b"", FAILED),
    (ESC, FAILED),
    (ESC + BS, FAILED),
    (BS, FAILED),
    (NORMAL[:len(NORMAL) // 2], FAILED),
    (NORMAL[1:], FAILED),
    (NORMAL[:-1], SCANNER),
    (b"noise\x08\x00\xff \r\n" + NORMAL + b"more \x1b<response/>\x08 noise", SCANNER),
    (BS * 5000 + NORMAL, SCANNER),
    (b"x" * 1023 + NORMAL, SCANNER),
    (NORMAL + NORMAL * 1000, SCANNER),
    (ESC + NORMAL, FAILED),
    (framed(response(device()).replace("SCANNER1", "\x08")), FAILED),
    (framed("\x1b" * 3000), FAILED),
], ids=["nothing", "start mark only", "empty message", "end mark only", "closed inside",
        "no start mark", "all but the end mark is taken as it is", "garbage around the marks",
        "end marks outside", "start mark at the end of a receive", "a thousand messages behind",
        "a second start mark is data", "an end mark inside ends it", "start marks inside"])
def test_the_first_message_between_the_marks_is_the_answer(service, answer, expected):
    assert service.answer(answer) == expected


def test_single_bytes_are_joined(service):
    def answer(connection, _):
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for byte in NORMAL:
            connection.sendall(bytes([byte]))
            time.sleep(0.001)

    assert service.answer(answer) == SCANNER


def test_pieces_of_odd_sizes_are_joined_in_order(service):
    names = [f"SCANNER{i}" for i in range(200)]
    bytes_ = b"noise" + framed(response(*map(device, names)))

    def answer(connection, _):
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for start in range(0, len(bytes_), 1021):
            connection.sendall(bytes_[start:start + 1021])

    assert service.answer(answer) == [[name] for name in names]


@pytest.mark.parametrize("head", [b"", ESC, NORMAL[:-20]], ids=["before", "at", "inside"])
def test_a_reset_fails_the_request(service, head):
    def answer(connection, _):
        connection.sendall(head)
        reset(connection)

    assert service.answer(answer) == FAILED


def test_a_reset_before_the_request_is_read_fails_it(service):
    def reset_unread(connection):
        connection.recv(1, socket.MSG_PEEK)  # before, the service might not even have connected
        reset(connection)

    service.peer.on_connect = reset_unread
    try:
        assert service.list() == FAILED
    finally:
        service.peer.on_connect = None


@pytest.mark.parametrize("head, expected", [
    (b"", FAILED), (NORMAL[:-20], FAILED), (NORMAL[:-1], SCANNER)],
    ids=["before", "inside", "all but the end mark"])
def test_a_peer_that_closes_only_its_own_direction_ends_the_answer(service, head, expected):
    ended = threading.Event()

    def answer(connection, _):
        connection.sendall(head)
        connection.shutdown(socket.SHUT_WR)
        if connection.recv(1) == b"":  # the service closed, not waiting for this side
            ended.set()

    assert service.answer(answer) == expected
    assert ended.wait(20)


@contextlib.contextmanager
def stalled(service, head):
    """A client that waits for scales from a peer that sent `head` and stalls; until the block ends,
    when the peer closes. Requests for scanners are answered meanwhile."""
    stalls, go_on = threading.Event(), threading.Event()

    def answer(connection, request):
        if b"UPOS_Scale" in request:
            connection.sendall(head)
            stalls.set()
            go_on.wait(60)
        else:
            connection.sendall(NORMAL)

    service.peer.answer = answer
    client = service.machine.start_list("UPOS_Scale")
    try:
        assert stalls.wait(30)
        yield client
    finally:
        go_on.set()


@pytest.mark.parametrize("head, expected", [
    (b"", None), (b"noise", None), (NORMAL[:-20], None), (NORMAL[:-1], SCANNER)],
    ids=["before the frame", "after noise", "inside the frame", "before the end mark"])
def test_a_stall_holds_its_own_request_only_and_costs_nothing(service, head, expected):
    with stalled(service, head) as client:
        assert service.list() == SCANNER
        used = service.machine.service_time()
        time.sleep(0.5)  # what is measured: half a second of waiting takes no processor time
        assert service.machine.service_time() - used < 0.1
        assert client.poll() is None
    out, _ = client.communicate(timeout=30)
    if expected:
        assert rows(out) == expected
    else:
        assert FAILED.encode() in out


def test_a_stall_after_the_frame_holds_nothing(service):
    with stalled(service, NORMAL + b"more") as client:
        out, _ = client.communicate(timeout=30)
        assert rows(out) == SCANNER


def test_a_client_that_gives_up_leaves_its_request_to_itself(service):
    with stalled(service, ESC) as client:
        client.kill()
        client.wait()
        assert service.list() == SCANNER
    assert service.list() == SCANNER


# -- documents

@pytest.mark.parametrize("document, expected", [
    (response(), []),
    ("<anything/>", []),
    (response(device(ManufacturerName="Other")), []),
    ("<a><b>" + device() + "</b></a>", SCANNER),
    (device(), SCANNER),
    ('<response><error name="busy"/></response>', FAILED),
    ('<error/>', FAILED),
    (response(device(), "<error/>"), FAILED),
    ("", FAILED),
    (" \r\n\t", FAILED),
    ("This is no XML", FAILED),
    ("{\"DeviceID\": 1}", FAILED),
    ("<response>" + device(), FAILED),
    (response(device(), device("A")[:-5]), FAILED),
    (response(device()) + response(device()), FAILED),
    (response(device()) + "junk", FAILED),
    ("junk" + response(device()), FAILED),
    ("<response>" + device() + "</Response>", FAILED),
    (response(device(), '<instance name="a" name="b"/>'), FAILED),
    (response(device(), "<instance name=a/>"), FAILED),
    (response(device(ModelName="&nbsp;")), FAILED),
    (response(device(ModelName="&#0;")), FAILED),
    (response(device(ModelName="&#8;")), FAILED),
    (response(device(ModelName="a & b")), FAILED),
    (response(device(), "<![CDATA["), FAILED),
    (response(device(), "<!-- -- -->"), FAILED),
    ('<?xml version="2.0"?>' + response(device()), FAILED),
    (' <?xml version="1.0"?>' + response(device()), FAILED),
    (response(device()) + "\0<junk", SCANNER),
    (response(device(ModelName="a\0b")), FAILED),
    ("\0" + response(device()), FAILED),
], ids=["no instance", "another root", "foreign maker", "instance deeper down", "instance as root",
        "error", "error as root", "error behind an instance", "empty", "blank", "text", "JSON",
        "truncated", "second instance truncated", "two roots", "text behind", "text before",
        "wrong end tag", "attribute twice", "attribute without quotes", "unknown entity",
        "character 0", "character 8", "bare ampersand", "open CDATA", "bad comment", "XML 2.0",
        "blank before the declaration", "zero byte behind", "zero byte inside", "zero byte first"])
def test_a_well_formed_document_without_an_error_is_listed(service, document, expected):
    assert service.answer(framed(document)) == expected


@pytest.mark.parametrize("document, model", [
    ("Café €".encode(), "Café €"),
    ("日本".encode(), "??"),
    ("Caf\xe9".encode("latin-1"), None),
    (b"\xc0\xaf", None),
    (b"\xed\xa0\x80", None),
    (b"&#x1F600;", "??"),
], ids=["UTF-8", "not in the code page", "Latin-1 undeclared", "overlong", "surrogate",
        "beyond 16 bits"])
def test_an_undeclared_encoding_is_utf_8(service, document, model):
    answer = framed(response(device(ModelName="@")).encode().replace(b"@", document))
    assert service.answer(answer, "ModelName") == ([["SCANNER1", model]] if model else FAILED)


@pytest.mark.parametrize("encoding, text, model", [
    ("ISO-8859-1", "Café".encode("latin-1"), "Café"),
    ("UTF-8", "Café".encode("latin-1"), None),
    ("US-ASCII", "Café".encode(), None),
    ("KLINGON-8", b"Cafe", None),
    ("ebcdic-cp-us", b"Cafe", None),
    ("", b"Cafe", None),
    ("x" * 100000, b"Cafe", None),
    ("UTF-16", b"Cafe", "Cafe"),
], ids=["Latin-1", "Latin-1 as UTF-8", "UTF-8 as ASCII", "unknown", "EBCDIC", "empty", "endless",
        "a wrong UTF-16 is seen through"])
def test_a_declared_encoding_is_read_if_the_bytes_are_of_it(service, encoding, text, model):
    answer = framed(b'<?xml version="1.0" encoding="' + encoding.encode() + b'"?>'
                    + response(device(ModelName="@")).encode().replace(b"@", text))
    assert service.answer(answer, "ModelName") == ([["SCANNER1", model]] if model else FAILED)


@pytest.mark.parametrize("document, expected", [
    (b"\xef\xbb\xbf" + response(device()).encode(), SCANNER),
    (response(device()).encode("utf-16"), FAILED),
    (response(device()).encode("utf-16-be"), FAILED),
], ids=["UTF-8", "UTF-16 ends at its first zero byte", "UTF-16 big endian begins with one"])
def test_only_the_byte_order_mark_of_utf_8_is_skipped(service, document, expected):
    assert service.answer(framed(document)) == expected


@pytest.mark.parametrize("text, value", [
    ("&lt;&amp;&gt;&quot;&apos;&#65;", "<&>\"'A"),
    ("<![CDATA[<&]]> b<!-- c --> d<?e f?>", "<& b d"),
    ("a<b>c<d/>e</b>f", "acef"),
    ("%s%n%p%100000d%%", "%s%n%p%100000d%%"),
    ("  blanks  ", "  blanks  "),
    ("", ""),
    ("x" * 100000, "x" * 100000),
], ids=["entities", "CDATA and comments", "elements inside", "conversions", "blanks", "empty",
        "long"])
def test_a_value_is_the_text_content_of_its_field(service, text, value):
    assert service.answer(framed(response(device(ModelName=text))), "ModelName") == [
        ["SCANNER1", value]]


def test_line_ends_in_a_value_become_line_feeds_unless_written_as_references(service):
    service.peer.answer = framed(response(device(ModelName="A\r\nB&#13;&#10;C")))
    done = service.client.run("list", "UPOS_Scanner", "ModelName")
    # A raw CR LF is one LF in XML, one written as references stays; the client's own line ends are
    # CR LF, so each LF comes out with a CR before it.
    assert done.stdout == b"ModelName\r\nA\r\nB\r\r\nC\r\n"


def test_thousands_of_unknown_type_words_cost_nothing(service):
    fields = {f"F{i}": (f"word{i}", "v") for i in range(3000)}
    answer = framed(response(device(**fields, ModelName=("word7", "last"))))
    assert service.answer(answer, "ModelName") == [["SCANNER1", "last"]]


# -- attacks

def expansion(levels, width=10):
    """Entities of entities: a few hundred bytes that stand for width ** levels times a hundred."""
    entities = "".join(
        f'<!ENTITY e{i} "{f"&e{i - 1};" * width}">' for i in range(1, levels + 1))
    return (f'<!DOCTYPE response [<!ENTITY e0 "{"x" * 100}">{entities}]>'
            + response(device(ModelName=f"&e{levels};")))


@pytest.mark.parametrize("document", [
    expansion(9),
    expansion(1),
    expansion(9).replace("ENTITY e", "ENTITY % e").replace("&e", "%e"),
    f'<!DOCTYPE r [<!ENTITY a "{"x" * 50000}">]>' + response(device(ModelName="&a;" * 50000)),
    '<!DOCTYPE r [<!ENTITY a "&b;"><!ENTITY b "&a;">]>' + response(device(ModelName="&a;")),
    "<!DOCTYPE r []>" + response(device()),
    "<!DOCTYPE r>" + response(device()),
    "<!DOCTYPE " + "x" * 1000000,
    "<!DOCTYPE r [" + "<!ELEMENT a ANY>" * 50000 + "]>" + response(device()),
    "<!DOCTYPE r [<!ELEMENT a " + "(" * 100000 + "b" + ")" * 100000 + ">]>" + response(device()),
], ids=["a billion laughs", "a few", "of parameters", "quadratic", "endless", "empty subset",
        "no subset", "endless name", "many declarations", "deep content model"])
def test_a_document_type_is_refused_at_once(service, document):
    peak, used = service.memory_peak(), service.machine.service_time()
    assert service.answer(framed(document)) == FAILED
    assert service.machine.service_time() - used < 10
    assert service.memory_peak() - peak < 20


@pytest.fixture
def watched(service):
    watched = Watched(service.machine.c / "secret.txt")
    yield watched
    assert watched.seen() == []
    watched.close()


@pytest.mark.parametrize("frame", [
    '<!DOCTYPE r [<!ENTITY a SYSTEM "@">]><response>{device}</response>',
    '<!DOCTYPE r SYSTEM "@"><response>{device}</response>',
    '<!DOCTYPE r PUBLIC "-//x//y" "@"><response>{device}</response>',
    '<!DOCTYPE r [<!ENTITY % p SYSTEM "@">%p;]><response>{device}</response>',
], ids=["entity", "document type", "public document type", "parameter entity"])
def test_nothing_outside_the_document_is_opened(service, watched, frame):
    text = frame.replace("{device}", device(ModelName="&a;"))
    answers = iter([text.replace("@", place.format(port=watched.port)) for place in PLACES])
    service.peer.answer = lambda connection, _: connection.sendall(framed(next(answers)))
    for _ in PLACES:
        assert service.list("ModelName") == FAILED


def test_schema_hints_and_inclusions_open_nothing(service, watched):
    for place in ("file:///C:/secret.txt", f"http://127.0.0.1:{watched.port}/a.xsd"):
        hints = (
            f'<?xml-stylesheet href="{place}" type="text/xsl"?>'
            '<response xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance" '
            'xmlns:xi="http://www.w3.org/2001/XInclude" '
            f'xsi:noNamespaceSchemaLocation="{place}" xsi:schemaLocation="urn:a {place}">'
            f'<xi:include href="{place}" parse="text"/>{device()}</response>')
        assert service.answer(framed(hints)) == SCANNER


def nested(tag, depth, content):
    return f"<{tag}>" * depth + content + f"</{tag}>" * depth


FIELDS = ('<field name="DeviceID" type="string">SCANNER1</field>'
          '<field name="ManufacturerName" type="string">Veltran</field>')
A, B = (f'<field name="DeviceID" type="string">{name}</field>' for name in "AB")
MAKER = '<field name="ManufacturerName" type="string">Veltran</field>'


@pytest.mark.parametrize("document, rows", [
    (nested("a", 1000, device()), [["SCANNER1", "(null)"]]),
    (nested("instance", 1000, FIELDS), [["SCANNER1", "(null)"]] * 1000),
    (response(device(ModelName=nested("b", 1000, "deep"))), [["SCANNER1", "deep"]]),
    (response(device(ModelName=nested("field", 1000, "deep"))), [["SCANNER1", "deep"]]),
    (response(device(ModelName=nested("field", 50, "x" * 1000))), [["SCANNER1", "x" * 1000]]),
    # The inner device's fields are the outer one's too; the last of a name is what WMI has.
    (f"<instance>{A}{MAKER}<instance>{B}{MAKER}</instance></instance>",
     [["B", "(null)"], ["B", "(null)"]]),
    (f"<instance>{A}<group><instance>{MAKER}</instance></group></instance>",
     [["A", "(null)"], ["(null)", "(null)"]]),
    (f"<instance>{A}<instance>{B}</instance>{MAKER}</instance>", [["B", "(null)"]]),
], ids=["1,000 elements", "1,000 instances", "a value in 1,000 elements", "1,000 fields",
        "a small document that repeats itself", "a device in a device", "the maker further in",
        "the inner one is discarded"])
def test_nested_elements_are_all_read(service, document, rows):
    assert service.answer(framed(document), "ModelName") == rows


@pytest.mark.parametrize("document, expected", [
    ("<a>" * 100000 + "</a>" * 100000, FAILED),
    ("<response>" + device() + "<a>" * 100000 + "</a>" * 100000 + "</response>", FAILED),
    ("<a>" * 1000000, FAILED),
    (response(device(ModelName="<a>" * 100000 + "</a>" * 100000)), FAILED),
    (response(device(), "<a/>" * 100000), SCANNER),
    (response(device(ModelName="a<!---->" * 100000)), SCANNER),
    (response(device(), "<a " + " ".join(f'a{i}=""' for i in range(20000)) + "/>"), SCANNER),
    (response(device(), f"<{'a' * 1000000}/>"), SCANNER),
    (response(device(**{f"F{i}": "v" for i in range(5000)})), SCANNER),
    (response(*[device(ManufacturerName="Other")] * 2000, device()), SCANNER),
], ids=["deep", "deep behind an instance", "deep and open", "deep in a field", "wide",
        "a value in pieces", "attributes", "a long name", "fields",
        "discarded devices whose fields stay pending"])
def test_a_deep_or_large_document_is_read_or_refused_in_bounded_time(service, document, expected):
    used = service.machine.service_time()
    assert service.answer(framed(document)) == expected
    assert service.machine.service_time() - used < 20


# -- with the trace on; last, because it stays on until the service's end

def test_the_trace_switched_on_while_an_answer_is_awaited_shows_the_answer(service):
    with stalled(service, NORMAL[:-1]) as client:
        service.machine.switch_trace_on()
    out, _ = client.communicate(timeout=30)
    assert rows(out) == SCANNER
    trace = service.machine.trace()
    assert not any("Creating socket" in line for line in trace)
    assert "<<XMLAdapter>>: Receiving data" in trace


RETRY = {"upos__requestSocket__retryTimeout": 100}
ENDLESS = {"upos__requestSocket__retryTimeout": 3600000}  # no test lasts as long


@pytest.fixture(scope="module")
def tracing(installed):
    installed.machine.switch_trace_on()
    start_anew(installed, **RETRY)
    return installed


@pytest.fixture
def traced(tracing):
    """The service with the trace on, beginning with an empty log."""
    tracing.machine.log.write_bytes(b"")
    yield tracing
    assert tracing.answer(NORMAL) == SCANNER


SKIPPED = "<<XMLAdapter>>: Just recently Java failed, I will skip it for now..."
EXPIRED = "<<TimeoutExpired>>: Timeout expired! Java drivers will be hit again."


def refused(milliseconds):
    return [
        "<<XMLAdapter>>: Creating socket",
        "<<XMLAdapter>>: Unable to connect to socket! aborting (Reason: 10061)... "
        f"Will reject requests for the next {milliseconds} milliseconds...",
        "<<signalServerIsOfflineFor5Seconds>>: Java server is down, will avoid attempts for "
        f"{milliseconds} milliseconds..."]


def exchange_lines(machine):
    marks = ("<<XMLAdapter>>", "<<signalServer", "<<TimeoutExpired", "<<configureTimers")
    return [line for line in machine.trace() if line.startswith(marks)]


def start_anew(traced, **keys):
    traced.configure(**keys)
    traced.machine.restart_service(traced.event_port)
    traced.machine.log.write_bytes(b"")


@contextlib.contextmanager
def down(traced):
    """The port on which no device server listens any more; afterwards one does, for a service that
    knows of no pause."""
    port = traced.peer.port
    traced.peer.close()
    try:
        yield port
    finally:
        traced.peer.close()
        traced.peer = Peer(port)
        start_anew(traced, **RETRY)


def test_a_device_server_that_is_down_is_asked_again_after_the_retry_timeout(traced):
    machine, port = traced.machine, traced.peer.port
    traced.peer.close()
    before = time.monotonic()
    assert traced.list() == FAILED
    traced.peer = Peer(port)
    machine.wait_for_trace(EXPIRED)
    assert time.monotonic() - before >= 0.1
    assert exchange_lines(machine) == [
        "<<configureTimers>>: Loading timeout for the retry when java drivers are out...",
        "<<configureTimers>>: Timeout is 100 milliseconds.",
        "<<configureTimers>>: Creating Timer queue...",
        "<<configureTimers>>: CreateTimerQueue() succeeded!!",
        *refused(100), EXPIRED]
    adapter = "<<UPOSAdapter::enumerateInstances>>:"
    told = [line for line in machine.trace()
            if line.startswith((f"{adapter} Invoking", "<<Request>>", f"{adapter} answer"))]
    assert [re.sub("'<.*>'", "'REQUEST'", line) for line in told] == [
        f"{adapter} Invoking request to Java code - class 'REQUEST'", "<<Request>>: 'REQUEST'",
        f"{adapter} answer: ''"]
    assert traced.list() == SCANNER
    assert len(traced.peer.requests) == 1


def test_a_device_server_that_is_up_again_is_left_alone_until_the_pause_is_over(traced):
    start_anew(traced, **ENDLESS)
    with down(traced) as port:
        assert traced.list() == FAILED
        traced.peer = Peer(port)
        for _ in range(2):
            assert traced.list() == FAILED
        assert traced.peer.connections == []
        assert exchange_lines(traced.machine)[-5:] == [*refused(3600000), SKIPPED, SKIPPED]


def test_a_lookup_fails_too_while_the_device_server_is_down(traced):
    start_anew(traced, **ENDLESS)
    with down(traced):
        for _ in range(2):
            done = traced.client.run("get", 'UPOS_Scale.DeviceID="SCALE1"')
            assert traced.result(done) == FAILED
        trace = traced.machine.trace()
        assert trace.count("Answer: ''") == 2
        assert trace.count("<<GetObjectAsync>> * Get Instance Path failed") == 2
        assert exchange_lines(traced.machine)[-4:] == [*refused(3600000), SKIPPED]


def test_a_new_retry_timeout_counts_from_the_next_start(traced):
    machine = traced.machine
    start_anew(traced, **RETRY)
    with down(traced):
        assert traced.list() == FAILED
        machine.wait_for_trace(EXPIRED)
        machine.log.write_bytes(b"")
        traced.configure(**ENDLESS)
        assert traced.list() == FAILED
        assert exchange_lines(machine)[:3] == refused(100)
        start_anew(traced, **ENDLESS)
        assert traced.list() == FAILED
        lines = exchange_lines(machine)
        assert "<<configureTimers>>: Timeout is 3600000 milliseconds." in lines
        assert lines[-3:] == refused(3600000)


def test_conversions_in_an_answer_are_traced_as_they_stand(traced):
    value = "%s%n%p%100000d%*s%"
    document = response(device(ModelName=value))
    assert traced.answer(framed(document), "ModelName") == [["SCANNER1", value]]
    trace = traced.machine.trace()
    received = trace.index("<<XMLAdapter>>: Receiving data")
    assert trace[received - 1] == trace[received + 1] == document
    for line in (
            f"<<UPOSAdapter::enumerateInstances>>: answer: '{document}'",
            f"<<UPOSXMLAdapter>> field 2 name='ModelName', type='string', value='{value}', "
            f"dev='{value}' add=1",
            f"\tPutField - Name: ModelName, Type: string, Value: {value}"):
        assert line in trace


def test_an_answer_is_its_own_format_so_that_two_percent_signs_are_traced_as_one(traced):
    document = response(device(ModelName="100%% sure"))
    assert traced.answer(framed(document), "ModelName") == [["SCANNER1", "100%% sure"]]
    trace = traced.machine.trace()
    received = trace.index("<<XMLAdapter>>: Receiving data")
    assert trace[received + 1] == document.replace("%%", "%")
    assert f"<<UPOSAdapter::enumerateInstances>>: answer: '{document}'" in trace


def test_line_ends_in_an_answer_are_traced_as_they_are(traced):
    document = response(device(ModelName="A\r\nB&#13;&#10;C"))
    traced.answer(framed(document), "ModelName")
    log = traced.machine.log.read_bytes()
    assert f"answer: '{document}'\r\n".encode() in log
    assert b"name='ModelName', type='string', value='A\nB\r\nC', dev='A\nB\r\nC' add=1\r\n" in log


@pytest.mark.parametrize("document, count, result", [
    # As it came: while it was collected, as its own format, and twice as the answer. Its value: in
    # one line twice, and as it is put into the instance.
    (response(device(ModelName="A&#13;&#10;@"), "<!--\r\n@-->"), 7, SCANNER),
    (response(device(), "\r\n@\x1b[2K"), 4, FAILED),
], ids=["readable", "unreadable"])
def test_an_answer_is_traced_as_it_came_even_where_it_imitates_a_line(
        traced, document, count, result):
    imitation = "01/02/2026 03:04:05  [Process] exit t_Result = 0"
    document = document.replace("@", imitation)
    assert traced.answer(framed(document)) == result
    log = traced.machine.log.read_bytes().decode()
    assert log.count(f"\n{imitation}") == count
    assert f"answer: '{document}'\r\n" in log


def test_every_receive_is_traced_with_what_was_collected_so_far(traced):
    document = response(device())
    pieces = ["<resp", document[5:40], document[40:]]
    label = "<<UPOSConnector::Receive2()>> Calling clone"

    def answer(connection, _):
        # Each receive is traced before it waits: one more than there are pieces so far.
        for number, piece in enumerate([ESC, *(piece.encode() for piece in pieces), BS]):
            wait_until(lambda: traced.machine.trace().count(label) == number + 1,
                       f"receive {number} to be traced")
            connection.sendall(piece)

    assert traced.answer(answer) == SCANNER
    trace = traced.machine.trace()
    start = trace.index(label)
    assert trace[start:start + 12] == [
        label, "", label, "", label, pieces[0], label, pieces[0] + pieces[1], label, document,
        label + " OUT_MARK", document]


@pytest.mark.parametrize("document, lines", [
    ("", 2), ("no XML", 2), ("<a>", 2), ("<!DOCTYPE a><a/>", 2), ("<a>" * 1000, 2)],
    ids=["empty", "no XML", "truncated", "document type", "deep"])
def test_an_unreadable_answer_is_traced_with_its_reason(traced, document, lines):
    assert traced.answer(framed(document)) == FAILED
    trace = traced.machine.trace()
    start = trace.index("<<XMLAdapter XML Exception >> : ")
    end = trace.index(f"<<UPOSAdapter::enumerateInstances>>: after fromXML - answer: '{document}'")
    assert end - start == lines and trace[start + 1]
    assert "<<CreateInstanceEnumAsync>> *  Enumeration of 'UPOS_Scanner' returned rc=-1" in trace


def test_an_error_answer_is_traced_as_status_1(traced):
    assert traced.answer(framed(response("<error/>", device(), "<error/>"))) == FAILED
    trace = traced.machine.trace()
    assert "<<UPOSXMLAdapter>> instanceList(error) length: 2" in trace
    assert not any("instanceList(instance)" in line for line in trace)
    assert "<<CreateInstanceEnumAsync>> *  Enumeration of 'UPOS_Scanner' returned rc=1" in trace


def test_with_two_slots_taken_a_third_request_waits_for_one_to_end(traced):
    machine, peer = traced.machine, traced.peer
    go_on = {name: threading.Event() for name in ("UPOS_Scale", "UPOS_MSR", "UPOS_Scanner")}

    def answer(connection, request):
        (name,) = [name for name in go_on if f"<class>{name}<".encode() in request]
        assert go_on[name].wait(60)
        connection.sendall(NORMAL)

    def admitted():
        return [line for line in machine.trace() if "*  Enumerating instances of" in line]

    peer.answer = answer
    before = len(peer.requests)
    clients = {name: traced.machine.start_list(name) for name in ("UPOS_Scale", "UPOS_MSR")}
    wait_until(lambda: len(peer.requests) == before + 2, "two requests")
    clients["UPOS_Scanner"] = traced.machine.start_list("UPOS_Scanner")
    wait_until(lambda: machine.trace().count("<<<< CreateInstanceEnumAsync >>>>") == 3, "the third")
    go_on["UPOS_Scanner"].set()
    assert len(admitted()) == 2 and len(peer.requests) == before + 2
    go_on["UPOS_MSR"].set()
    for name in ("UPOS_MSR", "UPOS_Scanner"):
        out, _ = clients[name].communicate(timeout=30)
        assert rows(out) == SCANNER, name
    assert len(admitted()) == 3 and clients["UPOS_Scale"].poll() is None
    go_on["UPOS_Scale"].set()
    out, _ = clients["UPOS_Scale"].communicate(timeout=30)
    assert rows(out) == SCANNER
