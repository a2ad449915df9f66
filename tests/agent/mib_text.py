"""The objects of ORVEX-FLASH-MIB as a table, its files, and how the tests run a tool on them."""

import os
import subprocess

from harness import BUILD, REPOSITORY

MIB = REPOSITORY / "mibs" / "ORVEX-FLASH-MIB.txt"
# The build's form for tools that have no base modules.
PLAIN = BUILD / "mibs-plain" / MIB.name

SOURCE_NUMBER = "32473"
ROOT = f"1.3.6.1.4.1.{SOURCE_NUMBER}.1.1"

# The objects that the module serves: name without orvexFlash, OID below the root, type, access.
SERVED = [
    ("Supported", "1.1.1", "Unsigned32", "ro"),
    ("DeviceSize", "1.1.2.1.2", "Unsigned32", "ro"),
    ("DeviceFree", "1.1.2.1.3", "Unsigned32", "ro"),
    ("DeviceBlockSize", "1.1.2.1.4", "Unsigned32", "ro"),
    ("DevicePartitions", "1.1.2.1.5", "Unsigned32", "ro"),
    ("DevicePresent", "1.1.2.1.6", "INTEGER", "ro"),
    ("DeviceName", "1.1.2.1.7", "OCTET STRING", "ro"),
    ("DeviceDescr", "1.1.2.1.8", "OCTET STRING", "ro"),
    ("DeviceReserved9", "1.1.2.1.9", "OCTET STRING", "ro"),
    ("DeviceReserved10", "1.1.2.1.10", "OBJECT IDENTIFIER", "ro"),
    ("DeviceReserved11", "1.1.2.1.11", "INTEGER", "ro"),
    ("DeviceReserved12", "1.1.2.1.12", "TimeTicks", "ro"),
    ("DeviceReserved13", "1.1.2.1.13", "INTEGER", "ro"),
    ("DeviceCapacity", "1.1.2.1.16", "Counter64", "ro"),
    ("PartitionState", "1.1.4.1.1.2", "INTEGER", "ro"),
    ("PartitionFsType", "1.1.4.1.1.3", "INTEGER", "ro"),
    ("PartitionSize", "1.1.4.1.1.4", "Unsigned32", "ro"),
    ("PartitionFree", "1.1.4.1.1.5", "Unsigned32", "ro"),
    ("PartitionBlockSize", "1.1.4.1.1.6", "Unsigned32", "ro"),
    ("PartitionFiles", "1.1.4.1.1.7", "INTEGER", "ro"),
    ("PartitionMaxNameLength", "1.1.4.1.1.8", "INTEGER", "ro"),
    ("PartitionPercentUsed", "1.1.4.1.1.9", "INTEGER", "ro"),
    ("PartitionName", "1.1.4.1.1.10", "OCTET STRING", "ro"),
    ("PartitionFormatRequired", "1.1.4.1.1.11", "INTEGER", "ro"),
    ("PartitionWriteAccess", "1.1.4.1.1.12", "INTEGER", "ro"),
    ("PartitionCapacity", "1.1.4.1.1.13", "Counter64", "ro"),
    ("PartitionFreeCapacity", "1.1.4.1.1.14", "Counter64", "ro"),
    ("FileSize", "1.1.4.2.1.1.2", "Unsigned32", "ro"),
    ("FileName", "1.1.4.2.1.1.3", "OCTET STRING", "ro"),
    ("FileStatus", "1.1.4.2.1.1.4", "INTEGER", "ro"),
    ("FilePath", "1.1.4.2.1.1.5", "OCTET STRING", "ro"),
    ("FileType", "1.1.4.2.1.1.6", "INTEGER", "ro"),
    ("FileModified", "1.1.4.2.1.1.7", "OCTET STRING", "ro"),
    ("CopyCommand", "1.2.1.1.2", "INTEGER", "rw"),
    ("CopyProtocol", "1.2.1.1.3", "INTEGER", "rw"),
    ("CopyServerAddress", "1.2.1.1.4", "IpAddress", "rw"),
    ("CopySourceName", "1.2.1.1.5", "OCTET STRING", "rw"),
    ("CopyDestinationName", "1.2.1.1.6", "OCTET STRING", "rw"),
    ("CopyRemoteUserName", "1.2.1.1.7", "OCTET STRING", "rw"),
    ("CopyStatus", "1.2.1.1.8", "INTEGER", "ro"),
    ("CopyNotifyOnCompletion", "1.2.1.1.9", "INTEGER", "rw"),
    ("CopyTime", "1.2.1.1.10", "TimeTicks", "ro"),
    ("CopyEntryStatus", "1.2.1.1.11", "INTEGER", "rw"),
    ("CopyPassword", "1.2.1.1.12", "OCTET STRING", "rw"),
    ("MiscOpCommand", "1.2.3.1.2", "INTEGER", "rw"),
    ("MiscOpDestinationName", "1.2.3.1.3", "OCTET STRING", "rw"),
    ("MiscOpStatus", "1.2.3.1.4", "INTEGER", "ro"),
    ("MiscOpNotifyOnCompletion", "1.2.3.1.5", "INTEGER", "rw"),
    ("MiscOpTime", "1.2.3.1.6", "TimeTicks", "ro"),
    ("MiscOpEntryStatus", "1.2.3.1.7", "INTEGER", "rw"),
]

INDEXES = [
    ("DeviceIndex", "1.1.2.1.1"),
    ("PartitionIndex", "1.1.4.1.1.1"),
    ("FileIndex", "1.1.4.2.1.1.1"),
    ("CopyIndex", "1.2.1.1.1"),
    ("MiscOpIndex", "1.2.3.1.1"),
]


def run(command, **environment):
    """Output of a tool, both streams; it must not fail."""
    result = subprocess.run(
        command,
        env={**os.environ, **environment},
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        timeout=60,
        check=False,
    )
    assert result.returncode == 0, f"{command}: {result.stdout}"
    return result.stdout
