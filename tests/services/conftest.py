"""One machine: booted with Debian's agent and an administrator's configuration, looked at, given the
packages, and used as a service. ORVEX_TEST_ROOT names its root, ORVEX_TEST_WORK a directory for what
changes in it, ORVEX_PACKAGES the packages."""

import os
import re
import shutil
import subprocess
import tempfile
from pathlib import Path

import pytest
from booted import Booted, wait_for


@pytest.fixture(name="make_machine", scope="session")
def fixture_make_machine():
    """Boots machines, which end with the session."""
    work = Path(tempfile.mkdtemp(prefix="orvex-services.", dir=os.environ["ORVEX_TEST_WORK"]))
    made = []

    def make():
        layer = work / str(len(made))
        layer.mkdir()
        made.append(Booted(Path(os.environ["ORVEX_TEST_ROOT"]), layer))
        return made[-1]

    yield make
    for machine in made:
        machine.close()
    shutil.rmtree(work)


@pytest.fixture(name="packages", scope="session")
def fixture_packages():
    return Path(os.environ["ORVEX_PACKAGES"]).resolve()


# What an administrator may have configured: disks, processes, a command, and a subagent that serves
# one object.
SITE = """\
rocommunity site 127.0.0.1
disk /run 10%
disk /srv/data 10%
proc sshd
proc no-such-program
extend hello /bin/echo hello
extend -cacheTime 0 probe /usr/bin/perl /etc/probe.pl
"""
SUBAGENT = """\
override .1.3.6.1.4.1.32473.88.1.0 integer 5
agentXPingInterval 1
"""
SUBAGENT_OBJECT = ".1.3.6.1.4.1.32473.88.1.0"
SITE_OPTIONS = ("-v2c", "-csite")
ACCOUNT, ACCOUNT_PASSWORD = "station", "correct horse battery"


class Site:
    """The machine, and what was seen of it on the way."""

    def __init__(self, machine):
        self.machine = machine
        self.walks = {}
        self.said = ""

    def configure(self) -> None:
        self.machine.write("/etc/fstab", "tmpfs /srv/data tmpfs size=16m 0 0\n")
        self.machine.run("mkdir", "-p", "/srv/data")
        self.machine.run("mount", "/srv/data")
        self.machine.write("/etc/snmp/snmpd.conf.d/site.conf", SITE)
        self.machine.write("/etc/subagent.conf", SUBAGENT)
        self.machine.write("/etc/probe.pl", "print 1")
        self.machine.run("systemctl", "restart", "snmpd")
        subagent = ["snmpd", "-f", "-X", "-Lo", "-C", "-c", "/etc/subagent.conf", "-I", "override"]
        # It would write its own users, none, into the agent's persistent file.
        state = "--setenv=SNMP_PERSISTENT_DIR=/var/lib/subagent"
        self.machine.run("systemd-run", "--unit=subagent", state, *subagent)
        self.await_subagent()

    def await_subagent(self) -> None:
        wait_for(
            lambda: self.machine.get(SUBAGENT_OBJECT, options=SITE_OPTIONS) == "5",
            "the subagent serves its object",
            timeout=20,
        )

    def walk(self) -> dict:
        """Names and values of everything that the agent serves to the administrator."""
        command = ["snmpbulkwalk", *SITE_OPTIONS, "-m", "", "-On", "-t", "5", "127.0.0.1", ".1"]
        with self.machine.network():
            text = subprocess.run(command, capture_output=True, text=True, check=True).stdout
        return dict(re.findall(r"^(\.[\d.]+) = (.*)$", text, re.MULTILINE))

    def start_servers(self) -> None:
        """Servers of the distribution for all four protocols, with one home."""
        machine = self.machine
        machine.run("useradd", "--create-home", "--shell", "/bin/sh", ACCOUNT)
        machine.write("/root/account", f"{ACCOUNT}:{ACCOUNT_PASSWORD}\n", mode=0o600)
        machine.run("sh", "-c", "chpasswd < /root/account")
        machine.run("chmod", "1777", f"/home/{ACCOUNT}")
        machine.run("sed", "-i", "s/^#*write_enable.*/write_enable=YES/", "/etc/vsftpd.conf")
        machine.run("systemctl", "restart", "vsftpd", "ssh")
        machine.run("systemctl", "disable", "--now", "atftpd.socket")
        tftp = ["atftpd", "--daemon", "--no-fork", "--bind-address", "127.0.0.1", self.home]
        machine.run("systemd-run", "--unit=tftp-server", *tftp)

    @property
    def home(self) -> str:
        return f"/home/{ACCOUNT}"


@pytest.fixture(name="site", scope="session")
def fixture_site(make_machine, packages):
    site = Site(make_machine())
    site.configure()
    site.walks["before"] = site.walk()
    site.said = site.machine.install_and_set_up(packages)
    site.await_subagent()
    site.walks["after"] = site.walk()
    site.start_servers()
    return site


@pytest.fixture(name="machine")
def fixture_machine(site):
    """The machine with all of it installed; tests leave both services running."""
    yield site.machine
    site.machine.await_inventory()
