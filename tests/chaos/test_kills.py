"""Processes killed at any moment under a load of binds: what was answered with success stays.

AUTHD_CHAOS_SECONDS makes each test go on for so long instead of a few seconds; AUTHD_CHAOS_SEED repeats a run.
"""

import os
import random
import signal
import time

import pytest

from crowd import SECONDS, SEED, bind_load, check_promises
from harness import directory, sandbox, wire
from harness.daemon import processes, until, write_file

FAST = 200  # the first minute of the monitor in 0.3 s; from then on a death brings the next fork at once
FILES = directory.files(**directory.SYNCHRONISED)


def report(text):
    print(f"\nseed {SEED}: {text}")


@pytest.fixture
def chance():
    return random.Random(SEED)


def test_workers__killed_one_after_the_other(daemon, chance):
    daemon.start("--process-num", "3", files=FILES, factor=FAST, workers=3)
    delays = []
    time.sleep(60 / FAST)  # the first minute, in which nothing is forked
    with bind_load() as binders:
        end = time.monotonic() + SECONDS
        while time.monotonic() < end:
            with daemon.connections_by_worker(daemon.wait_workers(3)) as connections:
                victim = chance.choice(sorted(connections))
                survivor = chance.choice(sorted(set(connections) - {victim}))
                time.sleep(chance.random() * 0.1)
                os.kill(victim, signal.SIGKILL)
                begin = time.monotonic()
                assert connections[survivor].bind("10.80.0.1", "CORP\\alice") == 0
                delays.append(time.monotonic() - begin)
                assert connections[survivor].bound_user("10.80.0.1") == "CORP\\alice"
                daemon.wait_dead(victim)
    delays.sort()
    report(f"{len(delays)} kills, {sum(binder.count for binder in binders)} binds, next bind after "
           f"{delays[len(delays) // 2] * 1000:.1f} ms (median), {delays[-1] * 1000:.1f} ms (longest), "
           f"{check_promises(binders)} bindings kept")
    # The longest has the machine's own hiccups in it.
    assert delays[int(len(delays) * 0.9)] < 0.2 and delays[-1] < 2
    with daemon.connections_by_worker(daemon.wait_workers(3)) as connections:
        for connection in connections.values():
            assert connection.bound_user("10.80.0.1") == "CORP\\alice"
    assert daemon.stop() == 0


@pytest.mark.parametrize("victims", ["all", "parent first", "workers"])
def test_everybody__killed_and_started_again(daemon, chance, victims):
    daemon.start(files=FILES, factor=FAST)
    promised = {}
    end = time.monotonic() + SECONDS / 2
    while True:
        with bind_load() as binders:
            time.sleep(chance.random() * 0.5)
            if victims == "parent first":
                os.kill(daemon.pid, signal.SIGKILL)
                assert daemon.status() == -signal.SIGKILL
                with wire.Connection() as connection:  # orphans serve on
                    assert connection.bind("10.80.0.2", "CORP\\alice") == 0
                time.sleep(chance.random() * 0.2)
            if victims == "workers":
                for pid in daemon.workers():
                    os.kill(pid, signal.SIGKILL)
                time.sleep(chance.random() * 0.05)
            daemon.kill_everything()
            for binder in binders:
                binder.stopping.set()
        begin = time.monotonic()
        daemon.start(keep=True, factor=FAST)
        with wire.Connection() as connection:
            assert connection.bind("10.80.0.1", "CORP\\alice") == 0
            started = time.monotonic() - begin
            for ip, user in promised.items():
                assert connection.bound_user(ip) == user, f"seed {SEED}"
            # A second set of promises that no later load overwrites.
            ip, user = f"10.81.{len(promised) // 250}.{len(promised) % 250}", f"CORP\\round{len(promised)}"
            assert connection.bind(ip, user) == 0
            promised[ip] = user
        report(f"{check_promises(binders)} bindings kept, first bind {started * 1000:.0f} ms after the start")
        if time.monotonic() > end:
            break
    assert daemon.stop() == 0


def test_reload__worker_killed_in_the_middle(daemon, chance):
    """A snapshot is published whole or not at all, and nobody waits for the dead."""
    size = 3000
    daemon.start("--process-num", "3", workers=3, factor=FAST,
                 files={**FILES, "directory.ldif": directory.crowd(size) + directory.newcomer("round0")})
    time.sleep(60 / FAST)
    end = time.monotonic() + SECONDS
    number = 0
    while time.monotonic() < end:
        number += 1
        workers = daemon.wait_workers(3)
        write_file("directory.ldif", directory.crowd(size) + directory.newcomer(f"round{number}"))
        victim = chance.choice(workers)
        for worker in workers:
            os.kill(worker, signal.SIGUSR1)
        time.sleep(chance.random() * 0.15)
        os.kill(victim, signal.SIGKILL)
        daemon.wait_dead(victim)
        with daemon.connections_by_worker(set(workers) - {victim}) as connections:
            for worker, connection in connections.items():
                # Found after the reload; before it the old directory is whole.
                def renewed(one=connection):
                    assert one.user_info(f"m{size - 1:06}").result == 0
                    answer = one.user_search(f"round{number}", 1)
                    assert answer.result == 0
                    return len(answer.userList) == 1
                until(renewed, f"worker {worker} to have round {number}, seed {SEED}")
    report(f"{number} reloads with a kill")
    assert daemon.stop() == 0
    left = [name for name in os.listdir(sandbox.WORKDIR) if name.startswith("directory.db")]
    daemon.start(keep=True)
    with wire.Connection() as connection:
        assert len(connection.user_search(f"round{number}", 1).userList) == 1
    assert daemon.stop() == 0
    assert len(left) <= 3, left  # the snapshot, its lock, at most one draft of a dead process
    assert not processes()
