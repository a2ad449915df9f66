"""The operations of a campaign, drawn from a seed alone: the same seed, the same operations.

An operation is a list, one line of JSON in a campaign's log:

  ["set", VARIABLE...]        VARIABLE as in campaign_model; the addresses @tftp, @ftp, @ssh,
                              @nobody and the passwords @right and @wrong stand for those of the run
  ["get", NAME...] ["walk", NAME, REPETITIONS]      0 repetitions: by GETNEXT
  ["signal", ROLE, NTH, NUMBER]    to the NTH process of that role in a transfer, if there is one
  ["continue"]                SIGCONT to all that were stopped
  ["reload"]                  SIGHUP to the agent
  ["daemon", "kill"|"start"|"stop"|"continue"]
  ["pause", MILLISECONDS]
  ["rest"]                    everything comes to its end, and is looked at
"""

import random
import signal

from campaign_model import COLUMNS
from campaign_tftp import MISBEHAVIOUR
from harness import (
    ACTIVE,
    COPY,
    CREATE_AND_GO,
    CREATE_AND_WAIT,
    DESTROY,
    DEVICE,
    FILE,
    FROM_FLASH,
    FTP,
    MISC,
    NOT_IN_SERVICE,
    PARTITION,
    ROOT,
    SCALAR,
    SCP,
    SFTP,
    TFTP,
    TO_FLASH,
)

FILES = 12  # on each server, and on flash
# Rows that single SETs fight over, and rows that whole copies use.
FEW_ROWS = (1, 2, 3, 4, 5, 6)
ODD_ROWS = (0, 7, 11, 2**31 - 1, 2**31, 2**31 + 5, 2**32 - 1)
MANY_ROWS = range(100, 140)
COPY_ROWS = range(201, 213)
SERVER_OF = {TFTP: "@tftp", FTP: "@ftp", SCP: "@ssh", SFTP: "@ssh"}
ROLES = ("worker", "shell", "script", "client")
SIGNALS = (signal.SIGKILL, signal.SIGTERM, signal.SIGHUP, signal.SIGINT, signal.SIGSTOP)
BAD_NAMES = (
    "bootflash:",
    "bootflash:sub",
    "bootflash:out/file",
    "bootflash:outfile",
    "bootflash:../outside/file",
    "bootflash:sub/../../outside/file",
    "bootflash:absent/file",
    "bootflash:a b",
    "bootflash:\xe4\xff\x80",
    "nowhere:file",
    "core:file",
    "standby-sup",
    "log:messages",
    ":",
    "::",
    "-x",
    "file\0hidden",
    "bootflash:" + "l" * 245,
    "bootflash:" + "n" * 235,
)
GOOD_INTEGERS = {
    "command": (1, 3),
    "protocol": (1, 1, 1, 2, 4, 5, 6),
    "notify": (1, 2),
    "entry": (ACTIVE, NOT_IN_SERVICE, CREATE_AND_GO, CREATE_AND_WAIT, DESTROY),
}
ADDRESSES = ("@tftp", "@tftp", "@ftp", "@ssh", "@nobody", "0.0.0.0")
BAD_INTEGERS = (-(2**31), -1, 0, 2, 3, 4, 7, 255, 256, 2**31 - 1)
OTHER_KINDS = {
    "integer": 3,
    "text": "text",
    "address": "@tftp",
    "unsigned": 1,
    "ticks": 1,
    "counter64": 1,
    "object": "1.3.6.1",
    "opaque": "\1",
    "null": None,
    "nothing": None,
}
WALKS = (ROOT, ROOT, DEVICE, PARTITION, FILE, COPY, MISC)


def file_name(number):
    return f"file-{number:02}"


class Draw:
    """Draws operations without end."""

    def __init__(self, seed, rest_every=400):
        self._random = random.Random(seed)
        self._rest_every = rest_every
        self._number = 0
        self._coming = []  # sequences of operations that others come between

    def __iter__(self):
        return self

    def __next__(self):
        self._number += 1
        if self._number % self._rest_every == 0:
            return ["rest"]
        if self._coming and self._random.random() < 0.6:
            sequence = self._random.choice(self._coming)
            operation = sequence.pop(0)
            if not sequence:
                self._coming.remove(sequence)
            return operation
        return self._fresh()

    def _fresh(self):
        kinds = {
            self._column: 24,
            self._entry: 14,
            self._several: 12,
            self._whole_copy: 8,
            self._whole_delete: 3,
            self._fill_up: 0.3,
            self._get: 5,
            self._walk: 1.5,
            self._signal: 3,
            self._reload: 0.3,
            self._daemon: 0.3,
            self._pause: 2,
        }
        return self._random.choices(list(kinds), kinds.values())[0]()

    def _chance(self, probability):
        return self._random.random() < probability

    # --- Single SETs

    def _row(self):
        rows = self._random.choices((FEW_ROWS, ODD_ROWS, COPY_ROWS, MANY_ROWS), (16, 4, 1, 1))[0]
        return self._random.choice(rows)

    def _instance(self, row=None):
        row = self._row() if row is None else row
        if self._chance(0.96):
            return [row]
        return self._random.choice(([], [77, row], [row, 0, row]))

    def _name(self, column):
        if column == "user":
            return self._random.choice(("operator1", "x"))
        if column == "password":
            return self._random.choice(("@right", "@wrong", "x"))
        local = f"{self._random.choice(('bootflash', 'slot0'))}:"
        names = (
            local + file_name(self._random.randrange(FILES)),
            local + f"shared-{self._random.randrange(3)}",
            file_name(self._random.randrange(FILES)),
            f"ilc-nvram:{self._random.randrange(3)}",
            self._random.choice(BAD_NAMES),
        )
        if column == "destination":
            names = names[1:]  # what copies send is not written over
        return self._random.choice(names)

    def _value(self, table, column):
        """A kind and a value, mostly good ones."""
        kind = COLUMNS[table][column].kind or "integer"
        if self._chance(0.04):
            kind = self._random.choice(list(OTHER_KINDS))
            return kind, OTHER_KINDS[kind]
        if kind == "integer":
            good = GOOD_INTEGERS.get(column, (1,))
            if (table, column) == ("misc", "command"):
                good = (3,)
            return kind, self._random.choice(BAD_INTEGERS if self._chance(0.15) else good)
        if kind == "address":
            return kind, self._random.choice(ADDRESSES)
        if self._chance(0.08):
            return kind, "n" * self._random.choice((0, 1, 40, 41, 255, 256, 600))
        return kind, self._name(column)

    def _variable(self, row=None):
        table = self._random.choices(("copy", "misc"), (3, 1))[0]
        column = self._random.choice(list(COLUMNS[table]))
        return [table, column, self._instance(row), *self._value(table, column)]

    def _column(self):
        return ["set", self._variable()]

    def _entry(self):
        table = self._random.choices(("copy", "misc"), (3, 1))[0]
        return ["set", [table, "entry", self._instance(), *self._value(table, "entry")]]

    def _several(self):
        row = self._row() if self._chance(0.7) else None
        variables = [self._variable(row) for _ in range(self._random.randint(2, 7))]
        if self._chance(0.3):
            instance = [self._row() if row is None else row]
            entry = self._random.choice((CREATE_AND_GO, CREATE_AND_WAIT))
            variables.insert(0, ["copy", "entry", instance, "integer", entry])
        return ["set", *variables]

    # --- Sequences

    def _begin(self, sequence):
        self._coming.append(sequence)
        return sequence.pop(0)

    def _whole_copy(self):
        row = self._random.choice(COPY_ROWS)
        columns = self._copy_columns(row)
        sequence = [set_entry("copy", row, DESTROY)]
        if self._chance(0.6):
            go = set_entry("copy", row, CREATE_AND_GO)
            sequence.append(go + columns)
        else:
            cut = self._random.randint(0, len(columns) - 1)
            sequence.append(set_entry("copy", row, CREATE_AND_WAIT))
            sequence += [["set", *part] for part in (columns[:cut], columns[cut:]) if part]
            sequence.append(set_entry("copy", row, ACTIVE))
        # A server that holds a copy up leaves it to the abort to end it.
        held = any(str(value).startswith("hold-") for *_, value in columns)
        if held or self._chance(0.3):
            sequence.append(["pause", self._random.randrange(300)])
            sequence.append(set_entry("copy", row, self._random.choice((DESTROY, NOT_IN_SERVICE))))
        return self._begin(sequence)

    def _copy_columns(self, row):
        protocol = self._random.choices((TFTP, FTP, SCP, SFTP), (9, 2, 2, 2))[0]
        command = self._random.choice((TO_FLASH, FROM_FLASH))
        remote = file_name(self._random.randrange(FILES))
        local = f"{self._random.choice(('bootflash', 'slot0'))}:"
        local += self._random.choice(("", "", "", "sub/"))
        if command == TO_FLASH:
            source, destination = remote, f"{local}u{self._number:06}"
            if self._chance(0.1):
                source = f"none-{row}"
        else:
            local = local.removesuffix("sub/")
            source, destination = local + remote, f"r{self._number:06}"
        if protocol == TFTP and self._chance(0.35):
            behaviour = self._random.choice((*MISBEHAVIOUR, "hold", "hold", "hold"))
            if command == TO_FLASH:
                source = f"{behaviour}-{remote}"
            else:
                destination = f"{behaviour}-{destination}"
        server = SERVER_OF[protocol] if self._chance(0.95) else "@nobody"
        password = "@right" if self._chance(0.95) else "@wrong"
        values = {
            "command": ("integer", command),
            "protocol": ("integer", protocol),
            "server": ("address", server),
            "source": ("text", source),
            "destination": ("text", destination),
            "notify": ("integer", self._random.choice((1, 2))),
        }
        if protocol != TFTP:
            values |= {"user": ("text", "operator1"), "password": ("text", password)}
        if command == FROM_FLASH and self._chance(0.1):
            del values["destination"]  # the name of the source is used
        return [["copy", column, [row], *value] for column, value in values.items()]

    def _whole_delete(self):
        row = self._random.choice(COPY_ROWS)
        number = self._random.randrange(max(0, self._number - 200), self._number)
        name = f"{self._random.choice(('bootflash', 'slot0'))}:u{number:06}"
        if self._chance(0.5):
            name = self._name("destination")
        name = ["misc", "destination", [row], "text", name]
        if self._chance(0.5):
            sequence = [set_entry("misc", row, CREATE_AND_GO) + [name]]
        else:
            sequence = [set_entry("misc", row, CREATE_AND_WAIT), ["set", name]]
            sequence.append(set_entry("misc", row, ACTIVE))
        return self._begin([*sequence, set_entry("misc", row, DESTROY)])

    def _fill_up(self):
        """Rows up to the limit of a table and beyond, and away again."""
        table = self._random.choice(("copy", "misc"))
        rows = MANY_ROWS[: self._random.randint(10, len(MANY_ROWS))]
        made = [set_entry(table, row, CREATE_AND_WAIT) for row in rows]
        return self._begin(made + [set_entry(table, row, DESTROY) for row in rows])

    # --- Everything else

    def _get(self):
        names = []
        for _ in range(self._random.randint(1, 6)):
            column = self._random.choice((DEVICE, PARTITION, FILE, COPY, MISC))
            arcs = [self._random.randrange(14), *self._instance()]
            names.append(column + "".join(f".{arc}" for arc in arcs))
        return ["get", SCALAR, *names]

    def _walk(self):
        return ["walk", self._random.choice(WALKS), self._random.choice((0, 1, 20))]

    def _signal(self):
        if self._chance(0.25):
            return ["continue"]
        number = int(self._random.choice(SIGNALS))
        return ["signal", self._random.choice(ROLES), self._random.randrange(4), number]

    def _reload(self):
        return ["reload"]

    def _daemon(self):
        first, second = self._random.choice((("kill", "start"), ("stop", "continue")))
        pauses = [["pause", self._random.randrange(20)] for _ in range(self._random.randrange(5))]
        return self._begin([["daemon", first], *pauses, ["daemon", second]])

    def _pause(self):
        return ["pause", self._random.randrange(10)]


def set_entry(table, row, value):
    return ["set", [table, "entry", [row], "integer", value]]


def honest_get(row, protocol, source, destination):
    """The variables that start a copy to flash which must succeed."""
    values = {
        "entry": ("integer", CREATE_AND_GO),
        "command": ("integer", TO_FLASH),
        "protocol": ("integer", protocol),
        "server": ("address", SERVER_OF[protocol]),
        "source": ("text", source),
        "destination": ("text", destination),
        "user": ("text", "operator1"),
        "password": ("text", "@right"),
    }
    return [["copy", column, [row], *value] for column, value in values.items()]
