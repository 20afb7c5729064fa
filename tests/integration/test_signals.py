"""Signals that come at the worst moment."""
import os
import signal
import time

import pytest

from harness import directory


@pytest.fixture(name="gap")
def fixture_gap(monkeypatch):
    """Makes the gap before each sleep so long that a signal sent at once falls into it."""
    monkeypatch.setenv("SHORTSLEEP_GAP_MS", "500")


def test_end__signal_just_before_the_sleep_is_not_lost(daemon, gap):
    daemon.start(files=directory.files())
    begin = time.monotonic()
    assert daemon.stop() == 0
    # The parent's wait of a minute and the workers' half hours end with the alarm that follows.
    assert time.monotonic() - begin < 15


def test_reload__signal_just_before_the_sleep_is_not_lost(daemon, gap):
    daemon.start("--verbose", files=directory.files())
    worker = daemon.workers()[0]
    os.kill(worker, signal.SIGUSR1)
    daemon.wait_line("child_worker_start() load cache")
    assert daemon.stop() == 0
