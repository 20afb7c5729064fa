"""Clients that bind without a pause and remember what they were promised; those that only ask and must be served."""

import contextlib
import os
import random
import threading
import time

from harness import wire
from harness.daemon import until

SECONDS = float(os.environ.get("AUTHD_CHAOS_SECONDS", "4"))
LONG = "AUTHD_CHAOS_SECONDS" in os.environ
SEED = int(os.environ.get("AUTHD_CHAOS_SEED", str(random.SystemRandom().randrange(1 << 32))))
BINDERS = 4
PAUSE = 0.0015  # of each binder between two binds: about 2,000 a second together


def memory(pid, kind):
    """In bytes: VmRSS, what it occupies, or RssAnon, that without the files that it maps."""
    with open(f"/proc/{pid}/status", encoding="ascii") as file:
        return next(int(line.split()[1]) for line in file if line.startswith(kind)) << 10


class Binder(threading.Thread):
    """Binds its own addresses in turn to a count that goes up, and knows what it was promised."""

    def __init__(self, number, stopping):
        super().__init__()
        self.number = number
        self.stopping = stopping
        self.count = 0
        self.promised = {}  # address -> the count that was answered with 0
        self.open = {}  # address -> later counts that were sent and not answered
        self.strange = []

    def run(self):
        while not self.stopping.is_set():
            with contextlib.suppress(OSError, wire.Closed), wire.Connection() as connection:
                while not self.stopping.is_set():
                    self.count += 1
                    ip = f"10.{64 + self.number}.{self.count // 100 % 8}.{self.count % 100}"
                    self.open.setdefault(ip, []).append(self.count)
                    code = connection.bind(ip, f"CORP\\user{self.count}")
                    if code == 0:
                        self.promised[ip] = self.count
                        del self.open[ip]
                    else:
                        self.strange.append((ip, code))
                    time.sleep(PAUSE)


@contextlib.contextmanager
def bind_load():
    stopping = threading.Event()
    binders = [Binder(number, stopping) for number in range(BINDERS)]
    for binder in binders:
        binder.start()
    try:
        until(lambda: all(binder.promised for binder in binders), "the load to begin")
        yield binders
    finally:
        stopping.set()
        for binder in binders:
            binder.join()


def check_promises(binders):
    """Every promise is kept, or overtaken by a bind that was under way at a kill."""
    kept = 0
    with wire.Connection() as connection:
        for binder in binders:
            assert not binder.strange, f"seed {SEED}: {binder.strange[:5]}"
            for ip, count in binder.promised.items():
                user = connection.bound_user(ip)
                allowed = [f"CORP\\user{each}" for each in [count, *binder.open.get(ip, [])]]
                assert user in allowed, f"seed {SEED}: {ip} is bound to {user}, promised was {allowed}"
                kept += 1
    assert kept > 0
    return kept


class Asker(threading.Thread):
    """Must be answered, always and soon: on a connection that stays, and on new ones."""

    def __init__(self, stopping):
        super().__init__()
        self.stopping = stopping
        self.answers = 0
        self.longest = 0.0
        self.failure = None

    def run(self):
        try:
            with wire.Connection(timeout=60) as staying:
                while not self.stopping.is_set():
                    begin = time.monotonic()
                    with wire.Connection(timeout=60) as passing:
                        for connection in (staying, passing):
                            assert connection.user_info("alice").userInfo.uid == "alice"
                    self.longest = max(self.longest, time.monotonic() - begin)
                    self.answers += 1
                    time.sleep(PAUSE)
        except (AssertionError, OSError, wire.Closed) as error:
            self.failure = error


@contextlib.contextmanager
def everybody_is_served(limit=20):
    """While the body runs and for a moment before and after it; `limit` is the longest that one may wait, on a machine
    that has other work, too."""
    stopping = threading.Event()
    askers = [Asker(stopping) for _ in range(2)]
    for asker in askers:
        asker.start()
    try:
        until(lambda: all(asker.answers or asker.failure for asker in askers), "the first answers")
        yield
        answers = [asker.answers for asker in askers]
        until(lambda: all(asker.failure or asker.answers > before for asker, before in zip(askers, answers)), "a last answer")
    finally:
        stopping.set()
        for asker in askers:
            asker.join()
    assert not [asker.failure for asker in askers if asker.failure], [asker.failure for asker in askers]
    longest = max(asker.longest for asker in askers)
    print(f"{sum(asker.answers for asker in askers)} visits, the longest {longest * 1000:.0f} ms")
    assert longest < limit
