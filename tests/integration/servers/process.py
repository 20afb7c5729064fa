"""What all servers have in common: a room for their files, and a child process that is stopped, frozen and started
again."""

import contextlib
import os
import shutil
import signal
import socket
import subprocess
import time

import pytest

from harness.daemon import stat_fields, until
from harness import sandbox

ROOM = "/mnt"  # exists on every Debian machine; covered by a RAM disk in our mount namespace only
REALM = "CORP.TEST"
START_WAIT = 60  # seconds; a domain controller on a busy machine takes ten


def required():
    return os.environ.get("CI", "").lower() not in ("", "0", "false", "no")


def cannot_run(reason):
    """Skips the calling test by name; where CI is set this is a failure."""
    if required():
        pytest.fail(reason)
    pytest.skip(reason)


def need_programs(*names):
    # Daemons lie where an ordinary user's PATH does not look.
    os.environ["PATH"] = os.pathsep.join([os.environ["PATH"], "/usr/sbin", "/sbin"])
    missing = [name for name in names if not shutil.which(name)]
    if missing:
        cannot_run(f"not installed: {', '.join(missing)}")


def make_room():
    """Once a run."""
    if not os.path.ismount(ROOM):
        run("mount", "-t", "tmpfs", "-o", "mode=755,size=4g", "servers", ROOM)


def new_folder(name):
    make_room()
    path = os.path.join(ROOM, name)
    shutil.rmtree(path, ignore_errors=True)
    os.makedirs(path, 0o755)
    return path


def run(*command, **options):
    done = subprocess.run(command, capture_output=True, text=True, check=False, **options)
    if done.returncode != 0:
        raise sandbox.Impossible(f"{' '.join(command)}: {done.stdout[-1000:]}{done.stderr[-1000:]}")
    return done.stdout


def put_into_etc(files):
    """Name -> text, into the private /etc."""
    for name, text in files.items():
        path = f"/etc/{name}"
        if os.path.lexists(path):
            os.unlink(path)  # may be a link to somewhere else
        with open(path, "w", encoding="ascii") as file:
            file.write(text)


def kerberos_client(kdc):
    """krb5.conf of a machine in the realm, which asks no name server."""
    return (f"[libdefaults]\ndefault_realm = {REALM}\ndns_lookup_realm = false\ndns_lookup_kdc = false\n"
            f"dns_canonicalize_hostname = false\nrdns = false\n[realms]\n{REALM} = {{\nkdc = {kdc}\n}}\n"
            f"[domain_realm]\n.corp.test = {REALM}\n")


def port_open(port, host="127.0.0.1"):
    with socket.socket() as probe:
        probe.settimeout(5)
        return probe.connect_ex((host, port)) == 0


def thread_states(session):
    """The states of all threads of all processes of a session."""
    states = set()
    for process in os.listdir("/proc"):
        fields = stat_fields(process) if process.isdigit() else None
        if fields and int(fields[4]) == session:
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                for thread in os.listdir(f"/proc/{process}/task"):
                    states.add((stat_fields(f"{process}/task/{thread}") or ["", "?"])[1])
    return states


class ServerProcess:
    """`command` stays in the foreground and listens on all `ports`. Its output goes to `log`."""

    def __init__(self, command, ports, log, environment=None, host="127.0.0.1"):
        self.command, self.ports, self.log, self.environment, self.host = command, ports, log, environment, host
        self.process = None

    def __enter__(self):
        return self.start()

    def __exit__(self, *_):
        self.kill()

    def start(self):
        with open(self.log, "ab") as log:
            self.process = subprocess.Popen(self.command, stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                            env=self.environment, start_new_session=True)
        def listening():
            assert self.process.poll() is None, f"{self.command[0]} has ended:\n{self.output()[-3000:]}"
            return all(port_open(port, self.host) for port in self.ports)
        until(listening, lambda: f"{self.command[0]} to listen:\n{self.output()[-3000:]}", START_WAIT)
        return self

    def stop(self):
        """The orderly end."""
        self._end(signal.SIGTERM)

    def kill(self):
        self._end(signal.SIGKILL)

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
        with open(self.log, encoding="utf-8", errors="replace") as file:
            return file.read()


class Stopwatch:
    def __init__(self):
        self.begin = time.monotonic()

    def seconds(self):
        return time.monotonic() - self.begin
