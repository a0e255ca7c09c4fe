import contextlib
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).parent))

from machine import temporary_machine  # noqa: E402


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
def template_machine():
    """Makes machines for a file that shares more than one."""
    with contextlib.ExitStack() as machines:
        yield lambda: machines.enter_context(temporary_machine())
