"""Servers that stop, freeze and talk nonsense while the daemon works: what goes on, how long it takes, and how it
ends. Nothing of this may need a restart of the daemon."""

import concurrent.futures
import contextlib
import re
import time

import pytest

from harness.daemon import until
from servers import people, workdir
from servers.relay import Relay
from servers.slapd import READER, READER_PASSWORD, Slapd
from servers.workdir import Questions

TIMEOUT = 2  # seconds, for connecting and for every answer
LONG_TIMEOUT = 6  # seconds, for an answer
AT_ONCE = 1.8  # seconds: no server was waited for, which would take TIMEOUT
SLACK = 1.5  # seconds, for a busy machine
ALICES, BOBS = ("alice", "correct horse"), ("bob", "bob's own")


@pytest.fixture(scope="module")
def pair():
    """Two servers with the same directory."""
    content = people.content(range(100))
    with Slapd(content) as first, Slapd(content) as second:
        yield first, second


def start(daemon, *servers, sync=True, timeout=TIMEOUT):
    workdir.place(workdir.settings([server.url for server in servers], READER, Schema="rfc2307bis",
                                   ConnectTimeout=TIMEOUT, OperationTimeout=timeout, general=["RefusedPasswordMemory=0"]),
                  READER_PASSWORD)
    if sync:
        workdir.good_sync()
    # Without the reply cache, which would answer for the directory.
    daemon.start("--verbose", "--disable-reply-cache", "--process-num", "1", keep=True, workers=1)


@contextlib.contextmanager
def within(seconds):
    begin = time.monotonic()
    yield
    assert time.monotonic() - begin < seconds


def expect_lookups_at_once(ask):
    with within(AT_ONCE):
        assert ask.user("jm\u00fcller")[1] == "jm\u00fcller"
        assert ask.groups_of("bob") == people.GROUPS_OF["bob"]
        assert len(ask.members("everybody")[people.group_dn("everybody")]) == 100


TROUBLES = {
    "stopped": lambda server, _: server.stopped(),
    "frozen": lambda server, _: server.frozen(),
    "silent half-way": lambda _, relay: relay.tricked(stall_after=20),
    "closes half-way": lambda _, relay: relay.tricked(cut_after=0),
    "another protocol": lambda _, relay: relay.tricked(garbage=b"HTTP/1.1 400 Bad Request\r\n\r\n" + b"x" * 200),
    "answer to nothing": lambda _, relay: relay.tricked(garbage=b"\x30\x0c\x02\x01\x63\x61\x07\x0a\x01\0\x04\0\x04\0"),
}


@pytest.mark.parametrize("kind", TROUBLES)
def test_failover__within_the_timeout_and_back(daemon, pair, kind):
    first, second = pair
    with Relay(first.port) as relay:
        preferred = first if kind in ("stopped", "frozen") else relay
        start(daemon, preferred, second)
        with Questions() as ask:
            before = first.binds(), second.binds()
            assert ask.validate(*ALICES) is True
            assert (first.binds(), second.binds()) == (before[0] + 1, before[1])
            with TROUBLES[kind](first, relay):
                expect_lookups_at_once(ask)
                with within(TIMEOUT + SLACK):
                    assert ask.validate(*ALICES) is True
                # Now that it is known nobody waits for it; a wrong password still costs one bind, again and again as set.
                with within(AT_ONCE):
                    assert ask.validate(*BOBS) is True
                    assert ask.validate("bob", "wrong") is ask.validate("bob", "wrong") is False
                    assert ask.user("nobody") == 32
                assert second.binds() == before[1] + 4
                daemon.wait_line(re.compile(f"server put aside: .*{preferred.url}"), level="ERR")
            daemon.wait_line(re.compile(f"server is back: {preferred.url}"), level="INF")
            before = first.binds()
            assert ask.validate(*ALICES) is True
            assert first.binds() == before + 1


@pytest.mark.parametrize("kind", ["stopped", "frozen"])
def test_only_server__is_missed_no_longer_than_it_is_away(daemon, pair, kind):
    server = pair[0]
    start(daemon, server)
    with Questions() as ask:
        assert ask.user("nobody here") == 32
        with TROUBLES[kind](server, None):
            with within(TIMEOUT + SLACK):
                assert ask.validate(*ALICES) is False
            daemon.wait_line(re.compile("password of user alice refused: cannot tell"), level="INF")
            with within(AT_ONCE):
                assert ask.validate(*ALICES) is False
                assert ask.user("unknown now") == 32
            expect_lookups_at_once(ask)
        # "Cannot tell" is not "wrong": it is not remembered.
        until(lambda: ask.validate(*ALICES), "the password to be proved again")


@pytest.mark.parametrize("kind", ["passwords", "unknown names"])
def test_frozen__threads_that_wait_do_not_stop_the_others(daemon, pair, kind):
    """Many more requests than a worker has threads wait for the server; somebody else asks for what the snapshot
    knows, and is answered long before the time-out."""
    server = pair[0]
    start(daemon, server, timeout=LONG_TIMEOUT)

    def stuck(number, ask):
        if kind == "passwords":
            return ask.validate(people.crowd_uid(number), f"pw {people.crowd_uid(number)}") is False
        return ask.user(f"unknown {number}") == 32

    # Connected before: the queue of new connections is short, and how soon a client tries again is its own affair.
    with (contextlib.ExitStack() as stack, concurrent.futures.ThreadPoolExecutor(60) as pool, Questions() as ask):
        clients = []
        for _ in range(60):
            clients.append(stack.enter_context(Questions()))
            assert clients[-1].user("bob")[1] == "bob"
        # Those for whom there was no thread do not wait for the server once more.
        with server.frozen(), within(LONG_TIMEOUT + SLACK):
            waiting = [pool.submit(stuck, number, client) for number, client in enumerate(clients)]
            while not all(one.done() for one in waiting):
                with within(TIMEOUT + SLACK):
                    assert ask.user("bob")[1] == "bob"
            assert all(one.result() for one in waiting)
        # Nor does the log get a line from each.
        assert daemon.count_lines(re.compile("refused: cannot tell")) <= 20


def test_start__without_server_and_snapshot(daemon, pair):
    """Nothing can be answered, and that quickly; everything as soon as the server is there."""
    server = pair[0]
    with server.frozen():
        with within(TIMEOUT):
            start(daemon, server, sync=False)
        with Questions() as ask:
            with within(TIMEOUT + SLACK):
                assert ask.user("alice") in (81, 85)
            with within(AT_ONCE):
                assert ask.groups("") in (81, 85) and ask.validate(*ALICES) is False
    with Questions() as ask:
        until(lambda: ask.user("alice") not in (81, 85), "look-ups")
        assert ask.validate(*ALICES) is True


def test_restarted_server__costs_no_request(daemon, pair):
    """Connections that lay idle are noticed to be dead before a question is lost on them, or at that question."""
    with Relay(pair[0].port) as relay:
        start(daemon, relay, sync=False)
        with Questions() as ask:
            for closed in (relay.drop, lambda: vars(relay).update(hang_up_to=relay.connections)) * 2:
                assert ask.groups_of("alice") == people.GROUPS_OF["alice"]
                closed()
            assert ask.user("bob")[1] == "bob" and ask.validate(*BOBS) is True
    assert daemon.count_lines(re.compile("put aside")) == 0
