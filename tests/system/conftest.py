import contextlib
import fcntl
import os
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).parent))

from machine import ROOT, WINESERVER, Machine  # noqa: E402

WINE = ROOT / "build" / "wine"


@pytest.fixture(scope="session")
def template():
    """A prefix at rest that machines are copied from; made once, kept in the build folder."""
    prefix = WINE / "template"
    WINE.mkdir(parents=True, exist_ok=True)
    with open(WINE / "template.making", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not (prefix / ".complete").exists():
            shutil.rmtree(prefix, ignore_errors=True)
            env = dict(os.environ, QUILLMON_WINEPREFIX=str(prefix), WINEPREFIX=str(prefix))
            subprocess.run([ROOT / "tests" / "wine", "cmd", "/c", "exit"], env=env, check=True)
            subprocess.run([WINESERVER, "-k"], env=env)
            subprocess.run([WINESERVER, "-w"], env=env)
            (prefix / ".complete").touch()
    return prefix


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
