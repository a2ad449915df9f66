"""Rows of the two writable tables: how they come, are filled, walked, change and go."""

import ber
import pytest

from harness import (
    ACTIVE,
    COPY,
    CREATE_AND_GO,
    CREATE_AND_WAIT,
    DESTROY,
    FALSE,
    MISC,
    NEW_ROW,
    NOT_IN_SERVICE,
    NOT_READY,
    ROOT,
    SUCCESS,
    TRUE,
    CopyColumn,
    MiscColumn,
)

COPY_COLUMNS = tuple(f"{COPY}.{column}" for column in range(2, 13))
MISC_COLUMNS = tuple(f"{MISC}.{column}" for column in range(2, 8))
INDEXES = (1, 7, 2147483647, 2147483648, 4294967295)
LINE_CARD_COPY = 2
INVALID_PROTOCOL = 4
MISC_INITIAL = 14


def create(host, column, *rows):
    for row in rows:
        assert host.set((f"{column}.{row}", ber.integer(CREATE_AND_WAIT))) == ber.NO_ERROR


def read(host, columns, row):
    return host.values(*(f"{column}.{row}" for column in columns))


# --- Creation, columns, read back


def test_new_copy_row_has_the_defaults(host):
    create(host, CopyColumn.ROW, 5)
    assert read(host, COPY_COLUMNS, 5) == [
        1,
        1,
        "255.255.255.255",
        b"",
        b"",
        b"",
        NEW_ROW,
        FALSE,
        0,
        NOT_READY,
        b"",
    ]


def test_new_misc_operation_row_has_the_defaults(host):
    create(host, MiscColumn.ROW, 5)
    assert read(host, MISC_COLUMNS, 5) == [3, b"", MISC_INITIAL, FALSE, 0, NOT_READY]


def test_columns_of_a_copy_row_read_back(host):
    create(host, CopyColumn.ROW, 5)
    host.snmpset(f"{CopyColumn.COMMAND}.5", "i", 3, f"{CopyColumn.PROTOCOL}.5", "i", 6)
    host.snmpset(f"{CopyColumn.SERVER}.5", "a", "192.0.2.7", f"{CopyColumn.NOTIFY}.5", "i", TRUE)
    host.snmpset(f"{CopyColumn.SOURCE}.5", "s", "slot0:a b", f"{CopyColumn.USER}.5", "s", "joe")
    host.snmpset(f"{CopyColumn.DESTINATION}.5", "x", "00FF")  # ends at its NUL
    host.snmpset(f"{CopyColumn.PASSWORD}.5", "s", "secret")
    assert read(host, COPY_COLUMNS, 5) == [
        3,
        6,
        "192.0.2.7",
        b"slot0:a b",
        b"",
        b"joe",
        NEW_ROW,
        TRUE,
        0,
        NOT_READY,
        b"",
    ]


def test_columns_of_a_misc_operation_row_read_back(host):
    create(host, MiscColumn.ROW, 5)
    host.snmpset(f"{MiscColumn.COMMAND}.5", "i", 3, f"{MiscColumn.NOTIFY}.5", "i", TRUE)
    host.snmpset(f"{MiscColumn.NAME}.5", "s", "slot0:old")
    assert read(host, MISC_COLUMNS, 5) == [3, b"slot0:old", MISC_INITIAL, TRUE, 0, NOT_READY]


def test_password_is_read_by_nobody(host):
    create(host, CopyColumn.ROW, 5)
    assert host.set((f"{CopyColumn.PASSWORD}.5", ber.octets(b"s3cr3t"))) == ber.NO_ERROR
    walked = host.bulkwalk(ROOT)
    assert (f"{CopyColumn.PASSWORD}.5", '""') in walked
    assert not [pair for pair in walked if "s3cr3t" in pair[1]]


@pytest.mark.parametrize("password, stored", [(b"a$b", r"a\\$b"), (b'"$[]\\', r'\\"\\$\\[\\]\\\\')])
def test_password_is_stored_escaped(host, password, stored):
    # The viewer shows each backslash as two.
    create(host, CopyColumn.ROW, 5)
    assert host.set((f"{CopyColumn.PASSWORD}.5", ber.octets(password))) == ber.NO_ERROR
    assert [
        line for line in host.trace() if line.endswith(f"The final password string is {stored}")
    ]


def test_rows_are_independent_of_each_other(host):
    create(host, CopyColumn.ROW, 5, 6)
    assert host.set((f"{CopyColumn.SOURCE}.5", ber.octets(b"five"))) == ber.NO_ERROR
    assert host.set((f"{CopyColumn.SOURCE}.6", ber.octets(b"six"))) == ber.NO_ERROR
    assert host.values(f"{CopyColumn.SOURCE}.5", f"{CopyColumn.SOURCE}.6") == [b"five", b"six"]


def test_table_that_became_empty_takes_rows_again(host):
    for _ in range(3):
        create(host, CopyColumn.ROW, 5, 6)
        for row in (5, 6):
            assert host.destroy(row) == ber.NO_ERROR
        assert host.value(f"{CopyColumn.ROW}.5") is None
        [variable] = host.sender.get_next(COPY).variables
        assert not f".{variable.name}".startswith(COPY)
    create(host, CopyColumn.ROW, 6)
    assert host.copy_status(6) == NEW_ROW


# --- Walks


@pytest.fixture(name="rows")
def fixture_rows(host):
    """A host with rows in both tables, created in no order."""
    for row in (INDEXES[3], INDEXES[0], INDEXES[4], INDEXES[2], INDEXES[1]):
        create(host, CopyColumn.ROW, row)
        create(host, MiscColumn.ROW, row)
    return host


EVERY_INSTANCE = [f"{column}.{row}" for column in (*COPY_COLUMNS, *MISC_COLUMNS) for row in INDEXES]


def test_walk_meets_every_instance_once_in_order(rows):
    names = [name for name, _ in rows.walk(f"{ROOT}.1.2")]
    assert names == EVERY_INSTANCE


@pytest.mark.parametrize("repetitions", [1, 3, 50])
def test_bulk_walk_meets_every_instance_once_in_order(rows, repetitions):
    names = [name for name, _ in rows.bulkwalk(f"{ROOT}.1.2", repetitions)]
    assert names == EVERY_INSTANCE


def test_walk_of_everything_ends_with_the_rows(rows):
    names = [name for name, _ in rows.walk(ROOT)]
    assert names[-len(EVERY_INSTANCE) :] == EVERY_INSTANCE


def test_walk_goes_on_from_a_row_that_was_deleted(rows):
    assert rows.destroy(7) == ber.NO_ERROR
    [variable] = rows.sender.get_next(f"{CopyColumn.COMMAND}.7").variables
    assert f".{variable.name}" == f"{CopyColumn.COMMAND}.2147483647"


@pytest.mark.parametrize("index", INDEXES)
def test_row_of_every_index_can_be_filled_and_destroyed(rows, index):
    name = f"{CopyColumn.SOURCE}.{index}"
    assert rows.set((name, ber.octets(b"name"))) == ber.NO_ERROR
    assert rows.value(name) == b"name"
    assert rows.destroy(index) == ber.NO_ERROR
    assert rows.value(name) is None


@pytest.mark.parametrize(
    "start, successor",
    [
        (COPY, "2.3"),
        (f"{COPY}.1.9", "2.3"),
        (f"{COPY}.2", "2.3"),
        (f"{COPY}.2.0", "2.3"),
        (f"{COPY}.2.5", "2.7"),
        (f"{COPY}.2.5.99", "2.7"),
        (f"{COPY}.2.7", "2.9"),
        (f"{COPY}.2.7.99", "2.9"),
        (f"{COPY}.2.9", "3.3"),
        (f"{COPY}.2.4294967295", "3.3"),
        (f"{COPY}.11.9", "12.3"),
    ],
)
def test_getnext_in_the_copy_table(shared_host, start, successor):
    for row in (3, 7, 9):
        if shared_host.copy_status(row) is None:
            create(shared_host, CopyColumn.ROW, row)
    [variable] = shared_host.sender.get_next(start).variables
    assert f".{variable.name}" == f"{COPY}.{successor}"


@pytest.mark.parametrize("instance", ["5", "7.99", "0", "0.7"])
def test_get_of_no_row_has_no_instance(shared_host, instance):
    if shared_host.copy_status(7) is None:
        create(shared_host, CopyColumn.ROW, 7)
    [variable] = shared_host.variables(f"{CopyColumn.COMMAND}.{instance}")
    assert variable.tag == ber.NO_SUCH_INSTANCE


def test_getnext_on_an_empty_copy_table_goes_to_the_misc_operation_table(host):
    create(host, MiscColumn.ROW, 4)
    [variable] = host.sender.get_next(CopyColumn.COMMAND).variables
    assert f".{variable.name}" == f"{MiscColumn.COMMAND}.4"


def test_getnext_on_empty_tables_leaves_the_module(host):
    [variable] = host.sender.get_next(CopyColumn.COMMAND).variables
    assert not f".{variable.name}".startswith(ROOT)


# --- The row status

ABSENT = None
# Row before, value, answer, row afterwards. A row that is asked to become active without a source
# name is refused; a finished line-card copy plays the active row.
COPY_TRANSITIONS = [
    (ABSENT, CREATE_AND_GO, ber.NO_ERROR, NOT_READY),
    (ABSENT, CREATE_AND_WAIT, ber.NO_ERROR, NOT_READY),
    (ABSENT, ACTIVE, ber.INCONSISTENT_VALUE, ACTIVE),
    (ABSENT, NOT_IN_SERVICE, ber.NO_ERROR, NOT_IN_SERVICE),
    (ABSENT, DESTROY, ber.GEN_ERR, ABSENT),
    (ABSENT, NOT_READY, ber.WRONG_VALUE, ABSENT),
    (NOT_READY, CREATE_AND_GO, ber.INCONSISTENT_VALUE, NOT_READY),
    (NOT_READY, CREATE_AND_WAIT, ber.INCONSISTENT_VALUE, NOT_READY),
    (NOT_READY, ACTIVE, ber.INCONSISTENT_VALUE, ACTIVE),
    (NOT_READY, NOT_IN_SERVICE, ber.NO_ERROR, NOT_IN_SERVICE),
    (NOT_READY, DESTROY, ber.NO_ERROR, ABSENT),
    (NOT_READY, NOT_READY, ber.WRONG_VALUE, NOT_READY),
    (NOT_IN_SERVICE, CREATE_AND_GO, ber.INCONSISTENT_VALUE, NOT_IN_SERVICE),
    (NOT_IN_SERVICE, CREATE_AND_WAIT, ber.INCONSISTENT_VALUE, NOT_IN_SERVICE),
    (NOT_IN_SERVICE, ACTIVE, ber.INCONSISTENT_VALUE, ACTIVE),
    (NOT_IN_SERVICE, NOT_IN_SERVICE, ber.NO_ERROR, NOT_IN_SERVICE),
    (NOT_IN_SERVICE, DESTROY, ber.NO_ERROR, ABSENT),
    (NOT_IN_SERVICE, NOT_READY, ber.WRONG_VALUE, NOT_IN_SERVICE),
    (ACTIVE, CREATE_AND_GO, ber.INCONSISTENT_VALUE, ACTIVE),
    (ACTIVE, CREATE_AND_WAIT, ber.INCONSISTENT_VALUE, ACTIVE),
    (ACTIVE, ACTIVE, ber.NO_ERROR, ACTIVE),
    (ACTIVE, NOT_IN_SERVICE, ber.NO_ERROR, NOT_IN_SERVICE),
    (ACTIVE, DESTROY, ber.NO_ERROR, ABSENT),
    (ACTIVE, NOT_READY, ber.WRONG_VALUE, ACTIVE),
]
# An operation on line-card NVRAM plays the active row. One without a name is a general error that
# leaves the row as it was stored.
MISC_DIFFERENCES = {
    (ABSENT, CREATE_AND_GO): (ber.GEN_ERR, CREATE_AND_GO),
    (ABSENT, ACTIVE): (ber.GEN_ERR, ACTIVE),
    (NOT_READY, ACTIVE): (ber.GEN_ERR, ACTIVE),
    (NOT_IN_SERVICE, ACTIVE): (ber.GEN_ERR, ACTIVE),
}
MISC_TRANSITIONS = [
    (before, value, *MISC_DIFFERENCES.get((before, value), usual))
    for before, value, *usual in COPY_TRANSITIONS
]


def prepare_row(host, table, before):
    if before is ABSENT:
        return
    create(host, table.ROW, 5)
    if before == ACTIVE and table is CopyColumn:
        pair = (f"{CopyColumn.PROTOCOL}.5", ber.integer(LINE_CARD_COPY))
        assert host.set(pair) == ber.NO_ERROR
    if before == ACTIVE and table is MiscColumn:
        assert host.set((f"{MiscColumn.NAME}.5", ber.octets(b"ilc-nvram:file"))) == ber.NO_ERROR
    if before != NOT_READY:
        assert host.set((f"{table.ROW}.5", ber.integer(before))) == ber.NO_ERROR
    assert host.value(f"{table.ROW}.5") == before


def forget_row(host, table):
    if host.value(f"{table.ROW}.5") is not None:
        assert host.set((f"{table.ROW}.5", ber.integer(DESTROY))) == ber.NO_ERROR


@pytest.mark.parametrize("before, value, answer, after", COPY_TRANSITIONS)
def test_row_status_of_a_copy(shared_host, before, value, answer, after):
    prepare_row(shared_host, CopyColumn, before)
    assert shared_host.set((f"{CopyColumn.ROW}.5", ber.integer(value))) == answer
    assert shared_host.value(f"{CopyColumn.ROW}.5") == after
    forget_row(shared_host, CopyColumn)


@pytest.mark.parametrize("before, value, answer, after", MISC_TRANSITIONS)
def test_row_status_of_a_misc_operation(shared_host, before, value, answer, after):
    prepare_row(shared_host, MiscColumn, before)
    assert shared_host.set((f"{MiscColumn.ROW}.5", ber.integer(value))) == answer
    assert shared_host.value(f"{MiscColumn.ROW}.5") == after
    forget_row(shared_host, MiscColumn)


def test_incomplete_active_row_tells_why_it_was_refused(host):
    create(host, CopyColumn.ROW, 5)
    assert host.activate(5) == ber.INCONSISTENT_VALUE
    assert host.copy_status(5) == INVALID_PROTOCOL


def test_finished_row_stays(host):
    """It is aged out after 305 seconds, not before."""
    create(host, CopyColumn.ROW, 5)
    assert host.set((f"{CopyColumn.PROTOCOL}.5", ber.integer(LINE_CARD_COPY))) == ber.NO_ERROR
    assert host.activate(5) == ber.NO_ERROR
    assert (host.copy_status(5), host.value(f"{CopyColumn.ROW}.5")) == (SUCCESS, ACTIVE)


# --- Several variables in one SET


@pytest.mark.parametrize("order", ["row status first", "row status last"])
def test_row_and_columns_in_one_request(host, order):
    pairs = [
        (f"{CopyColumn.ROW}.5", ber.integer(CREATE_AND_WAIT)),
        (f"{CopyColumn.SOURCE}.5", ber.octets(b"name")),
        (f"{CopyColumn.SERVER}.5", ber.address("192.0.2.7")),
        (f"{CopyColumn.PROTOCOL}.5", ber.integer(4)),
    ]
    if order == "row status last":
        pairs.reverse()
    assert host.set(*pairs) == ber.NO_ERROR
    names = [
        f"{column}.5"
        for column in (CopyColumn.ROW, CopyColumn.SOURCE, CopyColumn.SERVER, CopyColumn.PROTOCOL)
    ]
    assert host.values(*names) == [NOT_READY, b"name", "192.0.2.7", 4]


def test_one_column_of_two_rows_in_one_request(host):
    create(host, CopyColumn.ROW, 5, 6)
    names = [f"{CopyColumn.SOURCE}.5", f"{CopyColumn.SOURCE}.6"]
    assert host.set((names[0], ber.octets(b"five")), (names[1], ber.octets(b"six"))) == ber.NO_ERROR
    assert host.values(*names) == [b"five", b"six"]


def test_last_value_of_a_column_named_twice_is_stored(host):
    create(host, CopyColumn.ROW, 5)
    name = f"{CopyColumn.SOURCE}.5"
    assert host.set((name, ber.octets(b"first")), (name, ber.octets(b"second"))) == ber.NO_ERROR
    assert host.value(name) == b"second"


def test_request_that_fails_leaves_the_row_that_it_created(host):
    answer = host.sender.set(
        (f"{CopyColumn.ROW}.5", ber.integer(CREATE_AND_WAIT)),
        (f"{CopyColumn.NOTIFY}.5", ber.integer(3)),
    )
    assert (answer.error, answer.error_index) == (ber.WRONG_VALUE, 2)
    assert host.value(f"{CopyColumn.ROW}.5") == CREATE_AND_WAIT


# --- What a refused request leaves


@pytest.fixture(name="refused")
def fixture_refused(host):
    """A host with row 5, of which a request stored columns before it failed for row 99."""
    create(host, CopyColumn.ROW, 5)
    old = [
        (f"{CopyColumn.COMMAND}.5", ber.integer(3)),
        (f"{CopyColumn.PROTOCOL}.5", ber.integer(4)),
        (f"{CopyColumn.SERVER}.5", ber.address("192.0.2.7")),
        (f"{CopyColumn.SOURCE}.5", ber.octets(b"abcd")),
        (f"{CopyColumn.DESTINATION}.5", ber.octets(b"efgh")),
        (f"{CopyColumn.NOTIFY}.5", ber.integer(1)),
    ]
    assert host.set(*old) == ber.NO_ERROR
    new = [
        (f"{CopyColumn.COMMAND}.5", ber.integer(1)),
        (f"{CopyColumn.PROTOCOL}.5", ber.integer(1)),
        (f"{CopyColumn.SERVER}.5", ber.address("192.0.2.8")),
        (f"{CopyColumn.SOURCE}.5", ber.octets(b"new source")),
        (f"{CopyColumn.DESTINATION}.5", ber.octets(b"new destination")),
        (f"{CopyColumn.NOTIFY}.5", ber.integer(2)),
        (f"{CopyColumn.USER}.99", ber.octets(b"nobody")),
    ]
    answer = host.sender.set(*new)
    assert (answer.error, answer.error_index) == (ber.NO_SUCH_NAME, len(new))
    return host


@pytest.mark.parametrize("column", [CopyColumn.COMMAND, CopyColumn.PROTOCOL, CopyColumn.NOTIFY])
def test_refused_request_leaves_integers_0(refused, column):
    assert refused.value(f"{column}.5") == 0


def test_refused_request_puts_the_address_back(refused):
    assert refused.value(f"{CopyColumn.SERVER}.5") == "192.0.2.7"


def test_refused_request_puts_the_source_name_back_without_its_last_two_characters(refused):
    assert refused.value(f"{CopyColumn.SOURCE}.5") == b"ab"


def test_refused_request_puts_the_destination_name_back_without_its_last_character(refused):
    assert refused.value(f"{CopyColumn.DESTINATION}.5") == b"efg"


def test_refused_request_does_not_touch_an_active_row(host):
    prepare_row(host, CopyColumn, ACTIVE)
    before = read(host, COPY_COLUMNS, 5)
    pairs = [
        (f"{CopyColumn.COMMAND}.5", ber.integer(3)),
        (f"{CopyColumn.SOURCE}.5", ber.octets(b"x")),
    ]
    assert host.set(*pairs) == ber.INCONSISTENT_VALUE
    assert read(host, COPY_COLUMNS, 5) == before


# --- As many rows as the configuration allows


@pytest.fixture(name="three_row_host")
def fixture_three_row_host(idle_host):
    """A running host whose tables hold three rows each."""
    idle_host.agent_settings = {"max_rows": 3}
    idle_host.start()
    return idle_host


@pytest.mark.parametrize("column", [CopyColumn.ROW, MiscColumn.ROW])
@pytest.mark.parametrize("value", [CREATE_AND_WAIT, CREATE_AND_GO, ACTIVE, NOT_IN_SERVICE])
def test_row_beyond_the_limit_is_a_general_error(three_row_host, column, value):
    create(three_row_host, column, 1, 5, 9)
    answer = three_row_host.sender.set((f"{column}.7", ber.integer(value)))
    assert (answer.error, answer.error_index) == (ber.GEN_ERR, 1)
    rows = [name.rpartition(".")[2] for name, _ in three_row_host.walk(column)]
    assert rows == ["1", "5", "9"]


def test_tables_are_limited_each_by_itself(three_row_host):
    create(three_row_host, CopyColumn.ROW, 1, 2, 3)
    create(three_row_host, MiscColumn.ROW, 1, 2, 3)


def test_columns_of_a_row_beyond_the_limit_are_refused_with_it(three_row_host):
    create(three_row_host, CopyColumn.ROW, 1, 2, 3)
    status = three_row_host.set(
        (f"{CopyColumn.ROW}.4", ber.integer(CREATE_AND_WAIT)),
        (f"{CopyColumn.SOURCE}.4", ber.octets(b"image.bin")),
    )
    assert status == ber.GEN_ERR
    assert three_row_host.value(f"{CopyColumn.SOURCE}.4") is None


@pytest.mark.parametrize("column", [CopyColumn.ROW, MiscColumn.ROW])
def test_row_is_added_again_after_one_of_a_full_table_was_destroyed(three_row_host, column):
    create(three_row_host, column, 1, 5, 9)
    assert three_row_host.set((f"{column}.5", ber.integer(DESTROY))) == ber.NO_ERROR
    create(three_row_host, column, 7)
    assert three_row_host.value(f"{column}.7") == NOT_READY
    assert three_row_host.set((f"{column}.8", ber.integer(CREATE_AND_WAIT))) == ber.GEN_ERR


@pytest.mark.provokes("ruma: the … table is full: max_rows is …")
def test_full_table_is_logged_once_with_its_name(three_row_host):
    create(three_row_host, CopyColumn.ROW, 1, 2, 3)
    create(three_row_host, MiscColumn.ROW, 1, 2, 3)
    for row in range(4, 50):
        for column in (CopyColumn.ROW, MiscColumn.ROW):
            assert three_row_host.set((f"{column}.{row}", ber.integer(CREATE_AND_WAIT)))
    log = three_row_host.agent_log.read_text()
    for table in ("copy", "misc-operation"):
        assert log.count(f"ruma: the {table} table is full: max_rows is 3\n") == 1
