"""A script that is told to end, ends its client too."""

import os
import signal
import time

import pytest
from servers import wait_until
from transfers import FAILED, alive, family


def end_by(number, client, standstill):
    process = standstill.start()
    members = family(process.pid)
    process.send_signal(number)
    began = time.monotonic()
    process.communicate(timeout=10)
    assert process.returncode == FAILED
    wait_until(lambda: not any(alive(each) for each in members), what="no process left")
    assert time.monotonic() - began < 1
    assert client.temporaries() == []


def test_sigterm_ends_all_processes_within_a_second(client, standstill):
    end_by(signal.SIGTERM, client, standstill)


@pytest.mark.parametrize("standstill", ["put"], indirect=True)
@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGHUP])
def test_sigint_and_sighup_do_as_sigterm_does(client, standstill, number):
    end_by(number, client, standstill)


@pytest.mark.parametrize("standstill", ["get"], indirect=True)
def test_a_signal_to_the_group_ends_all_processes_within_a_second(client, standstill):
    process = standstill.start(start_new_session=True)
    members = family(process.pid)
    os.killpg(process.pid, signal.SIGTERM)
    began = time.monotonic()
    process.communicate(timeout=10)
    wait_until(lambda: not any(alive(each) for each in members), what="no process left")
    assert time.monotonic() - began < 1
    assert client.temporaries() == []


@pytest.mark.parametrize("standstill", ["get"], indirect=True)
def test_a_script_that_is_killed_leaves_no_process(client, standstill):
    process = standstill.start()
    members = family(process.pid)
    process.kill()
    process.communicate(timeout=10)
    wait_until(lambda: not any(alive(each) for each in members), what="no process left")
