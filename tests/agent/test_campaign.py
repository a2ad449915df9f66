"""A short campaign, and what a campaign notices."""

import contextlib
import itertools
import json
import subprocess

import ber
import pytest

import campaign_run
from campaign import drawn, read_log, run, running_campaign
from campaign_draw import Draw
from campaign_world import Violation
from harness import CREATE_AND_GO, CREATE_AND_WAIT, DESTROY, NOT_READY, CopyColumn, MiscColumn

SEED = 20240229
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
def fixture_campaign(shared_campaign, monkeypatch):
    """A campaign at rest, which does not wait long for what is never to come."""
    for name in ("ABORTED", "REAPED"):
        monkeypatch.setattr(campaign_run, name, 0.2)
    return shared_campaign


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
        ("flash", ".tftp-012345", "a temporary file is left"),
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
        with pytest.raises(Violation, match=complaint):
            campaign.perform(REST)
    campaign.perform(REST)


def test_campaign_notices_a_change_of_mode_outside(campaign):
    path = campaign.device.directory / "outside" / "file"
    mode = path.stat().st_mode
    path.chmod(0o666)
    with pytest.raises(Violation, match="outside/file, which nothing may change"):
        campaign.perform(REST)
    path.chmod(mode)
    campaign.perform(REST)


def test_campaign_notices_a_stray_process(campaign):
    command = ["sleep", "60"]
    with subprocess.Popen(command, env=campaign.device.environment) as stray:
        with pytest.raises(Violation, match="no stray process"):
            campaign.perform(REST)
        stray.kill()
    campaign.perform(REST)


def test_campaign_notices_a_row_that_nobody_made(campaign):
    campaign.device.create_copy(5, source="file", destination="bootflash:file")
    with pytest.raises(Violation, match="the rows of copy are"):
        campaign.perform(["walk", CopyColumn.ROW, 20])
    with pytest.raises(Violation, match="the rows of copy are"):
        campaign.perform(REST)
    assert campaign.device.destroy(5) == ber.NO_ERROR
    campaign.perform(REST)


def test_campaign_notices_a_changed_row(campaign):
    campaign.perform(set_entry(5, CREATE_AND_WAIT))
    notify = f"{CopyColumn.NOTIFY}.5"
    assert campaign.device.set((notify, ber.integer(1))) == ber.NO_ERROR
    with pytest.raises(Violation, match="row 5 of copy is"):
        campaign.perform(REST)
    assert campaign.device.set((notify, ber.integer(2))) == ber.NO_ERROR
    campaign.perform(REST)


def test_campaign_notices_an_answer_that_must_not_be(campaign):
    """The row is there already, which the model does not know."""
    entry = f"{MiscColumn.ROW}.5"
    assert campaign.device.set((entry, ber.integer(CREATE_AND_WAIT))) == ber.NO_ERROR
    with pytest.raises(Violation, match="answered error 12 at 1"):
        campaign.perform(["set", ["misc", "entry", [5], "integer", CREATE_AND_GO]])
    assert campaign.device.value(entry) == NOT_READY
    campaign.device.set((entry, ber.integer(DESTROY)))
    campaign.perform(REST)


def test_campaign_notices_that_the_agent_has_ended():
    with running_campaign() as campaign:
        campaign.device.agent.kill()
        with pytest.raises(Violation, match="the agent has ended"):
            campaign.perform(["pause", 0])
