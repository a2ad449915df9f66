"""Each key of the sandboxes holds: a process in the service meets it, one outside does not.

The agent's sandbox is entered by a command that the agent itself runs (`extend`); those of the daemon
and the subagent by units that are their own but for the program. The confinement that the programs lay upon
themselves is off meanwhile."""

import re
import struct

import pytest
from conftest import SITE_OPTIONS

DAEMON, AGENT, SUBAGENT = "orvex-flash-fsd", "snmpd", "orvex-flash-subagent"
MARK = "/tmp/of-another"
DEVICE_MARK = "/dev/of-another"
PROGRAM_32 = "/opt/program-32"

# What the probes share. A system call's result as words; system calls are those of x86-64.
PRELUDE = r"""
use POSIX ();
use Socket;
sub call { my $result = syscall(shift, @_); return $result == -1 ? "$!" : "ok" }
sub make { my $done = mkdir $_[0]; my $said = $done ? "ok" : "$!"; rmdir $_[0] if $done; $said }
sub status { my ($word) = @_; open my $f, "<", "/proc/self/status"; my ($l) = grep /^$word:/, <$f>;
             $l =~ s/^\w+:\s*|\s+$//g; $l }
sub there { return -e $_[0] ? "there" : "absent" }
sub mounted { my ($path) = @_; open my $f, "<", "/proc/self/mountinfo";
              join " ", map { (split)[3] } grep { (split)[4] eq $path } <$f> }
sub list { opendir(my $d, $_[0]) ? "ok" : "$!" }
sub socket_of { socket(my $s, $_[0], SOCK_DGRAM, 0) ? "ok" : "$!" }
sub program { my $r = system($_[0]); $r == -1 ? "$!" : $r & 127 ? "signal " . ($r & 127) : "ok" }
sub permitted { my $file = "$_[0]/" . $$; open(my $f, ">", $file) or return "no file: $!";
                my $done = chmod(04755, $file) ? "ok" : "$!"; unlink $file; $done }
"""

DENIED = "Operation not permitted"
READ_ONLY = "Read-only file system"
NO_FAMILY = "Address family not supported by protocol"
OTHER = object()  # anything but what is seen outside

# Key of the unit: a Perl expression, what it gives in the service, and where.
BOTH = (AGENT, DAEMON)
ALL = (*BOTH, SUBAGENT)
PROBES = [
    ("NoNewPrivileges", "status('NoNewPrivs')", "1", ALL),
    ("CapabilityBoundingSet", "status('CapBnd')", "0" * 16, (DAEMON,)),
    # DAC_OVERRIDE, SETGID, SETUID, NET_BIND_SERVICE
    ("CapabilityBoundingSet", "status('CapBnd')", f"{0x4C2:016x}", (AGENT,)),
    ("CapabilityBoundingSet", "status('CapBnd')", f"{0xC2:016x}", (SUBAGENT,)),
    ("ProtectSystem", "make('/etc/x')", READ_ONLY, ALL),
    ("ProtectSystem", "make('/usr/x')", READ_ONLY, ALL),
    ("ProtectSystem", "make('/srv/x')", READ_ONLY, ALL),
    ("ProtectHome", "list('/home')", "Permission denied", (DAEMON, SUBAGENT)),
    ("ProtectHome", "make('/home/x')", READ_ONLY, (AGENT,)),
    ("PrivateTmp", f"there('{MARK}')", "absent", ALL),
    ("PrivateDevices", f"there('{DEVICE_MARK}')", "absent", ALL),
    ("PrivateNetwork", "readlink('/proc/self/ns/net')", OTHER, (DAEMON,)),
    ("PrivateIPC", "readlink('/proc/self/ns/ipc')", OTHER, (DAEMON,)),
    ("PrivateMounts", "readlink('/proc/self/ns/mnt')", OTHER, ALL),
    ("ProtectHostname", "readlink('/proc/self/ns/uts')", OTHER, ALL),
    ("ProtectClock", "call(227, 0, 0)", DENIED, ALL),  # clock_settime of nothing
    ("ProtectControlGroups", "make('/sys/fs/cgroup/x')", READ_ONLY, ALL),
    ("ProtectKernelLogs", "mounted('/proc/kmsg')", OTHER, ALL),
    ("ProtectKernelModules", "list('/usr/lib/modules')", "Permission denied", ALL),
    ("ProtectKernelTunables", "mounted('/proc/sys/net')", "", (AGENT, SUBAGENT)),  # that can be written
    ("ProtectKernelTunables", "mounted('/sys/kernel/debug')", OTHER, (DAEMON,)),
    ("ProtectProc", "there('/proc/1')", "absent", (DAEMON,)),
    ("ProtectProc", "there('/proc/1')", "there", (AGENT,)),  # whose own MIBs need it
    ("ProcSubset", "there('/proc/meminfo')", "absent", (DAEMON,)),
    ("LockPersonality", "call(135, 0x40000)", DENIED, ALL),
    ("MemoryDenyWriteExecute", "call(9, 0, 4096, 7, 0x22, -1, 0)", DENIED, (DAEMON,)),
    ("RestrictAddressFamilies", "socket_of(PF_INET)", NO_FAMILY, (DAEMON,)),
    ("RestrictAddressFamilies", "socket_of(17)", NO_FAMILY, ALL),
    ("RestrictNamespaces", "call(272, 0x10000000)", DENIED, ALL),  # unshare of users
    ("RestrictRealtime", "call(144, 0, 2, 0)", DENIED, ALL),  # sched_setscheduler
    ("RestrictSUIDSGID", "permitted('/tmp')", DENIED, ALL),
    ("SystemCallArchitectures", f"program('{PROGRAM_32}')", "signal 31", ALL),
    ("SystemCallFilter", "call(101, 0, 0, 0, 0)", DENIED, ALL),  # ptrace
    ("SystemCallFilter", "call(141, 0, 0, 5)", DENIED, ALL),  # setpriority
    ("UMask", "status('Umask')", "0077", ALL),
]
# Of a key that both have, the plain look shows no difference to outside.
SAME_OUTSIDE = {("ProtectProc", AGENT)}
# What systemd itself says of a key. The kernel in a machine of these tests enforces none of them: it
# has no control group for them, and filters no addresses for it.
LIMITS = {
    ("TasksMax", AGENT): "256",
    ("MemoryHigh", AGENT): str(384 << 20),
    ("MemoryMax", AGENT): str(512 << 20),
    ("OOMPolicy", AGENT): "continue",
    ("IPAddressDeny", AGENT): "0.0.0.0/0 ::/0",
    ("TasksMax", DAEMON): "16",
    ("RemoveIPC", DAEMON): "yes",
}
CASES = [
    pytest.param(unit, key, code, expected, id=f"{unit} {key} {number}")
    for number, (key, code, expected, units) in enumerate(PROBES)
    for unit in units
]


def program_32() -> bytes:
    """A program for i386 that ends with 0, by int 0x80."""
    code = b"\x31\xdb\x31\xc0\x40\xcd\x80"
    base, size = 0x8048000, 52 + 32 + 7
    head = b"\x7fELF\x01\x01\x01" + bytes(9)
    head += struct.pack("<HHIIIIIHHHHHH", 2, 3, 1, base + 84, 52, 0, 0, 52, 32, 1, 0, 0, 0)
    return head + struct.pack("<IIIIIIII", 1, 0, base, base, size, size, 5, 4096) + code


def script(unit) -> str:
    """All probes of a unit; each prints a line."""
    lines = [
        f'print "{number} ", scalar({code}), "\\n";\n'
        for number, (_, code, _, units) in enumerate(PROBES)
        if unit in units
    ]
    return PRELUDE + "".join(lines)


def results(text) -> dict:
    return {int(number): said for number, said in re.findall(r"^(\d+) ?(.*)$", text, re.MULTILINE)}


def extend(machine) -> str:
    """What the agent's command prints, all lines."""
    name = ".1.3.6.1.4.1.8072.1.3.2.3.1.2.5.112.114.111.98.101"  # nsExtendOutputFull."probe"
    return machine.get(name, options=SITE_OPTIONS).strip('"')


PROBE = "/usr/bin/perl /etc/probe.pl"
# Units that are entered by themselves: where they are installed, and what the probe has instead of it.
ENTERED = {
    DAEMON: (
        f"/lib/systemd/system/{DAEMON}.service",
        {"Type": "oneshot", "ExecStart": PROBE, "RuntimeDirectory": "ruma/probe"},
    ),
    SUBAGENT: (
        f"/usr/share/orvex-flash-mib/agentx/{SUBAGENT}.service",
        {
            "Type": "oneshot",
            "ExecStart": f"/usr/bin/setpriv --reuid=Debian-snmp --clear-groups {PROBE}",
            "PartOf": "probe.target",
        },
    ),
}


def enter(machine, unit) -> str:
    """The unit as it is installed, but for what it runs."""
    path, replaced = ENTERED[unit]
    text = machine.path(path).read_text(encoding="utf-8")
    for key, value in replaced.items():
        text, count = re.subn(f"^{key}=.*", f"{key}={value}", text, flags=re.MULTILINE)
        assert count == 1, key
    text = re.sub(r"^(Restart|WatchdogSec|ExecReload)\w*=.*\n", "", text, flags=re.MULTILINE)
    text = text.replace("[Service]\n", "[Service]\nStandardOutput=truncate:/root/probed\n")
    machine.write("/etc/systemd/system/probe.service", text)
    machine.run("systemctl", "daemon-reload")
    machine.run("systemctl", "start", "probe")
    return machine.path("/root/probed").read_text(encoding="utf-8")


@pytest.fixture(name="probed", scope="module")
def fixture_probed(site):
    """What the probes say, by unit: inside and outside of the sandbox, as the same user."""
    machine = site.machine
    configuration = machine.path("/etc/ruma/platform.toml").read_text(encoding="utf-8")
    machine.write("/etc/ruma/platform.toml", configuration.replace("confine = true", "confine = false"))
    machine.run("touch", MARK, DEVICE_MARK)
    machine.run("mkdir", "-p", "/usr/lib/modules")
    machine.run("systemctl", "restart", DAEMON, AGENT)
    machine.path(PROGRAM_32).write_bytes(program_32())
    machine.path(PROGRAM_32).chmod(0o755)
    said = {}
    for unit, user in ((AGENT, "Debian-snmp"), (DAEMON, "ruma-fsd"), (SUBAGENT, "Debian-snmp")):
        machine.write("/etc/probe.pl", script(unit))
        outside = ["setpriv", f"--reuid={user}", "--clear-groups", "perl", "/etc/probe.pl"]
        inside = extend(machine) if unit == AGENT else enter(machine, unit)
        said[unit] = (results(inside), results(machine.run(*outside)))
    machine.write("/etc/ruma/platform.toml", configuration)
    machine.run("systemctl", "restart", DAEMON, AGENT)
    return said


@pytest.mark.parametrize("unit, key, code, expected", CASES)
def test_key_holds(probed, unit, key, code, expected):
    number = next(
        number
        for number, (_, other, _, units) in enumerate(PROBES)
        if other == code and unit in units
    )
    inside, outside = probed[unit]
    assert number in inside, "the probe ran"
    if expected is not OTHER:
        assert inside[number] == expected
    if (key, unit) not in SAME_OUTSIDE:
        assert inside[number] != outside[number], "the probe would notice"


@pytest.mark.parametrize("key, unit", LIMITS)
def test_limit_is_set(machine, key, unit):
    assert sorted(machine.property_of(unit, key).split()) == LIMITS[key, unit].split()


SECTION = re.compile(r"^(\w+)=", re.MULTILINE)
# Keys of the units that are no part of the sandbox.
PLAIN = set(
    "Description Documentation RequiresMountsFor StartLimitIntervalSec Wants After WantedBy Type"
    " ExecStart ExecReload RestartForceExitStatus SuccessExitStatus Restart RestartSec WatchdogSec"
    " TimeoutStopSec User Group SupplementaryGroups RuntimeDirectory RuntimeDirectoryMode"
    " WorkingDirectory".split()
)
# Probed, and not set: what the agent's own MIBs need, and what others imply.
NOT_SET = {AGENT: {"ProtectProc"}, DAEMON: {"PrivateMounts"}}
# Probed together with another one.
TOGETHER = {"ReadWritePaths", "IPAddressAllow", "SystemCallErrorNumber"}


@pytest.mark.parametrize(
    "unit, path",
    [
        (AGENT, "/lib/systemd/system/snmpd.service.d/10-orvex-flash.conf"),
        (DAEMON, "/lib/systemd/system/orvex-flash-fsd.service"),
    ],
)
def test_every_key_of_the_sandbox_is_probed(machine, unit, path):
    keys = set(SECTION.findall(machine.path(path).read_text(encoding="utf-8")))
    probed = {key for key, _, _, units in PROBES if unit in units}
    probed |= {key for key, of in LIMITS if of == unit}
    assert keys - PLAIN - TOGETHER == probed - NOT_SET[unit]
