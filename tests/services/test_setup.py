"""orvex-flash-setup: the user, the access rules, and what it refuses."""

import os
import pty
import re
import subprocess
import termios

import pytest
from harness import DEVICE, SYS_UP_TIME, V3_USER, CopyColumn

PERSISTENT = "/var/lib/snmp/snmpd.conf"
CONFIGURATION = "/etc/ruma/platform.toml"
MEMBERS = "/etc/snmp/snmpd.conf.d/orvex-flash-users.conf"


def set_up(machine, *options, text="", environment=()) -> subprocess.CompletedProcess:
    """Runs the command with a text as its standard input, which is no terminal."""
    command = ["env", *environment, "orvex-flash-setup", *options]
    return subprocess.run(
        machine._enter(command),  # pylint: disable=W0212
        input=text,
        capture_output=True,
        text=True,
        check=False,
        timeout=60,
    )


def v3(user, authentication, privacy, level="authPriv"):
    options = ("-v3", "-l", level, "-u", user, "-a", "SHA-256", "-A", authentication)
    return options + (("-x", "AES", "-X", privacy) if level == "authPriv" else ())


def generated(said) -> list:
    """The two pass phrases that are shown."""
    return re.findall(r"^    (?:auth\w+ SHA-256|privacy +AES) +(\S+)$", said, re.M)


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
    authentication, privacy = generated(done.stdout)
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


def test_dot_in_a_name_stands_for_itself(machine):
    for user in ("axb", "a.b"):
        done = set_up(machine, "--user", user, "--password-fd", "0", text=f"phrase of {user}\n")
        assert done.returncode == 0, done.stderr
    again = set_up(machine, "--user", "a.c", "--generate")
    assert again.returncode == 0, again.stderr
    for user in ("axb", "a.b"):
        assert reads(machine, v3(user, f"phrase of {user}", f"phrase of {user}")), user
    members = machine.path(MEMBERS).read_text(encoding="ascii").splitlines()
    assert {f"group orvexFlash usm {user}" for user in ("axb", "a.b", "a.c")} <= set(members)


def test_user_is_not_known_for_another_whose_name_fits_a_dot(machine):
    set_up(machine, "--user", "kxnown", "--password-fd", "0", text="phrase of another\n")
    done = set_up(machine, "--user", "k.nown")
    assert done.returncode == 0, done.stderr
    assert len(generated(done.stdout)) == 2


def test_daemon_that_does_not_start_is_said_and_the_agent_runs_with_the_user(machine):
    before = machine.path(CONFIGURATION).read_text(encoding="utf-8")
    machine.write(CONFIGURATION, "nonsense = 1\n")
    done = set_up(machine, "--user", "daemonless", "--generate")
    answer = machine.get(SYS_UP_TIME, options=v3("daemonless", *generated(done.stdout)))
    machine.write(CONFIGURATION, before)
    machine.run("systemctl", "restart", "orvex-flash-fsd", "snmpd")
    assert done.returncode == 1
    assert "the file-system daemon does not start: see journalctl -u orvex-flash-fsd" in done.stderr
    assert answer != ""


# What stands in for mktemp, and the result of the command.
ENDS = {
    "a disk is full": ("echo 'mktemp: No space left on device' >&2; exit 1", 1),
    "it is ended": ("kill -TERM $PPID", 128 + 15),
    "it is interrupted": ("kill -INT $PPID", 128 + 2),
}


@pytest.mark.parametrize("lines, result", ENDS.values(), ids=ENDS)
def test_agent_runs_again_and_users_stay_when(machine, lines, result):
    machine.run("mkdir", "-p", "/root/stand-in")
    machine.write("/root/stand-in/mktemp", f"#!/bin/sh\n{lines}\n", mode=0o755)
    path = "PATH=/root/stand-in:/usr/sbin:/usr/bin:/sbin:/bin"
    agent = machine.pid("snmpd")
    done = set_up(machine, "--user", "nobody-new", "--generate", environment=[path])
    assert done.returncode == result, done.stderr
    assert machine.pid("snmpd") != agent, "it was stopped, and started"
    assert generated(done.stdout) == [], "they do not hold"
    machine.await_inventory()
    assert machine.run("sh", "-c", f"ls {PERSISTENT}.*", check=False).startswith("ls: cannot access")


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
