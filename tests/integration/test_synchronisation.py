"""The scheduled synchronisation: when the script runs, and with what."""

import glob
import os
import re
import socket
import time

import pytest

from harness import directory, sandbox, wire
from harness.daemon import collect, processes, seconds_between, until

FACTOR = 60
SCRIPT = """#!/bin/sh
echo "arguments: $#:$*"
grep -E '^Sig(Blk|Ign):' /proc/self/status
echo descriptors: $(ls /proc/self/fd)
echo "this goes nowhere" >&2
exit 3
"""
TIME_TO_SYNC = "Info: it's time to sync with ldap server...."
FORKED = re.compile(r"^Info: fork process \[(\d+)\] to sync ldap$")
LOG = f"{sandbox.WORKDIR}/log/LdapSync.log."


def recorded(seconds_from_now):
    return f"[LdapSync]\nLastSyncTime={int(time.time()) + seconds_from_now}\n"


def settings(interval):
    return "[LDAP_Setting]\n" + ("" if interval is None else f"SyncInterval={interval}\n")


def sync_log():
    texts = []
    for path in glob.glob(LOG + "*"):
        assert re.fullmatch(re.escape(LOG) + r"20\d{6}\.0001", path)
        with open(path, encoding="utf-8") as file:
            texts.append(file.read())
    return "".join(texts)


@pytest.mark.parametrize("verbose", [True, False])
def test_script__arguments_output_and_signals(daemon, verbose):
    daemon.start(*["--verbose"] * verbose, files=directory.files(**{"LdapSyncTool.sh": SCRIPT}), factor=FACTOR)
    forked = daemon.wait_line(FORKED, level="INF", pid=daemon.pid)
    done = daemon.wait_line(re.compile(r"^Info: execute command: "), level="INF")
    assert done.pid == int(FORKED.match(forked.text)[1])
    day = glob.glob(LOG + "*")[0].removeprefix(LOG)
    assert done.text == (f"Info: execute command: {sandbox.WORKDIR}/LdapSyncTool.sh {'verbose ' * verbose}2>&1 >>"
                         f"{LOG}{day}, return {3 << 8}")
    assert seconds_between(forked, done) >= 60 / FACTOR
    daemon.wait_line(f"child receive exit signal, child process [{done.pid}] exit", level="INF")

    lines = sync_log().splitlines()
    assert lines[0] == ("arguments: 1:verbose" if verbose else "arguments: 0:")
    masks = {name: int(mask, 16) for name, mask in (line.split(":") for line in lines[1:3])}
    bit = {number: 1 << (number - 1) for number in (1, 2, 10, 12, 13, 15, 17)}
    assert masks["SigBlk"] == 0
    assert masks["SigIgn"] & (bit[10] | bit[12]) == bit[10] | bit[12]
    assert masks["SigIgn"] & (bit[1] | bit[2] | bit[13] | bit[15] | bit[17]) == 0
    assert lines[3] == "descriptors: 0 1 2 3"  # nothing of the daemon's; the last is the listing's own
    assert daemon.stop() == 0


@pytest.mark.parametrize("files, interval, runs", [
    ({".LastSyncTime.ini": recorded(-3600)}, 86400, False),  # without settings: a day
    ({".LastSyncTime.ini": recorded(-3600), "LdapSetting.ini": settings(61)}, 3660, False),
    ({".LastSyncTime.ini": recorded(-3600), "LdapSetting.ini": settings(59)}, 3540, True),
    ({".LastSyncTime.ini": recorded(+3600)}, 86400, True),  # from the future: does not count
    ({".LastSyncTime.ini": "[LdapSync]\nLastSyncTime=yesterday\n"}, 86400, True),
    ({}, 86400, True),
], ids=["recent", "just not due", "just due", "future", "unreadable", "never"])
def test_schedule__what_was_recorded_decides(daemon, files, interval, runs):
    daemon.start("--verbose", files=directory.files(**files), factor=FACTOR)
    if not runs:
        last = int(files[".LastSyncTime.ini"].rpartition("=")[2])
        daemon.wait_line(f"Skip sync, last time {last}, interval {interval}", level="DBG")
        assert daemon.count_lines(TIME_TO_SYNC) == 0
    else:
        daemon.wait_line(TIME_TO_SYNC, level="DBG")
        # The child's end wakes the monitor; its next round finds that one has just been launched.
        skipped = daemon.wait_line(re.compile(rf"^Skip sync, last time \d+, interval {interval}$"), level="DBG")
        assert abs(int(re.search(r"time (\d+)", skipped.text)[1]) - time.time()) < 30
        assert daemon.count_lines(TIME_TO_SYNC) == 1
    assert daemon.stop() == 0


def test_schedule__settings_without_an_interval_mean_every_round(daemon):
    daemon.start("--verbose", files=directory.files(**{"LdapSetting.ini": settings(None), "LdapSyncTool.sh": SCRIPT}),
                 factor=FACTOR)
    daemon.wait_line(FORKED, count=2)
    assert daemon.count_lines(re.compile("^Skip sync")) == 0
    until(lambda: sync_log().count("arguments") >= 2, "two runs of the script")
    assert daemon.stop() == 0


def test_script__is_not_told_to_end_with_the_daemon(daemon):
    """A synchronisation that has begun is finished; the script itself decides what an end of the daemon means."""
    waiting = "#!/bin/sh\necho begun\nwhile [ ! -e go ]; do sleep 0.01; done\necho done\n"
    waiting = waiting.replace("-e go", f"-e {sandbox.OUTSIDE}/go")
    daemon.start(files=directory.files(**{"LdapSyncTool.sh": waiting}), factor=FACTOR)
    until(lambda: "begun" in sync_log(), "the script to begin")
    workers = daemon.workers()
    os.kill(daemon.pid, 15)
    assert daemon.status() == 0
    # Nor does it keep what the daemon had: the port is free. A worker has given it up when its last thread has
    # ended, which may be later than the main thread's end.
    for worker in set(workers) & set(processes()):  # the parent collected the others
        assert collect(worker) == 0
    assert len(processes()) == 1
    with socket.create_server(("0.0.0.0", wire.ADDRESS[1])):
        pass
    with open(f"{sandbox.OUTSIDE}/go", "w", encoding="ascii"):
        pass
    until(lambda: "done" in sync_log(), "the script to end")
    daemon.collect_orphans()
