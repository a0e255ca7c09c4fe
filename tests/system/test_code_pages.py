"""The same device has the same name wherever it comes up, whatever the machine's code page is."""

from collections import namedtuple

import pytest

from faults import Faults
from machine import BUILD, temporary_machine
from peers import (OK, DeviceServer, Peer, device, document, event, fetched, framed, listing, plain,
                   published, published_in_stream, response)
from ports import reserve_port

Page = namedtuple("Page", "locale codec text")
PAGES = {
    1252: Page("en_US.UTF-8", "cp1252", "K€se-1"),
    1251: Page("ru_RU.UTF-8", "cp1251", "Касса-1"),
    932: Page("ja_JP.UTF-8", "cp932", "レジ-1"),
    65001: Page("hi_IN.UTF-8", "utf-8", "K€se-Касса-レジ-😀"),
}


@pytest.fixture(scope="module", params=PAGES, ids=str)
def page(request):
    return PAGES[request.param]


@pytest.fixture(scope="module")
def machine(page):
    with temporary_machine(LC_ALL=page.locale) as machine:
        yield machine


@pytest.fixture(scope="module")
def program(machine):
    """Starts the program, with conversions that refuse what Windows' do and Wine's do not."""
    faults, started = Faults(machine), []

    def start(option):
        if started:
            faults.kill()
        faults.start(option)
        started.append(option)

    yield start
    faults.kill()


Adapter = namedtuple("Adapter", "machine peer events")


@pytest.fixture(scope="module")
def adapter(machine, page, program):
    """The adapter strategy, which traces, with its device server."""
    machine.switch_trace_on()
    with Peer(answer=framed(response(device(page.text, ModelName=page.text)))) as peer:
        events = reserve_port()
        machine.configure(
            upos__requestSocket__Port=peer.port, provider__eventSocket__Port=events)
        program("-d")
        machine.wait_for_event_port(events)
        yield Adapter(machine, peer, events)


def test_the_readers_and_writers_own_tests_hold(machine):
    done = machine.run(str(BUILD / "xml_tests.exe"), "--gtest_brief=1", timeout=200)
    assert done.returncode == 0, done.out


def test_a_text_is_narrow_in_the_machines_code_page(adapter, page):
    listing(adapter.machine, "UPOS_Scanner", "DeviceID", "ModelName")
    line = f"name='DeviceID', type='string', value='{page.text}'".encode(page.codec)
    assert line in adapter.machine.log.read_bytes()


def test_a_list_an_object_and_an_event_name_a_device_alike(adapter, page):
    machine = adapter.machine
    assert listing(machine, "UPOS_Scanner", "DeviceID", "ModelName") == (
        [{"DeviceID": page.text, "ModelName": page.text}], OK)
    found = fetched(machine, f'UPOS_Scanner.DeviceID="{page.text}"')
    assert (found["DeviceID"], found["ModelName"]) == (page.text, page.text)
    watcher = machine.watch_events()
    assert published(adapter, watcher, event(page.text), event(
        page.text, kind=page.text, cls=page.text, code=page.text)) == [
        plain(page.text), (page.text,) * 4]
    watcher.kill()


def test_a_request_names_the_device_in_utf_8(adapter, page):
    fetched(adapter.machine, f'UPOS_Scanner.DeviceID="{page.text}"')
    assert f"<id>{page.text}</id>".encode() in adapter.peer.requests[-1]


def test_a_declared_encoding_is_read(adapter, page):
    name = "Касса"
    answer = f'<?xml version="1.0" encoding="windows-1251"?>{response(device(name))}'
    before, adapter.peer.answer = adapter.peer.answer, framed(answer.encode("cp1251"))
    rows, _ = listing(adapter.machine, "UPOS_Scanner", "DeviceID", "ModelName")
    adapter.peer.answer = before
    shown = name.encode(page.codec, "replace").decode(page.codec)
    assert [row["DeviceID"] for row in rows] == [shown]


# -- the proxy strategy

@pytest.fixture(scope="module")
def port(machine, program):
    """The proxy strategy's event port."""
    port = reserve_port()
    machine.configure(provider__eventSocket__Port=port)
    program("-O")
    # A subscription that is made before the program has registered misses its first events.
    machine.wait_for_event_port(port)
    return port


def test_in_the_proxy_strategy_a_list_an_object_and_an_event_name_a_device_alike(
        machine, port, page):
    watcher = machine.watch_events()
    with DeviceServer(port) as server:
        assert published_in_stream(server, watcher, document(page.text)) == [
            (page.text, "addInstance", "")]
        assert listing(machine, "UPOS_LogicalDevice", "DeviceID", "ManufacturerName")[0] == [
            {"DeviceID": page.text, "ManufacturerName": "Veltran"}]
        path = f'UPOS_LogicalDevice.DeviceID="{page.text}"'
        assert fetched(machine, path)["DeviceID"] == page.text
    watcher.kill()
