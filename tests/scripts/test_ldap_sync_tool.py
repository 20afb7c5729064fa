"""LdapSyncTool.sh beside a process family that looks like the daemon: a parent and two workers."""
import os
import pathlib
import shutil
import signal
import subprocess
import sys
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
    os.execvp("sleep", ["sleep", "100"])  # a child that is no worker; its signals are blocked, too
say("ready")
watch("parent")
"""


class Family:
    def __init__(self, folder, name="AuthDaemon"):
        self.process = subprocess.Popen([sys.executable, "-c", FAMILY, f"{folder}/LdapSyncTool.sh >/dev/null", name],
                                        stdout=subprocess.PIPE, text=True, start_new_session=True,
                                        env=environment(folder))
        assert self.line() == "ready"

    def line(self):
        return self.process.stdout.readline().strip()

    def end(self):
        os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait()


def environment(folder):
    return {**os.environ, "AUTH_PID_FILE": f"{folder}/pid", "AUTH_PROGRAM_DIR": ""}


@pytest.fixture
def folder(tmp_path):
    shutil.copy(SCRIPT, tmp_path)
    return tmp_path


@pytest.fixture
def family(folder):
    family = Family(folder)
    (folder / "pid").write_text(str(family.process.pid))
    yield family
    family.end()


def run(folder, *arguments):
    # Umask 0 is what the daemon has. From another folder, by another spelling of the path.
    return subprocess.run(["sh", "-c", 'umask 0; exec "$0" "$@"', f"{folder}/./LdapSyncTool.sh", *arguments],
                          cwd="/", env=environment(folder), capture_output=True, text=True, timeout=30)


def test_workers_and_nobody_else_are_told(folder, family):
    before = int(time.time())
    done = run(folder)
    assert (done.returncode, done.stderr) == (0, "")
    assert "told 2 worker processes" in done.stdout and len(done.stdout.splitlines()) == 1
    assert [family.line(), family.line()] == ["worker SIGUSR1"] * 2
    # Had the parent got a SIGUSR1, it would stand before this signal.
    family.process.send_signal(signal.SIGUSR2)
    assert family.line() == "parent SIGUSR2"

    stamp = folder / ".LastSyncTime.ini"
    section, value = stamp.read_text().splitlines()
    assert section == "[LdapSync]"
    assert before <= int(value.removeprefix("LastSyncTime=")) <= time.time()
    assert stamp.stat().st_mode & 0o777 == 0o644
    assert [path.name for path in folder.glob(".LastSyncTime.ini?*")] == []


def test_the_process_that_runs_the_script_is_no_worker(folder, family):
    family.process.send_signal(signal.SIGUSR2)
    lines = sorted(family.line() for _ in range(4))
    assert lines == ["parent SIGUSR2", "synchronisation ended 0", "worker SIGUSR1", "worker SIGUSR1"]


@pytest.mark.parametrize("pid, reason", [
    (None, "not running"),
    ("", "not running"),
    ("12x", "no process id"),
    ("99999999", "is not the daemon"),
    ("1", "is not the daemon"),
])
def test_without_a_daemon_nothing_is_recorded(folder, pid, reason):
    if pid is not None:
        (folder / "pid").write_text(pid)
    done = run(folder)
    assert done.returncode == 1 and reason in done.stdout, done
    assert not (folder / ".LastSyncTime.ini").exists()


def test_a_process_that_took_over_the_pid_is_left_alone(folder):
    stranger = Family(folder, name="stranger")
    try:
        (folder / "pid").write_text(str(stranger.process.pid))
        assert run(folder).returncode == 1
        stranger.process.send_signal(signal.SIGUSR2)
        assert stranger.line() == "parent SIGUSR2"
    finally:
        stranger.end()


@pytest.mark.parametrize("settings, status", [
    ("[LDAP_Setting]\nSource=ldif\n", 0),
    ("[LDAP_Setting]\r\n  Source =  LDIF  \r\n", 0),
    ("[LDAP_Setting]\nSyncInterval=5\n", 0),
    ("[Domain_1]\nDnsName=corp.example.com\n[LDAP_Setting]\nSource=ldif\n", 0),
    ("[Other]\nSource=ldap\n# [Domain_1]\n# Source=ldap\n", 0),
    ("[LDAP_Setting]\nSource=ldap\n", 1),
    ("[Domain_1]\nDnsName=corp.example.com\n", 1),
])
def test_without_ldap_sync_only_the_ldif_source_is_served(folder, family, settings, status):
    (folder / "LdapSetting.ini").write_text(settings, newline="")
    done = run(folder)
    assert done.returncode == status, (settings, done)
    assert ("needs ldap_sync" in done.stdout) == (status == 1)
    assert (folder / ".LastSyncTime.ini").exists() == (status == 0), settings


def place_ldap_sync(path, status):
    """One that notes its arguments and account beside the script, and complains on standard error."""
    path.mkdir(exist_ok=True)
    (path / "ldap_sync").write_text(f"""#!/bin/sh
echo "$0 $* as $(id -u)" >>"$2/ran"
echo "ldap_sync: a remark" >&2
exit {status}
""")
    (path / "ldap_sync").chmod(0o755)


@pytest.mark.parametrize("where", ["AUTH_PROGRAM_DIR", "PATH", "beside"])
@pytest.mark.parametrize("verbose", [[], ["verbose"]])
def test_ldap_sync_runs_first_and_its_remarks_are_kept(folder, family, monkeypatch, where, verbose):
    programs = folder if where == "beside" else folder / "programs"
    place_ldap_sync(programs, 0)
    (folder / "LdapSetting.ini").write_text("[LDAP_Setting]\nSource=ldap\n")
    environment_of_run = {"AUTH_PROGRAM_DIR": {"AUTH_PROGRAM_DIR": str(programs)},
                          "PATH": {"PATH": f"{programs}:{os.environ['PATH']}"}, "beside": {}}[where]
    monkeypatch.setattr(sys.modules[__name__], "environment",
                        lambda folder, plain=environment: {**plain(folder), **environment_of_run})
    done = run(folder, *verbose)
    assert (done.returncode, done.stderr) == (0, ""), done
    assert "ldap_sync: a remark" in done.stdout
    options = " --verbose" if verbose else ""
    assert (folder / "ran").read_text() == f"{programs}/ldap_sync --workdir {folder}{options} as {os.getuid()}\n"
    assert [family.line(), family.line()] == ["worker SIGUSR1"] * 2
    assert (folder / ".LastSyncTime.ini").exists()


@pytest.mark.parametrize("source", ["ldap", "ldif"])
def test_a_failed_synchronisation_is_neither_recorded_nor_told(folder, family, source):
    place_ldap_sync(folder, 1)
    (folder / "LdapSetting.ini").write_text(f"[LDAP_Setting]\nSource={source}\n")
    done = run(folder)
    assert done.returncode == 1 and "ldap_sync: a remark" in done.stdout and "status 1" in done.stdout, done
    assert not (folder / ".LastSyncTime.ini").exists()
    family.process.send_signal(signal.SIGUSR2)
    assert family.line() == "parent SIGUSR2"  # no worker stands before it


@pytest.mark.skipif(os.geteuid() != 0, reason="only root can run it for another account")
def test_root_fills_the_snapshot_as_the_account_of_the_folder(folder, family):
    place_ldap_sync(folder, 0)
    for path in (folder, *folder.parents):
        if path.stat().st_uid == 0 and path.stat().st_mode & 0o001 == 0:
            path.chmod(path.stat().st_mode | 0o011)  # the temporary folder of the tests is root's alone
    os.chown(folder, 65534, 65534)
    done = run(folder)
    assert done.returncode == 0, done
    assert (folder / "ran").read_text().endswith(" as 65534\n")
