"""Fixtures of all suites."""

import pytest

from harness import daemon as daemon_module
from harness import directory, wire
from harness.agent import ScriptedAgent

_shared = []  # the daemon that several tests use, when one runs


def _end_shared():
    while _shared:
        _shared.pop().kill_everything()


def _guard():
    """Whatever a test did, no part of the product may have tripped over itself."""
    reports = daemon_module.sanitizer_reports()
    assert not reports, reports


@pytest.fixture
def daemon():
    """A daemon of the test's own, not started yet."""
    _end_shared()
    one = daemon_module.Daemon()
    yield one
    one.kill_everything()
    _guard()


@pytest.fixture
def served():
    """A running daemon with the sample directory, verbose, without connections, shared by tests that leave it as
    they found it. A test after which a worker is missing or keeps a connection fails."""
    if not _shared:
        one = daemon_module.Daemon()
        _shared.append(one)
        one.start("--verbose", files=directory.files())
    one = _shared[0]
    before = one.workers()
    yield one
    after = one.workers()
    if before != after or len(after) != 2:
        _end_shared()
        raise AssertionError(f"workers before {before}, after {after}:\n" + daemon_module.log_text()[-3000:])
    _guard()
    try:
        one.wait_idle()
    except AssertionError:
        _end_shared()  # the next test gets a new one
        raise


@pytest.fixture(scope="session", autouse=True)
def _nothing_left():
    yield
    _end_shared()


@pytest.fixture
def connection(served):
    """To the daemon that is shared."""
    with wire.Connection() as one:
        yield one


@pytest.fixture
def agent():
    """An agent that does what the test tells it."""
    with ScriptedAgent() as scripted:
        yield scripted
