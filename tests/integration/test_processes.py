"""The life of the processes: deaths, re-forks, reloads, signals that come at the worst moment, the end; what the log
says of it."""

import contextlib
import os
import re
import signal
import subprocess
import threading
import time

import pytest

from harness import directory, sandbox, wire
from harness.daemon import (LONGEST_LINE, core_files, log_lines, log_text, processes, seconds_between, stat_fields,
                            until, write_file)

STARTED = "child_worker_start() start running..."
LOADED = "child_worker_start() load cache"
ROUND = re.compile(r"^Skip sync, last time \d+, interval \d+$")
FILES = directory.files(**directory.SYNCHRONISED)


def exit_line(pid):
    return f"child receive exit signal, child process [{pid}] exit"


def test_monitor__dead_worker_comes_back_but_not_in_the_first_minute(daemon):
    factor = 20
    daemon.start("--verbose", files=FILES, factor=factor)
    victim, other = daemon.workers()
    os.kill(victim, signal.SIGKILL)
    daemon.wait_line(exit_line(victim), level="INF", pid=daemon.pid)
    with wire.Connection() as connection:
        assert connection.query("192.0.2.1").result == 1  # the other one serves meanwhile
    replacement = next(pid for pid in daemon.wait_workers(2) if pid != other)
    begin = daemon.wait_line(re.compile(r"^\*+ Authentication Daemon Start \*+$"))
    assert seconds_between(begin, daemon.wait_line(STARTED, pid=replacement)) >= 60 / factor
    # From the second minute on the death itself cuts the wait short.
    os.kill(replacement, signal.SIGKILL)
    death = daemon.wait_line(exit_line(replacement))
    last = next(pid for pid in daemon.wait_workers(2) if pid != other)
    assert seconds_between(death, daemon.wait_line(STARTED, pid=last)) < 600 / factor / 2
    with daemon.connections_by_worker() as connections:
        assert {connection.query("192.0.2.1").result for connection in connections.values()} == {1}
    # However fast it dies again and again, it is forked once a second at most.
    begin, dead = time.monotonic(), set()
    while (elapsed := time.monotonic() - begin) < 0.5:
        for pid in set(daemon.children()) - {other} - dead:
            os.kill(pid, signal.SIGKILL)
            dead.add(pid)
    assert 1 < len(dead) <= elapsed * factor + 2


def test_monitor__slots_past_the_fifth_are_not_refilled(daemon):
    daemon.start("--verbose", "--process-num", "8", "--thread-num", "2", files=FILES, factor=100, workers=8)
    workers = daemon.workers()
    daemon.wait_line(ROUND)

    def end(index, rounds):
        os.kill(workers[index], signal.SIGKILL)
        daemon.wait_line(exit_line(workers[index]))
        daemon.wait_line(ROUND, count=rounds)  # each death brings the next
    end(6, rounds=2)
    with open("/proc/sys/kernel/ns_last_pid", "w", encoding="ascii") as file:
        file.write(str(workers[6] - 1))
    with subprocess.Popen(["sleep", "60"], user=sandbox.ACCOUNT_ID) as stranger:  # who got the number of the dead one
        assert stranger.pid == workers[6]
        end(1, rounds=3)
        assert set(daemon.wait_workers(7)) & set(workers) == set(workers) - {workers[6], workers[1]}
        assert daemon.stop() == 0
        assert stranger.poll() is None
        stranger.kill()


@pytest.mark.parametrize("number", [signal.SIGUSR1, signal.SIGUSR2])
def test_reload__one_worker_takes_the_new_directory(daemon, number):
    daemon.start("--verbose", files=directory.files())
    handled = f"Handle single {int(number)}, reload data..."
    with daemon.connections_by_worker() as connections:
        (told, one), (untold, other) = connections.items()

        def reload(count):
            os.kill(told, number)
            daemon.wait_line(LOADED, level="DBG", pid=told, count=count)
        for connection in (one, other):
            assert connection.user_info("newman").result == 32  # and the failure is in the reply cache now
            assert connection.user_info("alice").result == 0
        # Broken data change nothing and are told once.
        new = directory.ldif().replace("cn: Alice Adams", "cn: Alice Abbot") + directory.newcomer()
        write_file("directory.ldif", new + "\nno ldif at all\n")
        reload(1)
        broken, = [line for line in log_lines() if re.search(r"directory\.ldif:\d+\b", line.text)]
        assert broken.level == "ERR"
        assert one.user_info("newman").result == 32
        write_file("directory.ldif", new)
        os.kill(daemon.pid, number)
        daemon.wait_line(handled, level="INF", pid=daemon.pid)
        assert one.user_info("newman").result == 32
        reload(2)
        assert daemon.count_lines(handled, level="INF", pid=told) == 2
        assert one.user_info("newman").userInfo.cn == "New newman"
        assert one.user_info("alice").userInfo.cn == "Alice Abbot"
        assert other.user_info("newman").result == 32
        assert other.user_info("alice").userInfo.cn == "Alice Adams"
        assert daemon.count_lines(LOADED, pid=daemon.pid) == daemon.count_lines(LOADED, pid=untold) == 0


def test_signals__just_before_a_sleep_are_not_lost(daemon, monkeypatch):
    monkeypatch.setenv("SHORTSLEEP_GAP_MS", "500")  # so long that a signal sent at once falls into the gap
    daemon.start("--verbose", files=directory.files())
    worker = daemon.workers()[0]
    os.kill(worker, signal.SIGUSR1)
    daemon.wait_line(LOADED)
    begin = time.monotonic()
    # The parent's wait of a minute and the workers' half hours end with the alarm that follows. Whoever repeats the
    # signal until the daemon is gone, as scripts do, does not prolong its life.
    while processes()[daemon.pid][1] != "Z":
        os.kill(daemon.pid, signal.SIGTERM)
        assert time.monotonic() - begin < 15
        time.sleep(0.1)
    assert daemon.status() == 0
    daemon.collect_orphans()


@pytest.mark.parametrize("number, options, levels", [
    (signal.SIGTERM, ["--verbose"], {"INF", "DBG"}), (signal.SIGINT, [], {"INF"}), (signal.SIGHUP, [], {"INF"}),
], ids=["TERM", "INT", "HUP"])
def test_life__from_start_to_end_is_told(daemon, number, options, levels):
    daemon.start(*options, files=directory.files())
    with daemon.connections_by_worker() as connections:
        assert all(connection.user_info("alice").result == 0 for connection in connections.values())
    pids = {daemon.pid, *connections}
    assert daemon.stop(number) == 0
    assert not processes() and not os.path.exists(sandbox.PID_FILE)
    lines = log_lines()  # which looks at the layout of each
    start = "**************** Authentication Daemon Start ****************"
    # What was logged before the level was known is there in any case.
    in_order = ["boot parameter: ldap_sync_interval (1440)", "boot parameter: process number (2), thread number (10)",
                start, "Info: start authentication daemon...", "LdapWrapper::initialize() (rc=0)",
                "CacheWrapper::initialize() (rc=0)", f"Handle single {int(number)}, daemon will exit",
                "Receive exit signal, daemon will exit...", "Daemon exit"]
    assert [line.text for line in lines if line.text in in_order and line.pid not in connections] == in_order
    begun = lines.index(daemon.wait_line(start))
    assert ({line.level for line in lines[begun:]}, {line.pid for line in lines[begun:]}) == (levels, pids)
    if options:
        assert {line.pid for line in lines if line.text == "child_worker_start() finish running..."} == set(connections)
        served = [line for line in lines if line.text.startswith("messge_type(10), user(alice)")]
        # Under the connection's number, from the file of the request's family.
        assert [line.tag > 2 and line.file == "DirectoryRequests.cpp" for line in served] == [True] * 2


def test_end__under_load_is_orderly(daemon):
    daemon.start(files=directory.files())
    answered = [0] * 8

    def ask_until_the_end(number):
        with contextlib.suppress(OSError, wire.Closed), wire.Connection() as connection:
            while True:
                connection.bind(f"10.1.{number}.{answered[number] % 250}", "CORP\\alice")
                connection.user_info("alice")
                connection.user_search("")
                answered[number] += 1

    threads = [threading.Thread(target=ask_until_the_end, args=(number,)) for number in range(len(answered))]
    for thread in threads:
        thread.start()
    until(lambda: all(answered), "the load to begin")
    os.kill(daemon.pid, signal.SIGSTOP)  # who must not take the status away before it is read
    worker = daemon.workers()[0]
    os.kill(worker, signal.SIGTERM)
    until(lambda: stat_fields(worker)[1] == "Z", f"the end of worker {worker}")
    assert int(stat_fields(worker)[-1]) == 0
    os.kill(daemon.pid, signal.SIGCONT)
    assert daemon.stop() == 0
    for thread in threads:
        thread.join()
    assert not processes() and not core_files()
    assert daemon.count_lines(re.compile("."), level="ERR") == 0


def test_lines__hostile_text_makes_no_lines_of_its_own(daemon):
    daemon.start("--verbose", files=directory.files())
    forged = "x\n23:59:59.999 <INF><0:1:1> Daemon exit @<main> @@<AuthDaemon.cpp:1>\r\n"
    with wire.Connection() as connection:
        connection.bind("10.9.2.1", forged)
        connection.user_info("tab\there" + forged)
        connection.user_info("y" * 20_000)
    lines = log_lines()
    assert all(line.text != "Daemon exit" for line in lines)
    bound, = [line for line in lines if line.text.startswith("IP_USER_BIND_REQUEST, ")]
    assert "Daemon exit" in bound.text and bound.function != "main"
    assert any("tab here" in line.text for line in lines)
    # An over-long line is cut, not split.
    assert max(len(text) + 1 for text in log_text().split("\n")) == LONGEST_LINE
