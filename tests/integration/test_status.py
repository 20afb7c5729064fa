"""authctl status, reload and check-config on a daemon that is well, half dead, frozen, gone or wrongly set up."""

import fcntl
import glob
import json
import os
import pty
import re
import select
import signal
import struct
import subprocess
import termios
import time

import pytest

from harness import directory, sandbox
from harness.authctl import USAGE, authctl
from harness.daemon import LONG_WAIT, program, until, write_file
from servers import people, workdir
from servers.slapd import READER, READER_PASSWORD, Slapd

WELL, WRONG, UNREACHABLE = 0, 1, 3
NOBODY = 65534
SETTINGS = "[LDAP_Setting]\nSyncInterval=1440\n"
STORE = f"{sandbox.WORKDIR}/ip_user_cache/bindings.mdb"


def status(*arguments, **more):
    """(exit status, report)"""
    code, out, errors = authctl("status", "--json", *arguments, **more)
    assert errors == ""
    report = json.loads(out)
    assert report["status"] == code
    return code, report


def expect_problem(expected, pattern, *arguments):
    code, report = status(*arguments)
    assert code == expected and problems(report, pattern), report


def problems(report, pattern):
    return [text for text in report["problems"] if re.search(pattern, text)]


@pytest.fixture
def well(daemon):
    """A daemon that is well, which its first seconds may not be."""
    daemon.start(files=directory.files(**{"LdapSetting.ini": SETTINGS}))
    until(lambda: status()[0] == WELL, lambda: f"a daemon that is well: {status()}")
    return daemon


def everything_below(*folders):
    """What a reader may not change: sizes, modes, times, owners of all but what the daemon itself maintains."""
    found = {path: os.lstat(path) for folder in folders
             for path in glob.glob(f"{folder}/**", recursive=True, include_hidden=True)}
    return {path: not path.startswith(os.path.dirname(STORE)) and (
        one.st_size, one.st_mode, one.st_mtime_ns, one.st_ctime_ns, one.st_uid) for path, one in found.items()}


def test_status__what_it_tells_whom(well):
    assert authctl("bind", "10.1.1.1", "CORP\\alice")[0] == 0
    code, report = status()
    assert (code, report["problems"], report["notes"]) == (WELL, [], [])
    one = report["daemon"]
    assert (one["pid"], one["workers"], one["workers_expected"], one["account"]) == (well.pid, 2, 2, "quarn")
    assert (one["workdir"], one["version"]) == (sandbox.WORKDIR, one["authctl_version"])
    assert [each["pid"] for each in one["processes"]] == [well.pid, *well.workers()]
    for each in one["processes"][1:]:
        # The question itself may open a descriptor or two.
        assert abs(each["descriptors"] - len(os.listdir(f"/proc/{each['pid']}/fd"))) <= 3
    snapshot = report["snapshot"]
    assert (snapshot["source"], snapshot["users"], snapshot["groups"], snapshot["bytes"]) == (
        "ldif", len(directory.USERS), len(directory.GROUPS), os.path.getsize(f"{sandbox.WORKDIR}/directory.db"))
    assert report["bindings"]["count"] == 1
    # An ordinary user is told what was not seen.
    code, report = status(user=NOBODY)
    assert (code, report["problems"]) == (WELL, [])
    assert report["snapshot"] is None and report["bindings"] is None
    assert report["daemon"]["workers"] == 2
    assert len([note for note in report["notes"] if note.startswith("not for this user")]) == 3
    # Looking changes nothing.
    until(lambda: os.path.exists(f"{os.path.dirname(STORE)}/bindings.compact.mdb"), "the copy of the maintenance")
    before = everything_below(sandbox.WORKDIR, "/etc/quarn")
    for user in (None, NOBODY, sandbox.ACCOUNT_ID):
        status(user=user)
        authctl("check-config", "--workdir", sandbox.WORKDIR, user=user)
    assert everything_below(sandbox.WORKDIR, "/etc/quarn") == before
    # And when there is no daemon, there are still its files.
    assert well.stop() == 0
    expect_problem(UNREACHABLE, "does not exist", "--workdir", sandbox.WORKDIR)
    code, report = status("--workdir", sandbox.WORKDIR)
    assert report["snapshot"]["users"] == len(directory.USERS)
    assert authctl("reload")[0] == UNREACHABLE


def test_status__figures_of_the_reply_cache_errors_and_script_come_from_the_log(daemon):
    daemon.start(files=directory.files(**{"LdapSyncTool.sh": "#!/bin/sh\necho nothing goes\nexit 3\n"}), factor=60)
    for _ in range(3):
        assert authctl("user-info", "alice")[0] == 0
    write_file("directory.ldif", "dn: broken\nno colon\n")
    assert authctl("reload")[0] == WRONG
    daemon.wait_line(re.compile("^Info: execute command"))
    _, report = status()
    # The figures are those of just before the reload; the three questions were spread over both workers.
    assert sum(one["queries"] for one in report["reply_cache"]) == 3
    for one in report["reply_cache"]:  # the first answer is kept, the others come from it
        assert (one["hits"] + one["count"], one["size"] > 50) == (one["queries"], one["count"] == 1)
    assert {one["pid"] for one in report["reply_cache"]} == set(daemon.workers())
    assert report["log"]["errors_today"] == daemon.count_lines(re.compile(".*"), level="ERR") == 2
    assert "directory.ldif:2" in report["log"]["last_error"]
    assert report["synchronisation"]["script_status"] == 3 << 8
    assert [note for note in report["notes"] if "status 3" in note and "nothing goes" in note]


def test_status__frozen_and_dead_processes(well):
    first, second = well.workers()
    os.kill(first, signal.SIGSTOP)
    until(lambda: problems(status()[1], f"{first} is stopped"), "the stop is seen")
    code, out, _ = authctl("reload")
    assert code == WRONG and f"worker {first}: is stopped" in out and f"worker {second}: reloaded" in out
    os.kill(second, signal.SIGSTOP)
    expect_problem(UNREACHABLE, "in time|timed out|no answer", "--timeout", "0.5")
    os.kill(second, signal.SIGCONT)
    os.kill(first, signal.SIGKILL)
    well.wait_dead(first)
    expect_problem(WRONG, "^1 of 2 workers")
    os.kill(well.pid, signal.SIGKILL)
    well.status()
    expect_problem(WRONG, "parent process has ended")
    code, out, _ = authctl("reload")
    assert code == WELL and f"worker {second}: reloaded" in out


def test_reload__a_pid_file_that_leads_elsewhere_hurts_nobody(well):
    with subprocess.Popen(["sleep", "1000"]) as other:
        for content in (None, "nonsense", "-1", "0", "1", str(other.pid), str(well.workers()[0])):
            if content is None:
                os.unlink(sandbox.PID_FILE)
            else:
                write_file(os.path.basename(sandbox.PID_FILE), content, folder=os.path.dirname(sandbox.PID_FILE))
            expect_problem(WRONG, re.escape(sandbox.PID_FILE) + "|process")
            code, out, errors = authctl("reload")
            assert code == WELL and out.count("reloaded") == 2 and "authctl: " in errors, content
            assert other.poll() is None, "a stranger was signalled"
        other.kill()


def test_status__damaged_files(well):
    for damage, pattern in [
        (lambda: write_file("bindings.mdb", b"\0" * 100, folder=os.path.dirname(STORE)), "bindings.mdb.* damaged"),
        (lambda: write_file("directory.db", b"x" * 8192), "directory.db: not a SQLite file"),
        (lambda: write_file("LdapSetting.ini", "[LDAP_Setting]\nSource=x\n"), "LdapSetting.ini has errors"),
        (lambda: os.rename(sandbox.LOG_DIR, sandbox.LOG_DIR + ".away"), "nothing is logged"),
    ]:
        assert not problems(status()[1], pattern)
        damage()
        expect_problem(WRONG, pattern)


def test_reload__every_worker_answers_from_the_new_file(well):
    write_file("directory.ldif", directory.ldif() + directory.newcomer())
    code, out, errors = authctl("reload", "--json")
    assert (code, errors) == (WELL, "")
    told = json.loads(out)["workers"]
    assert {one["pid"] for one in told} == set(well.workers())
    assert all(one["outcome"] == "reloaded" and "9 users" in one["text"] for one in told), told
    with well.connections_by_worker() as connections:
        assert all(one.user_info("newman").result == 0 for one in connections.values())
    assert {one["snapshot"] for one in status()[1]["daemon"]["processes"][1:]} == {"current"}
    # Without rights, and without a log that would tell.
    code, out, _ = authctl("reload", user=NOBODY)
    assert code == WRONG and out.count("not permitted") == 2
    assert authctl("reload", user=sandbox.ACCOUNT_ID)[0] == WELL
    assert well.count_lines("Handle single 10, reload data...") == 4
    os.rename(sandbox.LOG_DIR, sandbox.LOG_DIR + ".away")
    code, out, _ = authctl("reload")
    assert code == WELL and out.count("took the signal") == 2


# The live view.

def read_until(terminal, pattern):
    text, deadline = "", time.monotonic() + LONG_WAIT
    while not re.search(pattern, text, re.DOTALL):
        assert select.select([terminal], [], [], max(0, deadline - time.monotonic()))[0], f"no {pattern} in {text!r}"
        text += os.read(terminal, 65536).decode()
    return text


@pytest.mark.parametrize("end", [lambda pid, terminal: os.write(terminal, b"q"),
                                 lambda pid, terminal: os.write(terminal, b"\x03"),
                                 lambda pid, terminal: os.kill(pid, signal.SIGTERM)], ids=["q", "Ctrl-C", "TERM"])
def test_watch__fits_the_terminal_and_leaves_it_as_it_was(well, end):
    pid, terminal = pty.fork()
    if pid == 0:
        os.execv(program("authctl"), ["authctl", "status", "--watch", "0.2"])
    before = termios.tcgetattr(terminal)
    before[3] |= termios.ECHO | termios.ICANON
    fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 40, 120, 0, 0))
    read_until(terminal, r"\x1b\[\?1049h.*2 of 2 workers.*\x1b\[H.*2 of 2 workers")
    assert not termios.tcgetattr(terminal)[3] & termios.ECHO
    os.kill(well.workers()[0], signal.SIGKILL)
    read_until(terminal, "PROBLEM: 1 of 2 workers")
    fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 5, 20, 0, 0))
    read_until(terminal, r"\x1b\[H\d\d:.*\x1b\[J")
    frame = read_until(terminal, r"\x1b\[H\d\d:.*\x1b\[H\d\d:.*\x1b\[J").rsplit("\x1b[H", 2)[1].split("\x1b[J")[0]
    lines = [re.sub(r"\x1b\[[0-9?]*[a-zA-Z]|\r", "", line) for line in frame.split("\n")]
    assert len(lines) == 5 and max(map(len, lines)) <= 20
    end(pid, terminal)
    read_until(terminal, r"\x1b\[\?25h\x1b\[\?1049l")
    assert os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]) == WRONG
    assert termios.tcgetattr(terminal)[3] == before[3]
    os.close(terminal)


# check-config.

def check(*arguments, **more):
    code, out, errors = authctl("check-config", "--json", "--workdir", sandbox.WORKDIR, *arguments, **more)
    assert errors == ""
    report = json.loads(out)
    found = [(one["kind"], os.path.basename(one["file"]), one["line"], one["text"]) for one in report["findings"]]
    assert report["errors"] == sum(one[0] == "error" for one in found)
    assert code == (WRONG if report["errors"] else WELL)
    return found


def test_check_config__all_problems_in_one_run():
    sandbox.clean(True)
    for name, content in directory.files(**{"LdapSetting.ini": SETTINGS}).items():
        write_file(name, content)
    workdir.place_script()
    assert check() == []
    assert check(user=NOBODY)[0][3].startswith("checked with the rights of nobody")
    write_file("LdapSetting.ini", "[LDAP_Setting]\nSyncIntervall=5\nSearchLimit=many\nno syntax\nShrinkGuard=101\n"
                                  "[NTLM]\nUserFile=users\n[Negotiate]\nKeytab=http.keytab\n")
    write_file("IPUserCache.ini", "[IPUserCache]\nLifetime=-1\nExportDirectory=/nowhere\nDurabel=yes\nDurable=no\nDurable=no\n")
    write_file(".LastSyncTime.ini", f"[LdapSync]\nLastSyncTime={int(time.time()) + 9999}\n")
    write_file("directory.ldif", "version: 1\n\ndn: cn=x\nno colon\n")
    os.rmdir(f"{sandbox.WORKDIR}/log")
    os.chmod(f"{sandbox.WORKDIR}/LdapSyncTool.sh", 0o644)
    os.chown(sandbox.LOG_DIR, 0, 0)
    write_file("directory.db.lock", "", account=False)  # as a run by root would leave it
    expected = {
        ("error", "log", 0): "Permission denied for quarn",
        ("warning", "LdapSetting.ini", 1): "SyncInterval is missing",
        ("warning", "LdapSetting.ini", 2): "SyncIntervall is not known, did you mean SyncInterval?",
        ("error", "LdapSetting.ini", 3): 'SearchLimit is "many", expected a number',
        ("error", "LdapSetting.ini", 4): "'=' missing",
        ("error", "LdapSetting.ini", 5): 'ShrinkGuard is "101", expected a number from 0 to 100',
        ("error", "LdapSetting.ini", 7): "users",
        ("error", "LdapSetting.ini", 9): "http.keytab",
        ("error", "directory.ldif", 4): "no colon",
        ("error", "directory.db.lock", 0): "Permission denied for quarn",
        ("error", "IPUserCache.ini", 2): "key Lifetime",
        ("warning", "IPUserCache.ini", 3): "/nowhere: No such file",
        ("warning", "IPUserCache.ini", 4): "did you mean Durable?",
        ("warning", "IPUserCache.ini", 6): "is given again, line 5",
        ("warning", ".LastSyncTime.ini", 2): "future",
        ("warning", "LdapSyncTool.sh", 0): "Permission denied",
    }
    found = {one[:3]: one[3] for one in check()}
    assert found.keys() == expected.keys()
    assert all(text in found[where] for where, text in expected.items()), found
    code, out, _ = authctl("check-config", "--workdir", sandbox.WORKDIR)
    assert code == WRONG and f"{sandbox.WORKDIR}/LdapSetting.ini:4: error: '=' missing" in out
    assert out.splitlines()[-1].endswith("9 errors, 7 warnings")
    code, out, _ = authctl("check-config", "--workdir", "/nowhere/at/all")
    assert code == WRONG and "/nowhere/at/all: error: No such file" in out
    assert authctl("check-config")[0] == authctl("status", "--watch", "never")[0] == USAGE


# Directory servers.

@pytest.fixture(scope="module", name="slapd")
def fixture_slapd():
    with Slapd(people.content()) as server:
        yield server


def place(slapd, *servers, **more):
    workdir.place(workdir.settings([slapd.url, *servers], READER, Schema="rfc2307bis", ConnectTimeout=1, **more),
                  READER_PASSWORD)
    workdir.place_script()


def refused_binds(slapd):
    with open(f"{slapd.folder}/log", encoding="utf-8", errors="replace") as file:
        return len(re.findall("RESULT tag=97 err=49", file.read()))


def test_servers__each_is_tried_and_few_binds_are_refused_however_often(daemon, slapd):
    place(slapd, "ldap://127.0.0.1:9")
    assert [one[:3] for one in check()] == [("error", "LdapSetting.ini", 6)]
    assert check("--no-servers") == []
    workdir.good_sync()
    daemon.start(keep=True)
    code, report = status()
    assert code == WRONG and report["snapshot"]["source"] == "ldap"
    assert {one["url"]: one["works"] for one in report["servers"]} == {slapd.url: True, "ldap://127.0.0.1:9": False}
    assert len(report["problems"]) == 1 and problems(report, "127.0.0.1:9.*refused")
    assert status("--no-servers")[1]["servers"] == []

    with open(f"{sandbox.WORKDIR}/{workdir.PASSWORD_FILE}", "w", encoding="ascii") as file:
        file.write("may not\n")
    binds = refused_binds(slapd)
    with subprocess.Popen([program("authctl"), "status", "--watch", "0.1", "--json"], stdout=subprocess.PIPE) as piped:
        for _ in range(5):
            assert problems(json.loads(piped.stdout.readline()), "reading account.*wrong user or password")
        piped.kill()
    assert refused_binds(slapd) == binds + 1


def test_servers__files_that_belong_to_them(slapd):
    place(slapd, CACertFile="ca.pem")
    os.chmod(f"{sandbox.WORKDIR}/{workdir.PASSWORD_FILE}", 0o644)
    write_file("ca.pem", "no certificate")
    texts = sorted(one[3] for one in check())
    assert len(texts) == 2 and "chmod 600" in texts[0] and "holds no certificate" in texts[1]
