"""What the load generator must notice: a benchmark with wrong or missing answers is no benchmark."""

import json
import os
import socket
import struct
import subprocess
import threading

import pytest

PROGRAMS = os.environ["AUTHD_PROGRAMS"]
ANSWER_BYTES = 300
REQUESTS = ("user-info", "bind", "ip-query-hit", "user-info:9,bind:1")


def generate(protocol, port, *options):
    """Status and result of a short run."""
    command = [f"{PROGRAMS}/load_generator", "--protocol", protocol, "--port", str(port), "--seconds", "0.2",
               "--warmup", "0", "--keys", "20", "--answer-bytes", str(ANSWER_BYTES), *options]
    done = subprocess.run(command, capture_output=True, text=True, timeout=60, check=False)
    return done.returncode, json.loads(done.stdout) if done.stdout else None, done.stderr


@pytest.fixture(name="echo_port", scope="module")
def start_echo():
    command = [f"{PROGRAMS}/echo_server", "--port", "0", "--answer-bytes", str(ANSWER_BYTES)]
    with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as process:
        yield int(process.stdout.readline().split()[-1])
        process.terminate()


class FaultyServer:
    """Answers like the echo server `good` times on each connection, then does what `fault` says."""

    def __init__(self, good, fault):
        self.good, self.fault = good, fault
        self.listener = socket.create_server(("127.0.0.1", 0), backlog=64)
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            connection, _ = self.listener.accept()
            threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, connection):
        with connection:
            answered = 0
            while header := connection.recv(8, socket.MSG_WAITALL):
                length, kind = struct.unpack("<ii", header)
                connection.recv(length, socket.MSG_WAITALL)
                answer = struct.pack("<ii", ANSWER_BYTES - 8, kind + 1) + b"." * (ANSWER_BYTES - 8)
                answered += 1
                if answered > self.good and (answer := self.fault(answer)) is None:
                    return
                for at in range(0, len(answer), 100):  # whole answers come in pieces, too
                    connection.sendall(answer[at:at + 100])


@pytest.mark.parametrize("request_text", REQUESTS)
@pytest.mark.parametrize("options", [["--connections", "1"], ["--connections", "20", "--threads", "3"],
                                     ["--connections", "40", "--at-once", "7", "--idle", "30"]])
def test_right_answers_are_counted(echo_port, request_text, options):
    status, result, complaint = generate("echo", echo_port, "--request", request_text, *options,
                                         "--server-pids", str(os.getpid()))
    assert (status, complaint) == (0, "")
    assert result["requests"] > 0 and result["wrong"] == result["unanswered"] == 0
    assert 0 < result["p50_us"] <= result["p99_us"] <= result["p999_us"] < 5e6
    assert result["answer_bytes"] == ANSWER_BYTES
    # Nobody can answer faster than one question after the other on each connection.
    at_once = result["at_once"]
    assert result["requests"] * result["p50_us"] / 2 < at_once * (result["seconds"] + 0.5) * 1e6


@pytest.mark.parametrize("fault, wrong, unanswered", [
    pytest.param(lambda answer: answer[:-1] + b"!", 4, 0, id="last byte differs"),
    pytest.param(lambda answer: answer + b"!", 4, 0, id="a byte too many"),
    pytest.param(lambda answer: answer[:4] + b"\x07" + answer[5:], 4, 0, id="another type"),
    pytest.param(lambda answer: None, 0, 4, id="closes"),
    pytest.param(lambda answer: answer[:-1], 0, 4, id="a byte too few, then silence"),
])
def test_a_fault_after_a_right_answer_fails_the_run(fault, wrong, unanswered):
    server = FaultyServer(good=1, fault=fault)
    status, result, complaint = generate("echo", server.port, "--connections", "4")
    assert status == 1 and "wrong or missing" in complaint
    assert (result["wrong"], result["unanswered"]) == (wrong, unanswered)


def test_an_idle_connection_that_the_server_dropped_fails_the_run():
    # The connections that ask are answered for ever, an idle one only when it is opened.
    calls = iter(range(10**9))
    server = FaultyServer(good=1, fault=lambda answer: answer if next(calls) < 10 else None)
    status, result, _ = generate("echo", server.port, "--connections", "0", "--idle", "12")
    assert status == 1
    assert result["unanswered"] == 2


def test_nobody_listens_and_nobody_answers_end_with_a_message():
    with socket.create_server(("127.0.0.1", 0)) as silent:
        port = silent.getsockname()[1]
        status, result, complaint = generate("echo", port, "--connections", "1")
        assert (status, result) == (1, None) and "no further connection" in complaint
    status, result, complaint = generate("daemon", port)
    assert (status, result) == (1, None) and "refused" in complaint.lower()


def test_a_server_process_that_is_gone_fails_the_run(echo_port):
    with subprocess.Popen(["true"]) as gone:
        gone.wait()
    status, _, complaint = generate("echo", echo_port, "--server-pids", str(gone.pid))
    assert status == 1 and "has ended" in complaint
