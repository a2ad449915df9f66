"""The inventory tables, against the file systems that they describe."""

import os
import signal
import subprocess
import time
from datetime import datetime, timezone

import ber
import pytest

from harness import (
    COPY,
    DEVICE,
    FILE,
    PARTITION,
    ROOT,
    SCALAR,
    SCHEMES,
    SYS_UP_TIME,
    TRUE,
    FALSE,
    wait_for,
)

DEVICE_COLUMNS = (2, 3, 4, 5, 6, 7, 8, 16)
RESERVED_DEVICE_COLUMNS = (9, 10, 11, 12, 13)
PARTITION_COLUMNS = range(2, 15)
FILE_COLUMNS = range(2, 8)
UP, READ_ONLY, UNAVAILABLE = 1, 2, 3
TMPFS = 5
VALID = 1
REGULAR, IMAGE, CONFIGURATION, LOG, ARCHIVE = 1, 2, 3, 4, 5

FILES = {
    "bootflash": {"image.bin": 5000, "empty": 0, "configs/start.cfg": 77, "a" * 40 + ".tar": 9},
    "slot0": {"notes.txt": 12},
    "logflash": {"messages": 3},
}
# One call may wait for 300 ms; what follows fails at once.
BOUND = 1.0


def fill(host, files=None):
    for scheme, sizes in (files or FILES).items():
        for name, size in sizes.items():
            path = host.flash(scheme) / name
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_bytes(b"x" * size)


@pytest.fixture(name="inventory")
def fixture_inventory(host):
    """A host with some files."""
    fill(host)
    wait_for(lambda: len(files(host)) == 6, "all files are in the inventory")
    return host


def files(host):
    """Instance of each file, by its scheme and path."""
    result = {}
    for name, _ in host.bulkwalk(f"{FILE}.5"):
        instance = name[len(f"{FILE}.5.") :]
        path = host.value(name).decode()
        device = int(instance.split(".")[0])
        result[f"{SCHEMES[device - 1]}:{path}"] = instance
    return result


def column_of(name):
    """Table and column of an instance below the root."""
    for table in (DEVICE, PARTITION, FILE):
        if name.startswith(table + "."):
            return table, int(name[len(table) + 1 :].split(".")[0])
    return name, None


def key(name):
    return ber.arcs(name)


# --- Walks


def test_walk_of_the_module_meets_every_inventory_object_and_ends(inventory):
    names = [name for name, _ in inventory.walk(ROOT)]
    wanted = {(SCALAR, None)}
    wanted |= {(DEVICE, column) for column in DEVICE_COLUMNS}
    wanted |= {(PARTITION, column) for column in PARTITION_COLUMNS}
    wanted |= {(FILE, column) for column in FILE_COLUMNS}
    assert {column_of(name) for name in names} == wanted
    assert len(names) == 1 + 3 * 8 + 3 * 13 + 6 * 6


def test_walk_is_in_ascending_order(inventory):
    keys = [key(name) for name, _ in inventory.walk(ROOT)]
    assert keys == sorted(set(keys))


@pytest.mark.parametrize("repetitions", [1, 7, 1000])
def test_bulk_walk_meets_the_same_instances(inventory, repetitions):
    bulk = [name for name, _ in inventory.bulkwalk(ROOT, repetitions)]
    assert bulk == [name for name, _ in inventory.walk(ROOT)]


def test_get_answers_every_instance_of_the_walk(inventory):
    names = [name for name, _ in inventory.walk(ROOT)]
    for name in names:
        [variable] = inventory.variables(name)
        assert "." + variable.name == name
        assert variable.tag not in (ber.NO_SUCH_INSTANCE, ber.NO_SUCH_OBJECT), name


def test_getnext_steps_from_every_instance_to_its_successor(inventory):
    names = [name for name, _ in inventory.walk(ROOT)]
    for name, successor in zip(names, names[1:]):
        [variable] = inventory.sender.get_next(name).variables
        assert "." + variable.name == successor


def test_getnext_before_the_scalar_gives_the_scalar(shared_host):
    [variable] = shared_host.sender.get_next(ROOT).variables
    assert ("." + variable.name, variable.tag, variable.value) == (SCALAR, ber.UNSIGNED32, 1)


def test_types_are_those_of_the_mib(inventory):
    gauge, integer, text, counter = (
        ber.UNSIGNED32,
        ber.INTEGER,
        ber.OCTET_STRING,
        ber.COUNTER64,
    )
    wanted = {
        DEVICE: dict(zip(DEVICE_COLUMNS, [gauge] * 4 + [integer, text, text, counter])),
        PARTITION: dict(
            zip(
                PARTITION_COLUMNS,
                [integer] * 2
                + [gauge] * 3
                + [integer] * 3
                + [text, integer, integer, counter, counter],
            )
        ),
        FILE: dict(zip(FILE_COLUMNS, [gauge, text, integer, text, integer, text])),
    }
    instance = {DEVICE: "1", PARTITION: "1.1", FILE: files(inventory)["bootflash:empty"]}
    for table, columns in wanted.items():
        for column, tag in columns.items():
            [variable] = inventory.variables(f"{table}.{column}.{instance[table]}")
            assert variable.tag == tag, f"{table}.{column}"


# --- What is not there


@pytest.mark.parametrize("column", RESERVED_DEVICE_COLUMNS)
def test_reserved_device_column_has_no_instance(shared_host, column):
    [variable] = shared_host.variables(f"{DEVICE}.{column}.1")
    assert variable.tag == ber.NO_SUCH_INSTANCE


@pytest.mark.parametrize(
    "start", ["8.3", "9", "9.1", "10.3", "13", "13.1", "13.4294967295", "14.1", "15", "15.9"]
)
def test_getnext_passes_over_the_reserved_device_columns(shared_host, start):
    [variable] = shared_host.sender.get_next(f"{DEVICE}.{start}").variables
    assert "." + variable.name == f"{DEVICE}.16.1"


@pytest.mark.parametrize("column", [1, 14, 15, 17])
def test_unregistered_device_column_is_no_object(shared_host, column):
    [variable] = shared_host.variables(f"{DEVICE}.{column}.1")
    assert variable.tag == ber.NO_SUCH_OBJECT


@pytest.mark.parametrize(
    "instance",
    ["2.0", "2.4", "2", "2.1.1", "2.4294967295"],
)
def test_device_that_does_not_exist_has_no_instance(shared_host, instance):
    assert shared_host.value(f"{DEVICE}.{instance}") is None


@pytest.mark.parametrize("instance", ["2", "2.1", "2.1.2", "2.0.0", "2.1.1.1", "2.4.1"])
def test_partition_that_does_not_exist_has_no_instance(shared_host, instance):
    assert shared_host.value(f"{PARTITION}.{instance}") is None


@pytest.mark.parametrize("instance", ["2", "2.1", "2.1.1", "2.1.1.0", "2.1.1.1.1", "2.1.2.1"])
def test_file_that_does_not_exist_has_no_instance(inventory, instance):
    assert inventory.value(f"{FILE}.{instance}") is None


@pytest.mark.parametrize(
    "start, successor",
    [
        (f"{DEVICE}.2.1.5.9", f"{DEVICE}.2.2"),
        (f"{DEVICE}.2.4294967295", f"{DEVICE}.3.1"),
        (f"{PARTITION}.2", f"{PARTITION}.2.1.1"),
        (f"{PARTITION}.2.1", f"{PARTITION}.2.1.1"),
        (f"{PARTITION}.2.1.1.7", f"{PARTITION}.2.2.1"),
        (f"{PARTITION}.2.4294967295.4294967295", f"{PARTITION}.3.1.1"),
        (f"{PARTITION}.14.3.1", None),
    ],
)
def test_getnext_from_an_odd_instance_goes_to_the_next_one(shared_host, start, successor):
    [variable] = shared_host.sender.get_next(start).variables
    if successor is None:
        assert not ("." + variable.name).startswith(PARTITION + ".")
    else:
        assert "." + variable.name == successor


# --- Values


@pytest.fixture(name="card")
def fixture_card(idle_host):
    """A host whose slot0 is a file system of its own, so that its numbers hold still."""
    mount_point = idle_host.flash("slot0")
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs", mount_point], check=True)
    try:
        fill(idle_host)
        idle_host.start()
        yield idle_host
        idle_host.stop()
    finally:
        subprocess.run(["umount", mount_point], check=True)


def test_device_values_are_those_of_the_file_system(card):
    sizes = os.statvfs(card.flash("slot0"))
    values = card.values(*(f"{DEVICE}.{column}.2" for column in DEVICE_COLUMNS))
    size, free = sizes.f_blocks * sizes.f_frsize, sizes.f_bavail * sizes.f_frsize
    assert values == [
        size,
        free,
        sizes.f_frsize,
        1,
        TRUE,
        b"slot0",
        b"Test slot0",
        size,
    ]


def test_partition_values_are_those_of_the_file_system(card):
    sizes = os.statvfs(card.flash("slot0"))
    values = card.values(*(f"{PARTITION}.{column}.2.1" for column in PARTITION_COLUMNS))
    size, free = sizes.f_blocks * sizes.f_frsize, sizes.f_bavail * sizes.f_frsize
    used = sizes.f_blocks - sizes.f_bfree
    percent = -(-used * 100 // (used + sizes.f_bavail))
    assert values == [
        UP,
        TMPFS,
        size,
        free,
        sizes.f_frsize,
        1,
        sizes.f_namemax,
        percent,
        b"slot0",
        FALSE,
        TRUE,
        size,
        free,
    ]


def test_sizes_follow_the_file_system(card):
    before = card.value(f"{PARTITION}.5.2.1")
    (card.flash("slot0") / "more").write_bytes(b"x" * 100_000)
    after = card.value(f"{PARTITION}.5.2.1")
    assert before - after == 25 * 4096
    assert card.value(f"{DEVICE}.3.2") == after


def test_read_only_file_system_is_reported(card):
    mount_point = card.flash("slot0")
    subprocess.run(["mount", "-o", "remount,ro", mount_point], check=True)
    assert card.values(f"{PARTITION}.2.2.1", f"{PARTITION}.12.2.1") == [READ_ONLY, FALSE]


def test_size_above_32_bits_is_capped_but_the_capacity_is_exact(idle_host):
    mount_point = idle_host.flash("slot0")
    size = 6 << 30
    subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size}", "tmpfs", mount_point], check=True)
    try:
        with open(mount_point / "sparse", "wb") as sparse:
            sparse.truncate(5 << 30)
        idle_host.start()
        assert idle_host.value(f"{DEVICE}.2.2") == 2**32 - 1
        assert idle_host.value(f"{DEVICE}.16.2") == size
        assert idle_host.value(f"{PARTITION}.13.2.1") == size
        assert idle_host.value(f"{FILE}.2.2.1.1") == 2**32 - 1
        idle_host.stop()
    finally:
        subprocess.run(["umount", mount_point], check=True)


def date_and_time(path):
    moment = datetime.fromtimestamp(path.stat().st_mtime_ns // 10**9, timezone.utc)
    fields = (moment.month, moment.day, moment.hour, moment.minute, moment.second)
    tenths = path.stat().st_mtime_ns // 10**8 % 10
    return moment.year.to_bytes(2, "big") + bytes(fields) + bytes([tenths])


@pytest.mark.parametrize(
    "scheme, name, kind",
    [
        ("bootflash", "image.bin", IMAGE),
        ("bootflash", "empty", REGULAR),
        ("bootflash", "configs/start.cfg", CONFIGURATION),
        ("bootflash", "a" * 40 + ".tar", ARCHIVE),
        ("slot0", "notes.txt", REGULAR),
        ("logflash", "messages", LOG),
    ],
)
def test_file_values_are_those_of_the_file(inventory, scheme, name, kind):
    path = inventory.flash(scheme) / name
    instance = files(inventory)[f"{scheme}:{name}"]
    values = inventory.values(*(f"{FILE}.{column}.{instance}" for column in FILE_COLUMNS))
    last = name.rpartition("/")[2].encode()[:32]
    assert values == [
        path.stat().st_size,
        last,
        VALID,
        name.encode(),
        kind,
        date_and_time(path),
    ]


def test_only_regular_files_are_listed(inventory):
    os.symlink("image.bin", inventory.flash() / "link")
    os.mkfifo(inventory.flash() / "pipe")
    (inventory.flash() / "directory").mkdir()
    fill(inventory, {"bootflash": {"last": 1}})
    wait_for(lambda: "bootflash:last" in files(inventory), "the last file is listed")
    names = {name.rpartition("/")[2] for name in files(inventory)}
    assert not names & {"bootflash:link", "bootflash:pipe", "bootflash:directory"}
    assert inventory.value(f"{PARTITION}.7.1.1") == 5


# --- Changes while running


def test_new_file_appears_without_renumbering_another(inventory):
    before = files(inventory)
    fill(inventory, {"bootflash": {"0first": 4}})
    wait_for(lambda: "bootflash:0first" in files(inventory), "the new file appears")
    after = files(inventory)
    assert {name: after[name] for name in before} == before


def test_removed_file_disappears_without_renumbering_another(inventory):
    before = files(inventory)
    gone = before.pop("bootflash:image.bin")
    (inventory.flash() / "image.bin").unlink()
    wait_for(lambda: inventory.value(f"{FILE}.2.{gone}") is None, "the file disappears")
    assert files(inventory) == before


def test_changed_file_is_seen_at_once(inventory):
    path = inventory.flash() / "image.bin"
    instance = files(inventory)["bootflash:image.bin"]
    path.write_bytes(b"x" * 6000)
    os.utime(path, (1_000_000_000, 1_000_000_000))
    assert inventory.values(f"{FILE}.2.{instance}", f"{FILE}.7.{instance}") == [
        6000,
        date_and_time(path),
    ]


def test_file_system_that_disappears_is_unavailable_and_comes_back(inventory):
    directory = inventory.flash("slot0")
    aside = inventory.directory / "aside"
    directory.rename(aside)
    state = f"{PARTITION}.2.2.1"
    wait_for(lambda: inventory.value(state) == UNAVAILABLE, "slot0 is unavailable")
    assert not [name for name in files(inventory) if name.startswith("slot0:")]
    aside.rename(directory)
    wait_for(lambda: inventory.value(state) == UP, "slot0 is back")
    wait_for(lambda: "slot0:notes.txt" in files(inventory), "its file is back")


# --- The daemon in trouble


def test_without_the_daemon_the_inventory_is_empty_and_the_walk_ends(idle_host):
    fill(idle_host)
    idle_host.start_agent()
    assert [name for name, _ in idle_host.walk(ROOT)] == [SCALAR]
    idle_host.start_daemon()
    assert idle_host.value(f"{DEVICE}.7.1") == b"bootflash"


def test_killed_daemon_costs_no_instance_and_its_successor_is_found(inventory):
    before = set(files(inventory))
    inventory.daemon.kill()
    began = time.monotonic()
    assert [name for name, _ in inventory.walk(ROOT)] == [SCALAR]
    assert time.monotonic() - began < BOUND
    inventory.start_daemon()
    assert set(files(inventory)) == before


def test_daemon_killed_in_mid_walk_ends_the_walk_in_order(inventory):
    names = [SCALAR]
    while True:
        [variable] = inventory.sender.get_next(names[-1]).variables
        if not ("." + variable.name).startswith(ROOT):
            break
        names.append("." + variable.name)
        if len(names) == 20:
            inventory.daemon.kill()
    assert len(names) == 20
    assert names == sorted(names, key=key)
    inventory.start_daemon()
    assert len(inventory.walk(FILE)) == 6 * 6


def test_hung_daemon_costs_a_bounded_wait_and_then_none(inventory):
    inventory.daemon.signal(signal.SIGSTOP)
    began = time.monotonic()
    assert inventory.value(f"{DEVICE}.7.1") is None
    first = time.monotonic() - began
    assert 0.2 < first < BOUND
    began = time.monotonic()
    for _ in range(100):
        assert inventory.value(f"{DEVICE}.7.1") is None
    assert time.monotonic() - began < BOUND
    inventory.daemon.signal(signal.SIGCONT)


def test_other_objects_answer_while_the_daemon_hangs(inventory):
    inventory.daemon.signal(signal.SIGSTOP)
    walked = time.monotonic()
    assert [name for name, _ in inventory.bulkwalk(ROOT)] == [SCALAR]
    assert time.monotonic() - walked < 2 * BOUND
    began = time.monotonic()
    for _ in range(100):
        assert inventory.value(SYS_UP_TIME) is not None
        assert inventory.value(SCALAR) == 1
        assert inventory.sender.get_next(COPY) is not None
    assert time.monotonic() - began < BOUND
    inventory.daemon.signal(signal.SIGCONT)


def test_daemon_that_wakes_up_is_used_again(inventory):
    inventory.daemon.signal(signal.SIGSTOP)
    assert inventory.value(f"{DEVICE}.7.1") is None
    inventory.daemon.signal(signal.SIGCONT)
    wait_for(lambda: inventory.value(f"{DEVICE}.7.1") == b"bootflash", "the daemon answers again")
    assert inventory.value(f"{DEVICE}.7.2") == b"slot0"


def test_daemon_that_is_replaced_while_it_hangs_is_used_again(inventory):
    inventory.daemon.signal(signal.SIGSTOP)
    assert inventory.value(f"{DEVICE}.7.1") is None
    inventory.daemon.kill()
    inventory.start_daemon()
    assert inventory.value(f"{DEVICE}.7.1") == b"bootflash"


def test_daemon_restarts_leave_no_descriptor_open(inventory):
    before = len(inventory.descriptors())
    for _ in range(5):
        inventory.daemon.kill()
        assert inventory.value(f"{DEVICE}.7.1") is None
        inventory.start_daemon()
        assert inventory.value(f"{DEVICE}.7.1") == b"bootflash"
    assert len(inventory.descriptors()) == before
