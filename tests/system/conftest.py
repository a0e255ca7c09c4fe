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


def _machine(template):
    return Machine.copy_of(template, Path(tempfile.mkdtemp(dir=WINE)) / "prefix")


@pytest.fixture
def machine(template):
    machine = _machine(template)
    yield machine
    machine.shut_down()
    machine.prefix.parent.rmdir()
