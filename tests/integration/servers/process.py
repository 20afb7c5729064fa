"""What all servers have in common: a room for their files, and a child process that is stopped, frozen and started
again."""

import contextlib
import os
import shutil
import signal
import socket
import subprocess
from pathlib import Path

import pytest

from harness.daemon import stat_fields, until
from harness.sandbox import run

ROOM = "/mnt"  # exists on every Debian machine; covered by a RAM disk in our mount namespace only
REALM = "CORP.TEST"
START_WAIT = 60  # seconds; a domain controller on a busy machine takes ten


def cannot_run(reason):
    """Skips the calling test by name; where CI is set this is a failure."""
    (pytest.fail if os.environ.get("CI", "").lower() not in ("", "0", "false", "no") else pytest.skip)(reason)


def need_programs(*names):
    # Daemons lie where an ordinary user's PATH does not look.
    os.environ["PATH"] = os.pathsep.join([os.environ["PATH"], "/usr/sbin", "/sbin"])
    if missing := [name for name in names if not shutil.which(name)]:
        cannot_run(f"not installed: {', '.join(missing)}")


def new_folder(name):
    if not os.path.ismount(ROOM):
        run("mount", "-t", "tmpfs", "-o", "mode=755,size=4g", "servers", ROOM)
    path = os.path.join(ROOM, name)
    shutil.rmtree(path, ignore_errors=True)
    os.makedirs(path, 0o755)
    return path


def put_into_etc(files):
    """Name -> text, into the private /etc."""
    for name, text in files.items():
        with contextlib.suppress(FileNotFoundError):
            os.unlink(f"/etc/{name}")  # may be a link to somewhere else
        Path(f"/etc/{name}").write_text(text, "utf-8")


def kerberos_client(kdc):
    """krb5.conf of a machine in the realm, which asks no name server."""
    return (f"[libdefaults]\ndefault_realm = {REALM}\ndns_lookup_realm = false\ndns_lookup_kdc = false\n"
            f"dns_canonicalize_hostname = false\nrdns = false\n[realms]\n{REALM} = {{\nkdc = {kdc}\n}}\n"
            f"[domain_realm]\n.corp.test = {REALM}\n")


def thread_states(session):
    """The states of all threads of all processes of a session."""
    states = set()
    for process in filter(str.isdigit, os.listdir("/proc")):
        if (fields := stat_fields(process)) and int(fields[4]) == session:
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                threads = os.listdir(f"/proc/{process}/task")
                states |= {fields[1] for thread in threads if (fields := stat_fields(f"{process}/task/{thread}"))}
    return states


class ServerProcess:
    """`command` stays in the foreground and listens on all `ports`. Its output goes to `log`."""

    def __init__(self, command, ports, log, host="127.0.0.1"):
        self.command, self.ports, self.log, self.host = command, ports, log, host
        self.process = None

    def __enter__(self):
        return self.start()

    def __exit__(self, *_):
        self._end(signal.SIGKILL)

    def start(self):
        with open(self.log, "ab") as log:
            self.process = subprocess.Popen(self.command, stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                            start_new_session=True)
        def ready():
            assert self.process.poll() is None, f"{self.command[0]} has ended:\n{self.output()[-3000:]}"
            return self.is_ready()
        until(ready, lambda: f"{self.command[0]} to serve:\n{self.output()[-3000:]}", START_WAIT)
        return self

    def is_ready(self):
        with contextlib.suppress(ConnectionRefusedError):
            for port in self.ports:
                socket.create_connection((self.host, port), 5).close()
            return True
        return False

    def stop(self):
        """The orderly end."""
        self._end(signal.SIGTERM)

    def _end(self, number):
        if self.process is None:
            return
        # All of it: a domain controller is a family of processes in one session.
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self.process.pid, number)
            os.killpg(self.process.pid, signal.SIGCONT)
        try:
            self.process.wait(20)
        except subprocess.TimeoutExpired:
            os.killpg(self.process.pid, signal.SIGKILL)
            self.process.wait(20)
        self.process = None

    @contextlib.contextmanager
    def stopped(self):
        self.stop()
        try:
            yield
        finally:
            self.start()

    @contextlib.contextmanager
    def frozen(self):
        """The system still accepts connections for it, and nobody ever answers."""
        pid = self.process.pid
        os.killpg(pid, signal.SIGSTOP)
        try:
            # One thread takes the signal and stops the others; until then they go on answering. A child that has
            # just ended stays as it is.
            until(lambda: thread_states(pid) - {"Z"} == {"T"}, lambda: f"all threads of {pid} to stop: {thread_states(pid)}")
            yield
        finally:
            os.killpg(pid, signal.SIGCONT)

    def output(self):
        return Path(self.log).read_text("utf-8", "replace")
