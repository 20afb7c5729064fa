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
FORKED = re.compile(r"^Info: fork process \[(\d+)\] to sync ldap$")
LOG = f"{sandbox.WORKDIR}/log/LdapSync.log."


def sync_log():
    texts = []
    for path in glob.glob(LOG + "*"):
        assert re.fullmatch(re.escape(LOG) + r"20\d{6}\.0001", path)
        with open(path, encoding="utf-8") as file:
            texts.append(file.read())
    return "".join(texts)


@pytest.mark.parametrize("options", [["--verbose"], []], ids=str)
def test_script__arguments_output_and_signals(daemon, options):
    daemon.start(*options, files=directory.files(**{"LdapSyncTool.sh": SCRIPT}), factor=FACTOR)
    forked = daemon.wait_line(FORKED, level="INF", pid=daemon.pid)
    done = daemon.wait_line(re.compile(r"^Info: execute command: "), level="INF")
    assert done.pid == int(FORKED.match(forked.text)[1])
    assert done.text == (f"Info: execute command: {sandbox.WORKDIR}/LdapSyncTool.sh {'verbose ' * len(options)}2>&1 >>"
                         f"{glob.glob(LOG + '*')[0]}, return {3 << 8}")
    assert seconds_between(forked, done) >= 60 / FACTOR
    daemon.wait_line(f"child receive exit signal, child process [{done.pid}] exit", level="INF")
    assert os.stat(glob.glob(LOG + "*")[0]).st_mode & 0o777 == 0o640  # not the daemon's umask
    said, *masks, descriptors = sync_log().splitlines()
    assert said == ("arguments: 1:verbose" if options else "arguments: 0:")
    blocked, ignored = (int(mask.split(":")[1], 16) for mask in masks)
    assert blocked == 0
    assert {number for number in (1, 2, 10, 12, 13, 15, 17) if ignored >> (number - 1) & 1} == {10, 12}
    assert descriptors == "descriptors: 0 1 2 3"  # nothing of the daemon's; the last is the listing's own


@pytest.mark.parametrize("ago, settings, interval, runs", [
    (3600, None, 86400, 0),  # without settings: a day
    (3600, "SyncInterval=61", 3660, 0),
    (3600, "SyncInterval=59", 3540, 1),
    (-3600, None, 86400, 1),  # from the future: does not count
    (3600, "", None, 2),  # settings without an interval: every round
], ids=str)
def test_schedule__what_was_recorded_decides(daemon, ago, settings, interval, runs):
    last = int(time.time()) - ago
    files = directory.files(**{".LastSyncTime.ini": f"[LdapSync]\nLastSyncTime={last}\n"})
    if settings is not None:
        files["LdapSetting.ini"] = f"[LDAP_Setting]\n{settings}\n"
    daemon.start("--verbose", files=files, factor=FACTOR)
    if runs > 0:
        daemon.wait_line(FORKED, count=runs)
    if interval is not None:  # the child's end wakes the monitor, which finds that one has just been launched
        skipped = daemon.wait_line(re.compile(rf"^Skip sync, last time \d+, interval {interval}$"), level="DBG")
        assert abs(int(re.search(r"time (\d+)", skipped.text)[1]) - (time.time() if runs else last)) < 30
        assert daemon.count_lines(FORKED) == runs


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
