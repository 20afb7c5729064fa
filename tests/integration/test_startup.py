"""Start: options, account, files, port, what fails and how."""

import fcntl
import glob
import os
import re
import resource
import signal
import socket
import stat
import time
from pathlib import Path

import pytest

from harness import directory, sandbox, wire
from harness.authctl import authctl
from harness.daemon import log_lines, until, write_file
from servers.workdir import sanitized


HANDLED = (signal.SIGHUP, signal.SIGINT, signal.SIGTERM, signal.SIGUSR1, signal.SIGUSR2, signal.SIGCHLD)


def test_options__workers_and_threads(daemon):
    for workers, threads in ((10, 1), (1, 30)):
        daemon.start("--process-num", str(workers), "--thread-num", str(threads), workers=workers)
        of_sanitizers = 2 * sanitized("AuthDaemon")
        with daemon.connections_by_worker() as workers_asked:  # with the question comes what looks after the bindings
            for worker in workers_asked:
                tasks, count = f"/proc/{worker}/task", threads + 2
                until(lambda path=tasks: count <= len(os.listdir(path)) <= count + of_sanitizers, "the threads")  # pylint: disable=cell-var-from-loop
                for task in set(os.listdir(tasks)) - {str(worker)}:  # signals are the main thread's
                    blocked = re.search(r"SigBlk:\s(\w+)", Path(f"{tasks}/{task}/status").read_text("ascii"))[1]
                    assert all(int(blocked, 16) >> (number - 1) & 1 for number in HANDLED)
        assert len(os.listdir(f"/proc/{daemon.pid}/task")) <= 1 + of_sanitizers  # or the forks would not be safe
        assert daemon.stop() == 0


def test_process__account_files_and_descriptors(daemon):
    daemon.start(files=directory.files())
    with wire.Connection() as connection:
        assert connection.bind("192.0.2.7", "CORP\\alice") == 0
        assert connection.export(f"{sandbox.OUTSIDE}/bindings.csv") == 0
        # Again at once: with the connection open the port stays in use for a while.
        assert daemon.stop() == 0
        connection.expect_closed()
    daemon.start(keep=True)
    assert wire.ask(wire.IP_QUERY, wire.pb.IPUserQueryRequest(ip="192.0.2.7")).result == 0
    with open(sandbox.PID_FILE, "rb") as file:
        assert file.read() == str(daemon.pid).encode()
    for pid in [daemon.pid, *daemon.workers()]:
        with open(f"/proc/{pid}/status", encoding="ascii") as file:
            status = dict(line.rstrip("\n").split(":\t", 1) for line in file if ":\t" in line)
        assert status["Uid"].split() == status["Gid"].split() == [str(sandbox.ACCOUNT_ID)] * 4
        assert set(status["Groups"].split()) == {str(sandbox.ACCOUNT_ID), str(sandbox.SECOND_GROUP_ID)}
        assert [daemon.descriptors(pid).get(fd) for fd in range(3)] == ["/dev/null"] * 3
    assert os.getsid(daemon.pid) == daemon.pid
    # Umask 0 and yet: nobody else writes anything, and nobody else reads the password hashes or the bindings.
    for top in ("/var/brel", "/etc/quarn"):
        for folder, folders, files in os.walk(top):
            for path in (os.path.join(folder, name) for name in folders + files):
                mode = os.lstat(path).st_mode
                assert not mode & stat.S_IWOTH or path == sandbox.REPORTS, f"{path} has mode {mode:o}"
    private = [f"{sandbox.WORKDIR}/directory.db", *glob.glob(f"{sandbox.WORKDIR}/ip_user_cache/**", recursive=True)]
    assert len(private) >= 6 and not [path for path in private if os.stat(path).st_mode & 0o077]


def test_process__without_the_account_it_stays_root(daemon):
    daemon.start(account=False, files=directory.files())
    assert {os.stat(f"/proc/{pid}").st_uid for pid in [daemon.pid, *daemon.workers()]} == {0}
    assert wire.ask(wire.USER_INFO, wire.pb.UserInfoQueryRequest(user_ln="alice")).result == 0


def test_process__inherited_descriptors_are_closed_fast_however_many_are_allowed(daemon):
    limit = min(1_048_576, resource.getrlimit(resource.RLIMIT_NOFILE)[1])
    reading, writing = os.pipe()
    copies = [writing, fcntl.fcntl(writing, fcntl.F_DUPFD, 700), fcntl.fcntl(writing, fcntl.F_DUPFD, 4_000)]
    begin = time.monotonic()
    daemon.start(open_files=(1_024, limit), inherit=copies)  # one of them lies above the daemon's soft limit
    assert time.monotonic() - begin < 2
    for fd in copies:
        os.close(fd)
    os.set_blocking(reading, False)
    assert os.read(reading, 1) == b""  # the end of the file: nobody holds the other end
    os.close(reading)


def test_failure__port_taken(daemon):
    with socket.create_server(("0.0.0.0", wire.ADDRESS[1])):
        daemon.start(files=directory.files(), wait=False)
        assert daemon.status() == 0
    daemon.wait_line(re.compile(r"Fail to bind listening socket \[Address already in use\]"), level="ERR")
    assert daemon.count_lines(re.compile("initialize")) == 0
    assert not os.path.exists(sandbox.PID_FILE)


@pytest.mark.parametrize("name, content, complaint", [
    ("directory.ldif", "version: 1\n\ndn: CN=a,DC=corp,DC=test\nno colon here\n", r"directory\.ldif:4\b"),
    ("directory.ldif", None, r"directory\.ldif.*Permission denied"),  # the account may not read it
    ("LdapSetting.ini", "[LDAP_Setting]\nSource=carrier pigeon\n", r"LdapSetting\.ini.*Source"),
    ("LdapSetting.ini", "[Domain_1]\nDnsName=corp.test\n", r"LdapSetting\.ini.*Servers"),
    ("IPUserCache.ini", "[IPUserCache]\nBackend=redis\nServer=127.0.0.1\n", r"IPUserCache\.ini.*Backend"),
], ids=["no colon", "not readable", "unknown source", "no servers", "unknown backend"])
def test_failure__settings_and_data(daemon, name, content, complaint):
    sandbox.clean(account=True)
    write_file(name, content or directory.ldif(), account=content is not None)
    _, found, _ = authctl("check-config", "--workdir", sandbox.WORKDIR)
    assert re.search(complaint, found) and ": error: " in found  # before a start it is found, too
    daemon.start(keep=True, wait=False)
    assert daemon.status() == 1
    daemon.wait_line("Error: fail to initialize velder library, exit", level="INF")
    hits = [line for line in log_lines() if re.search(complaint, line.text)]
    assert len(hits) == 1, [line.text for line in log_lines()]
    # Both libraries are always tried; the one that is not at fault is well.
    bad = "CacheWrapper" if name == "IPUserCache.ini" else "LdapWrapper"
    for library in ("LdapWrapper", "CacheWrapper"):
        assert daemon.count_lines(f"{library}::initialize() (rc=0)") == (library != bad)
    assert not os.path.exists(sandbox.PID_FILE)
    assert not os.path.exists(f"{sandbox.WORKDIR}/directory.db") or bad == "CacheWrapper"
