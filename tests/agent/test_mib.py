"""The text of ORVEX-FLASH-MIB, as the linter and the stock tools read it."""

import os
import re
import shutil
import subprocess
import sys
import xml.etree.ElementTree as ElementTree
from pathlib import Path

import ber
import pytest

from base_mibs import base_mibs
from harness import AGENT_PORT, COMMUNITY, CREATE_AND_WAIT, MiscColumn
from mib_text import INDEXES, MIB, PLAIN, REPOSITORY, ROOT, SERVED, SOURCE_NUMBER, run

CODES = REPOSITORY / "platform" / "apps" / "flash" / "include" / "flash_codes.h"
FS_RECORDS = REPOSITORY / "platform" / "host" / "fs_daemon" / "records.h"

MAX_ACCESS = {"ro": "read-only", "rw": "read-create"}

# How the stock tools name a type. Integer32 and INTEGER are one type.
TOOL_TYPES = {"Integer32": "INTEGER", "Gauge32": "Unsigned32"}


def lint(mib, *options):
    """What smilint says of `mib` at its highest level (its messages have levels 0 to 6).

    -c replaces the machine's own configuration, which would change levels and search path. Left out
    is -r, which would report on the base modules instead. smilint ends with 0 whatever it finds.
    """
    command = ["smilint", "-c", os.devnull, "-l", "9", "-s", "-m", *options, str(mib)]
    return run(command, SMIPATH=str(base_mibs())).splitlines()


@pytest.fixture(name="translate", scope="session")
def fixture_translate(tool_state):
    """snmptranslate over this MIB."""

    def translate(*arguments, mib=MIB):
        command = ["snmptranslate", "-M", str(base_mibs()), "-m", str(mib), *arguments]
        return run(command, SNMPCONFPATH=tool_state, SNMP_PERSISTENT_DIR=tool_state)

    return translate


@pytest.fixture(name="dump", scope="session")
def fixture_dump():
    """The module as smidump reads it, an XML tree."""
    text = run(["smidump", "-c", os.devnull, "-f", "xml", str(MIB)], SMIPATH=str(base_mibs()))
    return ElementTree.fromstring(text)


def enumeration(dump, name):
    """Labels and values of an object's enumeration."""
    numbers = dump.findall(f".//*[@name='orvexFlash{name}']/syntax/typedef/namednumber")
    return {number.get("name"): int(number.get("number")) for number in numbers}


def header_enum(header, name):
    """Names and values of an enum in a C++ header."""
    text = re.sub(r"//[^\n]*", "", header.read_text(encoding="utf-8"))
    body = re.search(rf"enum (?:class )?{name}\b[^{{]*{{([^}}]*)}}", text)
    assert body, f"{header} has no enum {name}"
    pairs = re.findall(r"(\w+)\s*=\s*(\w+)", body.group(1))
    return {label: int(value, 0) for label, value in pairs}


def camel_case(label):
    """read_only as readOnly."""
    first, *others = label.split("_")
    return first + "".join(word.capitalize() for word in others)


def test_base_modules_are_installed_on_a_fresh_machine(tmp_path):
    package = tmp_path / "tests" / "agent"
    package.mkdir(parents=True)
    for name in ("base_mibs.py", "package.json", "package-lock.json"):
        shutil.copy(Path(__file__).parent / name, package)
    for _ in ("installed", "found"):
        printed = run([sys.executable, str(package / "base_mibs.py")])
        assert printed.startswith(str(tmp_path / "build" / "base-mibs"))
        assert (Path(printed.strip()) / "SNMPv2-TC.mib").is_file()


def test_linter_finds_nothing():
    assert lint(MIB) == []


def test_lines_fit_a_terminal():
    lines = MIB.read_text(encoding="ascii").splitlines()
    assert [line for line in lines if len(line) > 80] == []


def test_only_two_names_exceed_the_32_characters_that_the_linter_likes():
    # Both names are fixed by the tables they belong to; the linter hides this check by default.
    lines = lint(MIB, "-I", "namelength-32")
    assert all("namelength-32-object" in line for line in lines)
    names = [re.search(r"`(\w+)'", line).group(1) for line in lines]
    assert names == ["orvexFlashPartitionFormatRequired", "orvexFlashMiscOpNotifyOnCompletion"]


@pytest.mark.parametrize(
    "original, defect, finding",
    [
        ("    orvexFlashCopyTime,\n", "", "group-membership"),
        ("UNITS       \"bytes\"", "UNITS       \"\"", "empty-units"),
        ("DEFVAL      { tftp }", "DEFVAL      { http }", "defval-enum"),
        ("IpAddress, TimeTicks\n", "IpAddress, TimeTicks, Gauge32\n", "import-unused"),
        ("::= { orvexFlashCopyEntry 3 }", "::= { orvexFlashCopyEntry 2 }", "oid-re"),
        ("FROM SNMPv2-TC\n", "FROM NO-SUCH-TC\n", "module-not-found"),
    ],
)
def test_linter_sees_a_defect(tmp_path, original, defect, finding):
    text = MIB.read_text(encoding="ascii")
    assert original in text
    broken = tmp_path / MIB.name
    broken.write_text(text.replace(original, defect, 1), encoding="ascii")
    assert any("{" + finding in line for line in lint(broken)), lint(broken)


def test_stock_tools_load_the_mib_without_a_complaint(translate):
    assert translate("-On", "ORVEX-FLASH-MIB::orvexFlashMIB") == f".{ROOT}\n"


def test_table_of_served_objects_has_50_rows():
    assert len(SERVED) == 50
    assert len({suffix for _, suffix, _, _ in SERVED}) == 50


@pytest.mark.parametrize("name, suffix, syntax, access", SERVED, ids=[row[0] for row in SERVED])
def test_served_object_has_its_oid_type_and_access(translate, name, suffix, syntax, access):
    described = translate("-Td", "-On", f"ORVEX-FLASH-MIB::orvexFlash{name}")
    assert described.splitlines()[0] == f".{ROOT}.{suffix}"
    shown = re.search(r"^  SYNTAX\t([A-Z][A-Za-z0-9]*(?: STRING| IDENTIFIER)?)", described, re.M)
    assert TOOL_TYPES.get(shown.group(1), shown.group(1)) == syntax
    assert re.search(r"^  MAX-ACCESS\t(\S+)", described, re.M).group(1) == MAX_ACCESS[access]


@pytest.mark.parametrize("name, suffix", INDEXES, ids=[row[0] for row in INDEXES])
def test_index_column_is_not_accessible(translate, name, suffix):
    described = translate("-Td", "-On", f"ORVEX-FLASH-MIB::orvexFlash{name}")
    assert described.splitlines()[0] == f".{ROOT}.{suffix}"
    shown = re.search(r"^  SYNTAX\t(.*?) *$", described, re.M).group(1)
    assert shown == "Unsigned32 (1..4294967295)"
    assert re.search(r"^  MAX-ACCESS\t(\S+)", described, re.M).group(1) == "not-accessible"


def test_mib_holds_no_object_beyond_the_served_ones_and_the_indexes(dump):
    found = {
        (node.get("name"), node.get("oid"))
        for kind in ("scalar", "column")
        for node in dump.iter(kind)
    }
    expected = [(name, suffix) for name, suffix, _, _ in SERVED] + INDEXES
    assert found == {(f"orvexFlash{name}", f"{ROOT}.{suffix}") for name, suffix in expected}


@pytest.mark.parametrize(
    "table, indexes",
    [
        ("Device", ["Device"]),
        ("Partition", ["Device", "Partition"]),
        ("File", ["Device", "Partition", "File"]),
        ("Copy", ["Copy"]),
        ("MiscOp", ["MiscOp"]),
    ],
)
def test_table_has_its_indexes_in_order(dump, table, indexes):
    linkage = dump.findall(f".//row[@name='orvexFlash{table}Entry']/linkage/index")
    found = [index.get("name") for index in linkage]
    assert found == [f"orvexFlash{name}Index" for name in indexes]


# How the module's header calls each label of an enumeration. unset has no constant in some of them:
# it is what a refused SET leaves in the column.
ENUMERATIONS = [
    (
        "CopyCommand",
        "CopyCommand",
        {
            "unset": None,
            "copyToFlash": "commandToFlash",
            "copyToFlashWithoutErase": "commandToFlashWithoutErase",
            "copyFromFlash": "commandFromFlash",
            "copyFromFlashLog": "commandFromFlashLog",
        },
    ),
    (
        "CopyProtocol",
        "CopyProtocol",
        {
            "unset": "protocolUnset",
            "tftp": "protocolTftp",
            "rcp": "protocolRcp",
            "lex": "protocolLex",
            "ftp": "protocolFtp",
            "scp": "protocolScp",
            "sftp": "protocolSftp",
        },
    ),
    (
        "CopyStatus",
        "CopyStatus",
        {
            "inProgress": "copyInProgress",
            "success": "copySuccess",
            "invalidCommand": "copyInvalidCommand",
            "invalidProtocol": "copyInvalidProtocol",
            "invalidSourceName": "copyInvalidSourceName",
            "invalidDestinationName": "copyInvalidDestinationName",
            "busy": "copyBusy",
            "deviceFull": "copyDeviceFull",
            "transferError": "STATUS_FILE_TRANSFERERR",
            "noMemory": "copyNoMemory",
            "notStarted": "copyStatusInitial",
            "scpFailure": "copyScpFailure",
        },
    ),
    ("MiscOpCommand", "MiscOpCommand", {"unset": None, "delete": "miscOpDelete"}),
    (
        "MiscOpStatus",
        "MiscOpStatus",
        {
            "inProgress": "miscOpInProgress",
            "success": "miscOpSuccess",
            "failed": "miscOpFailed",
            "notStarted": "miscOpStatusInitial",
        },
    ),
]


@pytest.mark.parametrize("column, enum, labels", ENUMERATIONS, ids=[row[0] for row in ENUMERATIONS])
def test_enumeration_holds_the_values_of_the_code(dump, column, enum, labels):
    code = header_enum(CODES, enum)
    assert set(code) == {constant for constant in labels.values() if constant}
    expected = {label: code[constant] if constant else 0 for label, constant in labels.items()}
    assert enumeration(dump, column) == expected


def tool_enumeration(translate, name):
    """Labels and values as snmptranslate shows them, which resolves textual conventions."""
    described = translate("-Td", f"ORVEX-FLASH-MIB::orvexFlash{name}")
    shown = re.search(r"^  SYNTAX\tINTEGER \{(.*)\}", described, re.M).group(1)
    return {label: int(value) for label, value in re.findall(r"(\w+)\((\d+)\)", shown)}


def truth_values():
    """Labels and values of a TruthValue, from the module's header."""
    code = header_enum(CODES, "TruthValue")
    return {label[5:].lower(): value for label, value in code.items()}


@pytest.mark.parametrize("column", ["CopyEntryStatus", "MiscOpEntryStatus"])
def test_row_status_holds_the_values_of_the_code(translate, column):
    described = translate("-Td", f"ORVEX-FLASH-MIB::orvexFlash{column}")
    assert "TEXTUAL CONVENTION RowStatus" in described
    code = header_enum(CODES, "RowState")
    expected = {label[3].lower() + label[4:]: value for label, value in code.items()}
    assert tool_enumeration(translate, column) == expected


@pytest.mark.parametrize(
    "column",
    [
        "DevicePresent",
        "PartitionFormatRequired",
        "PartitionWriteAccess",
    ],
)
def test_truth_value_holds_the_values_of_the_code(translate, column):
    assert tool_enumeration(translate, column) == truth_values()


@pytest.mark.parametrize("column", ["CopyNotifyOnCompletion", "MiscOpNotifyOnCompletion"])
def test_notification_column_has_a_value_for_what_a_refused_request_leaves(translate, column):
    assert tool_enumeration(translate, column) == {"unset": 0} | truth_values()


@pytest.mark.parametrize(
    "column, enum, prefix",
    [
        ("PartitionState", "PartitionState", "partition_"),
        ("PartitionFsType", "FsType", "fs_"),
        ("FileStatus", "FileStatus", "file_"),
        ("FileType", "FileType", "type_"),
    ],
)
def test_inventory_enumeration_holds_the_values_of_the_file_system_daemon(
    dump, column, enum, prefix
):
    code = header_enum(FS_RECORDS, enum)
    expected = {camel_case(label.removeprefix(prefix)): value for label, value in code.items()}
    assert enumeration(dump, column) == expected


@pytest.mark.parametrize(
    "column, size",
    [
        ("DeviceName", "(0..15)"),
        ("DeviceDescr", "(0..143)"),
        ("PartitionName", "(0..15)"),
        ("FileName", "(0..32)"),
        ("FilePath", "(0..256)"),
        ("FileModified", "(8)"),
        ("CopySourceName", "(0..255)"),
        ("CopyDestinationName", "(0..255)"),
        ("CopyRemoteUserName", "(0..255)"),
        ("CopyPassword", "(0..40)"),
        ("MiscOpDestinationName", "(0..255)"),
    ],
)
def test_string_has_its_size(translate, column, size):
    described = translate("-Td", f"ORVEX-FLASH-MIB::orvexFlash{column}")
    assert re.search(r"^  SYNTAX\tOCTET STRING (\(.*\)) *$", described, re.M).group(1) == size


def test_device_description_may_be_utf_8(translate):
    described = translate("-Td", "ORVEX-FLASH-MIB::orvexFlashDeviceDescr")
    assert "TEXTUAL CONVENTION OrvexFlashText" in described


@pytest.mark.parametrize(
    "column, default",
    [
        ("CopyCommand", "copyToFlash"),
        ("CopyProtocol", "tftp"),
        ("CopyServerAddress", "0xffffffff"),
        ("CopyStatus", "notStarted"),
        ("CopyNotifyOnCompletion", "false"),
        ("MiscOpCommand", "delete"),
        ("MiscOpStatus", "notStarted"),
        ("MiscOpNotifyOnCompletion", "false"),
    ],
)
def test_column_has_the_default_of_a_new_row(dump, column, default):
    assert dump.find(f".//column[@name='orvexFlash{column}']/default").text == default


def test_only_notification_carries_the_copy_status(dump):
    notifications = list(dump.iter("notification"))
    assert [node.get("oid") for node in notifications] == [f"{ROOT}.1.3.0.1"]
    carried = [node.get("name") for node in notifications[0].findall("objects/object")]
    assert carried == ["orvexFlashCopyStatus"]


def test_conformance_definitions_lie_outside_the_served_subtrees(dump):
    definitions = [*dump.iter("group"), *dump.iter("compliance")]
    oids = [node.get("oid") for node in definitions if node.get("oid")]
    assert len(oids) == 8
    assert all(oid.startswith(f"{ROOT}.2.") for oid in oids)


def test_reserved_columns_have_a_group_of_their_own(dump):
    members = {
        group.get("name"): [member.get("name") for member in group.findall("members/member")]
        for group in dump.iter("group")
    }
    reserved = [f"orvexFlashDeviceReserved{column}" for column in range(9, 14)]
    assert members["orvexFlashReservedGroup"] == reserved


# --- The plain form, which imports nothing, against the full one with its base modules


def test_plain_form_describes_every_node_as_the_full_form_does(translate, tool_state):
    nodes = re.findall(r'^"(orvex\w*)"\s', translate("-Tz"), re.M)
    assert {f"orvexFlash{name}" for name, *_ in SERVED + INDEXES} < set(nodes)
    for style in ("-On", "-OS", "-Of"):
        arguments = ["-Td", style, *(f"ORVEX-FLASH-MIB::{node}" for node in nodes)]
        plain = run(
            ["snmptranslate", "-m", str(PLAIN), *arguments],
            SNMPCONFPATH=tool_state,
            SNMP_PERSISTENT_DIR=tool_state,
            MIBDIRS="",
        )
        assert plain.count("\n::= {") == len(nodes)
        assert plain == translate(*arguments)


def test_plain_form_shows_what_the_agent_answers_as_the_full_form_does(host):
    def shown(table, options, mib, directories):
        command = ["snmpwalk", "-v2c", "-c", COMMUNITY, *options, "-m", str(mib)]
        command += [f"{host.address}:{AGENT_PORT}", f"orvexFlash{table}Table"]
        return run(command, **{**host.environment, "MIBDIRS": str(directories)})

    host.flash().joinpath("image.bin").write_text("text", encoding="ascii")
    host.create_copy(7, source="image.bin", destination="bootflash:image.bin")
    host.set((f"{MiscColumn.ROW}.8", ber.integer(CREATE_AND_WAIT)))
    for options in ([], ["-OX"], ["-Of"], ["-Oe"], ["-OT"]):
        for table, lines in (("File", 6), ("Copy", 11), ("MiscOp", 6)):
            plain = shown(table, options, PLAIN, "")
            assert len(plain.splitlines()) == lines
            assert plain == shown(table, options, MIB, base_mibs())


# --- The build's copy of the text


def configure(directory, number):
    """Configures the MIB of a build with another enterprise number; the result of cmake."""
    (directory / "CMakeLists.txt").write_text(
        "cmake_minimum_required(VERSION 3.25)\n"
        "project(mib NONE)\n"
        "include(GNUInstallDirs)\n"
        f"add_subdirectory({directory / 'mibs'})\n",
        encoding="utf-8",
    )
    command = ["cmake", "-G", "Ninja", "-S", str(directory), "-B", str(directory / "build")]
    command += [f"-DORVEX_ENTERPRISE_NUMBER={number}", "-DCMAKE_INSTALL_LIBDIR=lib"]
    command += [f"-DCMAKE_INSTALL_PREFIX={directory / 'installed'}"]
    return subprocess.run(command, capture_output=True, text=True, timeout=60, check=False)


@pytest.fixture(name="source")
def fixture_source(tmp_path):
    """A copy of the directory of the MIB, to configure."""
    shutil.copytree(MIB.parent, tmp_path / "mibs")
    return tmp_path


def test_build_puts_its_enterprise_number_into_the_installed_mib(source, translate):
    configured = configure(source, "2147483647")
    assert configured.returncode == 0, configured.stderr
    run(["cmake", "--install", str(source / "build")])
    installed = source / "installed" / "share" / "snmp" / "mibs" / MIB.name
    name = "ORVEX-FLASH-MIB::orvexFlashCopyStatus"
    assert translate("-On", name, mib=installed) == ".1.3.6.1.4.1.2147483647.1.1.1.2.1.1.8\n"
    assert SOURCE_NUMBER not in installed.read_text(encoding="ascii")
    assert lint(installed) == []


def test_build_puts_its_enterprise_number_into_the_installed_plain_form(source, tool_state):
    configured = configure(source, "4242")
    assert configured.returncode == 0, configured.stderr
    run(["cmake", "--install", str(source / "build")])
    installed = source / "installed" / "share" / "orvex-flash-mib" / "mibs" / MIB.name
    command = ["snmptranslate", "-On", "-m", str(installed), "ORVEX-FLASH-MIB::orvexFlashCopyStatus"]
    printed = run(command, SNMPCONFPATH=tool_state, SNMP_PERSISTENT_DIR=tool_state, MIBDIRS="")
    assert printed == ".1.3.6.1.4.1.4242.1.1.1.2.1.1.8\n"
    assert SOURCE_NUMBER not in installed.read_text(encoding="ascii")


def test_build_refuses_an_import_that_the_plain_form_has_no_definition_for(source):
    copy = source / "mibs" / MIB.name
    text = copy.read_text(encoding="ascii")
    assert "DateAndTime, DisplayString" in text
    changed = text.replace("DateAndTime, DisplayString", "DateAndTime, TimeStamp, DisplayString", 1)
    copy.write_text(changed, encoding="ascii")
    configured = configure(source, SOURCE_NUMBER)
    assert configured.returncode != 0
    assert "ORVEX-FLASH-MIB imports TimeStamp" in re.sub(r"\s+", " ", configured.stderr)


def test_build_with_the_default_number_installs_the_mib_unchanged(source):
    configured = configure(source, SOURCE_NUMBER)
    assert configured.returncode == 0, configured.stderr
    assert (source / "build" / "mibs" / MIB.name).read_bytes() == MIB.read_bytes()


@pytest.mark.parametrize("number", ["", "0", "abc", "-1", "1.2", "2147483648"])
def test_build_refuses_what_is_no_enterprise_number(source, number):
    configured = configure(source, number)
    assert configured.returncode != 0
    assert "which is no number from 1 to 2147483647" in re.sub(r"\s+", " ", configured.stderr)


@pytest.mark.parametrize(
    "original, change",
    [
        ("{ enterprises 32473 }", "{ enterprises 32474 }"),
        ("END\n", "-- 32473\nEND\n"),
    ],
    ids=["number missing", "number at a second place"],
)
def test_build_refuses_a_text_without_the_number_in_its_one_place(source, original, change):
    copy = source / "mibs" / MIB.name
    text = copy.read_text(encoding="ascii")
    assert original in text
    copy.write_text(text.replace(original, change), encoding="ascii")
    configured = configure(source, "4242")
    assert configured.returncode != 0
    assert "must hold 32473 once" in re.sub(r"\s+", " ", configured.stderr)
