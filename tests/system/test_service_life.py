"""The service from its installation to its removal, as the service control manager sees it."""

import pytest

from machine import BUILD, NOT_STARTED, SERVICE, wait_until
from ports import reserve_port

INSTALLED = (
    "Quillmon Services has been registered\nStarting Service\nQuillmon Services has been started.\n")


@pytest.fixture
def machine(machine):
    """Its service keeps off the default event port, which is other tests'."""
    machine.configure(provider__eventSocket__Port=reserve_port())
    return machine


def test_installing_registers_and_starts_the_service(machine):
    done = machine.quillmon("-i")
    assert (done.out, done.returncode) == (INSTALLED, 0)
    assert machine.service_state() == "RUNNING"


def test_a_slash_installs_as_a_dash_does(machine):
    done = machine.quillmon("/i")
    assert (done.out, done.returncode) == (INSTALLED, 0)


def test_the_installed_service_has_exactly_its_settings(machine):
    machine.install_service()
    key = f"HKLM\\SYSTEM\\CurrentControlSet\\Services\\{SERVICE}"
    settings = {name: machine.query_registry(key, name) for name in (
        "DisplayName", "ImagePath", "ObjectName", "Type", "Start", "ErrorControl",
        "DependOnService", "Group")}
    assert settings == {
        "DisplayName": "ORVEX Quillmon Services",
        "ImagePath": "C:/Quillmon/quillmon.exe",
        "ObjectName": "LocalSystem",
        "Type": "0x10",
        "Start": "0x2",
        "ErrorControl": "0x0",
        "DependOnService": None,
        "Group": None,
    }


def test_installing_twice_still_says_registered_then_the_start_error(machine):
    machine.install_service()
    done = machine.quillmon("-i")
    # 6, an invalid handle: that of the service which was not made again.
    assert done.out.splitlines() == ["Quillmon Services has been registered", "Starting Service",
                                     "Could not start service : 6"]
    assert done.returncode == 0
    assert machine.service_state() == "RUNNING"


def test_a_running_service_refuses_a_second_instance(machine):
    machine.install_service()
    for arguments in ((), ("-x",), ("-o",), ("i",)):
        done = machine.quillmon(*arguments)
        assert done.out == (
            "Quillmon Services is already running, stop the other instance and try again\n")
        assert done.returncode == 0


def test_too_many_arguments_are_refused_without_a_look_at_the_service(machine):
    machine.install_service()
    done = machine.quillmon("-x", "-y")
    assert (done.out, done.returncode) == (NOT_STARTED, 0)


def test_a_service_registered_with_an_unknown_letter_runs(machine):
    machine.install_service()
    machine.choose_option("-x")
    machine.end_service()
    assert machine.run("sc", "start", SERVICE).returncode == 0
    wait_until(lambda: machine.service_state() == "RUNNING", "the service to run")


def test_a_running_service_refuses_the_console_modes(machine):
    machine.install_service()
    for option in ("-c", "-d", "-O"):
        done = machine.quillmon(option)
        assert "Can't run interactive because there is another running instance\n" in done.out
        assert done.returncode == 0


def test_stopping_ends_the_process(machine):
    machine.install_service()
    assert machine.service_process() is not None
    machine.stop_service()
    assert machine.service_process() is None


def test_a_stopped_service_starts_again(machine):
    machine.install_service()
    machine.stop_service()
    assert machine.run("sc", "start", SERVICE).returncode == 0
    wait_until(lambda: machine.service_state() == "RUNNING", "the service to run again")


def test_interrogating_leaves_the_service_running(machine):
    machine.install_service()
    machine.run("sc", "interrogate", SERVICE)
    assert machine.service_state() == "RUNNING"


def test_an_unknown_control_puts_the_last_error_into_the_state(machine):
    """Kept: whatever that error is, the service goes on and no longer says that it runs."""
    machine.install_service()
    done = machine.run(str(BUILD / "service_config.exe"), SERVICE, "control", 200)
    assert done.returncode == 0 and done.out.strip().isdigit(), done.out + done.err
    assert done.out.strip() != "4"
    assert machine.service_process() is not None


def test_removing_stops_and_deletes_the_service(machine):
    machine.install_service()
    done = machine.quillmon("-u")
    assert (done.out, done.returncode) == ("Quillmon Services has been uninstalled\n", 0)
    wait_until(lambda: machine.service_state() is None, "the service to be gone")
    wait_until(lambda: machine.service_process() is None, "the process to end")


def test_the_service_comes_back_after_removal_and_installation(machine):
    machine.install_service()
    machine.quillmon("-u")
    wait_until(lambda: machine.service_state() is None, "the service to be gone")
    machine.install_service()
    assert machine.service_state() == "RUNNING"
