"""What the one option does, and what the console then says."""

import pytest

from machine import NOT_STARTED


def test_three_arguments_are_refused_even_when_one_is_valid(shared_machine):
    for arguments in (("-i", "-u"), ("-v", "x", "y"), ("a", "b")):
        done = shared_machine.quillmon(*arguments)
        assert (done.out, done.returncode) == (NOT_STARTED, 0)
    assert shared_machine.service_state() is None


@pytest.fixture(scope="module")
def refused(shared_machine):
    """What each of these prints; started together, since Windows' dispatcher takes its time."""
    options = {"none": (), "h": ("-h",), "Z": ("-Z",), "word": ("--help",), "dash": ("-",),
               "i alone": ("i",), "v alone": ("v",), "empty": ("",)}
    started = {name: shared_machine.start_quillmon(*words) for name, words in options.items()}
    results = {}
    for name, process in started.items():
        out, _ = process.communicate(timeout=60)
        results[name] = (out.decode().replace("\r\n", "\n"), process.returncode)
    assert shared_machine.service_state() is None
    return results


def test_without_an_option_a_start_from_a_console_is_refused(refused):
    assert refused["none"] == (NOT_STARTED, 0)


@pytest.mark.parametrize("option", ["h", "Z", "word", "dash"])
def test_an_unknown_letter_is_no_option(refused, option):
    assert refused[option] == (NOT_STARTED, 0)


@pytest.mark.parametrize("option", ["i alone", "v alone", "empty"])
def test_a_single_character_or_nothing_is_no_option(refused, option):
    assert refused[option] == (NOT_STARTED, 0)


def test_the_version_ends_without_a_level(shared_machine):
    for option in ("-v", "/v", "xverbose"):
        done = shared_machine.quillmon(option)
        lines = done.out.splitlines()
        assert lines[1:] == ["Quillmon Service for Windows", "No level info found"], option
        assert lines[0] and done.returncode == 0


def test_removing_a_service_that_is_not_installed_is_silent(shared_machine):
    done = shared_machine.quillmon("-u")
    assert (done.out, done.returncode) == ("", 0)
