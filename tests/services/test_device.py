"""The start script, in a Debian whose service manager does not run."""

import os
import subprocess
from pathlib import Path

import pytest
from booted import Installation, wait_for
from harness import DEVICE, V3_USER
from test_units import DIRECTORIES

SCRIPT = "/usr/share/orvex-flash-mib/device/orvex-flash"
PROGRAMS = {"fs_daemon": "/usr/sbin/fs_daemon", "snmpd": "/usr/sbin/snmpd"}
CONFIGURATION = "/etc/ruma/platform.toml"


class Device(Installation):
    """It knows its programs by the pid files of the script."""

    def script(self, word, check=True) -> str:
        return self.run(SCRIPT, word, check=check)

    def pid(self, name) -> int:
        """0 when that program does not run."""
        file = self.path(f"/run/orvex-flash/{name}.pid")
        number = int(file.read_text(encoding="ascii")) if file.exists() else 0
        if number and self.run("readlink", f"/proc/{number}/exe", check=False).strip() == PROGRAMS[name]:
            return number
        return 0

    def pids(self) -> list:
        return [self.pid(name) for name in PROGRAMS]

    def status_of(self, name) -> dict:
        text = self.path(f"/proc/{self.pid(name)}/status").read_text(encoding="ascii")
        return dict(line.split(":\t", 1) for line in text.splitlines() if ":\t" in line)

    def serves(self) -> bool:
        return self.get(f"{DEVICE}.7.1") == '"bootflash"'


@pytest.fixture(name="made", scope="module")
def fixture_made(packages):
    """A device with the packages and a user, made by the one command."""
    layer = Path(os.environ["ORVEX_TEST_WORK"]) / f"device.{os.getpid()}"
    layer.mkdir()
    device = Device(Path(os.environ["ORVEX_TEST_ROOT"]), layer)
    try:
        device.install(packages, "orvex-flash-mib", "orvex-flash-fsd")
        device.said = device.set_up()
        yield device
        device.script("stop")
    finally:
        device.close()
        subprocess.run(["rm", "-rf", "--one-file-system", str(layer)], check=True)


@pytest.fixture(name="device")
def fixture_device(made):
    """Both run."""
    made.script("start")
    return made


def test_setup_works_without_a_service_manager(made):
    assert "the file-system daemon and the agent have been started" in made.said
    wait_for(made.serves, "the inventory answers", timeout=10)


def test_start_returns_when_both_serve(device):
    device.script("stop")
    device.script("start")
    assert 0 not in device.pids()
    assert device.serves()


def test_start_starts_nothing_twice(device):
    before = device.pids()
    device.script("start")
    assert device.pids() == before


def test_each_runs_as_its_own_user(device):
    for name, user in (("fs_daemon", "ruma-fsd"), ("snmpd", "Debian-snmp")):
        number = device.run("id", "-u", user).strip()
        assert device.status_of(name)["Uid"].split() == [number] * 4
    group = device.run("getent", "group", "ruma-flash").split(":")[2]
    assert group in device.status_of("fs_daemon")["Groups"].split()


def test_agent_has_its_working_directory_its_mask_and_its_limits(device):
    number = device.pid("snmpd")
    assert device.run("readlink", f"/proc/{number}/cwd").strip() == "/var/lib/ruma/staging"
    assert device.status_of("snmpd")["Umask"] == "0077"
    limits = device.path(f"/proc/{number}/limits").read_text(encoding="ascii")
    rows = {line[:26].strip(): line[26:].split()[:2] for line in limits.splitlines()[1:]}
    assert rows["Max processes"] == ["256", "256"]
    assert rows["Max address space"] == [str(1 << 30)] * 2
    assert rows["Max core file size"] == ["0", "0"]


@pytest.mark.parametrize("path, expected", DIRECTORIES.items())
def test_directory_has_its_owner_and_mode(device, path, expected):
    assert device.owner(path) == expected


def test_directories_that_are_missing_are_made(device):
    device.script("stop")
    device.run("rm", "-rf", "/run/ruma", "/var/lib/ruma/state", "/var/lib/ruma/slot0")
    device.write("/var/lib/ruma/bootflash/kept", "content")
    device.script("start")
    for path, expected in DIRECTORIES.items():
        assert device.owner(path) == expected, path
    assert device.path("/var/lib/ruma/bootflash/kept").read_text() == "content"
    wait_for(device.serves, "the inventory answers", timeout=10)


def test_status_tells_what_runs(device):
    both = device.script("status")
    for name in PROGRAMS:
        assert f"{name} runs as process {device.pid(name)}" in both
    device.script("stop")
    assert "fs_daemon does not run\nsnmpd does not run" in device.script("status", check=False)
    assert device.run("sh", "-c", f"{SCRIPT} status; echo $?").splitlines()[-1] == "3"


def test_stop_ends_both_and_again_does_nothing(device):
    numbers = device.pids()
    device.script("stop")
    for number in numbers:
        assert not device.path(f"/proc/{number}").exists()
    assert not list(device.path("/run/orvex-flash").iterdir())
    assert not device.path("/run/ruma/fsd/fs_daemon.sock").exists()
    device.script("stop")


def test_restart_gives_new_processes(device):
    before = device.pids()
    device.script("restart")
    after = device.pids()
    assert 0 not in after
    assert not set(before) & set(after)


def test_reload_reads_both_configurations(device):
    before = device.path(CONFIGURATION).read_text(encoding="utf-8")
    daemon, agent = device.pids()
    more = '\n[[file_system]]\nscheme = "usb"\ndirectory = "/var/lib/ruma/usb"\n'
    device.write(CONFIGURATION, before + more)
    device.script("reload")
    device.write(CONFIGURATION, before)
    assert device.pid("fs_daemon") not in (0, daemon)
    assert device.pid("snmpd") == agent
    wait_for(lambda: device.get(f"{DEVICE}.7.4") == '"usb"', "the new file system is served")


def test_reload_with_a_bad_configuration_keeps_the_daemon(device):
    before = device.path(CONFIGURATION).read_text(encoding="utf-8")
    numbers = device.pids()
    device.write(CONFIGURATION, "nonsense = 1\n")
    said = device.script("reload", check=False)
    device.write(CONFIGURATION, before)
    assert "fs_daemon keeps its former configuration: see /var/log/fs_daemon.log" in said
    log = device.path("/var/log/fs_daemon.log").read_text(encoding="utf-8")
    assert "not started again: /etc/ruma/platform.toml:1: unknown key" in log
    assert device.pids() == numbers
    wait_for(device.serves, "the inventory answers", timeout=10)


def test_daemon_that_cannot_start_is_said_and_the_agent_runs(device):
    device.script("stop")
    before = device.path(CONFIGURATION).read_text(encoding="utf-8")
    device.write(CONFIGURATION, "nonsense = 1\n")
    said = device.run("sh", "-c", f"{SCRIPT} start; echo $?")
    device.write(CONFIGURATION, before)
    assert "orvex-flash: fs_daemon does not" in said
    assert said.splitlines()[-1] == "1"
    assert [number != 0 for number in device.pids()] == [False, True]


def test_setup_says_what_the_script_has_not_started(device):
    before = device.path(CONFIGURATION).read_text(encoding="utf-8")
    device.script("stop")
    device.write(CONFIGURATION, "nonsense = 1\n")
    said = device.run("sh", "-c", f"orvex-flash-setup --user {V3_USER}; echo $?")
    device.write(CONFIGURATION, before)
    assert f"orvex-flash-setup: {SCRIPT} has not started everything: see above\n1\n" in said
    assert "journalctl" not in said


def test_link_in_place_of_the_daemons_directory_is_refused(device):
    """The agent's user could make it."""
    device.script("stop")
    device.run("install", "-d", "-m", "0700", "/root/private")
    device.run("rm", "-r", "/run/ruma/fsd")
    link = ["ln", "-s", "/root/private", "/run/ruma/fsd"]
    device.run("setpriv", "--reuid=Debian-snmp", "--clear-groups", *link)
    said = device.run("sh", "-c", f"{SCRIPT} start; echo $?")
    device.run("rm", "/run/ruma/fsd")
    assert "/run/ruma/fsd is a link: remove it" in said
    assert said.splitlines()[-1] != "0"
    assert device.owner("/root/private") == "root:root 700"


def test_process_that_only_has_the_number_of_a_pid_file_is_left_alone(device):
    device.script("stop")
    number = device.run("sh", "-c", "sleep 600 >/dev/null 2>&1 & echo $!").strip()
    for name in PROGRAMS:
        device.write(f"/run/orvex-flash/{name}.pid", f"{number}\n")
    assert "does not run" in device.script("status", check=False)
    device.script("stop")
    assert device.path(f"/proc/{number}").exists()
    device.script("start")
    assert int(number) not in device.pids()
    device.run("kill", number)


def test_unknown_word_is_answered_with_the_usage(device):
    said = device.run("sh", "-c", f"{SCRIPT} nonsense; echo $?")
    assert said.startswith("usage: orvex-flash start|stop|restart|reload|status|directories")
    assert said.splitlines()[-1] == "2"
