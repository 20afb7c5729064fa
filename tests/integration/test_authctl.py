"""authctl as an administrator runs it: what it prints, and how it ends."""

import json
import os
import pty
import re
import subprocess

import pytest

from harness import directory, sandbox
from harness.daemon import LONG_WAIT, program

OK, OTHER, USAGE, NO_ANSWER = range(4)


def authctl(*arguments, given=""):
    done = subprocess.run([program("authctl"), *arguments], input=given, capture_output=True, text=True,
                          timeout=LONG_WAIT, check=False)
    return done.returncode, done.stdout, done.stderr


@pytest.mark.parametrize("arguments, given, status, in_text", [
    (["user-search", "alice"], "", OK, ["alice", "Alice Adams", "alice.adams@corp.test", "corp.test"]),
    (["user-search", "^ad"], "", OK, ["adele Andrews"]),
    (["user-search", "alice adams", "--full", "--long"], "", OK, [directory.user_dn("Alice Adams"), "alice@corp.test"]),
    (["user-groups", "CORP\\bob"], "", OK, ["Admins", "Engineers", "Staff"]),
    (["group-groups", "Staff", "--full"], "", OK, ["Admins", "Engineers"]),
    (["all-users", "Staff", "labrats"], "", OK, ["alice@corp.test", "rat@lab.test"]),
    (["all-users", "--dn", directory.GROUPS["Staff"]], "", OK, ["bob@corp.test"]),
    (["user-info", "alice"], "", OK, ["Alice Adams", "Domain Users"]),
    (["user-info", "nobody"], "", OTHER, []),
    (["validate", "alice"], directory.PASSWORDS["alice"] + "\n", OK, []),
    (["validate", "alice"], directory.PASSWORDS["alice"], OK, []),
    (["validate", "alice"], "wrong\n", OTHER, []),
    (["validate", "alice"], "\n", OTHER, []),
    (["validate", "alice"], "", USAGE, []),
    (["bind", "10.7.2.1", "CORP\\alice"], "", OK, []),
    (["ip-query", "10.7.2.1"], "", OK, ["CORP\\alice", "Alice Adams", "Staff"]),
    (["unbind", "10.7.2.1"], "", OK, []),
    (["ip-query", "10.7.2.1"], "", OTHER, []),
    (["bind", "10.7.2", "CORP\\alice"], "", OTHER, []),
    (["export", "relative.csv"], "", OTHER, []),
    (["export", f"{sandbox.OUTSIDE}/by_authctl.csv"], "", OK, []),
    (["ip-auth", "10.7.2.1", "--wait"], "", OTHER, []),  # no agent
    (["ip-auth", "10.7.2.1"], "", OK, []),
    ([], "", USAGE, []),
    (["dance"], "", USAGE, []),
    (["bind", "10.7.2.1"], "", USAGE, []),
    (["user-info", "alice", "--timeout", "soon"], "", USAGE, []),
    (["validate", "alice", "secret"], "", USAGE, []),  # never from the arguments
    (["--help"], "", OK, ["user-search", "ip-auth"]),
    (["--version"], "", OK, ["authctl"]),
], ids=lambda value: " ".join(value) or "none" if isinstance(value, list) else "")
def test_command__text_and_status(served, arguments, given, status, in_text):
    code, out, errors = authctl(*arguments, given=given)
    assert code == status, (out, errors)
    for text in in_text:
        assert text in out
    if status in (OTHER, USAGE):
        assert errors.strip()
    if status == OTHER:
        assert re.search(r"^authctl: result -?\d+", errors, re.MULTILINE)
    assert given.strip() == "" or given.strip() not in out + errors


@pytest.mark.parametrize("arguments, status, expected", [
    (["user-groups", "chad"], OK, {"result": 0, "groupList": []}),
    (["user-groups", "nobody"], OTHER, {"result": 32, "groupList": []}),
    (["group-search", "Staff", "--full"], OK,
     {"result": 0, "groupList": [{"cn": "Staff", "dn": directory.GROUPS["Staff"]}]}),
    (["ip-query", "10.7.3.1"], OTHER, {"result": 1, "expire_at": 0}),
    (["export", "/no/such/folder/b.csv"], OTHER, {"result": -1}),
    (["all-users", "labrats"], OK,
     {"result": 0, "groupuserlist": [{"group_dn": directory.LABRATS_DN, "userlist": ["rat@lab.test"]}]}),
])
def test_json__is_the_whole_answer_on_one_line(served, arguments, status, expected):
    for command in (["--json", *arguments], [*arguments, "--json"]):
        code, out, _ = authctl(*command)
        assert (code, json.loads(out)) == (status, expected)
        assert out.count("\n") == 1


def test_password__from_a_terminal_is_asked_for_without_echo(served):
    pid, terminal = pty.fork()
    if pid == 0:
        os.execv(program("authctl"), ["authctl", "validate", "alice"])
    seen = b""
    while b":" not in seen:
        seen += os.read(terminal, 1024)
    os.write(terminal, directory.PASSWORDS["alice"].encode() + b"\n")
    try:
        while piece := os.read(terminal, 1024):
            seen += piece
    except OSError:
        pass  # the other end of the terminal is closed
    os.close(terminal)
    assert os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]) == OK
    assert b"Password of alice" in seen and directory.PASSWORDS["alice"].encode() not in seen


@pytest.mark.parametrize("server, status", [
    ("127.0.0.1:1101", NO_ANSWER), ("127.0.0.1:", USAGE), ("127.0.0.1:99999", USAGE), ("", USAGE),
    ("192.0.2.1:1100", NO_ANSWER), ("no.such.host.invalid", NO_ANSWER), ("[::1]:1100", NO_ANSWER),
])
def test_server__that_cannot_be_reached(served, server, status):
    code, out, errors = authctl("--server", server, "user-info", "alice", "--timeout", "5")
    assert (code, out) == (status, "")
    assert errors.startswith("authctl: ") and errors.count("\n") == 1


def test_ntlm__message_that_is_none_is_refused(served):
    code, out, errors = authctl("ntlm", given="!!!\n")
    assert (code, out) == (OTHER, "") and "result -1" in errors, errors
