"""What a campaign plays with: a device, its servers, and what copies between them must end with."""

import collections
import hashlib
import random
import re
from dataclasses import dataclass
from pathlib import Path

import campaign_model as model
from campaign_draw import FILES, file_name
from campaign_tftp import MISBEHAVIOUR, MisbehavingTftp, behaviour_of
from harness import (
    ADDRESSES,
    FROM_FLASH,
    FTP,
    IN_PROGRESS,
    SCHEMES,
    SCP,
    SFTP,
    SUCCESS,
    TFTP,
    TO_FLASH,
    TRANSFER_ERROR,
    Host,
)
from remotes import Account, start_server

SIZES = (0, 1, 511, 512, 513, 1468, 2936, 5000, 16384, 65536, 100000, 300000)
FAILURES = {5, 8, 12, 14, 16, 18}
MAX_ROWS = 30
PASSWORD = 'pass"word$[1]\\'
SIMPLE_URI = re.compile(r"(bootflash|slot0|logflash):((?:sub/)?[a-z][a-z0-9-]{0,40})")
SIMPLE_NAME = re.compile("[a-z0-9-]+")
DIRECTORIES = ("bootflash:", "bootflash:sub")
LINKS_OUTSIDE = ("bootflash:out", "bootflash:outfile")


class Violation(Exception):
    """Something that must hold does not."""


def expect(condition, text):
    if not condition:
        raise Violation(text)


def content_of(place, number):
    """What a file of a campaign holds; the same in each run."""
    return random.Random(f"{place} {number}").randbytes(SIZES[number % len(SIZES)])


def digest(content):
    return hashlib.sha256(content).hexdigest()


def file_digest(path):
    return digest(path.read_bytes()) if path.is_file() else None


def snapshot(top, left_out):
    """Every name below a directory with its type, mode and content, but for the places left out."""
    found = {}
    for path in sorted(top.rglob("*")):
        name = path.relative_to(top)
        if any(name == place or place in name.parents for place in left_out):
            continue
        status = path.lstat()
        content = path.readlink() if path.is_symlink() else file_digest(path)
        found[str(name)] = (oct(status.st_mode), status.st_uid, content)
    return found


@dataclass
class Worker:
    """A copy that has been started, and what is known of it."""

    pid: int  # None when it had ended before anybody saw it
    index: int
    start: int  # number of the start
    columns: dict
    possible: set  # what it may report
    disturbed: bool = False  # somebody aborted it or sent signals to its processes
    shell_signalled: bool = False  # success then says nothing about the file
    overlapping: bool = False  # another copy used the same row at the same time
    abort_deadline: float = None
    ended_since: float = None  # a zombie

    def disturb(self):
        self.disturbed = True
        self.possible |= FAILURES


class Servers:
    """The far ends of copies, and what an honest copy with them ends with."""

    def __init__(self, stack):
        self.contents = {file_name(n): content_of("remote", n) for n in range(FILES)}
        tftp_files = dict(self.contents)
        for behaviour in MISBEHAVIOUR:
            tftp_files |= {f"{behaviour}-{n}": each for n, each in self.contents.items()}
        self.tftp = stack.enter_context(MisbehavingTftp(ADDRESSES.take(), tftp_files))
        account = Account(password=PASSWORD)
        self.ftp = stack.enter_context(start_server("ftp", account))
        self.ssh = stack.enter_context(start_server("scp", account))
        self._homes = {FTP: self.ftp.home, SCP: self.ssh.home, SFTP: self.ssh.home}
        self.addresses = {
            "@tftp": self.tftp.address,
            "@ftp": self.ftp.address,
            "@ssh": self.ssh.address,
            "@nobody": ADDRESSES.take(),
        }
        self.passwords = {"@right": PASSWORD, "@wrong": "wrong"}
        for server in (self.ftp, self.ssh):
            for name, content in self.contents.items():
                path = server.home / name
                path.write_bytes(content)
                path.chmod(0o444)  # root's: what is sent cannot replace it

    def homes(self):
        return (self.ftp.home, self.ssh.home)

    def let_in(self, columns):
        """Whether the address is that of a server of the protocol that lets this user in."""
        protocol, address = columns["protocol"], columns["server"]
        if protocol == TFTP:
            return address == self.tftp.address
        server = {FTP: self.ftp, SCP: self.ssh, SFTP: self.ssh}.get(protocol)
        return (
            server is not None
            and address == server.address
            and columns["user"] == server.account.name
            and columns["password"] == model.escaped(PASSWORD)
        )

    def received(self, protocol, name):
        """What stands on the server under the name; None when nothing does."""
        if protocol == TFTP:
            return self.tftp.received.get(name)
        path = self._homes[protocol] / name
        return path.read_bytes() if path.is_file() else None

    def forget(self):
        """Removes what has been received."""
        self.tftp.received.clear()
        for home in self.homes():
            for path in home.iterdir():
                if path.is_file() and path.name not in self.contents:
                    path.unlink()


class Device(Host):
    """The device that a campaign uses."""

    WRITABLE = ("run", "state", "work", "server", "temporary", "persistent", *SCHEMES)
    CHANGING = ("log/snmpd.log", "snmpd.out", "snmpd.pid", "fs_daemon.out", "var-tmp/intsyslog")

    def __init__(self):
        super().__init__()
        self.agent_settings = {"report_lost_workers": "true", "max_rows": MAX_ROWS}
        self.contents = {file_name(n): content_of("flash", n) for n in range(FILES)}
        for scheme in SCHEMES:
            (self.flash(scheme) / "sub").mkdir()
            for name, content in self.contents.items():
                (self.flash(scheme) / name).write_bytes(content)
        outside = self.directory / "outside"
        outside.mkdir()
        (outside / "file").write_bytes(b"outside\n")
        (self.flash() / "out").symlink_to(outside)
        (self.flash() / "outfile").symlink_to(outside / "file")
        self.system_log.write_bytes(b"a line of the system log\n")

    def outside(self):
        """Everything that no operation may change."""
        left_out = [Path(name) for name in (*self.WRITABLE, *self.CHANGING)]
        found = snapshot(self.directory, left_out)
        links = [path for path in self.flash().iterdir() if path.is_symlink()]
        return found | {str(path): path.readlink() for path in links}

    def path_of(self, name):
        """The local path of a name that certainly has one; None for all others."""
        match = SIMPLE_URI.fullmatch(name)
        if match is None or name in (*DIRECTORIES, *LINKS_OUTSIDE):
            return None
        return self.flash(match[1]) / match[2]


class World:
    """A device and its servers, and the copies that are going on. Answers the model's questions."""

    def __init__(self, device, servers):
        self.device = device
        self.servers = servers
        self.max_rows = MAX_ROWS
        self.workers = {}  # by process id, until their end has been seen
        self.writers = collections.defaultdict(list)  # place -> all that wrote to it since a rest

    def reports(self, index):
        """What the copies that are going on may make of the status of a row."""
        mine = (each.possible for each in self.workers.values() if each.index == index)
        return set().union(*mine)

    # --- What the model asks: possible answers

    def in_progress(self, rows):
        """Whether a copy is in progress."""
        running = [index for index, row in rows.items() if row["status"] == IN_PROGRESS]
        if any(not self.reports(index) - {IN_PROGRESS} for index in running):
            return [True]
        may_begin = any(IN_PROGRESS in self.reports(index) for index in rows)
        return [True, False] if running or may_begin else [False]

    def resolves(self, name):
        """Whether a name is one of a file on flash."""
        if self.device.path_of(name) is not None or name in DIRECTORIES:
            return [True]
        if name == "log:messages":
            return [True, False]
        if name.partition(":")[0] not in SCHEMES or ":" not in name or ".." in name:
            return [False]
        if name.startswith((*LINKS_OUTSIDE, "bootflash:absent/")):
            return [False]
        return [True, False]

    def may_be_destination(self, name):
        return [False] if name in (*DIRECTORIES, "log:messages") else self.resolves(name)

    def deletes(self, name):
        """The status of a delete."""
        path = self.device.path_of(name)
        if path is None or any(each.pid in self.workers for each in self.writers.get(path, ())):
            return [model.NOT_DELETED, model.DELETED]
        return [model.DELETED if path.is_file() else model.NOT_DELETED]

    # --- Copies

    def destination(self, row):
        """Where a copy writes to: a path on flash, or a protocol and a name on its server."""
        if row["command"] == TO_FLASH:
            return self.device.path_of(row["destination"])
        if row["command"] == FROM_FLASH:
            name = row["destination"] or row["source"].rpartition(":")[2].rpartition("/")[2]
            return (row["protocol"], name)
        return None

    def content(self, row):
        """What a copy moves; None when that is not known."""
        if row["command"] == TO_FLASH:
            if row["protocol"] == TFTP:
                return self.servers.tftp.files.get(row["source"])
            return self.servers.contents.get(row["source"])
        path = self.device.path_of(row["source"])
        return self.device.contents.get(path.name) if path is not None else None

    def possible_contents(self, path):
        """What a file on flash may hold, once no copy goes on."""
        if path.name in self.device.contents:
            return [self.device.contents[path.name]]
        contents = [self.content(writer.columns) for writer in self.writers.get(path, ())]
        if not contents or None in contents:
            return [*self.servers.contents.values()]
        return contents

    def received(self, row):
        """What stands where a copy wrote to; None when nothing does."""
        place = self.destination(row)
        if isinstance(place, Path):
            return place.read_bytes() if place.is_file() else None
        return self.servers.received(*place)

    def expected(self, row):
        """What a copy may report that nobody disturbs."""
        if row["command"] not in (TO_FLASH, FROM_FLASH):
            return {IN_PROGRESS}
        if not self.servers.let_in(row):
            return set(FAILURES)
        if row["command"] == TO_FLASH:
            return self._expected_get(row)
        return self._expected_put(row)

    def _expected_get(self, row):
        if self.destination(row) is None or not SIMPLE_NAME.fullmatch(row["source"]):
            return FAILURES | {SUCCESS}
        if self.content(row) is None:
            return {model.INVALID_SOURCE}
        behaviour = behaviour_of(row["source"]) if row["protocol"] == TFTP else "honest"
        return set(MISBEHAVIOUR.get(behaviour, {SUCCESS}))

    def _expected_put(self, row):
        protocol, name = self.destination(row)
        if self.content(row) is None or not SIMPLE_NAME.fullmatch(name):
            return FAILURES | {SUCCESS}
        if protocol != TFTP:
            # The files that the servers offer are write-protected.
            return set(FAILURES) if name in self.servers.contents else {SUCCESS}
        possible = set(MISBEHAVIOUR.get(behaviour_of(name), {SUCCESS}))
        # Whatever a server refuses of a send has one status.
        return possible if SUCCESS in possible else {TRANSFER_ERROR}
