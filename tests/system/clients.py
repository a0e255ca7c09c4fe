"""The tests' way to list, fetch and watch as a WMI client, and to send device events by hand."""

import contextlib
import os
import re
import socket

from peer import framed

EVENT = re.compile(
    r'QuillmonEvent classname="(.*)" deviceid="(.*)" eventtype="(.*)" codename="(.*)"')

# What WMI answers, as the direct client prints it.
OK = "0x00000000"
FAILED = "0x80041001"
NOT_FOUND = "0x80041002"
ACCESS_DENIED = "0x80041003"
INVALID_CLASS = "0x80041010"
PROVIDER_LOAD_FAILURE = "0x80041013"
CALL_CANCELLED = "0x80041032"


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
    names = lines[0].split("\t") if lines else []
    return [dict(zip(names, line.split("\t"), strict=True)) for line in lines[1:]]


def listing(machine, class_name, *properties):
    """The instances of a class, of at least two properties, and the status at the end."""
    done = ask(machine, "list", class_name, *properties)
    return table(done), status_of(done)


def names(machine, class_name):
    """The ids that a list of a class gives, and the status at the end."""
    rows, status = listing(machine, class_name, "DeviceID", "ModelName")
    return [row["DeviceID"] for row in rows], status


def fetched(machine, path):
    """The properties of the object that the path names, with __PATH; or the status of a failure."""
    done = ask(machine, "get", path)
    if done.returncode != 0:
        return status_of(done)
    lines = done.stdout.decode().replace("\r", "").splitlines()
    return dict(line.split(" = ", 1) for line in lines)


def counters(machine):
    """What the stand-in knows of its objects in the service, and of the service's mistakes."""
    return {name: machine.wmi_counter(name)
            for name in ("LiveObjects", "LiveServices", "LiveSinks", "Violations")}


def event(device_id, kind="modifyInstance", cls="Scanner", code="", maker="Veltran"):
    """An event document."""
    return (
        f'<event type="{kind}" classname="{cls}" modifyInstanceCode="{code}">'
        f'<field name="DeviceID" type="string">{device_id}</field>'
        f'<field name="ManufacturerName" type="string">{maker}</field></event>')


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
