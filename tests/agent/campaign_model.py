"""What SETs must do to the two writable tables, as far as a station can know it.

A SET is a list of variables [table, column, instance, kind, value], as they stand in the log of a
campaign. What the tables alone do not tell (has that copy ended yet?) is answered in all possible
ways: a SET has one or more outcomes, and one of them must have happened.
"""

import copy
from dataclasses import dataclass, field

import ber

from harness import (
    ACTIVE,
    COPY,
    CREATE_AND_GO,
    CREATE_AND_WAIT,
    DESTROY,
    FROM_FLASH,
    IN_PROGRESS,
    MISC,
    NEW_ROW,
    NOT_IN_SERVICE,
    NOT_READY,
    SUCCESS,
    TO_FLASH,
)

ROOTS = {"copy": COPY, "misc": MISC}
ENCODERS = {
    "integer": ber.integer,
    "text": lambda value: ber.octets(value.encode("latin-1")),
    "address": ber.address,
    "unsigned": lambda value: ber.integer(value, ber.UNSIGNED32),
    "ticks": lambda value: ber.integer(value, ber.TIME_TICKS),
    "counter64": lambda value: ber.integer(value, ber.COUNTER64),
    "object": ber.object_id,
    "opaque": lambda value: ber.tlv(ber.OPAQUE, value.encode("latin-1")),
    "null": lambda _: ber.null(),
    "nothing": lambda _: ber.tlv(ber.NO_SUCH_INSTANCE, b""),
}
LINE_CARD = 2  # the protocol that is answered as done
UNSET_ADDRESS = "0.0.0.0"
INVALID_COMMAND, INVALID_PROTOCOL, INVALID_SOURCE, INVALID_DESTINATION = 3, 4, 5, 6
MISC_NEW_ROW, DELETED, NOT_DELETED = 14, 2, 10
WITHOUT_ERASE, FROM_LOG, LEX, DELETE = 2, 4, 3, 3


def check_protocol(value):
    if value == LEX:
        return ber.WRONG_VALUE
    return ber.NO_ERROR if 1 <= value <= 6 else ber.GEN_ERR


def one_of(*values):
    return lambda value: ber.NO_ERROR if value in values else ber.WRONG_VALUE


@dataclass(frozen=True)
class Column:
    """A column: where it is, what it accepts. `kind` is None when it is read-only."""

    number: int
    kind: str = None
    longest: int = 255
    check: object = None
    is_status: bool = False


COLUMNS = {
    "copy": {
        "command": Column(2, "integer"),
        "protocol": Column(3, "integer", check=check_protocol),
        "server": Column(4, "address"),
        "source": Column(5, "text"),
        "destination": Column(6, "text"),
        "user": Column(7, "text"),
        "status": Column(8),
        "notify": Column(9, "integer", check=one_of(1, 2)),
        "time": Column(10),
        "entry": Column(11, "integer", is_status=True),
        "password": Column(12, "text", longest=40),
    },
    "misc": {
        "command": Column(2, "integer", check=one_of(DELETE)),
        "destination": Column(3, "text"),
        "status": Column(4),
        "notify": Column(5, "integer", check=one_of(1, 2)),
        "time": Column(6),
        "entry": Column(7, "integer", is_status=True),
    },
}
DEFAULTS = {
    "copy": {
        "command": 1,
        "protocol": 1,
        "server": "255.255.255.255",
        "source": "",
        "destination": "",
        "user": "",
        "status": NEW_ROW,
        "notify": 2,
        "entry": 0,
        "password": "",
    },
    "misc": {"command": 3, "destination": "", "status": MISC_NEW_ROW, "notify": 2, "entry": 0},
}
# What a walk shows of a row; the time is not the model's to know, the password nobody's.
VISIBLE = {
    table: {name: column for name, column in columns.items() if name not in ("time", "password")}
    for table, columns in COLUMNS.items()
}


def escaped(password):
    return "".join("\\" * (character in '"$[]\\') + character for character in password)


def pair(variable):
    """A variable as ber.Sender takes it."""
    table, column, instance, kind, value = variable
    number = COLUMNS[table][column].number
    name = f"{ROOTS[table]}.{number}" + "".join(f".{arc}" for arc in instance)
    return name, ENCODERS[kind](value)


def index_of(variable):
    """The row that a SET of the variable means: its last arc."""
    table, column, instance, _, _ = variable
    return instance[-1] if instance else COLUMNS[table][column].number


class Undecided(Exception):
    """A question that the model cannot answer; `answers` are the possible ones."""

    def __init__(self, answers):
        super().__init__()
        self.answers = answers


@dataclass
class Tables:
    """Both tables, the values that FREE puts back, and what the last SET set going."""

    rows: dict = field(default_factory=lambda: {"copy": {}, "misc": {}})
    saved: dict = field(default_factory=lambda: {"server": UNSET_ADDRESS})
    events: list = field(default_factory=list)  # ("start", row), ("abort", row), ("delete", name)


@dataclass(frozen=True)
class Outcome:
    error: int
    error_index: int
    tables: Tables

    def describe(self, touched):
        rows = {key: self.tables.rows[key[0]].get(key[1]) for key in touched}
        return f"error {self.error} at {self.error_index}, then {rows}"


def outcomes(tables, variables, world):
    """All that a SET may do. `world` answers what is not in the tables:

    max_rows        rows that a table may hold
    in_progress(rows)      possible answers to whether a copy runs
    resolves(name)         possible answers to whether a name is one of a file on flash
    deletes(name)          possible results of a delete
    may_be_destination(name)    like resolves, no directory
    """
    found, pending = [], [()]
    while pending:
        decided = pending.pop()
        attempt = _Set(copy.deepcopy(tables), variables, world, decided)
        try:
            found.append(attempt.run())
        except Undecided as question:
            pending += [(*decided, answer) for answer in question.answers]
    return found


class _Set:
    """One SET under one series of answers to what the model cannot know."""

    def __init__(self, tables, variables, world, decided):
        self._tables = tables
        tables.events = []
        self._variables = variables
        self._world = world
        self._decided = iter(decided)
        self._errors = [0] * len(variables)

    def _ask(self, answers):
        answers = list(answers)
        if len(answers) == 1:
            return answers[0]
        try:
            return next(self._decided)
        except StopIteration:
            raise Undecided(answers) from None

    def run(self):
        for number, variable in enumerate(self._variables):
            if variable[3] == "null":
                return Outcome(ber.WRONG_TYPE, number + 1, self._tables)
        phases = (self._reserve1, self._reserve2, self._action)
        for phase in phases:
            self._all(phase)
            if any(self._errors):
                if phase != self._action:
                    self._all(self._free)
                break
        failed = [number for number, error in enumerate(self._errors) if error]
        if failed:
            return Outcome(self._errors[failed[0]], failed[0] + 1, self._tables)
        return Outcome(ber.NO_ERROR, 0, self._tables)

    def _all(self, phase):
        """Calls a phase of every variable: column by column, in order of their first appearance."""
        groups = {}
        for number, (table, column, *_) in enumerate(self._variables):
            groups.setdefault((table, column), []).append(number)
        for (table, name), numbers in groups.items():
            column = COLUMNS[table][name]
            if column.kind is None:
                # The agent looks no further at the variables of this column.
                self._errors[numbers[0]] = ber.NOT_WRITABLE
                continue
            for number in numbers:
                variable = self._variables[number]
                error = phase(column, variable, index_of(variable))
                if column.is_status and index_of(variable) == 0:
                    error = ber.GEN_ERR
                if error:
                    self._errors[number] = error

    def _row(self, variable):
        return self._tables.rows[variable[0]].get(index_of(variable))

    # --- The phases

    def _reserve1(self, column, variable, index):
        table, _, _, kind, value = variable
        if kind != column.kind:
            return ber.WRONG_TYPE
        if kind == "text" and not 1 <= len(value) <= column.longest:
            return ber.WRONG_LENGTH
        if column.check is not None:
            return column.check(value)
        if not column.is_status or index == 0:
            return ber.NO_ERROR
        return self._reserve_entry(table, index, value)

    def _reserve_entry(self, table, index, value):
        rows = self._tables.rows[table]
        row = rows.get(index)
        if value not in (ACTIVE, NOT_IN_SERVICE, CREATE_AND_GO, CREATE_AND_WAIT, DESTROY):
            return ber.WRONG_VALUE
        if value == CREATE_AND_GO and row is not None:
            return ber.INCONSISTENT_VALUE
        # A delete is over before its SET is answered.
        if value == ACTIVE and table == "copy" and self._ask(self._world.in_progress(rows)):
            return ber.GEN_ERR
        if row is None:
            if value == DESTROY:
                return ber.NO_ERROR
            if len(rows) >= self._world.max_rows:
                return ber.GEN_ERR
            rows[index] = row = dict(DEFAULTS[table])
        elif value == CREATE_AND_WAIT:
            return ber.INCONSISTENT_VALUE
        row["entry"] = value
        return ber.NO_ERROR

    def _reserve2(self, column, variable, _index):
        name, value = variable[1], variable[4]
        if column.is_status:
            return ber.NO_ERROR
        row = self._row(variable)
        if row is None:
            return ber.NO_SUCH_NAME
        slot = name if variable[0] == "copy" else f"misc {name}"
        if column.kind == "address":
            self._tables.saved[slot] = row[name]
        if row["entry"] not in (NOT_READY, CREATE_AND_GO, CREATE_AND_WAIT):
            return ber.INCONSISTENT_VALUE
        if column.kind == "text":
            if row[name]:
                self._tables.saved[slot] = row[name][:-1]
            value = value.partition("\0")[0]
            if name == "password":
                value = escaped(value)
        row[name] = value
        return ber.NO_ERROR

    def _free(self, column, variable, _index):
        if column.is_status:
            return ber.NO_ERROR
        row, name = self._row(variable), variable[1]
        if row is None:
            return ber.NO_ERROR if column.kind == "text" else ber.NO_SUCH_NAME
        if row["entry"] in (ACTIVE, NOT_IN_SERVICE):
            return ber.NO_ERROR
        slot = name if variable[0] == "copy" else f"misc {name}"
        former = self._tables.saved.get(slot, "")
        if column.kind == "integer":
            row[name] = 0
        elif name != "source":
            row[name] = former
        elif former:
            row[name] = former[:-1]
        return ber.NO_ERROR

    def _action(self, column, variable, index):
        row = self._row(variable)
        if row is None:
            return ber.GEN_ERR if column.is_status else ber.NO_SUCH_NAME
        if not column.is_status or index == 0:
            return ber.NO_ERROR
        table, value = variable[0], variable[4]
        if value in (ACTIVE, CREATE_AND_GO):
            return self._start(row, index) if table == "copy" else self._delete(row)
        if value != DESTROY and row["entry"] == CREATE_AND_WAIT:
            row["entry"] = NOT_READY
            return ber.NO_ERROR
        if row["status"] == IN_PROGRESS:
            self._tables.events.append(("abort", index))
        if value == DESTROY:
            del self._tables.rows[table][index]
        else:
            row["entry"] = value
        return ber.NO_ERROR

    # --- What activation does

    def _delete(self, row):
        name = row["destination"]
        words = [word for word in name.split(":") if word]
        if not words:
            return ber.GEN_ERR
        if words[0] == "ilc-nvram":
            row["status"] = DELETED
        elif self._ask(self._world.resolves(name)):
            row["status"] = self._ask(self._world.deletes(name))
            self._tables.events.append(("delete", name))
        return ber.NO_ERROR

    def _start(self, row, index):
        if row["protocol"] == LINE_CARD:
            row.update(entry=ACTIVE, status=SUCCESS)
            return ber.NO_ERROR
        accepted, error = self._validate(row)
        if not accepted:
            return error
        row.update(entry=ACTIVE, status=IN_PROGRESS)
        self._tables.events.append(("start", index))
        return ber.NO_ERROR

    def _validate(self, row):
        accepted, error = True, ber.NO_ERROR
        active = row["entry"] == ACTIVE
        if row["command"] in (WITHOUT_ERASE, FROM_LOG):
            accepted, error = False, ber.WRONG_VALUE
            row["status"] = INVALID_COMMAND
        if row["server"] == UNSET_ADDRESS or not row["source"] or not row["protocol"]:
            if active:
                row["status"] = INVALID_PROTOCOL
                return False, ber.INCONSISTENT_VALUE
            accepted = False
            row["entry"] = NOT_READY
        if row["command"] in (TO_FLASH, WITHOUT_ERASE):
            possible = self._world.may_be_destination(row["destination"])
            verdict = INVALID_DESTINATION
        elif row["command"] == FROM_FLASH:
            possible, verdict = self._world.resolves(row["source"]), INVALID_SOURCE
        else:
            return accepted, error
        if self._ask(possible):
            return accepted, error
        if active:
            row["status"] = verdict
            return False, ber.GEN_ERR
        row["entry"] = NOT_READY
        return False, error


def visible(table, row, status=None):
    """A row as it reads, with another status if there is one."""
    return {name: row[name] for name in VISIBLE[table]} | ({"status": status} if status else {})


def read_row(table, variables):
    """A row as its visible columns read; None when there is none."""
    if any(variable.tag == ber.NO_SUCH_INSTANCE for variable in variables):
        return None
    row = {}
    for name, variable in zip(VISIBLE[table], variables):
        value = variable.value
        row[name] = value.decode("latin-1") if isinstance(value, bytes) else value
    return row


def row_names(table, index):
    return [f"{ROOTS[table]}.{column.number}.{index}" for column in VISIBLE[table].values()]
