"""What the load generator must notice: a benchmark with wrong or missing answers is no benchmark."""

import json
import os
import socket
import struct
import subprocess
import threading
import time

import pytest

PROGRAMS = os.environ["AUTHD_PROGRAMS"]
ANSWER_BYTES = 300
REQUESTS = ("user-info", "bind", "ip-query-hit", "user-info:9,bind:1")


def generate(protocol, port, *options, seconds=0.2):
    """Status and result of a short run."""
    command = [f"{PROGRAMS}/load_generator", "--protocol", protocol, "--port", str(port), "--seconds", str(seconds),
               "--warmup", "0", "--keys", "20", "--answer-bytes", str(ANSWER_BYTES), *options]
    done = subprocess.run(command, capture_output=True, text=True, timeout=60, check=False)
    return done.returncode, json.loads(done.stdout) if done.stdout else None, done.stderr


@pytest.fixture(name="echo_port", scope="module", params=[[], ["--told"]], ids=["fast", "told"])
def start_echo(request):
    command = [f"{PROGRAMS}/echo_server", "--port", "0", "--answer-bytes", str(ANSWER_BYTES), *request.param]
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
            connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
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


def test_a_stall_shows_in_all_that_fell_due_meanwhile():
    # Four connections, so only four questions are under way while the server sleeps; a hundred fall due.
    lock, answers, asleep = threading.Lock(), iter(range(10**9)), 0.2

    def stall(answer):
        with lock:
            if next(answers) == 100:
                time.sleep(asleep)
            return answer

    server = FaultyServer(good=0, fault=stall)
    status, result, _ = generate("echo", server.port, "--connections", "4", "--pace", "500", seconds=1)
    assert (status, result["requests"], result["overdue"]) == (0, 500, 0)
    assert asleep * 1e6 / 2 < result["p99_us"] < 2e6
    assert result["p50_us"] < asleep * 1e6 / 4


def test_what_could_not_be_sent_at_its_pace_is_counted():
    server = FaultyServer(good=5, fault=lambda answer: None)
    status, result, _ = generate("echo", server.port, "--connections", "4", "--pace", "1000")
    assert (status, result["unanswered"]) == (1, 4)
    # One of the five right answers was for the proof; each connection was lost with one question.
    assert (result["requests"], result["overdue"]) == (16, 180)


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
