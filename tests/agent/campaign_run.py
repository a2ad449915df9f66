"""Carries out the operations of a campaign, and checks everything that must hold."""

import collections
import contextlib
import json
import os
import re
import signal
import time
from pathlib import Path

import ber

import campaign_model as model
from campaign_draw import file_name, honest_get, set_entry
from campaign_world import FAILURES, Violation, Worker, expect
from harness import (
    DEVICE,
    FROM_FLASH,
    FTP,
    IN_PROGRESS,
    ROOT,
    SCHEMES,
    SUCCESS,
    TFTP,
    live_children,
    process_state,
    processes,
)

MOST_COPIES = 5  # at once: what the servers take without refusing anybody
SWEEP_ROW = 250
TEMPORARY = {TFTP: ".tftp-", FTP: ".transfer-"}  # FTP: every protocol of a script
OWNER = re.compile(r"\.(?:tftp|transfer)-(\d+)-[0-9a-f]+")  # process id of who receives
# Patience in seconds. Everything comes long before on an idle machine.
ANSWER = 10
ABORTED = 10  # the processes of a copy that was aborted
REAPED = 10
AT_REST = 60
ROLES = ("worker", "shell", "script")  # by generation; those further below are clients


def is_fork(pid, parent):
    """Whether a process still runs the program of its parent."""
    with contextlib.suppress(OSError):
        return os.readlink(f"/proc/{pid}/exe") == os.readlink(f"/proc/{parent}/exe")
    return False


def same_group(pid, other):
    with contextlib.suppress(ProcessLookupError):
        return os.getpgid(pid) == os.getpgid(other)
    return False


class Campaign:
    """Operations on a world. Raises Violation when something does not hold."""

    def __init__(self, world, log=None):
        self.world = world
        self.device = world.device
        self.servers = world.servers
        self.tables = model.Tables()
        self.operations = 0
        self.recent = collections.deque(maxlen=50)
        self.counts = collections.Counter()
        self.results = collections.Counter()
        self._log = log
        self._agent = self.device.agent.pid
        self._last_worker = None
        self._starts = 0
        self._start_of_row = {}  # row -> number of its last start
        self._endless = set()  # rows that a command of no meaning has left in progress
        self._stopped = set()
        self._outright = set()  # process ids of those that were ended before they could clean up
        self._staged = set()  # names that may stand in the staging directory
        self._descriptors = None  # at the first rest
        self._outside = self.device.outside()

    def run(self, operations):
        for operation in operations:
            self.perform(operation)

    def perform(self, operation):
        line = json.dumps(operation)
        self.operations += 1
        self.recent.append(f"{self.operations}: {line}")
        if self._log is not None:
            # Before it happens: it may be the last thing that happens.
            print(line, file=self._log, flush=True)
        kind, *arguments = operation
        self.counts[kind] += 1
        try:
            getattr(self, f"_do_{kind}")(*arguments)
            self._watch()
        except AssertionError as error:
            raise Violation(str(error)) from error

    def _ask(self, request, *arguments, **options):
        answer = request(*arguments, timeout=ANSWER, **options)
        expect(answer is not None, "the agent does not answer")
        return answer

    def _get_all(self, names):
        answer = self._ask(self.device.sender.get, *names)
        expect(answer.error == ber.NO_ERROR, f"a GET is answered with error {answer.error}")
        return answer.variables

    def _row(self, table, index):
        return model.read_row(table, self._get_all(model.row_names(table, index)))

    def _await(self, condition, what, timeout):
        """Waits for a condition, with everything watched meanwhile; `what` says it."""
        deadline = time.monotonic() + timeout
        while not condition():
            expect(time.monotonic() < deadline, f"not within {timeout} seconds: {what()}")
            time.sleep(0.005)
            self._watch()

    # --- SET

    def _do_set(self, *variables):
        variables = [self._of_this_run(variable) for variable in variables]
        possible = model.outcomes(self.tables, variables, self.world)
        if any(event == "start" for each in possible for event, _ in each.tables.events):
            self._await_room()
            possible = model.outcomes(self.tables, variables, self.world)
        children = set(self._children())
        answer = self._ask(self.device.sender.set, *map(model.pair, variables))
        touched = {(variable[0], model.index_of(variable)) for variable in variables}
        observed = {key: self._row(*key) for key in touched}
        fitting = [each for each in possible if self._fits(each, answer, observed)]
        expect(
            fitting,
            f"answered error {answer.error} at {answer.error_index}, then {observed}; possible:\n"
            + "\n".join(each.describe(touched) for each in possible),
        )
        self._adopt(fitting[0], observed, children)

    def _of_this_run(self, variable):
        table, column, instance, kind, value = variable
        known = self.servers.addresses if kind == "address" else self.servers.passwords
        return [table, column, instance, kind, known.get(value, value)]

    def _fits(self, outcome, answer, observed):
        if (outcome.error, outcome.error_index) != (answer.error, answer.error_index):
            return False
        started = {index for event, index in outcome.tables.events if event == "start"}
        aborts = any(event == "abort" for event, _ in outcome.tables.events)
        aborted = self._last_worker.index if aborts and self._last_worker is not None else None
        for (table, index), row in observed.items():
            wanted = outcome.tables.rows[table].get(index)
            if row is None or wanted is None:
                if row is not wanted:
                    return False
                continue
            # A copy may end between the answer and the look at its row.
            statuses = {wanted["status"]}
            if table == "copy":
                statuses |= self.world.reports(index)
            if index == aborted:
                statuses |= FAILURES
            if index in started:
                statuses |= FAILURES | {IN_PROGRESS, SUCCESS}
            if row["status"] not in statuses or row != model.visible(table, wanted, row["status"]):
                return False
        return True

    def _adopt(self, outcome, observed, former_children):
        """Takes an outcome for what has happened."""
        self.tables = outcome.tables
        for (table, index), row in observed.items():
            if row is not None:
                self.tables.rows[table][index]["status"] = row["status"]
            elif table == "copy":
                self._start_of_row.pop(index, None)
        children = [pid for pid in self._children() if pid not in former_children]
        for event, subject in outcome.tables.events:
            if event == "abort":
                self._aborted(subject)
            elif event == "delete":
                self.world.writers.pop(self.device.path_of(subject), None)
            else:
                # It may have come and gone already.
                self._started(subject, children.pop(0) if children else None)
        expect(not children, f"children that nobody started: {children}")

    # --- Copies

    def _children(self):
        path = Path(f"/proc/{self._agent}/task/{self._agent}/children")
        expect(self.device.agent.running() and path.exists(), "the agent has ended")
        return [int(pid) for pid in path.read_text(encoding="ascii").split()]

    def _await_room(self):
        if len(self.world.workers) < MOST_COPIES:
            return
        self._do_continue()
        self._await_copies(MOST_COPIES - 1)

    def _await_copies(self, most):
        """Waits until no more copies than that go on. Aborted ones must end by themselves."""
        workers = self.world.workers

        def aborted_are_gone():
            return all(worker.abort_deadline is None for worker in workers.values())

        def few_are_left():
            self.servers.tftp.release()  # also those that come to it only now
            return len(workers) <= most

        self._await(aborted_are_gone, lambda: f"aborted copies end: {workers}", AT_REST)
        self._await(few_are_left, lambda: f"copies end: {workers}", AT_REST)

    def _started(self, index, pid):
        self._starts += 1
        row = dict(self.tables.rows["copy"][index])
        possible = self.world.expected(row)
        worker = Worker(pid, index, self._starts, row, possible)
        self._last_worker = worker
        self._start_of_row[index] = worker.start
        if IN_PROGRESS in worker.possible | self.world.reports(index):
            self._endless.add(index)
        else:
            self._endless.discard(index)
        for other in self.world.workers.values():
            if other.index == index:
                other.overlapping = worker.overlapping = True
        self.world.writers[self.world.destination(row)].append(worker)
        if pid is None:
            self._ended(worker)
        else:
            self.world.workers[pid] = worker

    def _aborted(self, index):
        """An abort ends the worker that was started last, whosever it is."""
        worker = self._last_worker
        if worker is None or worker.pid not in self.world.workers:
            return
        worker.disturb()
        if worker.index == index and not worker.overlapping:
            # Otherwise the row may have been in progress no more.
            worker.abort_deadline = time.monotonic() + ABORTED

    def _excuse(self, worker, pid, number):
        """Notes who cannot remove what it receives because of a signal that it is about to get."""
        deadly = number != signal.SIGSTOP
        if worker.columns["protocol"] == TFTP:
            if deadly:
                self._outright.add(pid)  # the worker itself receives
            return
        parent = (process_state(pid) or ("", 0))[1]
        if number in (signal.SIGKILL, signal.SIGSTOP):
            # One that stands still is killed by the platform when its worker is lost.
            self._outright.add(pid)
        if is_fork(pid, parent):
            self._outright.add(parent)  # expect itself exits when one ends that is to be a client
        if not deadly:
            # A supervisor that stands still does not tell its script, and a script waits for the
            # helpers in its group: the platform kills them all.
            self._outright.update(live_children(pid))
            if same_group(pid, parent):
                self._outright.add(parent)

    def _ended(self, worker):
        """Checks what a copy has left behind."""
        index = worker.index
        row, known = self._row("copy", index), self.tables.rows["copy"].get(index)
        expect((row is None) == (known is None), f"row {index} comes or goes by itself")
        mine = self._start_of_row.get(index) == worker.start and not worker.overlapping
        result = row["status"] if row is not None and mine else "untold"
        self.results[result] += 1
        if row is not None:
            reports = worker.possible
            if not mine:
                # What has been seen already was found possible then.
                reports = reports | {known["status"]} | self.world.reports(index)
            expect(row["status"] in reports, f"row {index} has {row['status']} after {worker}")
            known["status"] = row["status"]
        if result == SUCCESS:
            self._check_content(worker)
        elif worker.columns["command"] == FROM_FLASH and worker.columns["protocol"] == TFTP:
            self._staged.add(self.world.destination(worker.columns)[1])
        self._check_temporary_files()

    def _check_content(self, worker):
        place, content = self.world.destination(worker.columns), self.world.content(worker.columns)
        if worker.shell_signalled or content is None or self.world.writers[place] != [worker]:
            return
        found = self.world.received(worker.columns)
        expect(found == content, f"{place} is not what was copied: {worker}")
        self.results["verified"] += 1

    def _watch(self):
        """After each operation: workers that have ended, and those that ought to have."""
        now = time.monotonic()
        workers, children = self.world.workers, self._children()
        for pid in [pid for pid in workers if pid not in children]:
            self._stopped.discard(pid)
            self._ended(workers.pop(pid))
        for pid in children:
            expect(pid in workers, f"a child that nobody started: {pid}")
            worker = workers[pid]
            if (process_state(pid) or "")[:1] == ("Z",):
                worker.ended_since = worker.ended_since or now
                expect(now < worker.ended_since + REAPED, f"a zombie stays: {worker}")
            elif worker.abort_deadline is not None and not self._stopped:
                expect(now < worker.abort_deadline, f"an aborted worker goes on: {worker}")

    # --- Everything else

    def _do_get(self, *names):
        self._get_all(names)

    def _do_walk(self, name, repetitions):
        """Walks below a name; what it shows of the two tables must be their rows."""
        root = ber.arcs(name)
        entries = {
            (*ber.arcs(top), model.COLUMNS[table]["entry"].number): table
            for table, top in model.ROOTS.items()
        }
        rows = {table: [] for entry, table in entries.items() if entry[: len(root)] == root}
        for arcs in self._names_below(root, repetitions):
            if arcs[:-1] in entries:
                rows[entries[arcs[:-1]]].append(arcs[-1])
        for table, found in rows.items():
            wanted = sorted(self.tables.rows[table])
            expect(found == wanted, f"the rows of {table} are {found}, not {wanted}")

    def _names_below(self, root, repetitions):
        last = root
        while True:
            text = ".".join(map(str, last))
            if repetitions:
                answer = self._ask(self.device.sender.get_bulk, text, repetitions=repetitions)
            else:
                answer = self._ask(self.device.sender.get_next, text)
            expect(answer.error == ber.NO_ERROR, f"a walk is answered with error {answer.error}")
            for variable in answer.variables:
                arcs = ber.arcs(variable.name)
                if variable.tag == ber.END_OF_MIB_VIEW or arcs[: len(root)] != root:
                    return
                expect(arcs > last, f"{arcs} comes after {last}")
                last = arcs
                yield arcs

    def _do_pause(self, milliseconds):
        time.sleep(milliseconds / 1000)

    def _do_reload(self):
        self.device.agent.signal(signal.SIGHUP)

    def _do_daemon(self, verb):
        daemon = self.device.daemon
        if verb == "start" and not daemon.running():
            self.device.start_daemon()
        elif verb == "kill" and daemon.running():
            daemon.kill()
        elif verb in ("stop", "continue") and daemon.running():
            daemon.signal(signal.SIGSTOP if verb == "stop" else signal.SIGCONT)

    def _do_continue(self):
        for pid in self._stopped:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGCONT)
        self._stopped.clear()
        for worker in self.world.workers.values():
            if worker.abort_deadline is not None:
                worker.abort_deadline = time.monotonic() + ABORTED

    def _do_signal(self, role, nth, number):
        targets = [each for each in self._transfer_processes() if each[1] == role]
        if not targets:
            return
        pid, role, worker = targets[nth % len(targets)]
        worker.disturb()
        self._excuse(worker, pid, number)
        if role == "shell":
            # The module takes the end of its shell by a signal for a success, as it is told to.
            worker.shell_signalled = True
            worker.possible.add(SUCCESS)
        with contextlib.suppress(ProcessLookupError):
            os.kill(pid, number)
            self.counts[f"to a {role}"] += 1
            if number == signal.SIGSTOP:
                self._stopped.add(pid)

    def _transfer_processes(self):
        """The processes of all copies: process id, role, worker."""
        workers = self.world.workers
        if not workers:
            return []
        parents = {pid: (process_state(pid) or ("", 0))[1] for pid in processes()}
        found = []
        for pid in sorted(parents):
            generation, ancestor = 0, pid
            while ancestor not in workers and ancestor > 1:
                generation, ancestor = generation + 1, parents.get(ancestor, 0)
            if ancestor in workers:
                role = ROLES[generation] if generation < len(ROLES) else "client"
                found.append((pid, role, workers[ancestor]))
        return found

    # --- Rest

    def _do_rest(self):
        """Everything comes to its end, and is compared with what must be."""
        self._do_continue()
        self._do_daemon("continue")
        self._do_daemon("start")
        self._await_copies(0)
        self._await(lambda: not self.device.strays(), self._strays, ABORTED)
        self._check_rows()
        self._empty_tables()
        self._check_temporary_files()
        self._sweep()
        self._check_files()
        self._await(self._inventory_answers, lambda: "the inventory is back", ABORTED)
        self._check_descriptors()
        self._clean_up()

    def _strays(self):
        lines = []
        for pid in self.device.strays():
            with contextlib.suppress(OSError):
                words = Path(f"/proc/{pid}/cmdline").read_bytes().split(b"\0")
                lines.append(f"{pid} {process_state(pid)} {words}")
        return "no stray process:\n" + "\n".join(lines)

    def _temporary_files(self, prefixes=tuple(TEMPORARY.values())):
        return [path for path in self._flash() if path.name.startswith(prefixes)]

    def _check_temporary_files(self):
        """Nobody leaves one who could remove it. Not only at rest: any get removes those there."""
        for path in self._temporary_files():
            owner = OWNER.fullmatch(path.name)
            expect(owner is not None, f"a temporary file is left, by nobody: {path}")
            pid = int(owner[1])
            # It may have been removed, and its owner ended, since the directory was read.
            if pid not in self._outright and process_state(pid) is None and path.exists():
                raise Violation(f"a temporary file is left: {path}")

    def _sweep(self):
        """What a transfer left that was ended outright, the next that receives there removes."""
        for protocol, prefix in TEMPORARY.items():
            for directory in {path.parent for path in self._temporary_files(prefix)}:
                scheme, _, below = str(directory.relative_to(self.device.directory)).partition("/")
                destination = f"{scheme}:{below}/swept" if below else f"{scheme}:swept"
                self.results["swept"] += 1
                self._do_set(*honest_get(SWEEP_ROW, protocol, file_name(1), destination))
                self._await_copies(0)
                expect(self.tables.rows["copy"][SWEEP_ROW]["status"] == SUCCESS, "cannot sweep")
                self._do_set(*set_entry("copy", SWEEP_ROW, model.DESTROY)[1:])
        self._outright.clear()

    def _flash(self):
        return [path for scheme in SCHEMES for path in self.device.flash(scheme).rglob("*")]

    def _check_files(self):
        flash = self._flash()
        sent = [path for home in self.servers.homes() for path in home.rglob("*")]
        for path in flash + sent:
            temporary = path.name.startswith(tuple(TEMPORARY.values()))
            expect(not temporary, f"a temporary file is left: {path}")
        for path in flash:
            if path.is_file() and not path.is_symlink():
                whole = path.read_bytes() in self.world.possible_contents(path)
                expect(whole, f"{path} is no whole file")
        self._check_staging()
        found = self.device.outside()
        for name in self._outside.keys() | found.keys():
            former, now = self._outside.get(name), found.get(name)
            expect(former == now, f"{name}, which nothing may change: {former} became {now}")

    def _check_staging(self):
        """Only a send that did not succeed may leave its file."""
        names = {
            os.fsencode(path.name).decode("latin-1") for path in self.device.work_dir.rglob("*")
        }
        expect(names <= self._staged, f"in the staging directory: {names - self._staged}")

    def _check_rows(self):
        self._do_walk(ROOT, 20)
        for table, rows in self.tables.rows.items():
            for index, row in rows.items():
                found, wanted = self._row(table, index), model.visible(table, row)
                expect(found == wanted, f"row {index} of {table} is {found}, not {wanted}")
                ended = row["status"] != IN_PROGRESS or index in self._endless
                expect(ended, f"row {index} is in progress for ever: {row}")

    def _empty_tables(self):
        for table in self.tables.rows:
            for index in list(self.tables.rows[table]):
                self._do_set(*set_entry(table, index, model.DESTROY)[1:])
            expect(not self.tables.rows[table], f"rows are left in {table}")

    def _inventory_answers(self):
        answer = self._ask(self.device.sender.get_next, DEVICE)
        return answer.variables[0].name.startswith(DEVICE.strip("."))

    def _check_descriptors(self):
        directory = Path(f"/proc/{self._agent}/fd")
        if self._descriptors is None:
            self._descriptors = len(os.listdir(directory))
        self._await(
            lambda: len(os.listdir(directory)) <= self._descriptors,
            lambda: f"{self._descriptors} descriptors again: {self.device.descriptors()}",
            REAPED,
        )

    def _clean_up(self):
        """Removes what copies have left, so that one stretch explains nothing of the next."""
        for path in self._flash():
            if path.name not in self.device.contents and not path.is_symlink() and path.is_file():
                path.unlink()
        for path in self.device.work_dir.iterdir():
            path.unlink()
        self.servers.forget()
        self.world.writers.clear()
        self._staged.clear()
        self._start_of_row.clear()
        self._endless.clear()
