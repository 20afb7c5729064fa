"""The log file: its lines, its name, what is told and what is not."""

import glob
import os
import time

import pytest

from harness import directory, sandbox, wire
from harness.daemon import LONGEST_LINE, log_lines, log_text

START = "**************** Authentication Daemon Start ****************"


def test_lines__have_one_layout_and_one_file_a_day(daemon):
    before = time.localtime()
    daemon.start("--verbose", files=directory.files())
    with daemon.connections_by_worker() as connections:
        for connection in connections.values():
            assert connection.user_info("alice").result == 0
    lines = log_lines()  # which looks at the layout of each
    after = time.localtime()
    name, = glob.glob(f"{sandbox.LOG_DIR}/*")
    assert name in [time.strftime(f"{sandbox.LOG_DIR}/AuthDaemon.log.%Y%m%d.0001", day) for day in (before, after)]
    assert os.stat(name).st_mode & 0o7777 == 0o660
    assert {line.level for line in lines} == {"INF", "DBG"}
    begun = lines.index(daemon.wait_line(START))
    assert {line.pid for line in lines[begun:]} == {daemon.pid, *daemon.workers()}
    for worker in daemon.workers():
        tids = {line.tid for line in lines if line.pid == worker}
        assert tids <= {int(tid) for tid in os.listdir(f"/proc/{worker}/task")}
    served = [line for line in lines if line.text.startswith("messge_type(10), user(alice)")]
    assert len(served) == 2
    for line in served:  # under the connection's number, from the file of the request's family
        assert line.tag > 2 and line.file == "DirectoryRequests.cpp"
    assert daemon.stop() == 0


@pytest.mark.parametrize("options, levels", [([], {"INF"}), (["--verbose"], {"INF", "DBG"})])
def test_levels__debug_only_when_verbose(daemon, options, levels):
    daemon.start(*options, files=directory.files())
    with wire.Connection() as connection:
        connection.user_info("alice")
        connection.bind("10.9.0.1", "CORP\\alice")
        connection.query("10.9.0.1")
    assert daemon.stop() == 0
    lines = log_lines()
    begun = lines.index(daemon.wait_line(START))
    assert {line.level for line in lines[begun:]} == levels
    # What was logged before the level was known is there in any case.
    early = [line.text for line in lines[:begun]]
    assert "boot parameter: ldap_sync_interval (1440)" in early
    assert "boot parameter: process number (2), thread number (10)" in early
    in_order = [START, "Info: start authentication daemon...", "LdapWrapper::initialize() (rc=0)",
                "CacheWrapper::initialize() (rc=0)", "Daemon exit"]
    assert [line.text for line in lines if line.text in in_order] == in_order


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
    assert daemon.stop() == 0
