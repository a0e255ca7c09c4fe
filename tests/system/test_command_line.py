"""What the one option does, and what the console then says."""

NOT_STARTED = (
    "You should start your application using the Services panel\nQuillmon Services not started\n")


def test_three_arguments_are_refused_even_when_one_is_valid(machine):
    for arguments in (("-i", "-u"), ("-v", "x", "y"), ("a", "b")):
        done = machine.quillmon(*arguments)
        assert (done.out, done.returncode) == (NOT_STARTED, 0)
    assert machine.service_state() is None


def test_no_option_from_a_console_is_refused(machine):
    done = machine.quillmon()
    assert (done.out, done.returncode) == (NOT_STARTED, 0)


def test_an_unknown_letter_is_no_option(machine):
    for option in ("-h", "-Z", "--help", "-"):
        done = machine.quillmon(option)
        assert (done.out, done.returncode) == (NOT_STARTED, 0), option


def test_a_single_character_or_nothing_is_no_option(machine):
    for option in ("i", "v", ""):
        done = machine.quillmon(option)
        assert (done.out, done.returncode) == (NOT_STARTED, 0), option
    assert machine.service_state() is None


def test_the_version_ends_without_a_level(machine):
    for option in ("-v", "/v", "xverbose"):
        done = machine.quillmon(option)
        lines = done.out.splitlines()
        assert lines[1:] == ["Quillmon Service for Windows", "No level info found"], option
        assert lines[0] and done.returncode == 0


def test_removing_a_service_that_is_not_installed_is_silent(machine):
    done = machine.quillmon("-u")
    assert (done.out, done.returncode) == ("", 0)
