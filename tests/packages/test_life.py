"""The packages from their installation to their purge, in the order of these tests."""

import pytest
from harness import SUCCESS, V3_PASSWORD, V3_USER, CopyColumn, SYS_UP_TIME, wait_for
from installation import DIRECTORIES, MAIN_PACKAGES, STATION
from tftp_server import TftpServer

CONFFILES = {
    "/etc/logrotate.d/orvex-flash-mib",
    "/etc/ruma/platform.toml",
    "/etc/snmp/snmpd.conf.d/orvex-flash-modules.conf",
    "/etc/snmp/snmpd.conf.d/orvex-flash.conf",
}
SCRIPTS = {"/ruma/bin/snmp.ftp.expect", "/ruma/bin/scp.expect", "/ruma/bin/sftp.expect"}
PURGED = (
    "/etc/ruma",
    "/etc/snmp/snmpd.conf.d/orvex-flash-users.conf",
    "/ruma",
    "/run/orvex-flash",
    "/run/ruma",
    "/usr/lib/ruma",
    "/var/log/fs_daemon.log",
)
IMAGE = bytes(range(256)) * 4096
OWN_LINE = "# the administrator's own\n"


def version(directory) -> str:
    (package,) = directory.glob("orvex-flash-mib_*.deb")
    return package.name.split("_")[1]


def fetch(machine, row, name):
    """Copies the image to flash; the copy's final status."""
    with machine.network():
        server = TftpServer(STATION, {"image.bin": IMAGE})
    with server:
        machine.begin_copy(row, "image.bin", f"bootflash:{name}")
        return machine.copy_result(row)


# -- installed, and a station set up


@pytest.fixture(name="fresh", scope="module")
def fixture_fresh(make_installation, old):
    """A machine with the packages just installed, and what apt said."""
    machine = make_installation("life")
    return machine, machine.install(old, *MAIN_PACKAGES)


@pytest.fixture(name="installed", scope="module")
def fixture_installed(fresh):
    machine, _ = fresh
    machine.set_up()
    return machine


def test_installing_names_the_one_command_that_remains(fresh):
    assert "orvex-flash-setup" in fresh[1]


@pytest.mark.parametrize("package", MAIN_PACKAGES)
def test_package_is_installed_whole(fresh, old, package):
    machine, _ = fresh
    assert machine.state(package) == f"installed {version(old)}"
    assert machine.run("dpkg", "--verify", package) == ""


def test_configuration_and_access_rules_are_conffiles(fresh):
    machine, _ = fresh
    listed = machine.run("cat", "/var/lib/dpkg/info/orvex-flash-mib.conffiles").split()
    assert CONFFILES <= set(listed)


@pytest.mark.parametrize("name, owner", DIRECTORIES.items())
def test_directory_has_its_owner_and_mode(fresh, name, owner):
    assert fresh[0].owner(name) == owner


def test_transfer_scripts_lie_where_the_module_calls_them(fresh):
    assert SCRIPTS <= set(fresh[0].listed("orvex-flash-mib"))


@pytest.mark.parametrize("package", MAIN_PACKAGES)
def test_programs_and_modules_find_their_libraries(fresh, package):
    machine, _ = fresh
    found = 0
    for name in machine.listed(package):
        if machine.path(name).read_bytes()[:4] == b"\x7fELF":
            found += 1
            assert "not found" not in machine.run("ldd", name)
    assert found > 0


def test_inventory_answers_the_station(installed):
    assert installed.files() == []
    installed.write("/var/lib/ruma/bootflash/boot.img", "an image")
    wait_for(lambda: installed.files() == ["boot.img"], "the file is in the inventory")


def test_tftp_copy_to_flash_succeeds_as_the_agents_user(installed):
    assert fetch(installed, 1, "first.bin") == SUCCESS
    assert installed.path("/var/lib/ruma/bootflash/first.bin").read_bytes() == IMAGE
    assert installed.owner("/var/lib/ruma/bootflash/first.bin").startswith("Debian-snmp:")


def test_copied_file_is_in_the_inventory(installed):
    wait_for(lambda: "first.bin" in installed.files(), "the file is in the inventory")


def test_ruma_trace_shows_what_the_module_did(installed):
    installed.run("ruma-trace", "--help")
    assert installed.run("ruma-trace") != ""


def test_station_without_a_user_sees_nothing_of_the_module(installed):
    community = ("-v2c", "-c", "public")
    assert installed.get(SYS_UP_TIME, options=community) != ""
    assert installed.get(f"{CopyColumn.STATUS}.1", options=community) == ""


def test_user_without_privacy_may_neither_read_nor_write(installed):
    options = ("-v3", "-l", "authNoPriv", "-u", V3_USER, "-a", "SHA-256", "-A", V3_PASSWORD)
    assert installed.get(f"{CopyColumn.STATUS}.1", options=options) == ""
    assert not installed.set(f"{CopyColumn.ROW}.2", "i", 5, options=options)
    assert installed.get(f"{CopyColumn.STATUS}.2") == ""


# -- upgraded while a copy runs


@pytest.fixture(name="upgraded", scope="module")
def fixture_upgraded(installed, new):
    """The machine after an upgrade, what apt said, and the status of the copy that ran meanwhile."""
    with open(installed.path("/etc/ruma/platform.toml"), "a", encoding="utf-8") as file:
        file.write(OWN_LINE)
    with installed.network():
        server = TftpServer(STATION, {"image.bin": IMAGE}, hold_at=100)
    with server:
        installed.begin_copy(7, "image.bin", "bootflash:second.bin")
        assert server.held.wait(20)
        said = installed.install(new, *MAIN_PACKAGES)
        server.release()
        return installed, said, installed.copy_result(7)


@pytest.mark.parametrize("package", MAIN_PACKAGES)
def test_upgrade_installs_the_new_version(upgraded, new, package):
    assert upgraded[0].state(package) == f"installed {version(new)}"


def test_copy_that_runs_during_an_upgrade_finishes_and_is_recorded(upgraded):
    machine, _, status = upgraded
    assert status == SUCCESS
    assert machine.path("/var/lib/ruma/bootflash/second.bin").read_bytes() == IMAGE


def test_upgrade_keeps_what_the_administrator_changed(upgraded):
    text = upgraded[0].path("/etc/ruma/platform.toml").read_text(encoding="utf-8")
    assert text.endswith(OWN_LINE)


def test_upgrade_says_that_the_agent_runs_the_former_module(upgraded):
    assert "runs the former module until it is restarted" in upgraded[1]


def test_agent_runs_the_former_module_until_it_is_restarted(upgraded):
    machine, _, _ = upgraded
    mapped = machine.mapped()
    for name in ("ruma_agent.so", "orvex_flash_mib.so", "libruma_host.so"):
        assert f"/usr/lib/ruma/{name} (deleted)" in mapped.replace(".dpkg-new", "")


@pytest.fixture(name="restarted", scope="module")
def fixture_restarted(upgraded):
    machine, _, _ = upgraded
    machine.stop_all()
    machine.start_all()
    return machine


def test_restarted_agent_runs_the_new_module(restarted):
    mapped = restarted.mapped()
    assert "/usr/lib/ruma/orvex_flash_mib.so\n" in mapped
    assert "(deleted)" not in mapped


def test_copy_succeeds_after_the_upgrade(restarted):
    assert fetch(restarted, 8, "third.bin") == SUCCESS


# -- removed


@pytest.fixture(name="removed", scope="module")
def fixture_removed(restarted):
    """The machine without the packages, whose agent was started again: no service manager does that
    here."""
    files = [name for package in MAIN_PACKAGES for name in restarted.listed(package)]
    restarted.apt("remove", *MAIN_PACKAGES)
    restarted.end("snmpd")
    restarted.end("fs_daemon")
    restarted.start_agent()
    return restarted, set(files)


def test_removal_leaves_configuration_only(removed):
    machine, files = removed
    left = {name for name in files if machine.path(name).exists()}
    assert CONFFILES <= left
    assert all(name.startswith("/etc/") for name in left)
    assert not machine.path("/ruma").exists()


def test_removal_leaves_the_files_on_flash(removed):
    assert removed[0].path("/var/lib/ruma/bootflash/first.bin").read_bytes() == IMAGE


def test_agent_serves_everything_else_after_the_removal(removed):
    machine, _ = removed
    assert machine.get(SYS_UP_TIME) != ""
    assert not machine.serves_module()


# -- installed again


@pytest.fixture(name="reinstalled", scope="module")
def fixture_reinstalled(removed, new):
    machine, _ = removed
    machine.end("snmpd")
    machine.install(new, *MAIN_PACKAGES)
    machine.start_all()
    return machine


def test_packages_work_again_with_the_administrators_configuration(reinstalled):
    text = reinstalled.path("/etc/ruma/platform.toml").read_text(encoding="utf-8")
    assert text.endswith(OWN_LINE)
    assert fetch(reinstalled, 9, "fourth.bin") == SUCCESS


def test_inventory_has_the_files_that_were_there_before_the_removal(reinstalled):
    assert {"first.bin", "second.bin", "third.bin"} <= set(reinstalled.files())


# -- purged


@pytest.fixture(name="purged", scope="module")
def fixture_purged(reinstalled):
    files = {name for package in MAIN_PACKAGES for name in reinstalled.listed(package)}
    reinstalled.stop_all()
    reinstalled.apt("purge", *MAIN_PACKAGES)
    return reinstalled, files


def test_purge_never_removes_files_on_flash(purged):
    flash = purged[0].path("/var/lib/ruma/bootflash")
    names = {"boot.img", "first.bin", "second.bin", "third.bin", "fourth.bin"}
    assert {file.name for file in flash.iterdir()} == names
    assert (flash / "first.bin").read_bytes() == IMAGE


def test_purge_removes_empty_flash_directories_state_and_configuration(purged):
    machine, files = purged
    assert [name for name in files if machine.path(name).exists()] == []
    assert [file.name for file in machine.path("/var/lib/ruma").iterdir()] == ["bootflash"]
    for name in PURGED:
        assert not machine.path(name).exists(), name


@pytest.mark.parametrize("package", MAIN_PACKAGES)
def test_purge_leaves_dpkg_nothing_to_remember(purged, package):
    assert purged[0].state(package).startswith(("unknown", "dpkg-query: no packages found"))


def test_packages_can_be_installed_after_a_purge(purged, new):
    machine, _ = purged
    machine.install(new, *MAIN_PACKAGES)
    machine.set_up()
    wait_for(lambda: "first.bin" in machine.files(), "the file is in the inventory")
