"""More than is good: big bodies, too few descriptors."""

import os
import socket
import time

from crowd import memory
from harness import directory, wire
from harness.daemon import stat_fields, until


def cpu_seconds(pid):
    fields = stat_fields(pid)
    return (int(fields[12]) + int(fields[13])) / os.sysconf("SC_CLK_TCK")


def test_bodies__large_ones_do_not_add_up_in_memory(served):
    sizes = []
    for _ in range(16):
        senders = []
        for _ in range(8):
            senders.append(connection := wire.Connection())
            connection.send(wire.HEADER.pack(wire.LARGEST_BODY, wire.USER_INFO) + b"\x0a" * (5 << 20))
        with wire.Connection() as other:
            assert other.user_info("alice").result == 0
        for connection in senders:
            connection.close()
        served.wait_idle()
        sizes.append(sum(memory(worker, "VmRSS") for worker in served.workers()))
    # 640 MB went through. What the allocator keeps for later is a few bodies for each thread.
    print(f"\nmemory after each round: {[size >> 20 for size in sizes]} MB")
    assert max(sizes[-4:]) < 600 << 20


def test_descriptors__used_up_and_free_again(daemon):
    daemon.start("--process-num", "1", "--thread-num", "4", workers=1, files=directory.files(), open_files=(48, 48))
    worker, = daemon.workers()
    with wire.Connection() as first:
        assert first.user_info("alice").result == 0
        crowd = []
        for _ in range(60):  # more than there is room for; some wait in the queue
            one = socket.socket()
            one.setblocking(False)
            one.connect_ex(wire.ADDRESS)
            crowd.append(one)
            time.sleep(0.005)  # more slowly than the queue of new ones fills
        text = "fail to accept tcp connetion (Too many open files)"
        daemon.wait_line(text, level="ERR", pid=worker)  # though to write a line takes a descriptor, too
        begin = cpu_seconds(worker)
        time.sleep(1)
        assert cpu_seconds(worker) - begin < 0.5  # it does not spin
        assert daemon.count_lines(text) <= 2  # and does not fill the log
        assert first.user_info("alice").result == 0  # who is there is served
        for one in crowd:
            one.close()
    with wire.Connection() as later:
        assert later.user_info("alice").result == 0
    until(lambda: len(daemon.descriptors(worker)) < 40, lambda: f"free descriptors: {daemon.descriptors(worker)}")
    assert daemon.workers() == [worker]
    assert daemon.stop() == 0
