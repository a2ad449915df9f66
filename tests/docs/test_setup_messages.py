"""What orvex-flash-setup and the start script say when something does not start, as
docs/troubleshoot.md lists it. They run in namespaces of their own, where their directories are this
test's and what they call is a stand-in; tests/services runs them on whole machines."""

import subprocess
from pathlib import Path

import pytest

from messages import provoked

PACKAGING = Path(__file__).resolve().parents[2] / "packaging"
SETUP = PACKAGING / "setup" / "orvex-flash-setup"
SCRIPT = PACKAGING / "device" / "orvex-flash"
# Directories of the machine that are the test's meanwhile.
OWN = ("etc/default", "etc/init.d", "etc/snmp", "lib/systemd/system", "run", "usr/share", "var/lib", "var/log")
ENTER = """
own=$1; shift
for place in %s; do mount --bind "$own/$place" "/$place" || exit 99; done
PATH=$own/bin:$PATH
"$@"
exit $?
""" % " ".join(OWN)  # with a command behind the other, so that the shell stays
# A program that runs until it is ended, or has a child that does and is never waited for.
IDLE = r"""
#include <stdio.h>
#include <unistd.h>
int main(int argc, char **argv) {
    const pid_t child = argc > 1 ? fork() : 0;
    if (child != 0)
        printf("%d\n", (int)child);
    fflush(stdout);
    alarm(60);
    for (;;)
        pause();
}
"""
DEFAULTS = """
AGENT_USER=nobody AGENT_GROUP=nogroup DAEMON_USER=nobody DAEMON_GROUP=nogroup FLASH_GROUP=nogroup
SECONDS_TO_START=1 SECONDS_TO_STOP=0
"""


class Device:
    """A machine as far as the two scripts look at it."""

    def __init__(self, directory):
        self.directory = directory
        for place in (*OWN, "bin", "var/lib/snmp", "etc/snmp/snmpd.conf.d", "run/orvex-flash"):
            self.path(place).mkdir(parents=True, exist_ok=True)
        self.path("etc/snmp/snmpd.conf").write_text("includeDir /etc/snmp/snmpd.conf.d\n")
        self.path("etc/snmp/snmpd.conf.d/orvex-flash.conf").touch()

    def path(self, name):
        return self.directory / name

    def program(self, name, text):
        self.path(name).write_text(f"#!/bin/sh\n{text}\n")
        self.path(name).chmod(0o755)

    def run(self, *command):
        """What a command that fails says."""
        ended = subprocess.run(
            ["unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc"]
            + ["sh", "-c", ENTER, "sh", self.directory, *command],
            capture_output=True, text=True, check=False, timeout=60,
        )
        assert ended.returncode == 1, ended
        return ended.stderr


@pytest.fixture(name="device")
def fixture_device(tmp_path):
    return Device(tmp_path)


# --- The set-up


@pytest.fixture(name="services")
def fixture_services(device):
    """It has a service manager, with the daemon's service, and a clock that does not make one wait."""
    device.path("run/systemd/system").mkdir(parents=True)
    device.path("lib/systemd/system/orvex-flash-fsd.service").touch()
    for name in ("systemctl", "systemd-tmpfiles", "systemd-sysusers", "sleep"):
        device.program(f"bin/{name}", "exit 0")
    return device


def set_up(device):
    return device.run(SETUP, "--generate")


def test_configuration_that_is_missing(device):
    device.path("etc/snmp/snmpd.conf.d/orvex-flash.conf").unlink()
    provoked(set_up(device), "orvex-flash-setup: … is missing: install the package …")


def test_agent_that_does_not_read_the_directory(device):
    device.path("etc/snmp/snmpd.conf").write_text("")
    provoked(
        set_up(device),
        "orvex-flash-setup: … does not read …; add this line to it and run this again:",
    )


def test_neither_service_manager_nor_start_script(device):
    provoked(set_up(device), "orvex-flash-setup: there is neither systemd nor /etc/init.d/orvex-flash")


def test_daemon_whose_service_does_not_start(services):
    services.program("bin/systemctl", '[ "$*" != "restart orvex-flash-fsd" ]')
    provoked(
        set_up(services),
        "orvex-flash-setup: the file-system daemon does not start: see journalctl -u orvex-flash-fsd",
    )


def test_agent_whose_service_does_not_start(services):
    services.program("bin/systemctl", '[ "$*" != "restart snmpd" ]')
    provoked(set_up(services), "orvex-flash-setup: the agent does not start: see journalctl -u snmpd")


def test_start_script_that_does_not_start_everything(device):
    device.program("etc/init.d/orvex-flash", '[ "$1" != start ]')
    provoked(set_up(device), "orvex-flash-setup: … has not started everything: see above")


def test_agent_that_does_not_take_the_user(services):
    provoked(set_up(services), "orvex-flash-setup: the agent has not taken the user: see its log")


# --- The start script


@pytest.fixture(name="idle", scope="module")
def fixture_idle(tmp_path_factory):
    program = tmp_path_factory.mktemp("idle") / "idle"
    subprocess.run(["gcc", "-x", "c", "-o", program, "-"], input=IDLE, text=True, check=True)
    return program


@pytest.fixture(name="started")
def fixture_started(device, idle):
    """What runs the start script, in whose place both programs are such as run and do nothing."""
    place = device.path("usr/share/idle")
    place.write_bytes(idle.read_bytes())
    place.chmod(0o755)

    def start(word, daemon="/usr/share/idle", agent="/usr/share/idle", before=""):
        text = f"{DEFAULTS}DAEMON={daemon} AGENT={agent}\n"
        device.path("etc/default/orvex-flash").write_text(text)
        return device.run("sh", "-c", f"{before}\n'{SCRIPT}' {word}")

    return start


# It ignores SIGHUP from its first instruction on.
RUNNING = """
(trap '' HUP; exec /usr/share/idle) &
until [ "$(readlink /proc/$!/exe)" = /usr/share/idle ]; do :; done
echo $! >/run/orvex-flash/{}.pid
"""
UNWAITED = """
/usr/share/idle child >/run/orvex-flash/fs_daemon.pid &
until [ -s /run/orvex-flash/fs_daemon.pid ]; do :; done
"""


def test_link_where_the_daemons_directory_belongs(started):
    said = started("start", before="mkdir /run/ruma; ln -s /usr/share /run/ruma/fsd")
    provoked(said, "orvex-flash: …/fsd is a link: remove it")


def test_daemon_that_does_not_start(started):
    provoked(started("start", daemon="/bin/false"), "orvex-flash: fs_daemon does not start: see …")


def test_daemon_that_does_not_serve(started):
    provoked(started("start"), "orvex-flash: fs_daemon does not serve: see …")


def test_agent_that_does_not_start(started):
    said = started("start", agent="/bin/false", before=RUNNING.format("fs_daemon"))
    provoked(said, "orvex-flash: snmpd does not start: see the system's log")


def test_reload_of_what_does_not_run(started):
    provoked(started("reload"), "orvex-flash: … does not run")


def test_program_that_does_not_end(started):
    said = started("stop", before=UNWAITED)
    provoked(said, "orvex-flash: … does not end")


def test_reload_that_the_daemon_refuses(started):
    before = RUNNING.format("fs_daemon") + RUNNING.format("snmpd")
    provoked(started("reload", before=before), "orvex-flash: fs_daemon keeps its former configuration: see …")
