"""Starts, watches and ends the real daemon inside the sandbox, whose first process we are: what the daemon
leaves behind becomes our child, its exit status ours to collect."""

import contextlib
import datetime
import glob
import os
import re
import resource
import signal
import subprocess
import time
from collections import namedtuple
from pathlib import Path

import pytest
from harness import sandbox, wire

PROGRAMS = os.environ["AUTHD_PROGRAMS"]
IDLE_SOCKETS = 3
COMPACT_COPY = f"{sandbox.WORKDIR}/ip_user_cache/bindings.compact.mdb"  # made at the first use of the bindings
LONG_WAIT = 30  # seconds after which something that should happen has not

_LOG_LINE = re.compile(r"(?P<time>\d\d:\d\d:\d\d\.\d{3}) <(?P<level>ERR|INF|TRANS|DBG|MOR)>"
                       r"<(?P<tag>\d+):(?P<pid>\d+):\d+> (?P<text>.*) @<(?P<function>[^>]*)> @@<(?P<file>[\w.]+):\d+>")
LogLine = namedtuple("LogLine", _LOG_LINE.groupindex)
LONGEST_LINE = 4095  # with its line end; a longer one has lost its end


def until(condition, what, timeout=LONG_WAIT):
    """The first true value of `condition`; fails when none comes in time."""
    deadline = time.monotonic() + timeout
    while True:
        if value := condition():
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"did not happen within {timeout} s: {what() if callable(what) else what}")
        time.sleep(0.005)


def program(name):
    return os.path.join(PROGRAMS, name)


def stat_fields(pid):
    """Fields of /proc/PID/stat from the state on (index 0), or None; `comm` first."""
    try:
        text = Path(f"/proc/{pid}/stat").read_text("utf-8")
    except (FileNotFoundError, ProcessLookupError):
        return None
    comm, _, rest = text.partition("(")[2].rpartition(")")
    return [comm] + rest.split()


def processes(name="AuthDaemon"):
    """pid -> (parent, state) of the live and dead processes of that name."""
    found = {}
    for entry in os.listdir("/proc"):
        if entry.isdigit() and (fields := stat_fields(entry)) and fields[0] == name:
            found[int(entry)] = (int(fields[2]), fields[1])
    return found


def memory_of(pid):
    """What the process can write to, in pieces."""
    with open(f"/proc/{pid}/maps", encoding="utf-8") as maps, open(f"/proc/{pid}/mem", "rb") as memory:
        for line in maps:
            begin, end = (int(number, 16) for number in line.split()[0].split("-"))
            if line.split()[1].startswith("rw") and end - begin < 2**30:  # sanitizers map the whole address space
                with contextlib.suppress(OSError):
                    memory.seek(begin)
                    yield memory.read(end - begin)


def descriptors(pid):
    """descriptor -> target of an own process."""
    links = {}
    with contextlib.suppress(OSError):
        for fd in os.listdir(f"/proc/{pid}/fd"):
            with contextlib.suppress(FileNotFoundError):  # closed meanwhile, such as the log's
                links[int(fd)] = os.readlink(f"/proc/{pid}/fd/{fd}")
    return links


def collect(pid, timeout=LONG_WAIT):
    """The wait status of one of our children."""
    return until(lambda: (ended := os.waitpid(pid, os.WNOHANG))[0] and ended, f"the end of process {pid}", timeout)[1]


def log_paths():
    return sorted(glob.glob(f"{sandbox.LOG_DIR}/AuthDaemon.log.*"))


def log_text():
    return "".join(Path(path).read_text("utf-8", "surrogateescape") for path in log_paths())


def log_line(data):
    text = data.decode(errors="surrogateescape") + " @<cut> @@<cut:0>" * (len(data) + 1 == LONGEST_LINE)
    match = _LOG_LINE.fullmatch(text)
    assert match, f"log line of another layout: {text!r}"
    line = LogLine(**match.groupdict())
    return line._replace(tag=int(line.tag), pid=int(line.pid))


_read_before = {}  # path -> (inode, bytes, lines): tests look often, and logs are long


def log_lines():
    """All complete lines; a line in any other layout is a failure."""
    lines = []
    for path in log_paths():
        with open(path, "rb") as file:
            status = os.fstat(file.fileno())
            inode, size, known = _read_before.get(path, (None, 0, []))
            if inode != status.st_ino or status.st_size < size:
                size, known = 0, []
            file.seek(size)
            whole = file.read().rpartition(b"\n")[0]
        if whole:
            known = known + [log_line(data) for data in whole.split(b"\n")]
            _read_before[path] = (status.st_ino, size + len(whole) + 1, known)
        lines += known
    return lines


def seconds_between(first, second):
    begin, end = (datetime.datetime.strptime(line.time, "%H:%M:%S.%f") for line in (first, second))
    return (end - begin).total_seconds() % 86400


def sanitizer_options():
    """For the environment of a daemon: sanitizers leave what they find where sanitizer_reports() looks for it."""
    result = {}
    own = {"ASAN": "detect_leaks=0:verify_asan_link_order=0",  # the preloaded library allocates nothing
           "UBSAN": "print_stacktrace=1",
           "TSAN": "report_signal_unsafe=0"}  # the signal handler logs, and interrupts nothing but sleep
    for name, options in own.items():
        given = os.environ.get(f"{name}_OPTIONS", "")
        result[f"{name}_OPTIONS"] = ":".join(filter(None, [given, options, f"log_path={sandbox.REPORTS}/{name}"]))
    return result


def environment(factor):
    """Of the daemon: shorter sleeps; and no loader that puts aside, on a stack, what registers hold of a password."""
    return {**os.environ, **sanitizer_options(), "SHORTSLEEP_FACTOR": str(factor), "SHORTSLEEP_CLOCK": sandbox.CLOCK,
            "LD_BIND_NOW": "1", "LD_PRELOAD": os.environ["AUTHD_SHORTSLEEP"]}


class Daemon:
    """One daemon at a time. `files` of start() go into the working directory: name -> text or bytes."""

    def __init__(self):
        self.pid = None
        self.parent_status = None

    # Start and end.

    def start(self, *options, files=None, account=True, factor=4, workers=2, keep=False, workdir=None,
              open_files=None, inherit=(), wait=True):
        if not keep:
            sandbox.clean(account)
        for name, content in (files or {}).items():
            write_file(name, content, account=account)
        arguments = [program("AuthDaemon"), "--workdir", workdir or sandbox.WORKDIR, *options]
        known = set(processes())
        limits = open_files and (lambda: resource.setrlimit(resource.RLIMIT_NOFILE, open_files))
        foreground = subprocess.run(arguments, env=environment(factor), stdin=subprocess.DEVNULL,
                                    capture_output=True, timeout=LONG_WAIT, check=False, preexec_fn=limits, pass_fds=inherit)
        assert (foreground.returncode, foreground.stdout, foreground.stderr) == (0, b"", b"")
        # The foreground process has ended, so the daemon is our child now, even when it has ended, too.
        born = [pid for pid, (parent, _) in processes().items() if pid not in known and parent == os.getpid()]
        assert len(born) == 1, f"expected one daemon, found {born}"
        self.pid = born[0]
        self.parent_status = None
        if wait:
            self.wait_workers(workers)
        return self

    def status(self, timeout=LONG_WAIT):
        """The exit status of the daemonised process, which has to end by itself; negative for a signal."""
        if self.parent_status is None:
            self.parent_status = os.waitstatus_to_exitcode(collect(self.pid, timeout))
        return self.parent_status

    def stop(self, number=signal.SIGTERM):
        """Ends the daemon, waits for all of it; the status of the parent. Orphaned workers have to end with 0."""
        os.kill(self.pid, number)
        status = self.status()
        self.collect_orphans()
        return status

    def collect_orphans(self, expected=0):
        for pid, (parent, _) in processes().items():
            if parent == os.getpid():
                assert os.waitstatus_to_exitcode(collect(pid)) == expected, f"end of worker {pid}"

    def kill_everything(self):
        """The end of a test: nothing of the daemon is left, whatever happened."""
        begin = time.monotonic()
        orderly = 5 if "AUTHD_COVERAGE" in os.environ else 0  # what ran is written down at an orderly end only
        while (left := processes()) and time.monotonic() < begin + LONG_WAIT:
            for pid, (parent, _) in left.items():
                with contextlib.suppress(ProcessLookupError):
                    os.kill(pid, signal.SIGTERM if time.monotonic() < begin + orderly else signal.SIGKILL)
                if parent == os.getpid():
                    with contextlib.suppress(ChildProcessError):
                        os.waitpid(pid, os.WNOHANG)
            time.sleep(0.05 if orderly else 0.002)
        assert not left, f"could not end {left}"
        self.pid = None

    # Looking at it.

    def workers(self):
        """Pids of the live workers, the oldest first. The child that synchronises has no event loop, nor has one that is
        just dying."""
        children = {pid: stat_fields(pid) for pid, (parent, _) in processes().items() if parent == self.pid}
        born = {pid: int(fields[20]) for pid, fields in children.items()
                if fields and "anon_inode:[eventpoll]" in descriptors(pid).values()}
        return sorted(born, key=lambda pid: (born[pid], pid))

    def children(self):
        """Pids of all children, dead ones included."""
        return map(int, Path(f"/proc/{self.pid}/task/{self.pid}/children").read_text("ascii").split())

    def wait_workers(self, count):
        def there():
            assert processes().get(self.pid, (0, "Z"))[1] != "Z", "the daemon has ended:\n" + log_text()[-3000:]
            return len(self.workers()) == count and self.workers()
        return until(there, lambda: f"{count} workers, there are {self.workers()}")

    def wait_dead(self, worker):
        """Until a killed worker is seen as such: the signal alone leaves it in the list for a moment."""
        until(lambda: worker not in self.workers(), f"the death of worker {worker}")

    def wait_line(self, text, level=None, pid=None, count=1):
        """The `count`-th line with exactly this text (or matching this compiled expression)."""
        def found():
            hits = [line for line in log_lines() if matches(line, text, level, pid)]
            return hits[count - 1] if len(hits) >= count else None
        return until(found, lambda: f"log line {text!r}, level {level}; the last ones:\n" + log_text()[-3000:])

    def count_lines(self, text, level=None, pid=None):
        return sum(matches(line, text, level, pid) for line in log_lines())

    descriptors = staticmethod(descriptors)

    def sockets(self):
        """worker -> how many sockets it has."""
        return {worker: sum(target.startswith("socket:") for target in self.descriptors(worker).values())
                for worker in self.workers()}

    @contextlib.contextmanager
    def without_descriptors(self, limit, free=0):
        """The only worker has no more than `free` left of so many."""
        [worker] = self.workers()
        if "libubsan" in Path(f"/proc/{worker}/maps").read_text("ascii"):
            pytest.skip("the sanitizer looks at a new object's type by way of a pipe and ends a program that can have none")
        with contextlib.ExitStack() as connections:
            def taken():
                """Without that of a line of the log which is just being written."""
                return sum(not path.startswith("/var/brel/log/") for path in self.descriptors(worker).values())

            connections.enter_context(wire.Connection()).query("192.0.2.254")
            until(lambda: os.path.exists(COMPACT_COPY) and "copy.lock" not in str(self.descriptors(worker)), "the copy's end")
            while taken() < limit - free:
                connections.enter_context(wire.Connection()).query("192.0.2.254")
            yield
        until(lambda: len(self.descriptors(worker)) < limit / 2, "free descriptors")

    def wait_idle(self):
        """Until no worker has a connection: the listening socket and the event loop's own pair are left."""
        until(lambda: set(self.sockets().values()) == {IDLE_SOCKETS}, lambda: f"idle workers, not {self.sockets()}")

    def worker_of(self, connection):
        """The worker that serves the connection, which has carried a request already."""
        ends = f":{wire.ADDRESS[1]:04X}", f":{connection.socket.getsockname()[1]:04X}"
        rows = map(str.split, Path("/proc/net/tcp").read_text("ascii").splitlines())
        [inode] = [row[9] for row in rows if row[1].endswith(ends[0]) and row[2].endswith(ends[1])]
        return next(pid for pid in self.workers() if f"socket:[{inode}]" in self.descriptors(pid).values())

    @contextlib.contextmanager
    def connections_by_worker(self, workers=None):
        """worker -> one connection that it serves, for all workers."""
        wanted, by_worker = set(workers or self.workers()), {}
        with contextlib.ExitStack() as stack:
            def complete():
                connection = stack.enter_context(wire.Connection())
                connection.query("192.0.2.254")
                by_worker.setdefault(self.worker_of(connection), connection)
                return wanted <= set(by_worker)
            until(complete, lambda: f"connections to {wanted - set(by_worker)}")
            yield {worker: by_worker[worker] for worker in wanted}


def matches(line, text, level, pid):
    same = text.search(line.text) if hasattr(text, "search") else line.text == text
    return bool(same) and level in (None, line.level) and pid in (None, line.pid)


def write_file(name, content, account=True, folder=sandbox.WORKDIR):
    """Puts a file into the working directory the way an administrator would: complete, then renamed."""
    path = os.path.join(folder, name)
    Path(path + ".new").write_bytes(content if isinstance(content, bytes) else content.encode())
    owner = sandbox.ACCOUNT_ID if account else 0
    os.chown(path + ".new", owner, owner)
    os.chmod(path + ".new", 0o755 if name.endswith(".sh") else 0o640)
    os.rename(path + ".new", path)


def sanitizer_reports():
    texts = []
    for path in glob.glob(f"{sandbox.REPORTS}/*"):
        texts.append(Path(path).read_text("utf-8", "replace"))
        os.unlink(path)
    return "\n".join(texts)


def core_files():
    patterns = f"{sandbox.WORKDIR}/core*", "/core*", f"{sandbox.REPORTS}/*core*"
    return [path for pattern in patterns for path in glob.glob(pattern) if os.path.isfile(path)]
