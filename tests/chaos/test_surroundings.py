"""The daemon goes on while what is around it fails: disks, folders, the clock, the agent, the clients."""

import contextlib
import itertools
import os
import random
import re
import resource
import shutil
import signal
import time

import pytest

from crowd import LONG, SECONDS, SEED, bind_load, check_promises, everybody_is_served, memory
from harness import directory, sandbox, wire
from harness.agent import ScriptedAgent
from harness.daemon import log_text, until, write_file
from servers.workdir import sanitized
from Velder_pb2 import IPAuthRequest, UserSearchRequest

IDLE = 10_000 if LONG else 1_500
WAITING = 5_000 if LONG else 700
READERS = 24
HIDDEN_LOG = sandbox.LOG_DIR + ".away"


def fill(folder):
    """Uses up what is left of the disk; gives the file that has to go to free it."""
    path = f"{folder}/filler"
    with contextlib.suppress(OSError), open(path, "wb", buffering=0) as file:
        for size in (1 << 16, 1 << 12, 1):
            with contextlib.suppress(OSError):
                while file.write(b"x" * size):
                    pass
    return path


def reloads(daemon):
    end = time.monotonic() + SECONDS
    for number in itertools.count():
        write_file("directory.ldif", directory.ldif() + directory.newcomer(f"round{number}"))
        for worker in daemon.workers():
            os.kill(worker, signal.SIGUSR1)
        for connection in (wire.Connection() for _ in range(2)):
            with connection:
                until(lambda one=connection, name=f"round{number}": one.user_search(name, 1).userList, "the reload")
        if time.monotonic() > end:
            print(f"{number + 1} reloads")
            return


def log_folder_comes_and_goes(daemon):
    for _ in range(int(SECONDS * 5)):
        os.rename(sandbox.LOG_DIR, HIDDEN_LOG)
        time.sleep(0.05)
        os.rename(HIDDEN_LOG, sandbox.LOG_DIR)
        time.sleep(0.05)


def log_disk_is_full(daemon):
    sandbox.mount_small_disk(sandbox.LOG_DIR, "256k")
    until(lambda: shutil.disk_usage(sandbox.LOG_DIR).free == 0, "a full disk")
    time.sleep(SECONDS / 4)
    for name in os.listdir(sandbox.LOG_DIR):
        os.unlink(f"{sandbox.LOG_DIR}/{name}")
    until(lambda: "messge_type(10), user(alice), rc(0)" in log_text(), "lines after the disk is free again")


def clients_say_nothing(daemon):
    silent = []
    for _ in range(IDLE):  # served once, so that none is forgotten in the queue of new ones
        silent.append(one := wire.Connection())
        one.query("192.0.2.7")
    assert sum(daemon.sockets().values()) > IDLE
    time.sleep(SECONDS / 4)
    for one in silent[::97]:
        assert one.query("192.0.2.7").result == 1
    for one in silent:
        one.close()


def clients_read_slowly(daemon):
    question = wire.frame(wire.USER_SEARCH, UserSearchRequest(name="", fullmatch=0))
    readers = []
    for _ in range(READERS):  # one after the other: a full queue of new connections would make others wait, too
        readers.append(one := wire.Connection(receive_buffer=4096))
        one.query("192.0.2.7")
    for reader in readers:
        reader.send(question)
    time.sleep(SECONDS / 4)
    for reader in readers:
        with reader:
            message_type, body = reader.receive_frame()
            assert message_type == wire.USER_SEARCH + 1 and body.count(b"Member ") > 2000


def agent_is_silent(daemon):
    """An exchange waits for its agent without a thread and without a limit."""
    waiting = []
    with ScriptedAgent() as agent:
        agent.is_silent()
        for number in range(WAITING):
            waiting.append(one := wire.Connection())
            one.query("192.0.2.7")
            one.send(wire.frame(wire.IP_AUTH, IPAuthRequest(ip=f"10.70.{number // 250}.{number % 250}", **{"async": 1})))
        until(lambda: len(agent.questions) == WAITING, lambda: f"all questions, not {len(agent.questions)}")
        time.sleep(SECONDS / 4)
    for one in waiting:
        with one:
            assert one.receive_answer(wire.IP_AUTH).result == -1


def clients_misbehave(daemon):
    """Noise, an answer that nobody takes, half a question; an end in order or by a reset."""
    chance = random.Random(SEED)
    question = wire.frame(wire.USER_SEARCH, UserSearchRequest(name="", fullmatch=0))
    end = time.monotonic() + SECONDS
    while time.monotonic() < end:
        connection = wire.Connection()
        connection.send(chance.choice([chance.randbytes(chance.randrange(1, 20_000)), question * 2,
                                       question[:chance.randrange(1, len(question))]]))
        chance.choice([connection.reset, connection.close])()


@pytest.mark.parametrize("disturb, options", [
    (reloads, []),
    (log_folder_comes_and_goes, ["--verbose"]),
    (log_disk_is_full, ["--verbose"]),
    (clients_say_nothing, []),
    (clients_read_slowly, []),
    (agent_is_silent, []),
    (clients_misbehave, []),
], ids=lambda value: getattr(value, "__name__", ""))
def test_everybody_is_served__while(daemon, disturb, options):
    many = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (many, many))
    crowd = directory.crowd(3000) if disturb is clients_read_slowly else ""
    daemon.start(*options, open_files=(many, many),
                 files={"directory.ldif": directory.ldif() + crowd, "LdapSetting.ini": "[LDAP_Setting]\nSearchLimit=0\n"
                        "SyncInterval=1440\n"})
    workers = daemon.workers()
    with bind_load() as binders, everybody_is_served():
        descriptors = {worker: len(daemon.descriptors(worker)) for worker in workers}
        disturb(daemon)
    print(f"{check_promises(binders)} bindings kept")
    daemon.wait_idle()
    assert daemon.workers() == workers
    assert daemon.count_lines(re.compile("."), level="ERR") == 0 or disturb is clients_misbehave
    for worker in workers:
        # A thread that had nothing to do before may have opened the snapshot for itself.
        assert len(daemon.descriptors(worker)) <= descriptors[worker] + 10
        assert sanitized("AuthDaemon") or memory(worker, "RssAnon") < 400 << 20
    assert daemon.stop() == 0


def test_disk__full_under_the_working_directory(daemon):
    """Binds are refused, look-ups and what was promised stay; a reload changes nothing; room makes all well."""
    sandbox.clean(True)
    sandbox.mount_small_disk(sandbox.WORKDIR, "3m")
    daemon.start(files=directory.files(), keep=True)
    workers = daemon.workers()
    promised = {f"10.60.{number // 250}.{number % 250}": f"CORP\\user{number}" for number in range(1000)}
    with daemon.connections_by_worker() as connections:
        one = connections[workers[0]]
        for ip, user in promised.items():
            assert one.bind(ip, user) == 0
        write_file("directory.ldif", directory.ldif() + directory.newcomer())
        filler = fill(sandbox.WORKDIR)
        before = log_text().count("<ERR>")
        refused = [one.bind(f"10.61.{number // 250}.{number % 250}", "u" * 1000) for number in range(1000)]
        assert set(refused) <= {0, -2} and refused[-1] == -2
        for worker in workers:
            os.kill(worker, signal.SIGUSR1)
        daemon.wait_line(re.compile("^Directory: .*(full|No space left)"), level="ERR", count=len(workers))
        for connection in connections.values():
            assert connection.user_info("alice").result == 0
            assert not connection.user_search("newman", 1).userList
            for ip, user in promised.items():
                assert connection.bound_user(ip) == user
        assert log_text().count("<ERR>") - before <= 3 * len(workers), log_text()[-3000:]
        os.unlink(filler)
        assert one.bind("10.62.0.1", "CORP\\later") == 0
        for worker, connection in connections.items():
            os.kill(worker, signal.SIGUSR1)
            until(lambda one=connection: one.user_search("newman", 1).userList, "the reload")
    assert daemon.stop() == 0
    daemon.start(keep=True)
    with wire.Connection() as connection:
        for ip, user in promised.items():
            assert connection.bound_user(ip) == user
    assert daemon.stop() == 0
