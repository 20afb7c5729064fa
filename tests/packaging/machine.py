"""A machine of its own with systemd as its first process, in a container over a root."""

import contextlib
import os
import signal
import subprocess

from bare_root import ENVIRONMENT, call, run, until


class Machine:
    def __init__(self, root, name="gateway"):
        self.root = root
        self.path = root.path
        self.name = name
        self.container = None
        self.leader = None
        self.console = open(f"{root.path.parent}/console", "w+b")  # pylint: disable=consider-using-with

    def __enter__(self):
        # Where the tool keeps what belongs to a name; nobody else's shall be met there.
        os.makedirs("/run/systemd/nspawn", exist_ok=True)
        run("mount", "-t", "tmpfs", "tmpfs", "/run/systemd/nspawn")
        # Its own hierarchy of control groups, whatever this machine has: filters of addresses hang on it.
        settings = {**ENVIRONMENT, "SYSTEMD_NSPAWN_UNIFIED_HIERARCHY": "1", "SYSTEMD_NSPAWN_LOCK": "0",
                    "SYSTEMD_SECCOMP": "0"}  # which would refuse the system call for the filters
        self.container = subprocess.Popen(
            ["systemd-nspawn", f"--directory={self.root.path}", "--boot", "--register=no", "--keep-unit", "--network-veth",
             f"--machine={self.name}", "--console=read-only", "--resolv-conf=off", "--capability=CAP_BPF"],
            env=settings, stdin=subprocess.DEVNULL, stdout=self.console, stderr=subprocess.STDOUT)
        try:
            self.leader = until(self._child, self.said)
            until(lambda: self("systemctl", "is-system-running", check=False).stdout.strip() in ("running", "degraded"),
                  self.said)
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        if self.leader:
            with contextlib.suppress(ProcessLookupError):
                os.kill(self.leader, signal.SIGKILL)
        try:
            self.container.wait(10)
        except subprocess.TimeoutExpired:
            self.container.kill()
            self.container.wait(10)
        subprocess.run(["ip", "link", "delete", f"ve-{self.name}"], check=False, capture_output=True)

    def _child(self):
        assert self.container.poll() is None, self.said()
        with contextlib.suppress(FileNotFoundError):
            with open(f"/proc/{self.container.pid}/task/{self.container.pid}/children", encoding="ascii") as file:
                for pid in map(int, file.read().split()):
                    # The first child sets up; the container's first process has another view of processes.
                    if os.readlink(f"/proc/{pid}/ns/pid") != os.readlink("/proc/self/ns/pid"):
                        return pid
        return None

    def said(self):
        self.console.seek(0)
        return self.console.read()[-4000:].decode(errors="replace")

    def __call__(self, *command, check=True):
        return call("nsenter", f"--target={self.leader}", "--all", "--", *command, check=check, env=ENVIRONMENT)

    def main_pid(self):
        return int(self("systemctl", "show", "--value", "--property=MainPID", "quarn-authd").stdout)

    def state(self):
        """Such as "active", "running", "success"."""
        return [self("systemctl", "show", "--value", f"--property={name}", "quarn-authd").stdout.strip()
                for name in ("ActiveState", "SubState", "Result")]
