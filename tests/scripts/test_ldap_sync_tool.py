"""LdapSyncTool.sh beside a process family that looks like the daemon: a parent and two workers."""
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import time

import pytest

SCRIPT = pathlib.Path(__file__).resolve().parents[2] / "examples/workdir/LdapSyncTool.sh"

# Every process prints its role and the signal it gets. SIGUSR2 makes the parent run the script from a child of
# its own, like a scheduled synchronisation; that child would die of a SIGUSR1.
FAMILY = r"""
import os, signal, sys
watched = {signal.SIGUSR1, signal.SIGUSR2}
def say(*words):
    os.write(1, (" ".join(words) + "\n").encode())  # whole lines, whoever writes at the same time
def watch(role):
    signal.alarm(60)  # a line that does not come ends the test
    while True:
        number = signal.sigwait(watched)
        say(role, signal.Signals(number).name)
        if role == "parent" and number == signal.SIGUSR2 and os.fork() == 0:
            signal.pthread_sigmask(signal.SIG_UNBLOCK, watched)
            status = os.system(sys.argv[1])
            say("synchronisation ended", str(status))
            os._exit(0)
with open("/proc/self/comm", "w") as file:
    file.write(sys.argv[2])
signal.pthread_sigmask(signal.SIG_BLOCK, watched)
for _ in range(2):
    if os.fork() == 0:
        watch("worker")
if os.fork() == 0:
    os.execvp("sleep", ["sleep", "60"])  # a child that is no worker; its signals are blocked, too
say("ready")
watch("parent")
"""


class Family:
    def __init__(self, folder, name="AuthDaemon", program=sys.executable, user=None):
        self.process = subprocess.Popen([program, "-c", FAMILY, f"{folder}/LdapSyncTool.sh >/dev/null", name],
                                        stdout=subprocess.PIPE, text=True, start_new_session=True,
                                        user=user, env=environment(folder))
        assert self.line() == "ready"
        (folder / "pid").write_text(str(self.process.pid))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait()

    def line(self):
        return self.process.stdout.readline().strip()


def environment(folder):
    return {**os.environ, "AUTH_PID_FILE": f"{folder}/pid", "AUTH_PROGRAM_DIR": ""}


@pytest.fixture
def folder():
    """Not one of pytest's own, which other accounts may not enter."""
    with tempfile.TemporaryDirectory() as name:
        os.chmod(name, 0o755)
        shutil.copy(SCRIPT, name)
        yield pathlib.Path(name)


def run(folder, *arguments, **more):
    # Umask 0 is what the daemon has. From another folder, by another spelling of the path.
    done = subprocess.run(["sh", "-c", 'umask 0; exec "$0" "$@"', f"{folder}/./LdapSyncTool.sh", *arguments], cwd="/",
                          env={**environment(folder), **more}, capture_output=True, text=True, timeout=30, check=False)
    assert done.stderr == ""
    return done


def test_workers_and_nobody_else_are_told(folder):
    with Family(folder) as family:
        before = int(time.time())
        done = run(folder)
        assert done.returncode == 0 and "told 2 worker processes" in done.stdout and len(done.stdout.splitlines()) == 1
        assert [family.line(), family.line()] == ["worker SIGUSR1"] * 2
        # Had the parent got a SIGUSR1, it would stand before this signal.
        family.process.send_signal(signal.SIGUSR2)
        assert sorted(family.line() for _ in range(4)) == [
            "parent SIGUSR2", "synchronisation ended 0", "worker SIGUSR1", "worker SIGUSR1"]
    stamp = folder / ".LastSyncTime.ini"
    section, value = stamp.read_text().splitlines()
    assert section == "[LdapSync]"
    assert before <= int(value.removeprefix("LastSyncTime=")) <= time.time()
    assert stamp.stat().st_mode & 0o777 == 0o644
    assert [path.name for path in folder.glob(".LastSyncTime.ini?*")] == []


def test_without_a_daemon_nobody_is_told_and_nothing_recorded(folder):
    for pid, reason in ((None, "not running"), ("", "not running"), ("12x", "no process id"),
                        ("99999999", "is not the daemon"), ("1", "is not the daemon")):
        if pid is not None:
            (folder / "pid").write_text(pid)
        done = run(folder)
        assert done.returncode == 1 and reason in done.stdout, (pid, done)
    with Family(folder, name="stranger") as stranger:  # that took over the number
        assert run(folder).returncode == 1
        stranger.process.send_signal(signal.SIGUSR2)
        assert stranger.line() == "parent SIGUSR2"
    assert not (folder / ".LastSyncTime.ini").exists()


@pytest.mark.parametrize("settings, source", [
    ("[Domain_1]\r\nDnsName=corp.example.com\r\n  [LDAP_Setting]\r\n  Source =  LDIF  \r\n", "ldif"),
    ("[Other]\nSource=ldap\n# [Domain_1]\n# Source=ldap\n", "ldif"),
    ("\ufeff[LDAP_Setting]\nSource=ldap\n", "ldap"),
    ("[Domain_1]\nDnsName=corp.example.com\n", "ldap"),
])
def test_without_ldap_sync_only_the_ldif_source_is_served(folder, settings, source):
    (folder / "LdapSetting.ini").write_text(settings, newline="")
    # With ldif it is the daemon that is missing.
    assert ("needs ldap_sync" if source == "ldap" else "not running") in run(folder).stdout


@pytest.mark.skipif(os.geteuid() != 0, reason="takes two accounts")
def test_ldap_sync_beside_somebody_elses_process_is_not_run(folder):
    """The pid of a daemon that was killed may be anybody's by now, and so may its name."""
    (folder / "LdapSetting.ini").write_text("[LDAP_Setting]\nSource=ldap\n")
    (folder / "programs").mkdir()
    with Family(folder, program=shutil.copy(sys.executable, folder / "programs"), user=65534):
        shutil.copy(shutil.which("true"), folder / "programs/ldap_sync")
        done = run(folder)
        assert done.returncode == 1 and "needs ldap_sync" in done.stdout, done


@pytest.mark.parametrize("place", ["AUTH_PROGRAM_DIR", "PATH", "beside", "daemon"])
def test_ldap_sync_is_found_and_runs_first(folder, place):
    """One that notes its arguments and account beside the script, and complains on standard error."""
    programs = folder / ("" if place == "beside" else "programs")
    programs.mkdir(exist_ok=True)

    def put(status):
        (programs / "ldap_sync").write_text(
            f'#!/bin/sh\necho "$0 $* as $(id -u)" >"$2/ran"\necho "ldap_sync: a remark" >&2\nexit {status}\n')
        (programs / "ldap_sync").chmod(0o755)
    more = {"AUTH_PROGRAM_DIR": {place: str(programs)}, "PATH": {place: f"{programs}:{os.environ['PATH']}"}}.get(place, {})
    put(0)
    (folder / "LdapSetting.ini").write_text("[LDAP_Setting]\nSource=ldap\n")
    with Family(folder, program=shutil.copy(sys.executable, programs) if place == "daemon" else sys.executable) as family:
        if os.geteuid() == 0:  # root fills the snapshot as the account of the folder
            os.chown(folder, 65534, 65534)
        done = run(folder, "verbose", **more)
        assert done.returncode == 0 and "ldap_sync: a remark" in done.stdout, done
        assert (folder / "ran").read_text() == (
            f"{programs}/ldap_sync --workdir {folder} --verbose as {folder.stat().st_uid}\n")
        assert [family.line(), family.line()] == ["worker SIGUSR1"] * 2
        # Nothing in a folder of somebody else's is written as root: a link there could lead anywhere.
        assert (folder / ".LastSyncTime.ini").stat().st_uid == folder.stat().st_uid
        (folder / ".LastSyncTime.ini").unlink()

        put(1)
        done = run(folder, **more)
        assert done.returncode == 1 and "ldap_sync: a remark" in done.stdout and "status 1" in done.stdout, done
        assert not (folder / ".LastSyncTime.ini").exists()
        family.process.send_signal(signal.SIGUSR2)
        assert family.line() == "parent SIGUSR2"  # no worker stands before it
