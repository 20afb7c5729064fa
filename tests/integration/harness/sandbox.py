"""The private machine of a run: loopback, /etc and /var over the host's, the daemon's folders, its account."""

import os
import shutil
import struct
import subprocess
from pathlib import Path

LOG_DIR = "/var/brel/log"
PID_FILE = "/etc/quarn/pids/auth_daemon.pid"
WORKDIR = "/var/brel/work"
OUTSIDE = "/var/brel/outside"  # a folder that the daemon may write and that is not its own
CLOCK = f"{OUTSIDE}/clock"  # see set_clock()
REPORTS = "/var/brel/reports"  # where sanitizers put what they found

ACCOUNT = "quarn"
ACCOUNT_ID = 990
SECOND_GROUP_ID = 991

_LAYERS = "/media"  # exists on every Debian machine; covered by a tmpfs in our mount namespace only


_small_disks = []


class Impossible(Exception):
    """This machine does not let us build the sandbox."""


def run(*command, **options):
    done = subprocess.run(command, capture_output=True, text=True, check=False, **options)
    if done.returncode != 0:
        raise Impossible(f"{' '.join(map(str, command))}: {done.stdout[-1000:]}{done.stderr[-1000:]}")
    return done.stdout


def build():
    """Once a run, inside the new namespaces."""
    run("ip", "link", "set", "lo", "up")
    run("mount", "-t", "tmpfs", "-o", "mode=755", "layers", _LAYERS)
    for folder in ("/etc", "/var"):
        upper, work = (f"{_LAYERS}{folder}_{part}" for part in ("upper", "work"))
        os.mkdir(upper, 0o755)
        os.mkdir(work, 0o755)
        run("mount", "-t", "overlay", "overlay",
             f"-olowerdir={folder},upperdir={upper},workdir={work}", folder)
    for folder in ("/var/brel", "/etc/quarn"):
        os.makedirs(folder, 0o755, exist_ok=True)
        run("mount", "-t", "tmpfs", "-o", "mode=755,size=1g", "quarn", folder)


def clean(account):
    """The daemon's folders, empty; with the service account or without it."""
    lines = {("/etc/passwd", ACCOUNT): f"{ACCOUNT}:x:{ACCOUNT_ID}:{ACCOUNT_ID}::/nonexistent:/usr/sbin/nologin",
             ("/etc/group", ACCOUNT): f"{ACCOUNT}:x:{ACCOUNT_ID}:",
             ("/etc/group", "quarn_second"): f"quarn_second:x:{SECOND_GROUP_ID}:{ACCOUNT}"}
    for (path, name), line in lines.items():
        set_line(path, name, line if account else "")
    while _small_disks:
        run("umount", _small_disks.pop())
    for folder in ("/var/brel", "/etc/quarn"):
        for entry in os.scandir(folder):
            shutil.rmtree(entry.path)
    owner = ACCOUNT_ID if account else 0
    for folder in (LOG_DIR, "/var/brel/runtime", os.path.dirname(PID_FILE), WORKDIR, f"{WORKDIR}/log",
                   OUTSIDE, REPORTS):
        os.makedirs(folder, 0o755)
        os.chown(folder, owner, owner)
    os.chmod(REPORTS, 0o1777)


def set_line(path, name, line):
    """The line of that account or group; none when it is empty."""
    lines = [old for old in Path(path).read_text("utf-8").splitlines() if not old.startswith(name + ":")]
    Path(path).write_text("\n".join(lines + [line] * bool(line)) + "\n", "utf-8")


def mount_small_disk(folder, size, account=True):
    """A tmpfs that fills up soon; clean() takes it away."""
    os.makedirs(folder, 0o755, exist_ok=True)
    owner = ACCOUNT_ID if account else 0
    run("mount", "-t", "tmpfs", "-o", f"size={size},uid={owner},gid={owner},mode=755", "small", folder)
    _small_disks.append(folder)


def set_clock(seconds):
    """Makes the wall clock of daemons wrong that were started after the first call."""
    with open(CLOCK, "r+b" if os.path.exists(CLOCK) else "wb") as file:
        file.write(struct.pack("<q", seconds))
