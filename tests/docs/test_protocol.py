"""docs/protocol.md: the daemon answers the frames as they are printed there, and the client in it works."""

import pathlib
import re

from harness import wire

TOP = pathlib.Path(__file__).resolve().parents[2]
PAGE = (TOP / "docs/protocol.md").read_text(encoding="utf-8")


def tokens(block, mark):
    """The bytes of one side as text: two digits each, ?? and ** as they stand."""
    lines = block.splitlines()
    assert all(re.fullmatch(r"[<>]( ([0-9a-f]{2}|\?\?|\*\*))+( .*)?", line) for line in lines), f"no side: {block}"
    return [token for line in lines if line[0] == mark
            for token in re.match(r"(?:[0-9a-f?]{2} |\*\* )+", line[2:] + " ").group().split()]


def test_every_frame_is_answered_as_printed(daemon):
    daemon.start(files={path.name: path.read_bytes() for path in (TOP / "examples/workdir").iterdir() if path.is_file()})
    seen = set()
    with wire.Connection() as connection:
        for block in re.findall(r"^```frames\n(.*?)^```$", PAGE, flags=re.MULTILINE | re.DOTALL):
            request = bytes.fromhex("".join(tokens(block, ">")))
            connection.send(request)
            message_type, body = connection.receive_frame()
            answer = wire.HEADER.pack(len(body), message_type) + body
            special = {"??": b".", "**": b".*"}
            printed = b"".join(special.get(token) or re.escape(bytes.fromhex(token)) for token in tokens(block, "<"))
            assert re.fullmatch(printed, answer, re.DOTALL), f"{block}\nanswered: {answer.hex(' ')}"
            seen |= {request[4], message_type}
    assert seen == set(range(28)), f"no dump of {set(range(28)) - seen}"
