"""docs/protocol.md: the daemon answers the frames as they are printed there, and the client in it works."""

import pathlib
import re
import socket

import pytest

from harness import wire
from harness.daemon import LONG_WAIT

TOP = pathlib.Path(__file__).resolve().parents[2]
PAGE = (TOP / "docs/protocol.md").read_text(encoding="utf-8")
EXAMPLES = TOP / "examples/workdir"
KINDS = 28


@pytest.fixture
def example(daemon):
    return daemon.start(files={path.name: path.read_bytes() for path in EXAMPLES.iterdir() if path.is_file()})


def blocks(language):
    return re.findall(rf"^```{language}\n(.*?)^```$", PAGE, flags=re.MULTILINE | re.DOTALL)


def side(block, mark):
    """The bytes of one side as text: two digits each, ?? and ** as they stand."""
    tokens = []
    for line in block.splitlines():
        assert line[:2] in ("> ", "< "), f"no side: {line!r}"
        if line[0] == mark:
            tokens += re.match(r"(?:[0-9a-f?]{2} |\*\* |[0-9a-f?]{2}$)+", line[2:] + " ").group().split()
    return tokens


def pattern(tokens):
    special = {"??": b".", "**": b".*"}
    return re.compile(b"".join(special.get(token) or re.escape(bytes.fromhex(token)) for token in tokens), re.DOTALL)


def receive(connection):
    data = b""
    while len(data) < 8 or len(data) < 8 + int.from_bytes(data[:4], "little"):
        got = connection.recv(65536)
        assert got, f"closed after {data.hex(' ')}"
        data += got
    return data


def test_every_frame_is_answered_as_printed(example):
    seen = set()
    with socket.create_connection(wire.ADDRESS, timeout=LONG_WAIT) as connection:
        for block in blocks("frames"):
            request = bytes.fromhex("".join(side(block, ">")))
            connection.sendall(request)
            answer = receive(connection)
            assert pattern(side(block, "<")).fullmatch(answer), f"{block}\nanswered: {answer.hex(' ')}"
            seen |= {request[4], answer[4]}
    assert seen == set(range(KINDS)), f"no dump of {set(range(KINDS)) - seen}"
