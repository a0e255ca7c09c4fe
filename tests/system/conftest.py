import contextlib
import os
import sys
import zlib
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).parent))

from machine import temporary_machine  # noqa: E402


@pytest.fixture(autouse=True, scope="module")
def processors(request):
    """A machine's programs wait for each other: on one processor that costs a third less than
    across two. A file whose tests let threads race, or that computes, says ALL_PROCESSORS."""
    every = os.sched_getaffinity(0)
    if not getattr(request.module, "ALL_PROCESSORS", False):
        place = zlib.crc32(request.module.__name__.encode()) % len(every)
        os.sched_setaffinity(0, {sorted(every)[place]})
    yield
    os.sched_setaffinity(0, every)


@pytest.fixture
def machine():
    """A machine of the test's own."""
    with temporary_machine() as machine:
        yield machine


@pytest.fixture(scope="module")
def shared_machine():
    """A machine for all tests of a file that leave it as they found it."""
    with temporary_machine() as machine:
        yield machine


@pytest.fixture(scope="module")
def till(shared_machine):
    """The sample till and the running service, for all tests of a file."""
    till = shared_machine.start_till()
    shared_machine.install_service()
    shared_machine.wait_for_event_port(till.events)
    return till


@pytest.fixture
def watcher(shared_machine):
    """A subscriber to the events of a service that runs."""
    watcher = shared_machine.watch_events()
    yield watcher
    watcher.kill()


@pytest.fixture(scope="module")
def template_machine():
    """Makes machines for a file that shares more than one."""
    with contextlib.ExitStack() as machines:
        yield lambda: machines.enter_context(temporary_machine())
