"""What a station sees that sends nonsense: the answer, the row afterwards, and a living agent."""

import random
import sys
from dataclasses import dataclass, field
from itertools import count

import ber
import pytest

from harness import (
    ACTIVE,
    CREATE_AND_GO,
    CREATE_AND_WAIT,
    DESTROY,
    DEVICE,
    FILE,
    NOT_IN_SERVICE,
    NOT_READY,
    PARTITION,
    SCALAR,
    SYS_UP_TIME,
    CopyColumn,
    MiscColumn,
    ToolError,
)

LINE_CARD_COPY = 2
ABSENT = "absent"
BIG = 2**31 - 1
BINARY = bytes(range(1, 256))

COPY_INTEGERS = (CopyColumn.COMMAND, CopyColumn.PROTOCOL, CopyColumn.NOTIFY)
MISC_INTEGERS = (MiscColumn.COMMAND, MiscColumn.NOTIFY)
INTEGERS = (*COPY_INTEGERS, *MISC_INTEGERS)
NAMES = (CopyColumn.SOURCE, CopyColumn.DESTINATION, CopyColumn.USER, MiscColumn.NAME)
TEXTS = (*NAMES, CopyColumn.PASSWORD)
ROW_STATUSES = (CopyColumn.ROW, MiscColumn.ROW)
COPY_COLUMNS = tuple(f"{CopyColumn.ROW.rpartition('.')[0]}.{column}" for column in range(2, 13))
MISC_COLUMNS = tuple(f"{MiscColumn.ROW.rpartition('.')[0]}.{column}" for column in range(2, 8))
READ_ONLY = (CopyColumn.STATUS, CopyColumn.TIME, MiscColumn.STATUS, MiscColumn.TIME)

NOT_INTEGERS = {
    "OCTET STRING": ber.octets(b"\0\0\0\1"),
    "NULL": ber.null(),
    "Unsigned32": ber.integer(1, ber.UNSIGNED32),
    "TimeTicks": ber.integer(1, ber.TIME_TICKS),
    "Counter64": ber.integer(1, ber.COUNTER64),
    "OBJECT IDENTIFIER": ber.object_id("1.3.6"),
    "Opaque": ber.tlv(ber.OPAQUE, b"\1"),
    "noSuchObject": ber.tlv(ber.NO_SUCH_OBJECT, b""),
    "noSuchInstance": ber.tlv(ber.NO_SUCH_INSTANCE, b""),
    "endOfMibView": ber.tlv(ber.END_OF_MIB_VIEW, b""),
}
VALID = {
    CopyColumn.SERVER: ber.address("127.0.0.9"),
    **{column: ber.integer(1) for column in COPY_INTEGERS},
    **{column: ber.octets(b"new") for column in TEXTS},
    MiscColumn.COMMAND: ber.integer(3),
    MiscColumn.NOTIFY: ber.integer(1),
}


def title(column):
    """CopyColumn.SOURCE as "copy source"."""
    for table in (CopyColumn, MiscColumn):
        for name, value in vars(table).items():
            if value == column:
                return f"{table.__name__[:4].lower()} {name.lower()}"
    return column.rpartition("32473.1.1.")[2]


def row_columns(column):
    """All columns of the table that a column belongs to."""
    return COPY_COLUMNS if column in COPY_COLUMNS else MISC_COLUMNS


@dataclass
class Case:
    """One row of the table. `before` is the row's state; `after` what its columns then read."""

    name: str
    column: str
    value: bytes
    answer: int
    before: object = NOT_READY
    index: object = None
    unchanged: bool = False
    after: dict = field(default_factory=dict)


def cases():
    for column in INTEGERS:
        for kind, value in NOT_INTEGERS.items():
            yield Case(f"{title(column)} given {kind}", column, value, ber.WRONG_TYPE)
    for column in ROW_STATUSES:
        for kind, value in NOT_INTEGERS.items():
            name = f"{title(column)} given {kind}"
            yield Case(name, column, value, ber.WRONG_TYPE, unchanged=True)
    for column in (*INTEGERS, CopyColumn.SERVER):
        for kind, value in NOT_INTEGERS.items():
            # The agent looks no further at a SET with a NULL.
            answer = ber.WRONG_TYPE if kind == "NULL" else ber.NO_SUCH_NAME
            name = f"{title(column)} of an absent row given {kind}"
            yield Case(name, column, value, answer, before=ABSENT)
    for column in TEXTS:
        name = f"{title(column)} given INTEGER"
        yield Case(name, column, ber.integer(5), ber.WRONG_TYPE)
        name = f"{title(column)} of an absent row given INTEGER"
        yield Case(name, column, ber.integer(5), ber.WRONG_TYPE, before=ABSENT)
    for column in ROW_STATUSES:
        name = f"{title(column)} of an absent row given OCTET STRING"
        yield Case(name, column, ber.octets(b"\4"), ber.WRONG_TYPE, before=ABSENT)
    for kind in ("OCTET STRING", "NULL", "noSuchObject", "Unsigned32"):
        name = f"copy server given {kind}"
        yield Case(name, CopyColumn.SERVER, NOT_INTEGERS[kind], ber.WRONG_TYPE)

    for column in NAMES:
        for size in (0, 256, 60_000):
            name = f"{title(column)} of {size} bytes"
            yield Case(name, column, ber.octets(b"n" * size), ber.WRONG_LENGTH)
        for size in (1, 254, 255):
            name = f"{title(column)} of {size} bytes"
            after = {column: BINARY[:size]}
            yield Case(name, column, ber.octets(BINARY[:size]), ber.NO_ERROR, after=after)
        name = f"{title(column)} with a NUL in it"
        yield Case(name, column, ber.octets(b"ab\0cd"), ber.NO_ERROR, after={column: b"ab"})
    for size in (0, 41, 60_000):
        name = f"copy password of {size} bytes"
        yield Case(name, CopyColumn.PASSWORD, ber.octets(b"p" * size), ber.WRONG_LENGTH)
    for password in (b"p", b'"$[]\\' * 8):
        name = f"copy password of {len(password)} bytes"
        after = {CopyColumn.PASSWORD: b""}
        yield Case(name, CopyColumn.PASSWORD, ber.octets(password), ber.NO_ERROR, after=after)

    bad_values = [
        (CopyColumn.PROTOCOL, ber.WRONG_VALUE, (3,)),
        (CopyColumn.PROTOCOL, ber.GEN_ERR, (0, 7, -1, BIG)),
        (CopyColumn.NOTIFY, ber.WRONG_VALUE, (0, 3, -1)),
        (MiscColumn.NOTIFY, ber.WRONG_VALUE, (0, 3, -1)),
        (MiscColumn.COMMAND, ber.WRONG_VALUE, (1, 2, 4)),
    ]
    for column, answer, values in bad_values:
        for value in values:
            # Refused, and then put back to 0.
            name = f"{title(column)} {value}"
            yield Case(name, column, ber.integer(value), answer, after={column: 0})

    for column in ROW_STATUSES:
        for value in (0, NOT_READY, 7, -1, BIG):
            name = f"{title(column)} {value}"
            yield Case(name, column, ber.integer(value), ber.WRONG_VALUE, unchanged=True)
            name += " of an absent row"
            yield Case(name, column, ber.integer(value), ber.WRONG_VALUE, before=ABSENT)
        for before in (NOT_READY, ACTIVE, NOT_IN_SERVICE):
            for value in (CREATE_AND_GO, CREATE_AND_WAIT):
                name = f"{title(column)} {value} while it is {before}"
                value = ber.integer(value)
                answer = ber.INCONSISTENT_VALUE
                yield Case(name, column, value, answer, before=before, unchanged=True)
        for value in range(0, 8):
            name = f"{title(column)} {value} at index 0"
            yield Case(name, column, ber.integer(value), ber.GEN_ERR, before=ABSENT, index=0)
        name = f"{title(column)} destroy of an absent row"
        yield Case(name, column, ber.integer(DESTROY), ber.GEN_ERR, before=ABSENT)

    for column, value in VALID.items():
        name = f"{title(column)} of an absent row"
        yield Case(name, column, value, ber.NO_SUCH_NAME, before=ABSENT)
        for before in (ACTIVE, NOT_IN_SERVICE):
            name = f"{title(column)} while the row is {before}"
            answer = ber.INCONSISTENT_VALUE
            yield Case(name, column, value, answer, before=before, unchanged=True)
    for column in READ_ONLY:
        for before in (NOT_READY, ABSENT):
            name = f"{title(column)} is read-only, row {before}"
            value = ber.integer(1, ber.TIME_TICKS) if "time" in name else ber.integer(1)
            yield Case(name, column, value, ber.NOT_WRITABLE, before=before)


ALL_CASES = {case.name: case for case in cases()}
ROWS = count(1000)


def create_row(host, column, state):
    """A row of the column's table in a state, its names filled with longer texts; its index."""
    row = next(ROWS)
    status = CopyColumn.ROW if column in COPY_COLUMNS else MiscColumn.ROW
    names = [name for name in NAMES if name in row_columns(column)]
    assert host.set((f"{status}.{row}", ber.integer(CREATE_AND_WAIT))) == ber.NO_ERROR
    pairs = [(f"{name}.{row}", ber.octets(b"ilc-nvram:old name")) for name in names]
    if status == CopyColumn.ROW:
        pairs.append((f"{CopyColumn.PROTOCOL}.{row}", ber.integer(LINE_CARD_COPY)))
    assert host.set(*pairs) == ber.NO_ERROR
    if state != NOT_READY:
        assert host.set((f"{status}.{row}", ber.integer(state))) == ber.NO_ERROR
    assert host.value(f"{status}.{row}") == state
    return row


def read_row(host, column, row):
    return host.variables(*(f"{name}.{row}" for name in row_columns(column)))


def check(host, case, expected):
    """A SET of the case gets the expected answer, and the row is afterwards as the case says."""
    if case.before == ABSENT:
        row = next(ROWS) if case.index is None else case.index
    else:
        row = create_row(host, case.column, case.before)
    before = read_row(host, case.column, row)

    assert host.set((f"{case.column}.{row}", case.value)) == expected

    after = read_row(host, case.column, row)
    if case.unchanged or case.before == ABSENT:
        assert after == before
    assert len({variable.tag for variable in after} & {ber.NO_SUCH_INSTANCE}) == (
        case.before == ABSENT
    )
    for column, value in case.after.items():
        assert host.value(f"{column}.{row}") == value
    assert host.value(SCALAR) == 1


@pytest.mark.parametrize("name", ALL_CASES)
def test_bad_input(shared_host, name):
    case = ALL_CASES[name]
    check(shared_host, case, case.answer)


# --- Names that are no instance


@pytest.mark.parametrize("column", [*COPY_COLUMNS, *MISC_COLUMNS])
def test_get_of_a_name_that_is_no_instance(shared_host, column):
    row = create_row(shared_host, column, NOT_READY)
    deepest = 128 - len(ber.arcs(column)) - 1
    for instance in ("", f".{row}.1", f".0.{row}", ".0", f".{row}" * 3, ".1" * deepest + f".{row}"):
        [variable] = shared_host.variables(column + instance)
        assert variable.tag == ber.NO_SUCH_INSTANCE, instance


@pytest.mark.parametrize("column", ROW_STATUSES)
@pytest.mark.parametrize("arcs", [2, 5, 128])
def test_set_with_too_many_arcs_takes_the_last_one_as_index(shared_host, column, arcs):
    row = next(ROWS)
    between = arcs - 1 if arcs < 128 else 128 - len(ber.arcs(column)) - 1
    name = column + ".77" * between + f".{row}"
    assert shared_host.set((name, ber.integer(CREATE_AND_WAIT))) == ber.NO_ERROR
    assert shared_host.value(f"{column}.{row}") == NOT_READY
    assert shared_host.value(name) is None
    assert shared_host.set((name, ber.integer(DESTROY))) == ber.NO_ERROR
    assert shared_host.value(f"{column}.{row}") is None


@pytest.mark.parametrize("column", ROW_STATUSES)
def test_set_without_an_index_takes_the_column_number_as_index(shared_host, column):
    instance = f"{column}.{ber.arcs(column)[-1]}"
    assert shared_host.set((column, ber.integer(CREATE_AND_WAIT))) == ber.NO_ERROR
    assert shared_host.value(instance) == NOT_READY
    assert shared_host.value(column) is None
    assert shared_host.set((column, ber.integer(DESTROY))) == ber.NO_ERROR
    assert shared_host.value(instance) is None


READ_ONLY_INSTANCES = [
    SCALAR,
    *(f"{DEVICE}.{column}.1" for column in (*range(2, 14), 16)),
    *(f"{PARTITION}.{column}.1.1" for column in range(2, 15)),
    *(f"{FILE}.{column}.1.1.1" for column in range(2, 8)),
]


@pytest.mark.parametrize("name", READ_ONLY_INSTANCES)
def test_inventory_is_not_writable(shared_host, name):
    assert shared_host.set((name, ber.integer(1))) == ber.NOT_WRITABLE


# --- Walks from odd places


@pytest.mark.parametrize("column", [*COPY_COLUMNS[:-1], *MISC_COLUMNS[:-1]])
@pytest.mark.parametrize("arcs", [1, 2, 100, "all"])
def test_getnext_behind_the_last_row_goes_to_the_next_column(shared_host, column, arcs):
    create_row(shared_host, column, NOT_READY)
    room = 128 - len(ber.arcs(column))
    start = column + ".4294967295" * (room if arcs == "all" else arcs)
    [variable] = shared_host.sender.get_next(start).variables
    assert ber.arcs(variable.name) > ber.arcs(start)
    table, _, number = column.rpartition(".")
    assert f".{variable.name}".startswith(f"{table}.{int(number) + 1}.")


@pytest.mark.parametrize("column", [COPY_COLUMNS[-1], MISC_COLUMNS[-1]])
def test_getnext_behind_the_last_column_leaves_the_table(shared_host, column):
    create_row(shared_host, column, NOT_READY)
    [variable] = shared_host.sender.get_next(f"{column}.4294967295").variables
    assert ber.arcs(variable.name) > ber.arcs(column)
    assert not f".{variable.name}".startswith(column.rpartition(".")[0] + ".")


# --- Whole requests


def test_two_rows_in_one_request_the_second_bad(shared_host):
    first = create_row(shared_host, CopyColumn.SOURCE, NOT_READY)
    second = create_row(shared_host, CopyColumn.SOURCE, NOT_READY)
    answer = shared_host.sender.set(
        (f"{CopyColumn.COMMAND}.{first}", ber.integer(3)),
        (f"{CopyColumn.NOTIFY}.{second}", ber.integer(9)),
    )
    assert (answer.error, answer.error_index) == (ber.WRONG_VALUE, 2)
    # Both are put back to 0: the first, whose value was good, as well.
    names = (f"{CopyColumn.COMMAND}.{first}", f"{CopyColumn.NOTIFY}.{second}")
    assert shared_host.values(*names) == [0, 0]
    assert shared_host.value(f"{CopyColumn.NOTIFY}.{first}") == 2


def test_request_with_one_bad_variable_names_it(shared_host):
    row = create_row(shared_host, CopyColumn.SOURCE, NOT_READY)
    answer = shared_host.sender.set(
        (f"{CopyColumn.SOURCE}.{row}", ber.octets(b"good")),
        (f"{CopyColumn.DESTINATION}.{row}", ber.octets(b"n" * 256)),
        (f"{CopyColumn.USER}.{row}", ber.octets(b"good")),
    )
    assert (answer.error, answer.error_index) == (ber.WRONG_LENGTH, 2)


def test_column_of_an_absent_row_is_no_such_name_in_snmpv3(v3_host):
    with pytest.raises(ToolError, match=r"Reason: \(noSuchName\) .*\nFailed object: \S+\.77\n"):
        v3_host.snmpset(f"{CopyColumn.SOURCE}.77", "s", "name", version="3")
    assert v3_host.value(f"{CopyColumn.ROW}.77") is None


@pytest.mark.parametrize("version", [ber.V1, ber.V2C])
def test_column_of_an_absent_row_is_no_such_name_in_every_version(shared_host, version):
    pair = (f"{CopyColumn.SOURCE}.{next(ROWS)}", ber.octets(b"name"))
    assert shared_host.set(pair, version=version) == ber.NO_SUCH_NAME


def test_2000_variables_in_one_request_are_answered(shared_host):
    row = create_row(shared_host, CopyColumn.SOURCE, NOT_READY)
    answer = shared_host.sender.get(*[f"{CopyColumn.COMMAND}.{row}"] * 2000)
    assert answer is not None and answer.error in (ber.NO_ERROR, ber.TOO_BIG)
    if answer.error == ber.NO_ERROR:
        assert [variable.value for variable in answer.variables] == [1] * 2000


def test_answer_beyond_a_datagram_does_not_harm_the_agent(shared_host):
    """The stock agent drops it instead of answering tooBig."""
    row = create_row(shared_host, CopyColumn.SOURCE, NOT_READY)
    name = f"{CopyColumn.SOURCE}.{row}"
    assert shared_host.set((name, ber.octets(b"n" * 255))) == ber.NO_ERROR
    answer = shared_host.sender.get(*[name] * 2000, timeout=0.5)
    assert answer is None or answer.error == ber.TOO_BIG
    assert shared_host.value(name) == b"n" * 255


DROPPED = {
    "IpAddress of 2 bytes": ber.tlv(ber.IP_ADDRESS, b"\x7f\0"),
    "IpAddress of 5 bytes": ber.tlv(ber.IP_ADDRESS, b"\x7f\0\0\1\2"),
    "unknown tag": ber.tlv(0x1F, b"\1"),
    "unknown context-class tag": ber.tlv(0x85, b"\1"),
    "INTEGER of 9 bytes": ber.tlv(ber.INTEGER, b"\1" * 9),
}


@pytest.mark.parametrize("name", DROPPED)
def test_malformed_value_is_dropped(shared_host, name):
    row = create_row(shared_host, CopyColumn.SERVER, NOT_READY)
    before = read_row(shared_host, CopyColumn.SERVER, row)
    assert (
        shared_host.sender.set((f"{CopyColumn.SERVER}.{row}", DROPPED[name]), timeout=0.2) is None
    )
    assert read_row(shared_host, CopyColumn.SERVER, row) == before


def test_name_of_129_arcs_is_dropped(shared_host):
    name = CopyColumn.ROW + ".1" * (129 - len(ber.arcs(CopyColumn.ROW)))
    value = ber.integer(CREATE_AND_WAIT)
    assert shared_host.sender.set((name, value), timeout=0.2) is None
    assert shared_host.value(f"{CopyColumn.ROW}.1") is None


def test_integer_above_32_bits_is_cut_or_dropped_by_the_agent(shared_host):
    """A 64-bit agent makes 0 of 2^32, which is no protocol; a 32-bit one takes it for damaged."""
    row = create_row(shared_host, CopyColumn.PROTOCOL, NOT_READY)
    before = read_row(shared_host, CopyColumn.PROTOCOL, row)
    pair = (f"{CopyColumn.PROTOCOL}.{row}", ber.integer(2**32))
    if sys.maxsize > 2**32:
        assert shared_host.set(pair) == ber.GEN_ERR
    else:
        assert shared_host.sender.set(pair, timeout=0.2) is None
        assert read_row(shared_host, CopyColumn.PROTOCOL, row) == before


def test_damaged_packets_do_not_harm_the_agent(shared_host):
    """Each byte of a SET in turn takes random values."""
    row = create_row(shared_host, CopyColumn.SOURCE, NOT_READY)
    chance = random.Random(row)
    bindings = [
        ber.binding(f"{CopyColumn.SOURCE}.{row}", ber.octets(b"name")),
        ber.binding(f"{CopyColumn.SERVER}.{row}", ber.address("127.0.0.1")),
        ber.binding(f"{CopyColumn.COMMAND}.{row}", ber.integer(3)),
    ]
    packet = ber.message(ber.SET, bindings)
    sender = ber.Sender(shared_host.address, 1161)
    for position in range(len(packet)):
        for _ in range(8):
            damaged = bytearray(packet)
            damaged[position] = chance.randrange(256)
            sender.send(bytes(damaged))
        # Keeps the agent's queue short, so that it takes every packet.
        assert shared_host.value(SYS_UP_TIME) is not None
    sender.close()
    assert shared_host.value(SCALAR) == 1
