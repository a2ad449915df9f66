"""A short campaign, and what a campaign notices."""

import contextlib
import itertools
import json
import signal
import subprocess
import sys
from pathlib import Path

import ber
import pytest

import campaign as campaign_program
import campaign_run
from campaign import drawn, read_log, run, running_campaign
from campaign_draw import Draw, file_name, honest_get
from campaign_world import Violation
from harness import (
    ACTIVE,
    CREATE_AND_GO,
    CREATE_AND_WAIT,
    DESTROY,
    FTP,
    IN_PROGRESS,
    NOT_READY,
    TFTP,
    CopyColumn,
    MiscColumn,
    live_children,
    wait_for,
)

SEED = 20240229
NOBODY = 2**22 + 1  # no process id
REST = ["rest"]


def set_entry(row, status):
    return ["set", ["copy", "entry", [row], "integer", status]]


def test_short_campaign(tmp_path):
    path = tmp_path / "log"
    with open(path, "w", encoding="utf-8") as log:
        campaign = run(drawn(SEED, 600), log)
    assert campaign.operations == 601
    assert campaign.results["verified"] > 0
    assert read_log(path) == list(drawn(SEED, 600))


def test_seed_decides_the_operations():
    first, second, other = (
        list(itertools.islice(Draw(seed), 2000)) for seed in (SEED, SEED, SEED + 1)
    )
    assert first == second
    assert first != other
    assert json.loads(json.dumps(first)) == first


# --- What a campaign notices


@pytest.fixture(name="shared_campaign", scope="module")
def fixture_shared_campaign():
    with running_campaign() as campaign:
        campaign.perform(REST)
        yield campaign


@pytest.fixture(name="campaign")
def fixture_campaign(shared_campaign):
    """A campaign at rest."""
    return shared_campaign


@contextlib.contextmanager
def violation(complaint):
    """Something is noticed, without a long wait for what is never to come."""
    with pytest.MonkeyPatch.context() as monkeypatch:
        for name in ("ABORTED", "REAPED"):
            monkeypatch.setattr(campaign_run, name, 0.2)
        with pytest.raises(Violation, match=complaint):
            yield


def held_copy(campaign):
    """Starts a copy by TFTP which does not end by itself; returns its worker's process id."""
    campaign.perform(["set", *honest_get(5, TFTP, f"hold-{file_name(1)}", "bootflash:held")])
    [pid] = campaign.world.workers
    return pid


@contextlib.contextmanager
def planted_file(path, content=b"planted"):
    path.write_bytes(content)
    try:
        yield
    finally:
        path.unlink()


@pytest.mark.parametrize(
    "place, name, complaint",
    [
        ("flash", ".tftp-012345", "a temporary file is left, by nobody"),
        ("flash", f".tftp-{NOBODY}-012345", "a temporary file is left: "),
        ("flash", f"sub/.transfer-{NOBODY}-0123", "a temporary file is left: "),
        ("flash", "sub/.transfer-0123", "a temporary file is left"),
        ("home", ".transfer-0123", "a temporary file is left"),
        ("flash", "cut", "is no whole file"),
        ("staging", "nobody-sent-this", "in the staging directory"),
        ("beside", "file", "which nothing may change"),
        ("outside", "file-2", "which nothing may change"),
    ],
)
def test_campaign_notices_a_file(campaign, place, name, complaint):
    directories = {
        "flash": campaign.device.flash(),
        "home": campaign.servers.ftp.home,
        "staging": campaign.device.work_dir,
        "beside": campaign.device.directory,
        "outside": campaign.device.directory / "outside",
    }
    with planted_file(directories[place] / name):
        with violation(complaint):
            campaign.perform(REST)
    campaign.perform(REST)


def test_campaign_notices_a_change_of_mode_outside(campaign):
    path = campaign.device.directory / "outside" / "file"
    mode = path.stat().st_mode
    path.chmod(0o666)
    with violation("outside/file, which nothing may change"):
        campaign.perform(REST)
    path.chmod(mode)
    campaign.perform(REST)


def test_campaign_notices_a_stray_process(campaign):
    command = ["sleep", "60"]
    with subprocess.Popen(command, env=campaign.device.environment) as stray:
        with violation("no stray process"):
            campaign.perform(REST)
        stray.kill()
    campaign.perform(REST)


def test_campaign_notices_a_row_that_nobody_made(campaign):
    campaign.device.create_copy(5, source="file", destination="bootflash:file")
    with violation("the rows of copy are"):
        campaign.perform(["walk", CopyColumn.ROW, 20])
    with violation("the rows of copy are"):
        campaign.perform(REST)
    assert campaign.device.destroy(5) == ber.NO_ERROR
    campaign.perform(REST)


def test_campaign_notices_a_changed_row(campaign):
    campaign.perform(set_entry(5, CREATE_AND_WAIT))
    notify = f"{CopyColumn.NOTIFY}.5"
    assert campaign.device.set((notify, ber.integer(1))) == ber.NO_ERROR
    with violation("row 5 of copy is"):
        campaign.perform(REST)
    assert campaign.device.set((notify, ber.integer(2))) == ber.NO_ERROR
    campaign.perform(REST)


def test_campaign_notices_an_answer_that_must_not_be(campaign):
    """The row is there already, which the model does not know."""
    entry = f"{MiscColumn.ROW}.5"
    assert campaign.device.set((entry, ber.integer(CREATE_AND_WAIT))) == ber.NO_ERROR
    with violation("answered error 12 at 1"):
        campaign.perform(["set", ["misc", "entry", [5], "integer", CREATE_AND_GO]])
    assert campaign.device.value(entry) == NOT_READY
    campaign.device.set((entry, ber.integer(DESTROY)))
    campaign.perform(REST)


def test_campaign_notices_that_the_agent_has_ended():
    with running_campaign() as campaign:
        campaign.device.agent.kill()
        with violation("the agent has ended"):
            campaign.perform(["pause", 0])


def test_campaign_notices_what_an_aborted_copy_leaves(campaign):
    """Although a later one would remove it."""
    worker = held_copy(campaign)
    with planted_file(campaign.device.flash() / f".tftp-{worker}-012345"):
        with violation("a temporary file is left: "):
            campaign.perform(set_entry(5, DESTROY))
            campaign.perform(REST)
    campaign.perform(REST)


def test_campaign_has_removed_what_a_killed_copy_leaves(campaign):
    path = campaign.device.flash() / f".tftp-{held_copy(campaign)}-012345"
    path.write_bytes(b"planted")
    campaign.perform(["signal", "worker", 0, signal.SIGKILL])
    swept = campaign.results["swept"]
    campaign.perform(REST)
    assert campaign.results["swept"] == swept + 1
    assert not path.exists()


def test_campaign_notices_a_wrong_content_after_success(campaign):
    destination = campaign.device.flash() / "received"
    name = file_name(5)
    path, content = campaign.servers.ftp.home / name, campaign.servers.contents[name]
    path.write_bytes(b"wrong")
    with violation("received is not what was copied"):
        campaign.perform(["set", *honest_get(5, FTP, name, "bootflash:received")])
        campaign.perform(REST)
    path.write_bytes(content)
    destination.unlink()
    campaign.perform(REST)


def test_campaign_notices_a_row_that_is_in_progress_for_ever(campaign):
    """A command of no meaning leaves its row so; here the model takes it for one that has ended."""
    campaign.perform(set_entry(5, CREATE_AND_WAIT))
    columns = honest_get(5, TFTP, file_name(1), "bootflash:received")[1:]
    campaign.perform(["set", *columns, ["copy", "command", [5], "integer", 5]])
    campaign.device.activate(5)
    wait_for(lambda: not live_children(campaign.device.agent.pid), "the copy ends")
    campaign.tables.rows["copy"][5].update(entry=ACTIVE, status=IN_PROGRESS)
    with violation("row 5 is in progress for ever"):
        campaign.perform(REST)
    campaign.perform(set_entry(5, DESTROY))
    campaign.perform(REST)


@pytest.mark.parametrize("report", ["true", "false"])
def test_campaign_notices_a_zombie_that_stays(report):
    """As each lost worker does that the agent is not to report."""
    with running_campaign(report_lost_workers=report) as campaign:
        held_copy(campaign)
        campaign.perform(["signal", "worker", 0, signal.SIGKILL])
        if report == "true":
            campaign.perform(REST)
        else:
            with violation("a zombie stays"):
                campaign.perform(REST)


# --- How a campaign ends


@contextlib.contextmanager
def started(*arguments):
    command = [sys.executable, campaign_program.__file__, *map(str, arguments)]
    with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as it:
        try:
            yield it
        finally:
            it.kill()


def log_of(line):
    """The log that a campaign says it has kept, which is removed."""
    path = Path(line.rpartition("--replay ")[2].strip())
    operations = read_log(path)
    path.unlink()
    return operations


def begun_logs(pid):
    """The logs that a campaign holds open and has begun to write."""
    paths = []
    for path in Path(f"/proc/{pid}/fd").iterdir():
        with contextlib.suppress(FileNotFoundError):
            paths.append(path.readlink())
    logs = [path for path in paths if path.name.startswith("orvex-campaign-")]
    return [path for path in logs if path.stat().st_size > 0]


def test_program_tells_how_to_repeat_what_ended_by_an_error(tmp_path):
    operations = [["pause", 1], ["nonsense"], ["pause", 1]]
    path = tmp_path / "log"
    path.write_text("".join(f"{json.dumps(each)}\n" for each in operations), encoding="utf-8")
    with started("--replay", path) as program:
        output, errors = program.communicate(timeout=60)
    assert program.returncode == 1
    assert "AttributeError" in errors
    last = output.splitlines()[-1]
    assert last.startswith(f"replay of {path}, operation 2; to run it again: ")
    assert log_of(last) == operations[:2]


def test_program_tells_how_to_repeat_what_was_terminated():
    with started("--seed", SEED) as program:
        first = [program.stdout.readline()]
        [log] = wait_for(lambda: begun_logs(program.pid), "operations begin", timeout=60)
        program.terminate()
        output, _ = program.communicate(timeout=60)
    assert first == [f"seed {SEED}\n"]
    assert program.returncode == 128 + signal.SIGTERM
    last = output.splitlines()[-1]
    assert last.endswith(f"--replay {log}")
    operations = log_of(last)
    assert last.startswith(f"seed {SEED}, operation {len(operations)}; to run it again: ")
    assert operations == list(drawn(SEED, len(operations)))[:-1]
