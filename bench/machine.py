"""The private machine of a benchmark run.

Everything runs in network, mount and process namespaces of its own: the ports are ours, the loopback carries
nothing else, /etc and /var are layers over the host's, and what is started ends with the run, even when the
run is killed.
"""

import contextlib
import os
import pathlib
import pwd
import resource
import shutil
import socket
import subprocess
import sys
import time

INSIDE = "AUTHD_BENCH_INSIDE"
NAMESPACES = ["unshare", "--net", "--mount", "--pid", "--ipc", "--fork", "--kill-child", "--mount-proc"]
OPEN_FILES = 12000  # in the load generator and in each server
WORKDIR = pathlib.Path("/var/brel/work")
ACCOUNT = "quarn"
LAYERS = "/mnt"  # exists on every Debian machine; covered in our mount namespace only
PATIENCE = 30  # seconds


class Impossible(Exception):
    """This machine does not let us measure."""


class Broken(Exception):
    """A server or a load run failed: there is no result."""


def enter():
    """Goes on in namespaces of our own; returns only inside them."""
    if os.environ.get(INSIDE):
        return
    if os.geteuid() != 0:
        raise Impossible("namespaces of our own need root")
    trial = subprocess.run(NAMESPACES + ["true"], capture_output=True, text=True, check=False)
    if trial.returncode != 0:
        raise Impossible(f"no namespaces here: {trial.stderr.strip()}")
    os.environ[INSIDE] = "1"
    sys.stdout.flush()
    os.execvp(NAMESPACES[0], NAMESPACES + [sys.executable] + sys.argv)


def run(*command):
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise Impossible(f"{' '.join(command)}: {done.stderr.strip()}")


def build():
    """Loopback, folders and limits; once, inside."""
    run("ip", "link", "set", "lo", "up")
    # Thousands of connections a round, each leaving its port for a while.
    pathlib.Path("/proc/sys/net/ipv4/ip_local_port_range").write_text("16000 64999", encoding="ascii")
    run("mount", "-t", "tmpfs", "-o", "mode=755", "layers", LAYERS)
    for folder in ("/etc", "/var"):
        upper, work = (f"{LAYERS}{folder}_{part}" for part in ("upper", "work"))
        os.mkdir(upper, 0o755)
        os.mkdir(work, 0o755)
        run("mount", "-t", "overlay", "overlay", f"-olowerdir={folder},upperdir={upper},workdir={work}", folder)
    for folder in ("/var/brel", "/etc/quarn"):
        os.makedirs(folder, 0o755, exist_ok=True)
        run("mount", "-t", "tmpfs", "-o", "mode=755", "quarn", folder)
    for folder in ("/var/brel/log", "/var/brel/redis", str(WORKDIR), "/etc/quarn/pids"):
        os.makedirs(folder, 0o755)
        own(folder)
    allow_open_files()


def allow_open_files():
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    if hard != resource.RLIM_INFINITY and hard < OPEN_FILES:
        raise Impossible(f"a process may open {hard} files here, {OPEN_FILES} are needed (ulimit -Hn)")
    resource.setrlimit(resource.RLIMIT_NOFILE, (OPEN_FILES, hard))


def own(path):
    """To the daemon's account, if the machine has one; else the daemon stays who it is."""
    try:
        account = pwd.getpwnam(ACCOUNT)
    except KeyError:
        return
    os.chown(path, account.pw_uid, account.pw_gid)


def until(condition, what):
    deadline = time.monotonic() + PATIENCE
    while not (value := condition()):
        if time.monotonic() > deadline:
            raise Broken(f"not within {PATIENCE} seconds: {what}")
        time.sleep(0.01)
    return value


def accepts(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


def connections_left(port):
    """Connections that the server on this port still holds."""
    with open("/proc/net/tcp", encoding="ascii") as table:
        rows = [line.split() for line in table.readlines()[1:]]
    established, close_wait = "01", "08"
    return sum(row[1].endswith(f":{port:04X}") and row[3] in (established, close_wait) for row in rows)


def cpu_seconds(pid):
    """User and system time of a process with all its threads."""
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="utf-8").rpartition(")")[2].split()
    return sum(map(int, fields[11:13])) / os.sysconf("SC_CLK_TCK")


def all_cpu_seconds():
    """The same of everything on the machine, with what other guests of its host took from it.

    Most kernels charge interrupts to the process that they hit, so they are counted here as well. One that keeps
    them apart makes the others' share look bigger than it is, never smaller.
    """
    with open("/proc/stat", encoding="ascii") as table:
        user, nice, system, _, _, irq, softirq, steal = map(int, table.readline().split()[1:9])
    return (user + nice + system + irq + softirq + steal) / os.sysconf("SC_CLK_TCK")


class Intruders:
    """What work of others took of the processors while `watch` blocks lasted: the load average of the start does not
    know what comes later."""

    def __init__(self):
        self._theirs = self._possible = 0.0

    @contextlib.contextmanager
    def watch(self, server):
        def spent():
            waited_for = resource.getrusage(resource.RUSAGE_CHILDREN)
            ours = server.cpu_seconds() + waited_for.ru_utime + waited_for.ru_stime
            return all_cpu_seconds() - ours, time.monotonic()

        theirs, start = spent()
        yield
        theirs_after, end = spent()
        self._theirs += theirs_after - theirs
        self._possible += (end - start) * os.cpu_count()

    def share(self):
        return max(0.0, self._theirs / self._possible) if self._possible else 0.0


def collected(pid):
    """True when the process is gone. We are the first one here: what detached itself is ours to collect."""
    try:
        return os.waitpid(pid, os.WNOHANG)[0] == pid
    except ChildProcessError:
        return not os.path.exists(f"/proc/{pid}")


def make_workdir(make_ldif, users, groups):
    with open(WORKDIR / "directory.ldif", "wb") as ldif:
        subprocess.run([make_ldif, str(users), str(groups)], stdout=ldif, check=True)
    (WORKDIR / "LdapSetting.ini").write_text("[LDAP_Setting]\nSyncInterval=1440\nSource=ldif\n", encoding="ascii")
    # Nothing to synchronise during the run.
    (WORKDIR / ".LastSyncTime.ini").write_text(f"[LdapSync]\nLastSyncTime={int(time.time()) - 1}\n", encoding="ascii")
    for path in WORKDIR.iterdir():
        own(path)


def need(program):
    path = shutil.which(program, path=os.environ.get("PATH", "") + ":/usr/sbin:/sbin")
    if path is None:
        raise Impossible(f"{program} is not installed (packaging/apt-packages.txt, group bench)")
    return path
