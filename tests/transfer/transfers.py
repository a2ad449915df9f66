"""Running the transfer scripts as the module does, and watching what they leave."""

import hashlib
import os
import pathlib
import subprocess

SCRIPTS = pathlib.Path(__file__).resolve().parents[2] / "platform/host/transfer"

DONE, BUSY, NO_SOURCE, NO_SPACE, REFUSED, FAILED = range(6)


def escaped_by_module(password):
    """A password as the module passes it, inside double quotes, to the shell."""
    return "".join("\\" + each if each in '"$[]\\' else each for each in password)


def escaped_in_argument(password):
    """A password as the shell passes it on to the script."""
    return "".join("\\" + each if each in "[]" else each for each in password)


def ftp(server, account, password, verb, source, destination, limit):
    return ["snmp.ftp.expect", server, source, destination, account, password, verb, limit]


def scp(server, account, password, verb, source, destination, limit):
    remote, names = f"{account}@{server}:", [source, destination]
    end = 0 if verb == "get" else 1
    names[end] = remote.encode() + os.fsencode(names[end])
    return ["scp.expect", *names, password, "2", limit]


def sftp(server, account, password, verb, source, destination, limit):
    return ["sftp.expect", server, account, password, verb, source, destination, limit]


ARGUMENTS = {"ftp": ftp, "scp": scp, "sftp": sftp}

# What each script runs in the end: the clients and the timer of one transfer.
PROGRAMS = {
    "ftp": ["tnftp", "timeout"],
    "scp": ["scp", "ssh", "timeout"],
    "sftp": ["sftp", "ssh", "timeout"],
}


class Client:
    """The device's end: runs scripts with directories of its own for sockets, state and files."""

    def __init__(self, directory):
        self.run_directory = directory / "run %d of ours"
        self.files = directory / "flash"
        self.run_directory.mkdir()
        self.state_directory = directory / "state %d of ours"
        self.state_directory.mkdir()
        self.files.mkdir()
        self.known_hosts = self.state_directory / "known_hosts"
        self._said = b""

    def arguments(self, protocol, server, verb, source, destination, password=None, limit=60,
                  address=None):
        password = escaped_in_argument(password or server.account.password)
        address = server.address if address is None else address
        script, *arguments = ARGUMENTS[protocol](
            address, server.account.name, password, verb, source, destination, str(limit)
        )
        return [SCRIPTS / script, *arguments]

    def start(self, arguments, environment=(), **options):
        return subprocess.Popen(
            arguments,
            env={
                "PATH": os.environ["PATH"],
                "RUMA_RUN_DIR": str(self.run_directory),
                "RUMA_STATE_DIR": str(self.state_directory),
            }
            | dict(environment),
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            **options,
        )

    def run(self, *arguments, **options):
        return self.finish(self.start(self.arguments(*arguments, **options)))

    def run_by_shell(self, *arguments, password):
        """Runs a script by the command line that the module composes."""
        arguments = [os.fsdecode(each) for each in self.arguments(*arguments, password="PASSWORD")]
        quoted = f'"{escaped_by_module(password)}"'
        line = " ".join(arguments).replace("PASSWORD", quoted)
        return self.finish(self.start(["/bin/sh", "-c", line]))

    def get(self, protocol, server, source, destination, **options):
        return self.run(protocol, server, "get", source, destination, **options)

    def put(self, protocol, server, source, destination, **options):
        return self.run(protocol, server, "put", source, destination, **options)

    def finish(self, process):
        """Waits for a script; returns its exit code. It has written at most one line."""
        self.output, self.errors = process.communicate(timeout=60)
        self._said += self.errors
        assert self.output == b""
        assert self.errors.count(b"\n") == (process.returncode != 0), self.errors
        return process.returncode

    def said(self):
        """What all scripts so far have written."""
        return self._said.decode(errors="replace")

    def temporaries(self, directory=None):
        return [each for each in (directory or self.files).iterdir()
                if each.name.startswith(".transfer-")]


def digest(path):
    with open(path, "rb") as file:
        return hashlib.file_digest(file, "sha256").hexdigest()


def family(pid):
    """The process and all its descendants, as (pid, start time)."""
    members = []
    try:
        stat = pathlib.Path(f"/proc/{pid}/stat").read_text()
        members.append((pid, stat.rpartition(")")[2].split()[19]))
        children = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()
    except (FileNotFoundError, ProcessLookupError):
        return members
    for child in children:
        members += family(int(child))
    return members


def descendant(pid, name):
    """Process id of the one descendant of a process that runs a program of this name."""
    [found] = [each for each, _ in family(pid)
               if pathlib.Path(f"/proc/{each}/comm").read_text() == f"{name}\n"]
    return found


def alive(member):
    """Whether a process of a family still runs."""
    pid, start = member
    try:
        fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    except (FileNotFoundError, ProcessLookupError):
        return False
    return fields[0] != "Z" and fields[19] == start
