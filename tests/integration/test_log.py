"""The log file: its lines, its name, what is told and what is not."""

import pytest

from harness import directory, wire
from harness.daemon import LONGEST_LINE, log_lines, log_text

START = "**************** Authentication Daemon Start ****************"


@pytest.mark.parametrize("options, levels", [([], {"INF"}), (["--verbose"], {"INF", "DBG"})])
def test_lines__of_a_life_have_one_layout_and_their_levels(daemon, options, levels):
    daemon.start(*options, files=directory.files())
    with daemon.connections_by_worker() as connections:
        assert all(connection.user_info("alice").result == 0 for connection in connections.values())
    pids = {daemon.pid, *daemon.workers()}
    assert daemon.stop() == 0
    lines = log_lines()  # which looks at the layout of each
    begun = lines.index(daemon.wait_line(START))
    assert {line.level for line in lines[begun:]} == levels
    assert {line.pid for line in lines[begun:]} == pids
    # What was logged before the level was known is there in any case.
    in_order = ["boot parameter: ldap_sync_interval (1440)", "boot parameter: process number (2), thread number (10)",
                START, "Info: start authentication daemon...", "LdapWrapper::initialize() (rc=0)",
                "CacheWrapper::initialize() (rc=0)", "Daemon exit"]
    assert [line.text for line in lines if line.text in in_order] == in_order
    served = [line for line in lines if line.text.startswith("messge_type(10), user(alice)")]
    assert len(served) == (2 if options else 0)
    # Under the connection's number, from the file of the request's family.
    assert all(line.tag > 2 and line.file == "DirectoryRequests.cpp" for line in served)


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
