"""The form of ORVEX-FLASH-MIB that imports nothing, read by the stock tools without base modules."""

import re

import pytest

from harness import AGENT_PORT, COMMUNITY, SCHEMES
from mib_text import INDEXES, PLAIN, ROOT, SERVED, run

ENTERPRISE = ".iso.org.dod.internet.private.enterprises.orvex"


@pytest.fixture(name="translate", scope="session")
def fixture_translate(tool_state):
    """snmptranslate where there are no other MIBs."""

    def translate(*arguments, mib=PLAIN, directories=""):
        command = ["snmptranslate", "-PeW", "-m", str(mib), *arguments]
        environment = {"SNMPCONFPATH": tool_state, "SNMP_PERSISTENT_DIR": tool_state}
        return run(command, MIBDIRS=str(directories), **environment)

    return translate


def on_agent(host, tool, *names, options=()):
    """What a tool prints that knows nothing but the plain form, both streams."""
    command = [tool, "-v2c", "-c", COMMUNITY, "-t", "10", "-r", "0", "-PeW", "-m", str(PLAIN)]
    command += [*options, f"{host.address}:{AGENT_PORT}", *names]
    return run(command, **host.environment)


def test_it_imports_nothing():
    text = PLAIN.read_text(encoding="ascii")
    assert "IMPORTS" not in text
    assert not re.search(r"\bFROM\b", text)


def test_lines_fit_a_terminal():
    lines = PLAIN.read_text(encoding="ascii").splitlines()
    assert [line for line in lines if len(line) > 80] == []


def test_stock_tools_load_the_file_without_an_error_or_a_warning(translate):
    assert translate("-On", "ORVEX-FLASH-MIB::orvexFlashMIB") == f".{ROOT}\n"


def test_stock_tools_find_it_by_name_in_its_directory(translate):
    printed = translate(
        "-On", "ORVEX-FLASH-MIB::orvexFlashMIB", mib="ORVEX-FLASH-MIB", directories=PLAIN.parent
    )
    assert printed == f".{ROOT}\n"


def test_directory_holds_nothing_else():
    assert [path.name for path in PLAIN.parent.iterdir()] == [PLAIN.name]


def test_every_name_leads_to_its_number(translate):
    names = [f"ORVEX-FLASH-MIB::orvexFlash{name}" for name, *_ in SERVED + INDEXES]
    numbers = [f".{ROOT}.{suffix}" for _, suffix, *_ in SERVED + INDEXES]
    assert translate("-On", *names).split() == numbers


def test_every_number_leads_to_its_name(translate):
    names = [f"ORVEX-FLASH-MIB::orvexFlash{name}.1.2.3" for name, *_ in SERVED + INDEXES]
    numbers = [f".{ROOT}.{suffix}.1.2.3" for _, suffix, *_ in SERVED + INDEXES]
    assert translate("-OS", *numbers).split() == names


def test_full_names_begin_at_the_root(translate):
    assert translate("-Of", f".{ROOT}") == f"{ENTERPRISE}.orvexModules.orvexFlashMIB\n"


def test_snmptable_shows_the_columns_of_a_table_by_name(shared_host):
    printed = on_agent(shared_host, "snmptable", "orvexFlashDeviceTable", options=["-Cb", "-Cf", "|"])
    title, _, columns, *rows = printed.splitlines()
    assert title == "SNMP table: ORVEX-FLASH-MIB::orvexFlashDeviceTable"
    names = [name for name, suffix, *_ in SERVED if suffix.startswith("1.1.2.")]
    assert columns.split("|") == [name.removeprefix("Device") for name in names]
    assert [row.split("|")[4:7] for row in rows] == [
        ["true", scheme, f"Test {scheme}"] for scheme in SCHEMES
    ]


def test_snmptable_shows_all_indexes_of_a_row(shared_host):
    printed = on_agent(
        shared_host, "snmptable", "orvexFlashPartitionTable", options=["-Cb", "-Ci", "-Cf", "|"]
    )
    assert [row.split("|")[0] for row in printed.splitlines()[3:]] == ["1.1", "2.1", "3.1"]


def test_snmpset_takes_names_and_the_labels_of_enumerations(shared_host):
    set_row = ["orvexFlashCopyEntryStatus.7", "=", "createAndWait"]
    on_agent(shared_host, "snmpset", *set_row)
    columns = ["orvexFlashCopyCommand.7", "=", "copyFromFlash"]
    columns += ["orvexFlashCopyProtocol.7", "=", "sftp"]
    columns += ["orvexFlashCopyServerAddress.7", "=", "192.0.2.9"]
    columns += ["orvexFlashCopySourceName.7", "=", "bootflash:image.bin"]
    columns += ["orvexFlashCopyNotifyOnCompletion.7", "=", "true"]
    on_agent(shared_host, "snmpset", *columns)
    names = [*columns[::3], "orvexFlashCopyStatus.7", "orvexFlashCopyEntryStatus.7"]
    shown = on_agent(shared_host, "snmpget", *names, options=["-Oqv"]).splitlines()
    expected = ["copyFromFlash", "sftp", "192.0.2.9", "bootflash:image.bin", "true"]
    assert shown == [*expected, "notStarted", "notReady"]


def test_dates_and_units_are_shown(shared_host):
    shared_host.flash().joinpath("image.bin").write_text("text", encoding="ascii")
    shown = on_agent(shared_host, "snmpwalk", "orvexFlashFileModified", options=["-Ov"])
    assert re.fullmatch(r"STRING: 20\d\d-\d+-\d+,\d+:\d+:\d+\.\d\n", shown)
    shown = on_agent(shared_host, "snmpwalk", "orvexFlashFileSize", options=["-Ov"])
    assert shown == "Gauge32: 4 bytes\n"
