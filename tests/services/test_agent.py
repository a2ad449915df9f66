"""The administrator's agent is what it was before the packages, but for what is listed here
and in docs/install.md."""

import re

from conftest import SUBAGENT_OBJECT

# Tables whose rows come and go by themselves: processes, and sockets on ports that the kernel chose.
LIVING = (
    ".1.3.6.1.2.1.25.4.2",  # hrSWRunTable
    ".1.3.6.1.2.1.25.5.1",  # hrSWRunPerfTable
    ".1.3.6.1.2.1.7.5",  # udpTable
    ".1.3.6.1.2.1.7.7",  # udpEndpointTable
    ".1.3.6.1.2.1.6.13",  # tcpConnTable
    ".1.3.6.1.2.1.6.19",  # tcpConnectionTable
)
# Tables that get rows: what was installed and configured.
GROWN = {
    ".1.3.6.1.2.1.25.6.3": "hrSWInstalledTable: the packages",
    ".1.3.6.1.4.1.2021.13.14": "dlmodTable: the loaded modules",
    ".1.3.6.1.4.1.8072.1.2": "nsModuleTable: what the modules have registered",
    ".1.3.6.1.4.1.8072.1.9": "nsVacmAccessTable: the access rules",
    ".1.3.6.1.6.3.15.1.2": "usmUserTable: the user",
    ".1.3.6.1.6.3.16.1": "vacmMIBObjects: the user's group, access and view",
    ".1.3.6.1.4.1.32473.1.1": "ORVEX-FLASH-MIB: the module",
}
# Tables whose rows are others: mounted file systems as the service sees them in its sandbox.
CHANGED = {
    ".1.3.6.1.2.1.25.2.3": "hrStorageTable",
    ".1.3.6.1.2.1.25.3.8": "hrFSTable",
}
STORAGE_NAME = ".1.3.6.1.2.1.25.2.3.1.3."
# What these keys of the drop-in mount.
SANDBOX = re.compile(r'STRING: "/(run|proc|sys|dev|tmp|var|home|root)\b')


def below(name, tables) -> bool:
    return any(f"{name}.".startswith(f"{table}.") for table in tables)


def others(walk):
    """The names outside of the tables that may differ."""
    return {name for name in walk if not below(name, (*LIVING, *GROWN, *CHANGED))}


def test_every_other_object_is_served_before_and_after(site):
    before, after = site.walks["before"], site.walks["after"]
    assert len(others(before)) > 800
    assert others(before) == others(after)


def test_tables_that_grow_lose_nothing(site):
    before, after = site.walks["before"], site.walks["after"]
    for table, what in GROWN.items():
        names = {name for name in before if below(name, (table,))}
        assert names <= set(after), what
        assert len(names) < sum(below(name, (table,)) for name in after), f"{what} is listed in vain"


def test_monitored_storage_is_still_listed(site):
    """But for mounts of the sandbox, and of the kernel's own file systems, that come and go."""
    names = [
        {value for name, value in site.walks[when].items() if name.startswith(STORAGE_NAME)}
        for when in ("before", "after")
    ]
    assert names[0] != names[1], "the tables are listed in vain"
    assert [name for name in names[0] ^ names[1] if not SANDBOX.match(name)] == []


def test_disks_processes_commands_and_subagents_answer_the_same(site):
    """Their values too, where they do not move."""
    before, after = site.walks["before"], site.walks["after"]
    tables = {
        ".1.3.6.1.4.1.2021.9.1.2": 2,  # dskPath
        ".1.3.6.1.4.1.2021.9.1.6": 2,  # dskTotal
        ".1.3.6.1.4.1.2021.9.1.100": 2,  # dskErrorFlag
        ".1.3.6.1.4.1.2021.2.1.2": 2,  # prNames
        ".1.3.6.1.4.1.2021.2.1.5": 2,  # prCount
        ".1.3.6.1.4.1.2021.2.1.100": 2,  # prErrorFlag
        ".1.3.6.1.4.1.8072.1.3.2.3.1.1": 2,  # nsExtendOutput1Line
        SUBAGENT_OBJECT: 1,
    }
    for table, rows in tables.items():
        values = {name: value for name, value in before.items() if below(name, (table,))}
        assert len(values) == rows, table
        assert values == {name: value for name, value in after.items() if below(name, (table,))}
