import contextlib
import sys
import tempfile
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).parent))

from machine import WINE, Machine, template as machine_template  # noqa: E402


@pytest.fixture(scope="session")
def template():
    """A prefix at rest that machines are copied from."""
    return machine_template()


@contextlib.contextmanager
def _machine(template):
    folder = Path(tempfile.mkdtemp(dir=WINE))
    machine = Machine.copy_of(template, folder / "prefix")
    yield machine
    machine.shut_down()
    folder.rmdir()


@pytest.fixture
def machine(template):
    """A machine of the test's own."""
    with _machine(template) as machine:
        yield machine


@pytest.fixture(scope="module")
def shared_machine(template):
    """A machine for all tests of a file that leave it as they found it."""
    with _machine(template) as machine:
        yield machine


@pytest.fixture(scope="module")
def template_machine(template):
    """Makes machines for a file that shares more than one."""
    with contextlib.ExitStack() as machines:
        yield lambda: machines.enter_context(_machine(template))
