"""ruma-doctor: what it finds in an installation that is right, and in ones that are not."""

import contextlib
import json
import pwd
import shutil
import signal
import subprocess

import pytest

from harness import LIBRARIES, PROGRAMS, REPOSITORY, Process, wait_for

USER, GROUP = "nobody", "nogroup"
DOCTOR = PROGRAMS / "ruma-doctor"
BASE_MODULES = ("SNMPv2-SMI", "SNMPv2-TC", "SNMPv2-CONF")
PROGRAMS_OF_TRANSFERS = "sh cp timeout expect stty sleep tnftp ssh scp sftp".split()
OK, WARNINGS, ERRORS, NOT_CHECKED = range(4)
ROOT = ".1.3.6.1.4.1.32473.1"
ACCESS = [
    f"view flash included {ROOT}",
    "group writers usm operator",
    'access writers "" usm priv exact flash flash none',
]


def dlmods(*names):
    return [f"dlmod {name} {LIBRARIES / name}.so" for name in names]


class Patient:
    """An installation, and the doctor who looks at it."""

    def __init__(self, host):
        self.host = host
        self.state = host.state_dir
        self.mibs = host.directory / "mibs"
        self.snmpd = host.directory / "etc"
        self.programs = host.directory / "programs"
        self.user = USER
        self.options = []
        self.inside = []  # what the doctor is run by
        host.agent_user = USER
        host.directory.chmod(0o755)
        for directory in (self.mibs, self.snmpd, self.programs):
            directory.mkdir(0o755)
        self.state.chmod(0o700)
        owned = (host.run_dir, host.work_dir, self.state)
        for directory in (*owned, *map(host.flash, ("bootflash", "slot0", "logflash"))):
            shutil.chown(directory, USER)
        shutil.copy(REPOSITORY / "mibs" / "ORVEX-FLASH-MIB.txt", self.mibs)
        for module in BASE_MODULES:
            (self.mibs / f"{module}.txt").touch()
        for name in PROGRAMS_OF_TRANSFERS:
            (self.programs / name).symlink_to("/bin/true")
        self.configure(dlmods("ruma_agent", "orvex_flash_mib") + ACCESS)

    def configure(self, lines):
        """The agent's configuration, as the doctor reads it: by way of an include."""
        fragments = self.snmpd / "snmpd.conf.d"
        fragments.mkdir(exist_ok=True)
        (self.snmpd / "snmpd.conf").write_text(f"# main\nincludeDir {fragments}\n")
        (fragments / "orvex-flash.conf").write_text("\n".join(lines) + "\n")

    def run(self, *options):
        host = self.host
        command = [*self.inside, DOCTOR, "--user", self.user, "--snmpd-config", self.snmpd / "snmpd.conf"]
        command += ["--snmpd-users", self.snmpd / "users", "--scripts", host.scripts]
        command += ["--subagent-config", self.snmpd / "subagent.conf"]
        command += ["--staging", host.work_dir, "--programs", self.programs]
        command += ["--mib-directories", self.mibs, *self.options, *options]
        return subprocess.run(
            command, capture_output=True, text=True, env=host.environment, check=False, timeout=60
        )

    def examine(self):
        """The exit status and the findings."""
        ended = self.run("--json")
        assert ended.stderr == ""
        report = json.loads(ended.stdout)
        assert report["user"] == self.user
        assert report["status"] == ended.returncode
        return ended.returncode, report["findings"]

    def only(self, severity):
        """The one finding above a note; it is of that severity, which the exit status tells."""
        status, findings = self.examine()
        [finding] = [each for each in findings if each["severity"] in ("warning", "error")]
        assert finding["severity"] == severity
        assert status == {"warning": WARNINGS, "error": ERRORS}[severity]
        return finding

    def heal(self, finding, command=None):
        """Runs the remedy, after which all is well."""
        subprocess.run(command or finding["remedy"], shell=True, check=True)
        assert self.examine()[0] == OK

    def note(self, check):
        """The one note, which leaves the exit status alone."""
        status, findings = self.examine()
        [note] = [each for each in findings if each["severity"] != "ok"]
        assert (note["check"], note["severity"], status) == (check, "note", OK)
        return note


@pytest.fixture(name="well")
def fixture_well(idle_host):
    """A right installation that runs."""
    patient = Patient(idle_host)
    (patient.snmpd / "users").write_text("")
    idle_host.start()
    return patient


# --- All is well


def test_right_installation_has_nothing_but_good_findings(well):
    status, findings = well.examine()
    assert {each["severity"] for each in findings} == {"ok"}, findings
    assert status == OK
    assert {each["check"] for each in findings} == {
        *("configuration", "flash", "staging", "run", "state", "daemon", "agent", "modules"),
        *("access", "mibs", "programs", "scripts", "kernel"),
    }


def test_findings_are_lines_with_a_severity(well):
    ended = well.run()
    assert ended.returncode == OK
    assert f"ok: fs_daemon: answers user {USER} at " in ended.stdout
    assert all(line.startswith("ok: ") for line in ended.stdout.splitlines())
    assert well.run("--quiet").stdout == ""


def test_findings_that_need_it_have_a_remedy_below(well):
    (well.programs / "tnftp").unlink()
    ended = well.run("--quiet")
    assert ended.returncode == ERRORS
    assert ended.stdout == (
        "error: program tnftp: it is missing, for copies by FTP\n"
        "    remedy: apt-get install tnftp\n"
    )


# --- Each finding, and its remedy


def test_broken_configuration(well):
    broken = well.host.directory / "broken.toml"
    broken.write_text("[agent]\nusers = 1\n")
    well.options = ["--config", broken]
    _, findings = well.examine()
    found = [each for each in findings if each["check"] == "configuration"]
    assert found[0]["severity"] == "error"
    assert f'{broken}:2: unknown key "users"' in found[0]["found"]
    assert "correct the file" in found[0]["remedy"]


def test_agents_user_that_is_not_configured(well):
    text = well.host.configuration.read_text()
    well.host.configuration.write_text(text.replace(f'user = "{USER}"', ""))
    finding = well.only("warning")
    assert finding["what"] == "configuration"
    assert finding["remedy"].startswith(f'set [agent] user = "{USER}" in ')


def test_missing_flash_directory(well):
    path = well.host.flash("slot0")
    path.rmdir()
    finding = well.only("error")
    assert finding["found"] == f"No such file or directory: {path}"
    assert finding["remedy"].endswith(f"install -d -o {USER} -m 2750 {path}")


@contextlib.contextmanager
def mounted(path, option):
    """A small file system of the agent's user there."""
    options = f"mode=0755,uid={pwd.getpwnam(USER).pw_uid},{option}"
    subprocess.run(["mount", "-t", "tmpfs", "-o", options, "none", path], check=True)
    try:
        yield
    finally:
        subprocess.run(["umount", "-l", path], check=True)


def with_daemon_user(well):
    text = well.host.configuration.read_text()
    text = text.replace("[fs_daemon]\n", '[fs_daemon]\nuser = "daemon"\n')
    well.host.configuration.write_text(text)


def test_missing_flash_directory_is_made_so_that_the_daemon_reads_it(well):
    with_daemon_user(well)
    path = well.host.flash("slot0")
    path.rmdir()
    remedy = well.only("error")["remedy"]
    assert remedy.endswith(f"install -d -o {USER} -g ruma-flash -m 2750 {path}")


def test_flash_directory_of_another_user_is_given_to_the_daemons_group_too(well):
    with_daemon_user(well)
    path = well.host.flash("slot0")
    shutil.chown(path, "root")
    assert well.only("error")["remedy"].startswith(f"chown {USER}:ruma-flash {path}")


def test_flash_directory_on_a_read_only_file_system(well):
    path = well.host.flash("slot0")
    with mounted(path, "ro"):
        finding = well.only("error")
        assert f"the agent cannot write it: Read-only file system: {path}" in finding["found"]
        assert finding["remedy"].startswith("mount it for writing")


def test_flash_directory_that_the_agent_cannot_write(well):
    path = well.host.flash("slot0")
    shutil.chown(path, "root")
    finding = well.only("error")
    assert f"the agent cannot write it: Permission denied: {path}" in finding["found"]
    assert "owner root and mode 0755" in finding["found"]
    well.heal(finding)


def test_flash_directory_that_the_daemon_cannot_read(well):
    with_daemon_user(well)
    well.host.flash("slot0").chmod(0o700)
    finding = well.only("error")
    assert "fs_daemon's user daemon cannot read it" in finding["found"]
    assert "chgrp" in finding["remedy"]


def test_flash_directory_that_others_can_write(well):
    well.host.flash("slot0").chmod(0o777)
    finding = well.only("warning")
    assert "others than its owner can write" in finding["found"]
    well.heal(finding)


def give_away(path):
    """To another user, with the agent's in its group, who may write it."""
    shutil.chown(path, "daemon", GROUP)
    path.chmod(0o770)


def test_flash_directory_of_another_user(well):
    path = well.host.flash("slot0")
    give_away(path)
    _, findings = well.examine()
    [finding] = [each for each in findings if "it is another user's" in each["found"]]
    assert finding["severity"] == "warning"
    assert "owner daemon" in finding["found"]
    well.heal(finding, f"{finding['remedy']} && chmod go-w {path}")


@pytest.mark.parametrize("left, severity, found", [(0, "error", "no space"), (1, "warning", "1%")])
def test_flash_directory_that_is_nearly_full(well, left, severity, found):
    path = well.host.flash("slot0")
    pages = 64
    with mounted(path, f"size={pages * 4096}"):
        (path / "file").write_bytes(bytes((pages - left) * 4096))
        finding = well.only(severity)
        assert found in finding["found"]
        assert finding["remedy"] == f"delete files below {path}"


def test_staging_directory_that_the_agent_cannot_write(well):
    shutil.chown(well.host.work_dir, "root")
    finding = well.only("error")
    assert finding["what"] == "staging directory"
    well.heal(finding)


@pytest.mark.parametrize("what", ["staging directory", "state directory", "run directory"])
def test_own_directory_of_another_user(well, what):
    host = well.host
    path = {"staging": host.work_dir, "state": well.state, "run": host.run_dir}[what.split()[0]]
    give_away(path)
    _, findings = well.examine()
    [finding] = [each for each in findings if each["what"] == what and each["severity"] == "error"]
    assert f"{path} is another user's than the agent's: owner daemon" in finding["found"]
    well.heal(finding)


def test_run_directory_that_others_can_write(well):
    well.host.run_dir.chmod(0o777)
    finding = well.only("error")
    assert finding["what"] == "run directory"
    well.heal(finding)


@pytest.mark.parametrize("fault", ["open", "missing"])
def test_state_directory(well, fault):
    if fault == "open":
        well.state.chmod(0o755)
    else:
        shutil.rmtree(well.state)
    finding = well.only("error")
    assert finding["what"] == "state directory"
    well.heal(finding)


def test_daemon_that_does_not_run(well):
    well.host.daemon.stop()
    finding = well.only("error")
    assert finding["what"] == "fs_daemon"
    assert finding["found"].startswith("is not running: nobody listens at ")
    assert finding["remedy"].startswith("systemctl start orvex-flash-fsd")


def test_daemon_that_hangs(well):
    well.host.daemon.signal(signal.SIGSTOP)
    finding = well.only("error")
    assert finding["found"].startswith("does not answer at ")
    assert finding["remedy"].startswith("systemctl restart orvex-flash-fsd")
    well.host.daemon.signal(signal.SIGCONT)


def test_daemon_that_refuses_the_agents_user(well):
    well.host.daemon.stop()
    text = well.host.configuration.read_text()
    well.host.configuration.write_text(text.replace(f'user = "{USER}"', 'user = "daemon"'))
    log = well.host.directory / "other.out"
    shutil.chown(well.host.run_dir, "root")
    other = Process([PROGRAMS / "fs_daemon"], log, well.host.directory, well.host.environment)
    try:
        wait_for(well.host.daemon_socket.exists, "the daemon listens")
        _, findings = well.examine()
        [finding] = [each for each in findings if each["check"] == "daemon"]
        assert finding["found"] == f"refuses user {USER}"
        assert finding["remedy"].startswith(f'set [agent] user = "{USER}" in ')
    finally:
        other.stop()


def test_agent_that_does_not_run(well):
    well.host.agent.stop()
    finding = well.only("error")
    assert finding["what"] == "agent"
    assert finding["found"].startswith("no agent with ruma_agent runs: ")
    assert finding["remedy"].startswith("systemctl restart snmpd")


# --- The agent's configuration


def test_wrong_order_of_modules(well):
    well.configure(dlmods("orvex_flash_mib", "ruma_agent") + ACCESS)
    finding = well.only("error")
    assert finding["what"] == "order of modules"
    assert "orvex-flash.conf:2) stands behind orvex_flash_mib (" in finding["found"]
    assert finding["remedy"] == "put the dlmod line of ruma_agent first"


@pytest.mark.parametrize("name", ["ruma_agent", "orvex_flash_mib"])
def test_missing_dlmod_line(well, name):
    [other] = {"ruma_agent", "orvex_flash_mib"} - {name}
    well.configure(dlmods(other) + ACCESS)
    finding = well.only("error")
    assert (finding["what"], finding["found"]) == (f"module {name}", "no dlmod line loads it")
    assert f"dlmod {name} /usr/lib/ruma/{name}.so" in finding["remedy"]


def test_relative_path_of_a_module(well):
    well.configure(dlmods("ruma_agent") + ["dlmod orvex_flash_mib orvex_flash_mib"] + ACCESS)
    assert "is not absolute" in well.only("error")["found"]


@pytest.mark.parametrize("content", [None, b"no object"])
def test_module_that_cannot_be_loaded(well, content):
    path = well.host.directory / "orvex_flash_mib.so"
    if content is not None:
        path.write_bytes(content)
    well.configure(dlmods("ruma_agent") + [f"dlmod orvex_flash_mib {path}"] + ACCESS)
    finding = well.only("error")
    assert "it cannot be used" in finding["found"] and str(path) in finding["found"]
    assert "orvex-flash-mib" in finding["remedy"]


def test_module_of_another_version(well):
    path = well.host.directory / "ruma_agent.so"
    source = 'const char ruma_agent_version[] = "0.0.9";'
    command = ["gcc", "-shared", "-fPIC", "-x", "c", "-o", path, "-"]
    subprocess.run(command, input=source, text=True, check=True)
    well.configure([f"dlmod ruma_agent {path}"] + dlmods("orvex_flash_mib") + ACCESS)
    assert "its version is 0.0.9, that of ruma-doctor " in well.only("error")["found"]


def test_module_that_the_agent_still_runs_after_an_upgrade(well):
    path = well.host.directory / "orvex_flash_mib.so"
    shutil.copy(LIBRARIES / "orvex_flash_mib.so", path)
    well.configure(dlmods("ruma_agent") + [f"dlmod orvex_flash_mib {path}"] + ACCESS)
    program = f"import ctypes, time; ctypes.CDLL({str(path)!r}); print('has it', flush=True)"
    program += "; time.sleep(60)"
    log = well.host.directory / "former.out"
    command = ["env", f"LD_PRELOAD={LIBRARIES / 'libruma_host.so'}", "python3", "-c", program]
    former = Process(command, log, well.host.directory, well.host.environment)
    try:
        wait_for(lambda: "has it" in log.read_text(), "the module is loaded")
        assert well.examine()[0] == OK
        path.unlink()
        shutil.copy(LIBRARIES / "orvex_flash_mib.so", path)
        finding = well.only("warning")
    finally:
        former.stop()
    assert finding["what"] == "loaded modules"
    assert finding["found"].endswith(f" still runs the former {path}")
    assert finding["remedy"].startswith("systemctl restart snmpd")
    assert well.examine()[0] == OK


def modules_in_a_subagent(well, master):
    """The agent's own configuration has access only."""
    (well.snmpd / "subagent.conf").write_text("\n".join(dlmods("ruma_agent", "orvex_flash_mib")))
    well.configure([*master, *ACCESS])


def test_modules_in_a_subagent_are_loaded_by_its_configuration(well):
    modules_in_a_subagent(well, ["master agentx"])
    status, findings = well.examine()
    assert status == OK
    [found] = [each["found"] for each in findings if each["what"] == "subagent"]
    assert found == "the modules run in one, and the agent takes subagents"
    assert any("subagent.conf:2" in each["found"] for each in findings)


def test_agent_that_takes_no_subagent(well):
    modules_in_a_subagent(well, [])
    finding = well.only("error")
    assert finding["found"] == "the modules run in one, and the agent takes none"
    assert finding["remedy"].startswith('add a line "master agentx" to ')


def test_agent_that_loads_the_modules_itself_has_no_subagent(well):
    (well.snmpd / "subagent.conf").write_text("dlmod ruma_agent /none.so\n")
    status, findings = well.examine()
    assert status == OK
    assert not [each for each in findings if each["what"] == "subagent"]


def test_configuration_that_the_agents_user_cannot_read_is_read_by_root(well):
    (well.snmpd / "snmpd.conf").chmod(0o600)
    assert well.examine()[0] == OK


@pytest.mark.parametrize(
    "lines",
    [
        ["rwcommunity secret"],
        ["rwcommunity secret 127.0.0.1 .1.3.6"],
        ["rwuser someone"],
        ["rwuser someone auth"],
        [f"view w included {ROOT}", "rwuser someone noauth -V w"],
        ['access writers "" any noauth exact flash flash none'],
    ],
)
def test_write_access_without_privacy(well, lines):
    well.configure(dlmods("ruma_agent", "orvex_flash_mib") + ACCESS + lines)
    finding = well.only("warning")
    assert "writes the flash tables without privacy" in finding["found"]
    assert "secret" not in str(finding)
    assert "orvex-flash-setup" in finding["remedy"]
    assert "excludes .1.3.6.1.4.1.32473" in finding["remedy"]


@pytest.mark.parametrize(
    "lines",
    [
        ["rwuser someone priv"],
        ["rwcommunity secret 127.0.0.1 .1.3.6.1.2.1"],
        ["view v included .1.3.6.1.2.1", "rwcommunity secret default -V v"],
        ["rocommunity secret"],
        ["view v included .1", f"view v excluded {ROOT}", "rwcommunity secret default -V v"],
    ],
)
def test_access_that_is_as_it_should_be(well, lines):
    well.configure(dlmods("ruma_agent", "orvex_flash_mib") + ACCESS + lines)
    assert well.examine()[0] == OK


def test_view_that_hides_the_tables(well):
    lines = ["view systemonly included .1.3.6.1.2.1.1", "rocommunity public default -V systemonly"]
    well.configure(dlmods("ruma_agent", "orvex_flash_mib") + lines)
    finding = well.only("error")
    assert finding["found"] == "nobody may read the flash tables"
    assert "orvex-flash-setup" in finding["remedy"]


def test_access_in_the_users_file_counts(well):
    (well.snmpd / "users").write_text("rwuser someone noauth\n")
    assert "without privacy" in well.only("warning")["found"]


# --- Names, programs, scripts


def test_missing_mib(well):
    (well.mibs / "ORVEX-FLASH-MIB.txt").unlink()
    assert well.only("warning")["what"] == "MIB"


def test_missing_base_modules_are_a_note(well):
    (well.mibs / "SNMPv2-TC.txt").unlink()
    note = well.note("mibs")
    assert note["found"].startswith("missing: SNMPv2-TC;")
    assert "snmpwalk -M " in note["remedy"]


@pytest.mark.parametrize("name", PROGRAMS_OF_TRANSFERS)
def test_missing_program(well, name):
    (well.programs / name).unlink()
    finding = well.only("error")
    assert finding["what"] == f"program {name}"
    assert finding["remedy"].startswith("apt-get install ")


def test_script_that_cannot_be_run(well):
    path = well.host.scripts / "scp.expect"
    path.chmod(0o644)
    finding = well.only("error")
    assert finding["found"] == f"Permission denied: {path}"
    well.heal(finding)


def test_missing_script(well):
    (well.host.scripts / "ssh.tcl").unlink()
    finding = well.only("error")
    assert finding["what"] == "script ssh.tcl"
    assert finding["remedy"] == "install the package orvex-flash-mib again"


# --- The kernel

KERNEL = ["/usr/bin/python3", REPOSITORY / "tests" / "agent" / "kernel.py"]
NO_SECCOMP = 'mount -t tmpfs none /proc/sys/kernel/seccomp && exec "$@"'


def confine_nobody(well):
    text = well.host.configuration.read_text()
    well.host.configuration.write_text(text.replace("confine = true", "confine = false"))


def test_confinement_that_is_not_configured(well):
    confine_nobody(well)
    status, findings = well.examine()
    assert status == OK
    notes = [each for each in findings if each["severity"] == "note"]
    assert [each["what"] for each in notes] == ["confinement of the agent", "confinement of fs_daemon"]
    for note, table in zip(notes, ("agent", "fs_daemon")):
        assert note["found"].startswith(f"[{table}] confine is false: ")
        assert note["remedy"].startswith(f"set confine = true in [{table}] of ")


def test_kernel_without_landlock(well):
    well.inside = [*KERNEL, "without-landlock"]
    status, findings = well.examine()
    assert status == OK
    notes = {each["what"]: each["found"] for each in findings if each["severity"] == "note"}
    found = "it is configured, and this kernel has no Landlock"
    assert notes == {"confinement of the agent": found, "confinement of fs_daemon": found}


def test_kernel_without_landlock_that_nobody_is_to_use(well):
    well.inside = [*KERNEL, "without-landlock"]
    confine_nobody(well)
    _, findings = well.examine()
    assert not [each for each in findings if "this kernel has no" in each["found"]]


def test_kernel_without_seccomp(well):
    well.inside = ["unshare", "--mount", "sh", "-c", NO_SECCOMP, "sh"]
    note = well.note("kernel")
    assert note["what"] == "confinement of fs_daemon"
    assert note["found"] == "it is configured, and this kernel has no seccomp"


# --- It cannot be checked


def test_unknown_user(well):
    well.user = "no-such-user"
    ended = well.run()
    assert ended.returncode == NOT_CHECKED
    assert ended.stderr == "ruma-doctor: there is no user no-such-user\n"


def test_unknown_option(well):
    assert well.run("--nonsense").returncode == NOT_CHECKED


def test_output_that_cannot_be_written(well):
    with open("/dev/full", "wb") as full:
        command = [DOCTOR, "--user", USER]
        ended = subprocess.run(command, stdout=full, env=well.host.environment, check=False)
    assert ended.returncode == NOT_CHECKED
