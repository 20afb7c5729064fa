"""A Squid of the tests' own on the loopback, with our helper behind it, a web server behind that, and curl in front."""

import shutil
import subprocess
from pathlib import Path

from harness.daemon import LONG_WAIT, program, until
from servers.origin import PAGE
from servers.process import ServerProcess, need_programs, new_folder, run

ORIGIN_PORT = 8080

_BASE = """
visible_hostname gateway.corp.test
pid_filename {folder}/squid.pid
cache_log {folder}/cache.log
logformat who %>a %>Hs %un
access_log stdio:{folder}/access.log who
cache deny all
pinger_enable off
shutdown_lifetime 1 second
"""


class Squid(ServerProcess):
    """`text` is its configuration beyond the common part; {helper} in it is our program."""

    def __init__(self, text, ports):
        need_programs("squid", "curl")
        self.folder = new_folder("squid")
        # Squid's own account has to reach the program, wherever it was built.
        helper = shutil.copy(program("authhelper"), self.folder)
        path = f"{self.folder}/squid.conf"
        listening = "".join(f"http_port 127.0.0.1:{port} name=port{port}\n" for port in ports)
        Path(path).write_text(_BASE.format(folder=self.folder) + listening + text.replace("{helper}", helper), "utf-8")
        run("chown", "-R", "proxy:", self.folder)
        run("mount", "-t", "tmpfs", "shm", "/dev/shm")  # what a killed one leaves there is nobody else's
        super().__init__(["squid", "-N", "-f", path], ports, f"{self.folder}/out")

    def fetch(self, port, *options, source="127.0.0.1", host="127.0.0.1", environment=None):
        """(status of the proxy, user in its log) of a page fetched by curl."""
        before = len(self._log())
        done = subprocess.run(["curl", "-sS", "-w", "%{http_code}", "--noproxy", "none.invalid", "--interface", source,
                               "-x", f"http://{host}:{port}", *options, f"http://127.0.0.1:{ORIGIN_PORT}/"],
                              capture_output=True, timeout=LONG_WAIT, check=True, env=environment)
        status = int(done.stdout[-3:])
        assert (status == 200) == (done.stdout[:-3] == PAGE)
        lines = until(lambda: [line for line in self._log()[before:] if line.split()[1] == str(status)], "a line in the log")
        client, _, user = lines[-1].split(" ", 2)
        assert client == source
        return status, user

    def _log(self):
        log = Path(f"{self.folder}/access.log")
        return log.read_text("utf-8").splitlines() if log.exists() else []

    def cache_log(self):
        return Path(f"{self.folder}/cache.log").read_text("utf-8", "replace")
