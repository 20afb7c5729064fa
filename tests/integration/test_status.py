"""authctl status, reload and check-config on a daemon that is well, half dead, frozen, gone or wrongly set up."""

import contextlib
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
from harness.daemon import LONG_WAIT, program, until, write_file
from servers import people, workdir
from servers.slapd import READER, READER_PASSWORD, Slapd

WELL, WRONG, USAGE, UNREACHABLE = range(4)
NOBODY = 65534
SETTINGS = "[LDAP_Setting]\nSyncInterval=1440\n"


def authctl(*arguments, user=None):
    identity = {} if user is None else {"user": user, "group": user, "extra_groups": []}
    done = subprocess.run([program("authctl"), *arguments], capture_output=True, text=True, timeout=LONG_WAIT,
                          check=False, stdin=subprocess.DEVNULL, **identity)
    return done.returncode, done.stdout, done.stderr


def status(*arguments, **more):
    """(exit status, report)"""
    code, out, errors = authctl("status", "--json", *arguments, **more)
    assert errors == ""
    report = json.loads(out)
    assert report["status"] == code
    return code, report


def problems(report, pattern):
    return [text for text in report["problems"] if re.search(pattern, text)]


def start(daemon, factor=4):
    daemon.start(files=directory.files(**{"LdapSetting.ini": SETTINGS}), factor=factor)
    until(lambda: status()[0] == WELL, lambda: f"a daemon that is well: {status()}")
    return daemon


def everything_below(*folders):
    """What a reader may not change: names, sizes, modes, times, owners."""
    found = {}
    for folder in folders:
        for path in [folder] + glob.glob(f"{folder}/**", recursive=True, include_hidden=True):
            with contextlib.suppress(FileNotFoundError):
                one = os.lstat(path)
                found[path] = (one.st_size, one.st_mode, one.st_mtime_ns, one.st_ctime_ns, one.st_uid)
    return found


# A daemon that is well.

def test_status__a_daemon_that_is_well(daemon):
    start(daemon)
    assert authctl("bind", "10.1.1.1", "CORP\\alice")[0] == 0
    code, report = status()
    assert (code, report["problems"], report["notes"]) == (WELL, [], [])
    one = report["daemon"]
    assert (one["pid"], one["workers"], one["workers_expected"], one["account"]) == (daemon.pid, 2, 2, "quarn")
    assert one["workdir"] == sandbox.WORKDIR
    assert one["version"] == one["authctl_version"]
    assert [(each["role"], each["pid"]) for each in one["processes"]] == [
        ("parent", daemon.pid)] + [("worker", pid) for pid in daemon.workers()]
    for each in one["processes"][1:]:
        assert each["threads"] >= 11 and each["memory_kb"] > 0
        # The question itself may open a descriptor or two.
        assert abs(each["descriptors"] - len(os.listdir(f"/proc/{each['pid']}/fd"))) <= 3
    snapshot = report["snapshot"]
    assert (snapshot["source"], snapshot["users"], snapshot["groups"]) == (
        "ldif", len(directory.USERS), len(directory.GROUPS))
    assert snapshot["bytes"] == os.path.getsize(f"{sandbox.WORKDIR}/directory.db")
    assert report["bindings"]["count"] == 1
    assert report["port"]["answers"] and report["port"]["milliseconds"] > 0
    assert report["log"]["errors_today"] == daemon.count_lines(re.compile(".*"), level="ERR") == 0
    text = authctl("status")[1]
    for part in ("running, pid", "2 of 2 workers", "8 users", "0 errors today"):
        assert part in text


def test_status__reply_cache_figures_errors_and_script_come_from_the_log(daemon):
    start(daemon, factor=60)
    write_file("LdapSyncTool.sh", "#!/bin/sh\necho nothing goes\nexit 3\n")
    for _ in range(3):
        assert authctl("user-info", "alice")[0] == 0
    write_file("directory.ldif", "dn: broken\nno colon\n")
    assert authctl("reload")[0] == WRONG
    daemon.wait_line(re.compile("^Info: execute command"))
    _, report = status()
    # The figures are those of just before the reload; the three questions were spread over both workers.
    assert sum(one["queries"] for one in report["reply_cache"]) == 3
    assert {one["pid"] for one in report["reply_cache"]} == set(daemon.workers())
    assert report["log"]["errors_today"] == daemon.count_lines(re.compile(".*"), level="ERR") == 2
    assert "directory.ldif:2" in report["log"]["last_error"]
    assert report["synchronisation"]["script_status"] == 3 << 8
    assert report["synchronisation"]["script_said"] == "nothing goes"
    assert [note for note in report["notes"] if "status 3" in note and "nothing goes" in note]


def test_status__looking_changes_nothing(daemon):
    start(daemon)
    authctl("bind", "10.1.1.2", "CORP\\alice")
    time.sleep(1)  # the maintenance has made its copy by then
    before = everything_below(sandbox.WORKDIR, "/etc/quarn")
    locks = [path for path in before if path.endswith("lock")]
    assert locks
    for user in (None, NOBODY, sandbox.ACCOUNT_ID):
        status(user=user)
        authctl("check-config", "--workdir", sandbox.WORKDIR, user=user)
    after = everything_below(sandbox.WORKDIR, "/etc/quarn")
    moving = f"{sandbox.WORKDIR}/ip_user_cache"  # the daemon's own maintenance
    assert {path: one for path, one in after.items() if not path.startswith(moving)} == {
        path: one for path, one in before.items() if not path.startswith(moving)}
    assert set(after) == set(before)


def test_status__an_ordinary_user_is_told_what_was_not_seen(daemon):
    start(daemon)
    code, report = status(user=NOBODY)
    assert (code, report["problems"]) == (WELL, [])
    assert report["snapshot"] is None and report["bindings"] is None
    assert report["daemon"]["workers"] == 2 and report["daemon"]["processes"][0]["descriptors"] is None
    assert len([note for note in report["notes"] if note.startswith("not for this user")]) == 3


# Daemons that are not.

def test_status__no_daemon(daemon):
    start(daemon)
    assert daemon.stop() == 0
    code, report = status("--workdir", sandbox.WORKDIR)
    assert code == UNREACHABLE
    assert problems(report, "does not exist") and problems(report, "refused")
    assert report["snapshot"]["users"] == len(directory.USERS)
    assert authctl("reload")[0] == UNREACHABLE


def test_status__a_worker_that_died_and_a_parent_that_died(daemon):
    start(daemon)
    victim, survivor = daemon.workers()
    os.kill(victim, signal.SIGKILL)
    daemon.wait_dead(victim)
    code, report = status()
    assert code == WRONG and problems(report, "^1 of 2 workers")
    os.kill(daemon.pid, signal.SIGKILL)
    daemon.status()
    code, report = status()
    assert code == WRONG and problems(report, "parent process has ended")
    code, out, _ = authctl("reload")
    assert code == WELL and f"worker {survivor}: reloaded" in out


def test_status__frozen_processes(daemon):
    start(daemon)
    first, second = daemon.workers()
    os.kill(first, signal.SIGSTOP)
    until(lambda: problems(status()[1], f"{first} is stopped"), "the stop is seen")
    begin = time.monotonic()
    code, out, _ = authctl("reload")
    assert code == WRONG and time.monotonic() - begin < 10
    assert f"worker {first}: is stopped" in out and f"worker {second}: reloaded" in out
    os.kill(second, signal.SIGSTOP)
    code, report = status("--timeout", "0.5")
    assert code == UNREACHABLE and problems(report, "in time|timed out|no answer")


@pytest.mark.parametrize("content", [None, "", "nonsense", "-1", "0", "1", "{daemon}0000", "{other}", "{worker}"],
                         ids=lambda value: value if value is not None else "missing")
def test_reload__a_pid_file_that_leads_elsewhere_hurts_nobody(daemon, content):
    start(daemon)
    with subprocess.Popen(["sleep", "1000"]) as other:
        if content is None:
            os.unlink(sandbox.PID_FILE)
        else:
            with open(sandbox.PID_FILE, "w", encoding="ascii") as file:
                file.write(content.format(daemon=daemon.pid, other=other.pid, worker=daemon.workers()[0]))
        code, report = status()
        assert code == WRONG and problems(report, re.escape(sandbox.PID_FILE) + "|process")
        code, out, errors = authctl("reload")
        assert code == WELL and out.count("reloaded") == 2 and "authctl: " in errors
        assert other.poll() is None, "a stranger was signalled"
        other.kill()


@pytest.mark.parametrize("damage, pattern", [
    (lambda: os.unlink(f"{sandbox.WORKDIR}/ip_user_cache/bindings.mdb"), "bindings.mdb: No such file"),
    (lambda: os.truncate(f"{sandbox.WORKDIR}/ip_user_cache/bindings.mdb.copy", 100), "bindings.mdb.* damaged"),
    (lambda: replace("directory.db", b"x" * 8192), "directory.db: not a SQLite file"),
    (lambda: os.unlink(f"{sandbox.WORKDIR}/directory.db"), "directory.db: No such file"),
    (lambda: write_file("LdapSetting.ini", "[LDAP_Setting]\nSource=x\n"), "LdapSetting.ini has errors"),
    (lambda: os.rename(sandbox.LOG_DIR, sandbox.LOG_DIR + ".away"), "nothing is logged"),
], ids=["no store", "damaged store", "damaged snapshot", "no snapshot", "settings", "no log"])
def test_status__damaged_files(daemon, damage, pattern):
    start(daemon)
    assert authctl("user-info", "alice")[0] == 0
    if "damaged" in pattern:  # never cut what is mapped: a copy takes its place
        store = f"{sandbox.WORKDIR}/ip_user_cache/bindings.mdb"
        with open(store, "rb") as file, open(store + ".copy", "wb") as copy:
            copy.write(file.read())
    damage()
    if "damaged" in pattern:
        os.rename(store + ".copy", store)
    code, report = status()
    assert code == WRONG and problems(report, pattern), report
    assert authctl("user-info", "alice")[0] == 0


def replace(name, content):
    with open(f"{sandbox.WORKDIR}/{name}.draft", "wb") as file:
        file.write(content)
    os.rename(f"{sandbox.WORKDIR}/{name}.draft", f"{sandbox.WORKDIR}/{name}")


# Reload.

def test_reload__every_worker_answers_from_the_new_file(daemon):
    start(daemon)
    text = directory.ldif().replace("version: 1\n", "")
    write_file("directory.ldif", text + directory.entry("CN=New,DC=corp,DC=test", ("objectClass", "user"), ("cn", "New"),
                                                        ("sAMAccountName", "new")))
    code, out, errors = authctl("reload", "--json")
    assert (code, errors) == (WELL, "")
    told = json.loads(out)["workers"]
    assert {one["pid"] for one in told} == set(daemon.workers())
    assert all(one["outcome"] == "reloaded" and "9 users" in one["text"] for one in told), told
    with daemon.connections_by_worker() as connections:
        assert all(one.user_info("new").result == 0 for one in connections.values())
    assert {one["snapshot"] for one in status()[1]["daemon"]["processes"][1:]} == {"current"}


def test_reload__without_rights_and_without_a_log(daemon):
    start(daemon)
    code, out, _ = authctl("reload", user=NOBODY)
    assert code == WRONG and out.count("not permitted") == 2
    assert authctl("reload", user=sandbox.ACCOUNT_ID)[0] == WELL
    assert daemon.count_lines("Handle single 10, reload data...") == 2
    os.rename(sandbox.LOG_DIR, sandbox.LOG_DIR + ".away")
    code, out, _ = authctl("reload")
    assert code == WELL and out.count("took the signal") == 2


# The live view.

def watch(rows=40, columns=120):
    pid, terminal = pty.fork()
    if pid == 0:
        os.execv(program("authctl"), ["authctl", "status", "--watch", "0.2"])
    fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
    return pid, terminal


def read_until(terminal, pattern):
    text, deadline = "", time.monotonic() + LONG_WAIT
    while not re.search(pattern, text, re.DOTALL):
        assert select.select([terminal], [], [], max(0, deadline - time.monotonic()))[0], f"no {pattern} in {text!r}"
        text += os.read(terminal, 65536).decode()
    return text


@pytest.mark.parametrize("end", [lambda pid, terminal: os.write(terminal, b"q"),
                                 lambda pid, terminal: os.write(terminal, b"\x03"),
                                 lambda pid, terminal: os.kill(pid, signal.SIGTERM)], ids=["q", "Ctrl-C", "TERM"])
def test_watch__the_terminal_is_as_it_was(daemon, end):
    start(daemon)
    pid, terminal = watch()
    before = termios.tcgetattr(terminal)
    before[3] |= termios.ECHO | termios.ICANON
    read_until(terminal, r"\x1b\[\?1049h.*2 of 2 workers.*\x1b\[H.*2 of 2 workers")
    assert not termios.tcgetattr(terminal)[3] & termios.ECHO
    os.kill(daemon.workers()[0], signal.SIGKILL)
    read_until(terminal, "PROBLEM: 1 of 2 workers")
    end(pid, terminal)
    read_until(terminal, r"\x1b\[\?25h\x1b\[\?1049l")
    assert os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]) == WRONG
    assert termios.tcgetattr(terminal)[3] == before[3]
    os.close(terminal)


def test_watch__a_small_terminal(daemon):
    start(daemon)
    pid, terminal = watch(rows=5, columns=20)
    text = read_until(terminal, r"\x1b\[H\d\d:.*\x1b\[H\d\d:.*\x1b\[J")
    frame = text.rsplit("\x1b[H", 2)[1].split("\x1b[J")[0]
    lines = [re.sub(r"\x1b\[[0-9?]*[a-zA-Z]|\r", "", line) for line in frame.split("\n")]
    assert len(lines) == 5 and max(map(len, lines)) <= 20
    os.write(terminal, b"q")
    assert os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]) == WELL
    os.close(terminal)


# Directory servers.

@pytest.fixture(scope="module", name="slapd")
def fixture_slapd():
    with Slapd(people.content()) as server:
        yield server


def place(slapd, *servers, **more):
    workdir.place(workdir.settings([slapd.url, *servers], READER, Schema="rfc2307bis", ConnectTimeout=1, OperationTimeout=1,
                                   **more), READER_PASSWORD)
    workdir.place_script()


def test_status__each_directory_server(daemon, slapd):
    place(slapd, "ldap://127.0.0.1:9")
    workdir.good_sync()
    daemon.start(keep=True)
    code, report = status()
    assert code == WRONG and report["snapshot"]["source"] == "ldap"
    assert [(one["url"], one["works"]) for one in report["servers"]] == [(slapd.url, True), ("ldap://127.0.0.1:9", False)]
    assert len(report["problems"]) == 1 and problems(report, "127.0.0.1:9.*refused")
    assert status("--no-servers")[1]["servers"] == []


def test_watch__looking_often_does_not_bind_often(daemon, slapd):
    place(slapd)
    workdir.good_sync()
    daemon.start(keep=True)
    write_file(workdir.PASSWORD_FILE, "may not\n")
    os.chmod(f"{sandbox.WORKDIR}/{workdir.PASSWORD_FILE}", 0o600)
    binds = len(refused_binds(slapd))
    with subprocess.Popen([program("authctl"), "status", "--watch", "0.1", "--json"], stdout=subprocess.PIPE,
                          text=True) as piped:
        for _ in range(5):
            report = json.loads(piped.stdout.readline())
            assert problems(report, "reading account.*wrong user or password")
        piped.kill()
    assert len(refused_binds(slapd)) == binds + 1


def refused_binds(slapd):
    with open(f"{slapd.folder}/log", encoding="utf-8", errors="replace") as file:
        return re.findall("RESULT tag=97 err=49", file.read())


# check-config.

def check(*arguments, **more):
    code, out, errors = authctl("check-config", "--json", "--workdir", sandbox.WORKDIR, *arguments, **more)
    assert errors == ""
    report = json.loads(out)
    found = [(one["kind"], os.path.basename(one["file"]), one["line"], one["text"]) for one in report["findings"]]
    assert report["errors"] == sum(one[0] == "error" for one in found)
    assert code == (WRONG if report["errors"] else WELL)
    return found


def place_well():
    sandbox.clean(True)
    for name, content in directory.files(**{"LdapSetting.ini": SETTINGS}).items():
        write_file(name, content)
    workdir.place_script()
    os.chmod(f"{sandbox.WORKDIR}/directory.ldif", 0o640)


def test_check_config__all_problems_in_one_run():
    place_well()
    assert check() == []
    write_file("LdapSetting.ini", "[LDAP_Setting]\nSearchLimt=5\nSyncInterval=often\nno syntax\nShrinkGuard=101\n"
                                  "[NTLM]\nUserFile=users\n[Negotiate]\nKeytab=http.keytab\nReplayCache=perhaps\n")
    write_file("IPUserCache.ini", "[IPUserCache]\nLifetime=-1\nExportDirectory=/nowhere\nDurable=ja\n")
    write_file(".LastSyncTime.ini", f"[LdapSync]\nLastSyncTime={int(time.time()) + 9999}\n")
    write_file("directory.ldif", "version: 1\n\ndn: cn=x\nno colon\n")
    os.rmdir(f"{sandbox.WORKDIR}/log")
    os.chmod(f"{sandbox.WORKDIR}/LdapSyncTool.sh", 0o644)
    os.chown(sandbox.LOG_DIR, 0, 0)
    with open(f"{sandbox.WORKDIR}/directory.db.lock", "w", encoding="ascii"):
        os.chmod(f"{sandbox.WORKDIR}/directory.db.lock", 0o600)  # as a run by root would leave it
    expected = [
        ("error", "log", 0, "Permission denied for quarn"),
        ("warning", "LdapSetting.ini", 2, "SearchLimt is not known, did you mean SearchLimit?"),
        ("warning", "LdapSetting.ini", 3, 'SyncInterval is "often", expected minutes'),
        ("error", "LdapSetting.ini", 4, "'=' missing"),
        ("error", "LdapSetting.ini", 5, 'ShrinkGuard is "101", expected a number from 0 to 100'),
        ("error", "LdapSetting.ini", 7, "users"),
        ("error", "LdapSetting.ini", 9, "http.keytab"),
        ("error", "LdapSetting.ini", 10, 'ReplayCache is "perhaps", expected one of yes, no'),
        ("error", "directory.ldif", 4, "no colon"),
        ("error", "directory.db.lock", 0, "Permission denied for quarn"),
        ("error", "IPUserCache.ini", 2, "key Lifetime"),
        ("error", "IPUserCache.ini", 4, "key Durable"),
        ("warning", "IPUserCache.ini", 3, "/nowhere: No such file"),
        ("warning", ".LastSyncTime.ini", 2, "future"),
        ("warning", "LdapSyncTool.sh", 0, "Permission denied"),
    ]
    found = check()
    for kind, file, line, text in expected:
        hits = [one for one in found if one[:3] == (kind, file, line) and text in one[3]]
        assert len(hits) == 1, (kind, file, line, text, found)
        found.remove(hits[0])
    assert found == []
    code, out, _ = authctl("check-config", "--workdir", sandbox.WORKDIR)
    assert code == WRONG and f"{sandbox.WORKDIR}/LdapSetting.ini:4: error: '=' missing" in out
    assert out.splitlines()[-1].endswith("10 errors, 5 warnings")


def test_check_config__servers_and_their_files(slapd):
    place(slapd, "ldap://127.0.0.1:9")
    assert [one[:3] for one in check()] == [("error", "LdapSetting.ini", 6)]
    assert check("--no-servers") == []
    place(slapd, CACertFile="ca.pem")
    os.chmod(f"{sandbox.WORKDIR}/{workdir.PASSWORD_FILE}", 0o644)
    write_file("ca.pem", "no certificate")
    texts = sorted(one[3] for one in check())
    assert len(texts) == 2 and "chmod 600" in texts[0] and "holds no certificate" in texts[1]
    place(slapd)
    os.unlink(f"{sandbox.WORKDIR}/LdapSyncTool.sh")
    assert [one[:2] for one in check()] == [("error", "LdapSyncTool.sh")]


def test_check_config__what_it_refuses_the_start_refuses(daemon):
    for text in ("[LDAP_Setting]\nSource=x\n", "[Domain_1]\nDnsName=a.b\n", "[LDAP_Setting\n", SETTINGS):
        place_well()
        write_file("LdapSetting.ini", text)
        refused = any(one[0] == "error" for one in check())
        daemon.start(keep=True, wait=False)
        if refused:
            assert daemon.status() == 1, text
        else:
            daemon.wait_workers(2)
            daemon.stop()


def test_check_config__usage():
    sandbox.clean(True)
    assert authctl("check-config")[0] == USAGE
    assert authctl("status", "--watch", "never")[0] == USAGE
    code, out, _ = authctl("check-config", "--workdir", "/nowhere/at/all")
    assert code == WRONG and "/nowhere/at/all: error: No such file" in out
    assert check(user=NOBODY)[0][3].startswith("checked with the rights of nobody")
