"""orvex-flash-setup: the user, the access rules, and what it refuses."""

import os
import pty
import re
import subprocess
import termios

import pytest
from harness import DEVICE, V3_USER, CopyColumn

PERSISTENT = "/var/lib/snmp/snmpd.conf"
MEMBERS = "/etc/snmp/snmpd.conf.d/orvex-flash-users.conf"


def set_up(machine, *options, text="") -> subprocess.CompletedProcess:
    """Runs the command with a text as its standard input, which is no terminal."""
    return subprocess.run(
        machine._enter(["orvex-flash-setup", *options]),  # pylint: disable=W0212
        input=text,
        capture_output=True,
        text=True,
        check=False,
        timeout=60,
    )


def v3(user, authentication, privacy, level="authPriv"):
    options = ("-v3", "-l", level, "-u", user, "-a", "SHA-256", "-A", authentication)
    return options + (("-x", "AES", "-X", privacy) if level == "authPriv" else ())


def reads(machine, options) -> bool:
    return machine.get(f"{DEVICE}.7.1", options=options) == '"bootflash"'


def writes(machine, options) -> bool:
    row = f"{CopyColumn.ROW}.77"
    done = machine.set(row, "i", 5, options=options)
    machine.set(row, "i", 6, options=options)
    return done


def test_user_reads_and_writes_with_authentication_and_privacy_only(machine):
    assert set_up(machine, "--user", "levels", "--password-fd", "0", text="a" * 8 + "\n").returncode == 0
    assert reads(machine, v3("levels", "a" * 8, "a" * 8))
    assert writes(machine, v3("levels", "a" * 8, "a" * 8))
    weaker = v3("levels", "a" * 8, "", level="authNoPriv")
    assert not reads(machine, weaker)
    assert not writes(machine, weaker)


def test_communities_do_not_write(machine):
    assert not writes(machine, ("-v2c", "-cpublic"))


def test_two_lines_are_two_pass_phrases(machine):
    done = set_up(machine, "--user", "two", "--password-fd", "0", text="first phrase\nsecond phrase\n")
    assert done.returncode == 0, done.stderr
    assert "first phrase" not in done.stdout + done.stderr
    assert reads(machine, v3("two", "first phrase", "second phrase"))
    assert not reads(machine, v3("two", "first phrase", "first phrase"))


def test_generated_pass_phrases_are_shown_once_and_work(machine):
    done = set_up(machine, "--user", "generated")
    assert done.returncode == 0, done.stderr
    authentication, privacy = re.findall(r"^    (?:auth\w+ SHA-256|privacy +AES) +(\S+)$", done.stdout, re.M)
    assert authentication != privacy
    assert reads(machine, v3("generated", authentication, privacy))
    again = set_up(machine, "--user", "generated")
    assert again.returncode == 0, again.stderr
    assert "user generated exists and keeps his pass phrases" in again.stdout
    assert authentication not in again.stdout
    assert reads(machine, v3("generated", authentication, privacy))


def test_pass_phrases_are_replaced_when_they_are_given(machine):
    for phrase in ("former phrase", "latter phrase"):
        done = set_up(machine, "--user", "changed", "--password-fd", "0", text=f"{phrase}\n")
        assert done.returncode == 0, done.stderr
    assert reads(machine, v3("changed", "latter phrase", "latter phrase"))
    assert not reads(machine, v3("changed", "former phrase", "former phrase"))


def test_no_file_keeps_a_pass_phrase(machine):
    assert set_up(machine, "--user", "kept", "--password-fd", "0", text="not to be kept\n").returncode == 0
    for directory in ("/etc/snmp", "/var/lib/snmp", "/var/lib/ruma", "/run/ruma"):
        found = machine.run("grep", "-rl", "not to be kept", directory, check=False)
        assert found == "", directory
    assert machine.owner(PERSISTENT) == "Debian-snmp:Debian-snmp 600"


def test_other_users_and_the_administrators_files_stay_as_they_are(machine):
    def administrators():
        command = ["sha256sum", "/etc/snmp/snmpd.conf", "/etc/snmp/snmpd.conf.d/site.conf"]
        return machine.run(*command, "/etc/snmp/snmpd.conf.d/orvex-flash.conf")

    before = administrators()
    assert set_up(machine, "--user", "another", "--generate").returncode == 0
    assert administrators() == before
    assert machine.serves_inventory(), f"{V3_USER} is known as before"
    members = machine.path(MEMBERS).read_text(encoding="ascii")
    assert members.count("group orvexFlash usm another\n") == 1


BAD = {
    "a phrase of seven characters": (["--password-fd", "0"], "1234567\n", "less than 8 characters"),
    "a quotation mark": (["--password-fd", "0"], 'with "quotes"\n', "quotation mark or a backslash"),
    "a backslash": (["--password-fd", "0"], "back\\slash\n", "quotation mark or a backslash"),
    "a control character": (["--password-fd", "0"], "a\x01control\n", "control character"),
    "no phrase at all": (["--password-fd", "0"], "", "there is no pass phrase"),
    "a file that is not there": (["--password-file", "/none"], "", "/none cannot be read"),
    "two sources": (["--generate", "--password-fd", "0"], "", "exclude each other"),
    "a name with a blank": (["--user", "a b"], "", "letters, digits"),
    "a name that is too long": (["--user", "a" * 33], "", "at most 32 characters"),
    "a descriptor that is none": (["--password-fd", "x"], "", "needs a number"),
    "an unknown option": (["--force"], "", "Usage: orvex-flash-setup"),
}


@pytest.mark.parametrize("options, text, complaint", BAD.values(), ids=BAD)
def test_bad_use_changes_nothing(machine, options, text, complaint):
    agent = machine.pid("snmpd")
    done = set_up(machine, *options, text=text)
    assert done.returncode != 0
    assert complaint in done.stderr
    assert machine.pid("snmpd") == agent, "it was not restarted"


def test_configuration_that_does_not_include_the_directory_is_left_and_said(machine):
    before = machine.path("/etc/snmp/snmpd.conf").read_text()
    agent = machine.pid("snmpd")
    machine.path("/etc/snmp/snmpd.conf").write_text(before.replace("includeDir", "#includeDir"))
    changed = machine.path("/etc/snmp/snmpd.conf").read_text()
    done = set_up(machine)
    after = machine.path("/etc/snmp/snmpd.conf").read_text()
    machine.path("/etc/snmp/snmpd.conf").write_text(before)
    assert done.returncode == 1
    assert done.stderr.endswith("    includeDir /etc/snmp/snmpd.conf.d\n")
    assert after == changed
    assert machine.pid("snmpd") == agent


def test_help_says_how_it_is_used(machine):
    done = set_up(machine, "--help")
    assert done.returncode == 0
    assert done.stdout.startswith("Usage: orvex-flash-setup [--user NAME]")
    assert "--password-fd NUMBER" in done.stdout


def test_interrupt_at_the_question_for_a_pass_phrase_leaves_the_terminal_as_it_was(machine):
    agent = machine.pid("snmpd")
    station, terminal = pty.openpty()
    enter = machine._enter(["orvex-flash-setup", "--user", "asked"])  # pylint: disable=W0212
    with subprocess.Popen(
        ["setsid", "--ctty", "--wait", *enter], stdin=terminal, stdout=terminal, stderr=terminal
    ) as asking:
        said = b""
        while b"pass phrase of asked" not in said:
            said += os.read(station, 1000)
        assert not echoes(terminal)
        os.write(station, b"\x03")
        assert asking.wait(20) != 0
    assert echoes(terminal)
    os.close(station)
    os.close(terminal)
    assert machine.pid("snmpd") == agent, "it was not restarted"


def echoes(terminal) -> bool:
    return bool(termios.tcgetattr(terminal)[3] & termios.ECHO)
