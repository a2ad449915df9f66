"""The units as they are installed: what runs, as whom, in which order, and what brings it back."""

import time

import pytest
from booted import wait_for
from harness import ACTIVE, CREATE_AND_WAIT, DEVICE, MiscColumn
from installation import DIRECTORIES as PACKAGED

DAEMON, AGENT = "orvex-flash-fsd", "snmpd"
DIRECTORIES = PACKAGED | {
    "/run/ruma/fsd": "ruma-fsd:ruma-fsd 755",
    "/run/ruma/fsd/fs_daemon.sock": "ruma-fsd:ruma-fsd 666",
    "/run/ruma/fsd/fs_daemon.lock": "ruma-fsd:ruma-fsd 600",
    "/var/agentx": "root:root 700",
}


def await_another(machine, unit, former) -> int:
    """The process that replaces the former one, once the inventory answers again."""
    wait_for(lambda: machine.running(unit) not in (0, former), f"{unit} is started again", timeout=30)
    machine.await_inventory()
    return machine.pid(unit)


def test_packages_and_one_command_make_the_inventory_answer(site):
    """The command is the one that the package's own message names."""
    assert "run orvex-flash-setup" in site.said
    assert "the file-system daemon and the agent have been started" in site.said
    assert site.machine.serves_inventory()


def test_no_unit_has_failed(machine):
    assert machine.run("systemctl", "--failed", "--no-legend", "--plain") == ""


@pytest.mark.parametrize("unit", [DAEMON, AGENT])
def test_service_is_started_at_boot(machine, unit):
    assert machine.property_of(unit, "UnitFileState") == "enabled"


def test_daemon_runs_as_a_user_of_its_own_in_the_group_of_the_flash_directories(machine):
    user = machine.run("id", "-u", "ruma-fsd").strip()
    group = machine.run("getent", "group", "ruma-flash").split(":")[2]
    status = machine.status_of(DAEMON)
    assert status["Uid"].split() == [user] * 4
    assert group in status["Groups"].split()


def test_agent_runs_as_debians_own_user_in_the_staging_directory(machine):
    user = machine.run("id", "-u", "Debian-snmp").strip()
    assert machine.status_of(AGENT)["Uid"].split() == [user] * 4
    directory = machine.run("readlink", f"/proc/{machine.pid(AGENT)}/cwd").strip()
    assert directory == "/var/lib/ruma/staging"


def test_drop_in_is_part_of_the_agents_service(machine):
    assert "orvex-flash.conf" in machine.property_of(AGENT, "DropInPaths")


def test_drop_in_of_the_administrator_comes_on_top(machine):
    own = "/etc/systemd/system/snmpd.service.d/local.conf"
    machine.run("mkdir", "-p", own.rpartition("/")[0])
    machine.write(own, "[Service]\nUMask=0027\n")
    machine.run("systemctl", "daemon-reload")
    umask = machine.property_of(AGENT, "UMask")
    machine.run("rm", own)
    machine.run("systemctl", "daemon-reload")
    assert umask == "0027"


@pytest.mark.parametrize("path, expected", DIRECTORIES.items())
def test_directory_has_its_owner_and_mode(machine, path, expected):
    assert machine.owner(path) == expected


def test_agent_starts_after_the_daemon_is_ready(machine):
    assert f"{DAEMON}.service" in machine.property_of(AGENT, "After").split()
    machine.run("systemctl", "stop", AGENT, DAEMON)
    machine.run("systemctl", "start", AGENT)  # which wants the daemon
    ready = int(machine.property_of(DAEMON, "ActiveEnterTimestampMonotonic"))
    assert ready <= int(machine.property_of(AGENT, "ExecMainStartTimestampMonotonic"))


def test_daemon_tells_the_service_manager_what_it_does(machine):
    assert machine.property_of(DAEMON, "Type") == "notify"
    assert machine.property_of(DAEMON, "StatusText") == "Serving the inventory"


def test_restart_of_the_daemon_leaves_the_agent_alone(machine):
    agent, daemon = machine.pid(AGENT), machine.pid(DAEMON)
    machine.run("systemctl", "restart", DAEMON)
    await_another(machine, DAEMON, daemon)
    assert machine.pid(AGENT) == agent


def test_restart_of_the_agent_leaves_the_daemon_alone(machine):
    agent, daemon = machine.pid(AGENT), machine.pid(DAEMON)
    machine.run("systemctl", "restart", AGENT)
    await_another(machine, AGENT, agent)
    assert machine.pid(DAEMON) == daemon


def test_reload_of_the_agent_keeps_its_process_and_the_module(machine):
    agent = machine.pid(AGENT)
    machine.run("systemctl", "reload", AGENT)
    machine.await_inventory()
    assert machine.pid(AGENT) == agent


def test_reload_of_the_daemon_starts_it_with_its_new_configuration(machine):
    before = machine.path("/etc/ruma/platform.toml").read_text()
    machine.run("install", "-d", "-g", "ruma-flash", "-m", "2750", "/var/lib/ruma/usb")
    more = '\n[[file_system]]\nscheme = "usb"\ndirectory = "/var/lib/ruma/usb"\n'
    for text, expected in ((before + more, '"usb"'), (before, "")):
        daemon = machine.pid(DAEMON)
        machine.write("/etc/ruma/platform.toml", text)
        machine.run("systemctl", "reload", DAEMON)
        await_another(machine, DAEMON, daemon)
        assert machine.get(f"{DEVICE}.7.4") == expected
    assert machine.property_of(DAEMON, "Result") == "success"


def test_reload_of_the_daemon_with_a_bad_configuration_changes_nothing(machine):
    before = machine.path("/etc/ruma/platform.toml").read_text()
    daemon = machine.pid(DAEMON)
    machine.write("/etc/ruma/platform.toml", "nonsense = 1\n")
    machine.run("systemctl", "reload", DAEMON, check=False)
    wait_for(
        lambda: "not started again: /etc/ruma/platform.toml:1: unknown key" in machine.journal(DAEMON),
        "the daemon says why",
    )
    machine.write("/etc/ruma/platform.toml", before)
    assert machine.pid(DAEMON) == daemon
    assert machine.serves_inventory()


def test_daemon_that_is_killed_is_started_again(machine):
    daemon = machine.pid(DAEMON)
    machine.run("kill", "-KILL", str(daemon))
    await_another(machine, DAEMON, daemon)


def test_daemon_that_hangs_is_killed_by_the_watchdog_and_started_again(machine):
    daemon = machine.pid(DAEMON)
    machine.run("kill", "-STOP", str(daemon))
    began = time.monotonic()
    await_another(machine, DAEMON, daemon)
    assert time.monotonic() - began > 1, "not before the watchdog's time"
    assert "Watchdog timeout" in machine.journal(DAEMON)


def test_daemon_stops_within_a_moment_and_without_a_failure(machine):
    began = time.monotonic()
    machine.run("systemctl", "stop", DAEMON)
    assert time.monotonic() - began < 5
    assert machine.property_of(DAEMON, "ActiveState") == "inactive"
    assert machine.property_of(DAEMON, "Result") == "success"
    machine.run("systemctl", "start", DAEMON)


def test_daemon_sees_files_of_the_flash_directories(machine):
    machine.write("/var/lib/ruma/slot0/by-hand", "content")
    wait_for(lambda: "by-hand" in machine.files(), "the file is in the inventory")
    machine.path("/var/lib/ruma/slot0/by-hand").unlink()
    wait_for(lambda: "by-hand" not in machine.files(), "the file has gone")


def test_error_log_goes_on_after_its_rotation(machine):
    def fail_a_delete(row):
        assert machine.set(f"{MiscColumn.ROW}.{row}", "i", CREATE_AND_WAIT)
        assert machine.set(f"{MiscColumn.NAME}.{row}", "s", "bootflash:../none")
        machine.set(f"{MiscColumn.ROW}.{row}", "i", ACTIVE)

    log = machine.path("/run/ruma/snmp-errors.log")
    fail_a_delete(901)
    wait_for(log.exists, "an error is logged")
    machine.run("logrotate", "--force", "/etc/logrotate.d/orvex-flash-mib")
    assert not log.exists()
    rotated = machine.path("/run/ruma/snmp-errors.log.1").read_text()
    fail_a_delete(902)
    wait_for(log.exists, "an error is logged")
    assert machine.owner("/run/ruma/snmp-errors.log") == "Debian-snmp:Debian-snmp 640"
    assert machine.path("/run/ruma/snmp-errors.log.1").read_text() == rotated


@pytest.mark.parametrize("unit, limit", [(AGENT, 25), (DAEMON, 15)])
def test_exposure_of_the_service_is_limited(machine, unit, limit):
    """As systemd itself judges it, in tenths."""
    file = f"/lib/systemd/system/{unit}.service"
    machine.run("systemd-analyze", "security", "--offline=true", f"--threshold={limit}", file)


def test_boot_brings_it_all_back_in_order(machine):
    known_hosts = machine.path("/var/lib/ruma/state/known_hosts")
    known_hosts.write_text("remembered\n", encoding="ascii")
    machine.reboot()
    machine.await_inventory()
    ready = int(machine.property_of(DAEMON, "ActiveEnterTimestampMonotonic"))
    assert ready <= int(machine.property_of(AGENT, "ExecMainStartTimestampMonotonic"))
    kept = machine.path("/var/lib/ruma/state/known_hosts").read_text(encoding="ascii")
    assert kept == "remembered\n"
    for path, expected in DIRECTORIES.items():
        assert machine.owner(path) == expected, path
