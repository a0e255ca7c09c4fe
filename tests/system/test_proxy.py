"""The proxy strategy: device servers that connect, a cache that answers, events that it publishes."""

import select
import socket

import pytest

from machine import WMI_HOST, wait_until
from peers import (FAILED, OK, START, UPDATE_REQUEST, DeviceServer, document, fetched, forget,
                   names, next_event, published_in_stream, settle)
from ports import reserve_port

ALL_PROCESSORS = True


@pytest.fixture(scope="module")
def port(shared_machine):
    """The event port of a service in the proxy strategy that asks for an update with each
    request."""
    return shared_machine.start_proxy_service(provider__dataUpdate__frequency=0)


@pytest.fixture
def server(port):
    with DeviceServer(port) as server:
        yield server


# -- the main job


def test_windows_own_clients_list_the_cached_devices(shared_machine, server):
    server.send(document("S1", cls="UPOS_Scanner"), document("S2", cls="UPOS_Scanner", maker="OEM"),
                document("W1", cls="UPOS_Scale", maker="ORVEX"))
    settle(shared_machine, server)
    assert shared_machine.wmic("UPOS_Scanner", "DeviceID", "ManufacturerName") == [
        {"DeviceID": "S1", "ManufacturerName": "Veltran"},
        {"DeviceID": "S2", "ManufacturerName": "OEM"}]
    assert shared_machine.script(
        'For Each device In GetObject("winmgmts:\\\\.\\root\\cimv2").InstancesOf("UPOS_LogicalDevice")\n'
        "  WScript.Echo device.DeviceID\n"
        "Next\n") == ["S1", "S2", "W1"]
    forget(shared_machine, server, "S1", "S2", "W1")
    assert names(shared_machine, "UPOS_LogicalDevice") == ([], OK)


def test_a_device_is_listed_under_the_very_class_that_its_event_names(shared_machine, server):
    # Compared to the letter: a device server that wants its scanners found under UPOS_Scanner sends
    # that name; one that sends the short class finds them under UPOS_LogicalDevice only.
    server.send(document("LONG", cls="UPOS_Scanner"), document("SHORT", cls="Scanner"))
    settle(shared_machine, server)
    assert names(shared_machine, "UPOS_Scanner") == (["LONG"], OK)
    assert names(shared_machine, "UPOS_LogicalDevice") == (["LONG", "SHORT"], OK)
    forget(shared_machine, server, "LONG", "SHORT")


def test_a_device_is_fetched_by_its_path(shared_machine, server):
    server.send(document("G1", cls="UPOS_Scanner", ModelName="fetched"))
    settle(shared_machine, server)
    for class_name in ("UPOS_Scanner", "UPOS_LogicalDevice"):
        assert fetched(shared_machine, f'{class_name}.DeviceID="G1"')["ModelName"] == "fetched"
    assert fetched(shared_machine, 'UPOS_Scanner.DeviceID="nobody"') == FAILED
    assert fetched(shared_machine, 'UPOS_Scale.DeviceID="G1"') == FAILED
    forget(shared_machine, server, "G1")


def test_field_types_are_the_cache_s(shared_machine, server):
    server.send(document(
        "T1", cls="UPOS_Scanner", CapUpdateFirmware=("boolean", "TRUE"),
        CapCompareFirmwareVersion=("boolean", "True"), GoodScanCount=("uint32", "12 apples"),
        HoursPoweredCount=("uint32", "many"), ModelName=("datetime", "not kept")))
    settle(shared_machine, server)
    device = fetched(shared_machine, 'UPOS_Scanner.DeviceID="T1"')
    assert device["CapUpdateFirmware"] == "True"
    assert device["CapCompareFirmwareVersion"] == "False"
    assert device["GoodScanCount"] == "12"
    assert device["HoursPoweredCount"] == "0"
    assert device["ModelName"] == "(null)"
    forget(shared_machine, server, "T1")


def test_a_change_without_a_code_or_with_a_blank_one_is_cached(shared_machine, server):
    server.send(document("C1", cls="UPOS_Scanner"))
    for code in ("", " "):
        server.send(document("C1", "modifyInstance", cls="UPOS_Scanner", code=code,
                             ModelName=f"code '{code}'"))
        settle(shared_machine, server)
        device = fetched(shared_machine, 'UPOS_Scanner.DeviceID="C1"')
        assert device["ModelName"] == f"code '{code}'"
    forget(shared_machine, server, "C1")


# -- what is published


def test_only_first_adds_coded_changes_and_last_deletions_are_published(server, watcher):
    assert published_in_stream(
        server, watcher,
        document("P1"),
        document("P1"),
        document("P1", "modifyInstance", code="1"),
        document("P1", "modifyInstance"),
        document("P1", "modifyInstance", code=" "),
        document("P1", "delInstance"),
        document("P1", "delInstance"),
        document("P1", "delInstance"),
        document("P1", "modifyInstance", code="2")) == [
            ("P1", "addInstance", ""), ("P1", "modifyInstance", "1"), ("P1", "delInstance", "")]


def test_a_device_published_under_two_classes_goes_with_the_last_one(server, watcher):
    assert published_in_stream(
        server, watcher,
        document("Q1", provider="UPOS_Scanner"),
        document("Q1", provider="UPOS_LogicalDevice"),
        document("Q1", "delInstance", provider="UPOS_Scanner"),
        document("Q1", "delInstance", provider="UPOS_Scanner"),
        document("Q1", "delInstance", provider="UPOS_LogicalDevice")) == [
            ("Q1", "addInstance", ""), ("Q1", "delInstance", "")]


def test_a_foreign_maker_s_device_is_neither_cached_nor_published(shared_machine, server, watcher):
    assert published_in_stream(
        server, watcher,
        document("F1", maker="Acme"), document("F2", cls="MSR", maker="OEM")) == []
    assert names(shared_machine, "UPOS_LogicalDevice") == ([], OK)


# -- the stream


def test_a_document_in_three_pieces_is_one(server, watcher):
    whole = document("PIECES")
    for piece in (whole[:40], whole[40:-4], whole[-4:]):
        server.send(piece)
    server.send(document("PIECES", "delInstance"))
    assert published_in_stream(server, watcher) == [
        ("PIECES", "addInstance", ""), ("PIECES", "delInstance", "")]


def test_a_stream_byte_by_byte_gives_the_same_documents(server, watcher):
    for byte in document("BYTES"):
        server.send(byte)
    # Received together with the end before it, the next one would be a part of that document, for
    # want of a start marker.
    assert next_event(watcher) == ("BYTES", "addInstance", "")
    for byte in document("BYTES", "delInstance", start=""):
        server.send(byte)
    assert published_in_stream(server, watcher) == [("BYTES", "delInstance", "")]


def test_documents_without_a_start_marker_are_cut_at_the_end_marker(server, watcher):
    server.send(document("BARE", start=""))
    assert published_in_stream(server, watcher, document("BARE", "delInstance")) == [
        ("BARE", "addInstance", ""), ("BARE", "delInstance", "")]


@pytest.mark.parametrize("garbage", [
    "no document at all</event>", "<event type=</event>",
    START + "<!DOCTYPE event [<!ENTITY e 'x'>]><event type=\"addInstance\">&e;</event>",
    START + "<event>" + "<a>" * 10_000 + "</a>" * 10_000 + "</event>"],
    ids=["no document", "not well-formed", "a document type", "too deep"])
def test_garbage_costs_nothing_but_itself(server, watcher, garbage):
    server.send(garbage)
    assert published_in_stream(
        server, watcher, document("AFTER"), document("AFTER", "delInstance")) == [
            ("AFTER", "addInstance", ""), ("AFTER", "delInstance", "")]


def test_a_document_of_twenty_mebibytes_is_taken(server, watcher):
    server.connection.settimeout(120)
    server.send(document("LARGE").replace("<field", f"<!--{'x' * 20 * 2**20}--><field", 1))
    assert published_in_stream(server, watcher, document("LARGE", "delInstance")) == [
        ("LARGE", "addInstance", ""), ("LARGE", "delInstance", "")]


def test_a_client_that_resets_or_stalls_in_a_document_hurts_only_itself(port, server, watcher):
    with DeviceServer(port) as stalling:
        stalling.send(document("NEVER")[:60])
        assert published_in_stream(
            server, watcher, document("ON"), document("ON", "delInstance")) == [
                ("ON", "addInstance", ""), ("ON", "delInstance", "")]
    assert published_in_stream(server, watcher, document("ON"), document("ON", "delInstance")) == [
        ("ON", "addInstance", ""), ("ON", "delInstance", "")]


# -- updates and restarts


def test_an_update_request_reaches_every_connected_device_server(shared_machine, port, server):
    with DeviceServer(port) as second:
        settle(shared_machine, second)
        for one in (server, second):
            assert one.receive(len(UPDATE_REQUEST)) == UPDATE_REQUEST


def test_a_restarted_device_server_is_taken_up_again(shared_machine, port, watcher):
    with DeviceServer(port) as first:
        first.send(document("R1", ModelName="before"))
        settle(shared_machine, first)
    assert names(shared_machine, "UPOS_LogicalDevice") == (["R1"], OK)  # the cache goes on
    with DeviceServer(port) as second:
        second.send(document("R1", "modifyInstance", ModelName="after"))
        settle(shared_machine, second)
        assert fetched(
            shared_machine, 'UPOS_LogicalDevice.DeviceID="R1"')["ModelName"] == "after"
        forget(shared_machine, second, "R1")


def test_ten_thousand_cached_devices_are_listed(machine):
    port = machine.start_proxy_service()
    ids = [f"C{number}" for number in range(10_000)]
    with DeviceServer(port) as server:
        server.connection.settimeout(200)
        server.send(*(document(device_id, ModelName="cached") for device_id in ids))
        wait_until(lambda: fetched(machine, f'UPOS_LogicalDevice.DeviceID="{ids[-1]}"') != FAILED,
                   "the last device", 200, longest_pause=0.5)  # each look costs the service time
    assert names(machine, "UPOS_LogicalDevice") == (ids, OK)


# -- starting in this strategy


def test_above_a_period_of_zero_the_poll_is_asked_twice_and_sends_nothing(machine):
    machine.switch_trace_on()
    port = machine.start_proxy_service(provider__dataUpdate__frequency=60)
    with DeviceServer(port) as server:
        settle(machine, server)
        assert "Selecting ProxyImp strategy" in machine.trace()
        assert "Polling time set to 60" in machine.trace()
        assert "<<ProxyImpXmlAdapter>> sendRequest() isPollingTime()=0" in machine.trace()
        server.connection.settimeout(1)
        with pytest.raises(TimeoutError):
            server.connection.recv(1)


def test_a_restarted_service_begins_with_an_empty_cache(machine):
    port = machine.start_proxy_service()
    with DeviceServer(port) as server:
        server.send(document("OLD"))
        settle(machine, server)
        assert names(machine, "UPOS_LogicalDevice") == (["OLD"], OK)
    port = machine.start_proxy_service()
    with DeviceServer(port) as server:
        settle(machine, server)
        assert names(machine, "UPOS_LogicalDevice") == ([], OK)


def test_without_the_event_class_at_its_start_devices_are_cached_and_no_event_is_published(machine):
    machine.switch_trace_on()
    machine.set_wmi("MissingClasses", "QuillmonEvent")
    port = machine.start_proxy_service()
    with DeviceServer(port) as server:
        server.send(document("K1"))
        machine.wait_for_trace("Event received: ")  # so the class has been asked for
        machine.delete_registry(WMI_HOST, "MissingClasses")
        watcher = machine.watch_events()
        server.send(document("K2"))
        settle(machine, server)
        assert names(machine, "UPOS_LogicalDevice") == (["K1", "K2"], OK)
    assert not select.select([watcher.stdout], [], [], 0.5)[0], watcher.stdout.readline()
    assert watcher.poll() is None


def test_a_taken_event_port_is_asked_for_until_it_is_free(machine):
    machine.switch_trace_on()
    port = reserve_port()
    with socket.create_server(("127.0.0.1", port)):
        machine.configure(provider__eventSocket__Port=port,
                          upos__requestSocket__retryTimeout=4294967295)
        console = machine.start_quillmon("-O")
        line = machine.wait_for_trace("Unable to open event port")
        assert line == (
            f"[EventThread] Unable to open event port {port}, next attempt in 1000 milliseconds")
    with DeviceServer(port) as server:
        settle(machine, server)
    console.kill()


def test_the_console_mode_serves_and_echoes_its_trace(machine):
    port = reserve_port()
    machine.configure(provider__eventSocket__Port=port)
    machine.switch_trace_on()
    console = machine.start_quillmon("-O")
    with DeviceServer(port) as server:
        server.send(document("K1"))
        settle(machine, server)
        assert names(machine, "UPOS_LogicalDevice") == (["K1"], OK)
    for line in console.stdout:
        if b"Event received: " in line:
            break
    else:
        raise AssertionError("no event on the console")
    console.kill()


def test_the_simulated_till_plays_its_part(machine):
    port = machine.start_proxy_service(provider__dataUpdate__frequency=0)
    till = machine.start_connecting_till(port)
    till.expect("connected")
    wait_until(lambda: "SCANNER2" in names(machine, "UPOS_LogicalDevice")[0], "the inventory")
    watcher = machine.watch_events()
    for command in ("attach MICR1", "change MICR1 3", "detach MICR1"):
        till.type(command)
    assert [next_event(watcher)[1] for _ in range(3)] == [
        "addInstance", "modifyInstance", "delInstance"]
    till.expect("request updateInstances")
