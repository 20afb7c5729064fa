"""Start: options, account, files, port, what fails and how."""

import fcntl
import os
import re
import resource
import socket
import stat
import time

import pytest

from harness import directory, sandbox, wire
from harness.daemon import log_lines, processes, until, write_file

UNKNOWN = "192.0.2.1"


@pytest.mark.parametrize("options, workers, threads, verbose", [
    (["--process-num", "11", "--thread-num", "-4"], 2, 10, False),
    (["--process-num", "10", "--thread-num", "1"], 10, 1, False),
    (["--process-num", "1", "--thread-num", "30", "--verbose"], 1, 30, True),
], ids=lambda value: " ".join(value) or "none" if isinstance(value, list) else None)
def test_options__numbers_and_verbosity(daemon, options, workers, threads, verbose):
    daemon.start(*options, workers=workers)
    daemon.wait_line(f"boot parameter: process number ({workers}), thread number ({threads})", level="DBG")
    with wire.Connection() as connection:
        assert connection.query(UNKNOWN).result == 1
    for worker in daemon.workers():
        # The event loop's threads; the main one; one that looks after the bindings; perhaps two of a sanitizer.
        until(lambda pid=worker: threads < len(os.listdir(f"/proc/{pid}/task")) <= threads + 4, "the threads")
    assert (daemon.count_lines(re.compile(r"^message_type\(6\)"), level="DBG") > 0) == verbose
    assert daemon.stop() == 0


def test_process__account_files_and_descriptors(daemon):
    daemon.start(files=directory.files())
    with wire.Connection() as connection:
        assert connection.bind("192.0.2.7", "CORP\\alice") == 0
        assert connection.export(f"{sandbox.OUTSIDE}/bindings.csv") == 0
    with open(sandbox.PID_FILE, "rb") as file:
        assert file.read() == str(daemon.pid).encode()
    for pid in [daemon.pid, *daemon.workers()]:
        with open(f"/proc/{pid}/status", encoding="ascii") as file:
            status = dict(line.rstrip("\n").split(":\t", 1) for line in file if ":\t" in line)
        assert status["Uid"].split() == [str(sandbox.ACCOUNT_ID)] * 4
        assert status["Gid"].split() == [str(sandbox.ACCOUNT_ID)] * 4
        assert set(status["Groups"].split()) == {str(sandbox.ACCOUNT_ID), str(sandbox.SECOND_GROUP_ID)}
        assert int(status["Umask"], 8) == 0
        assert [daemon.descriptors(pid).get(fd) for fd in range(3)] == ["/dev/null"] * 3
    assert os.getsid(daemon.pid) == daemon.pid
    # Umask 0 and yet: nobody else writes anything, and nobody else reads the password hashes.
    for top in ("/var/brel", "/etc/quarn"):
        for folder, folders, files in os.walk(top):
            for path in (os.path.join(folder, name) for name in folders + files):
                mode = os.lstat(path).st_mode
                assert not mode & stat.S_IWOTH or path == sandbox.REPORTS, f"{path} has mode {mode:o}"
    assert os.stat(f"{sandbox.WORKDIR}/directory.db").st_mode & 0o077 == 0
    assert daemon.stop() == 0
    assert not os.path.exists(sandbox.PID_FILE)


def test_process__without_the_account_it_stays_root(daemon):
    daemon.start(account=False, files=directory.files())
    assert os.path.exists(sandbox.PID_FILE)
    assert {os.stat(f"/proc/{pid}").st_uid for pid in [daemon.pid, *daemon.workers()]} == {0}
    with wire.Connection() as connection:
        assert connection.user_info("alice").result == 0
    assert daemon.stop() == 0


def test_process__inherited_descriptors_are_closed(daemon):
    reading, writing = os.pipe()
    copies = [fcntl.fcntl(writing, fcntl.F_DUPFD, lowest) for lowest in (700, 4_000)]
    # One of them lies above the daemon's soft limit.
    daemon.start(open_files=(1_024, 5_000), inherit=[writing, *copies])
    for fd in [writing, *copies]:
        os.close(fd)
    os.set_blocking(reading, False)
    assert os.read(reading, 1) == b""  # the end of the file: nobody holds the other end
    os.close(reading)


def test_process__starts_fast_with_a_million_descriptors_allowed(daemon):
    limit = 1_048_576
    try:
        resource.prlimit(os.getpid(), resource.RLIMIT_NOFILE, (20_000, limit))
    except (ValueError, PermissionError):
        pytest.skip(f"this machine does not let root allow {limit} descriptors")
    begin = time.monotonic()
    daemon.start()
    assert time.monotonic() - begin < 2
    assert daemon.stop() == 0


def test_failure__port_taken(daemon):
    with socket.create_server(("0.0.0.0", wire.ADDRESS[1])):
        daemon.start(files=directory.files(), wait=False)
        assert daemon.status() == 0
    daemon.wait_line(re.compile(r"Fail to bind listening socket \[Address already in use\]"), level="ERR")
    assert daemon.count_lines(re.compile("initialize")) == 0
    assert not os.path.exists(sandbox.PID_FILE)


@pytest.mark.parametrize("files, complaint", [
    ({"directory.ldif": "version: 1\n\ndn: CN=a,DC=corp,DC=test\nno colon here\n"}, r"directory\.ldif:4\b"),
    ({"directory.ldif": "dn:: not base64!\ncn: a\n"}, r"directory\.ldif:1\b"),
    ({"LdapSetting.ini": "[LDAP_Setting]\nSource=carrier pigeon\n"}, r"LdapSetting\.ini.*Source"),
    ({"LdapSetting.ini": "[Domain_1]\nDnsName=corp.test\n"}, r"LdapSetting\.ini.*Servers"),
    ({"LdapSetting.ini": "[LDAP_Setting]\nSearchLimit=many\n"}, r"LdapSetting\.ini.*SearchLimit"),
    ({"IPUserCache.ini": "[IPUserCache]\nLifetime=soon\n"}, r"IPUserCache\.ini.*Lifetime"),
    ({"IPUserCache.ini": "[IPUserCache]\nBackend=redis\nServer=127.0.0.1\n"}, r"IPUserCache\.ini.*Backend"),
], ids=["no colon", "bad base64", "unknown source", "no servers", "bad number", "bad lifetime", "later backend"])
def test_failure__settings_and_data(daemon, files, complaint):
    daemon.start(files=files, wait=False)
    assert daemon.status() == 1
    daemon.wait_line("Error: fail to initialize velder library, exit", level="INF")
    hits = [line for line in log_lines() if re.search(complaint, line.text)]
    assert len(hits) == 1, [line.text for line in log_lines()]
    # Both libraries are always tried; the one that is not at fault is well.
    bad = "CacheWrapper" if "IPUserCache.ini" in files else "LdapWrapper"
    for library in ("LdapWrapper", "CacheWrapper"):
        good = daemon.count_lines(f"{library}::initialize() (rc=0)") == 1
        assert good == (library != bad)
    assert not os.path.exists(sandbox.PID_FILE)
    assert not os.path.exists(f"{sandbox.WORKDIR}/directory.db") or bad == "CacheWrapper"


def test_failure__data_that_the_account_may_not_read(daemon):
    sandbox.clean(account=True)
    write_file("directory.ldif", directory.ldif(), account=False)
    daemon.start(keep=True, wait=False)
    assert daemon.status() == 1
    daemon.wait_line(re.compile(r"directory\.ldif.*Permission denied"))


def test_start__again_at_once_on_the_same_port_and_folder(daemon):
    daemon.start(files=directory.files())
    with wire.Connection() as connection:
        assert connection.user_info("alice").result == 0
        assert daemon.stop() == 0  # with the connection open, so that the port stays in use for a while
        connection.expect_closed()
    daemon.start(keep=True)
    assert wire.ask(wire.USER_INFO, wire.pb.UserInfoQueryRequest(user_ln="alice")).result == 0
    assert daemon.stop() == 0
    assert not processes()
