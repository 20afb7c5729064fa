"""Workers and monitor: deaths, re-forks, reloads, the end."""

import contextlib
import os
import re
import signal
import threading

import pytest

from harness import directory, sandbox, wire
from harness.daemon import core_files, log_lines, processes, seconds_between, stat_fields, until, write_file

UNKNOWN = "192.0.2.1"
STARTED = "child_worker_start() start running..."
ROUND = re.compile(r"^Skip sync, last time \d+, interval \d+$")
FILES = directory.files(**directory.SYNCHRONISED)


def exit_line(pid):
    return f"child receive exit signal, child process [{pid}] exit"


def test_monitor__dead_worker_comes_back_but_not_in_the_first_minute(daemon):
    factor = 40
    daemon.start("--verbose", files=FILES, factor=factor)
    victim, other = daemon.workers()
    os.kill(victim, signal.SIGKILL)
    daemon.wait_line(exit_line(victim), level="INF", pid=daemon.pid)
    with wire.Connection() as connection:
        assert connection.query(UNKNOWN).result == 1  # the other one serves meanwhile
    replacement = next(pid for pid in daemon.wait_workers(2) if pid != other)
    begin = daemon.wait_line(re.compile(r"^\*+ Authentication Daemon Start \*+$"))
    assert seconds_between(begin, daemon.wait_line(STARTED, pid=replacement)) >= 60 / factor
    # From the second minute on the death itself cuts the wait short.
    os.kill(replacement, signal.SIGKILL)
    death = daemon.wait_line(exit_line(replacement))
    last = next(pid for pid in daemon.wait_workers(2) if pid != other)
    assert seconds_between(death, daemon.wait_line(STARTED, pid=last)) < 600 / factor / 2
    with daemon.connections_by_worker() as connections:
        assert {connection.query(UNKNOWN).result for connection in connections.values()} == {1}
    assert daemon.stop() == 0


def test_monitor__slots_past_the_fifth_are_not_refilled(daemon):
    daemon.start("--verbose", "--process-num", "8", "--thread-num", "2", files=FILES, factor=100, workers=8)
    workers = daemon.workers()
    daemon.wait_line(ROUND)
    for dead, index in enumerate((6, 1), start=1):  # each death brings the next round
        os.kill(workers[index], signal.SIGKILL)
        daemon.wait_line(exit_line(workers[index]))
        daemon.wait_line(ROUND, count=dead + 1)
    assert set(daemon.wait_workers(7)) & set(workers) == set(workers) - {workers[6], workers[1]}
    assert daemon.stop() == 0


@pytest.mark.parametrize("number", [signal.SIGUSR1, signal.SIGUSR2])
def test_reload__one_worker_takes_the_new_directory(daemon, number):
    daemon.start("--verbose", files=directory.files())
    with daemon.connections_by_worker() as connections:
        (told, one), (untold, other) = connections.items()
        for connection in (one, other):
            assert connection.user_info("newman").result == 32  # and the failure is in the reply cache now
        write_file("directory.ldif", directory.ldif() + directory.newcomer())
        os.kill(daemon.pid, number)
        handled = f"Handle single {int(number)}, reload data..."
        daemon.wait_line(handled, level="INF", pid=daemon.pid)
        assert one.user_info("newman").result == 32
        os.kill(told, number)
        daemon.wait_line(handled, level="INF", pid=told)
        daemon.wait_line("Clear Reply Cache", level="DBG", pid=told)
        daemon.wait_line("child_worker_start() load cache", level="DBG", pid=told)
        assert one.user_info("newman").userInfo.cn == "New newman"
        assert other.user_info("newman").result == 32
        assert daemon.count_lines("child_worker_start() load cache", pid=daemon.pid) == 0
        assert daemon.count_lines("child_worker_start() load cache", pid=untold) == 0
    daemon.wait_line(re.compile(r"^reply cache statistic info: size\(\d+\), count\(\d+\), query\(\d+\), hit\(\d+\)$"),
                     level="INF", pid=told)
    assert daemon.stop() == 0


def test_reload__broken_data_changes_nothing_and_is_told_once(daemon):
    daemon.start("--verbose", files=directory.files())
    with daemon.connections_by_worker() as connections:
        worker, connection = next(iter(connections.items()))
        for round_number, text in enumerate(["dn: CN=x,DC=corp,DC=test\nnonsense\n", "no ldif at all\n"], start=1):
            write_file("directory.ldif", directory.ldif() + directory.newcomer() + "\n" + text)
            before = sum("directory.ldif" in line.text for line in log_lines())
            os.kill(worker, signal.SIGUSR1)
            daemon.wait_line("child_worker_start() load cache", pid=worker, count=round_number)
            told = [line for line in log_lines() if "directory.ldif" in line.text][before:]
            assert len(told) == 1 and told[0].level == "ERR", told
            assert re.search(r"directory\.ldif:\d+\b", told[0].text)
            assert connection.user_info("alice").result == 0
            assert connection.user_info("newman").result == 32
        # Mended, it is taken.
        write_file("directory.ldif", directory.ldif() + directory.newcomer())
        os.kill(worker, signal.SIGUSR1)
        daemon.wait_line("child_worker_start() load cache", pid=worker, count=3)
        assert connection.user_info("newman").result == 0
    assert daemon.stop() == 0


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP])
def test_end__parent_takes_the_workers_along(daemon, number):
    daemon.start("--verbose", files=directory.files(), factor=4)
    workers = daemon.workers()
    assert daemon.stop(number) == 0
    assert not processes()
    assert not os.path.exists(sandbox.PID_FILE)
    assert daemon.count_lines(f"Handle single {int(number)}, daemon will exit", level="INF", pid=daemon.pid) == 1
    for worker in workers:
        daemon.wait_line("Handle single 15, daemon will exit", level="INF", pid=worker)
        daemon.wait_line("child_worker_start() finish running...", level="DBG", pid=worker)
    texts = [line.text for line in log_lines() if line.pid == daemon.pid and line.level == "INF"]
    assert texts.index("Receive exit signal, daemon will exit...") < texts.index("Daemon exit")


@contextlib.contextmanager
def load(connections):
    """Requests of several kinds without a pause; connections that the daemon closes are opened again."""
    stopping = threading.Event()
    answered = [0] * connections

    def ask(number):
        while not stopping.is_set():
            with contextlib.suppress(OSError, wire.Closed), wire.Connection(timeout=2) as connection:
                while not stopping.is_set():
                    connection.bind(f"10.1.{number}.{answered[number] % 250}", "CORP\\alice")
                    connection.user_info("alice")
                    connection.user_search("")
                    answered[number] += 1

    threads = [threading.Thread(target=ask, args=(number,)) for number in range(connections)]
    for thread in threads:
        thread.start()
    try:
        until(lambda: all(answered), "the load to begin")
        yield
    finally:
        stopping.set()
        for thread in threads:
            thread.join()


def test_end__worker_ends_well_under_load(daemon):
    daemon.start(files=directory.files())
    with load(connections=8):
        # The parent must not take the status away before it is read.
        os.kill(daemon.pid, signal.SIGSTOP)
        for worker in daemon.workers():
            os.kill(worker, signal.SIGTERM)
            until(lambda pid=worker: stat_fields(pid)[1] == "Z", f"the end of worker {worker}")
            assert int(stat_fields(worker)[-1]) == 0
        os.kill(daemon.pid, signal.SIGCONT)
    assert daemon.stop() == 0
    assert not core_files()


def test_end__whole_daemon_ends_well_under_load(daemon):
    daemon.start(files=directory.files())
    with load(connections=4):
        assert daemon.stop() == 0
    assert not processes() and not core_files()
    assert daemon.count_lines(re.compile("."), level="ERR") == 0
