"""authctl's questions to the daemon: what it prints, and how it ends. Those in README and docs are tried there."""

import os
import pty
import re
import signal
import subprocess
import termios

import pytest

from harness import directory
from harness.authctl import NO_ANSWER, OK, OTHER, USAGE, authctl
from harness.daemon import LONG_WAIT, program

PASSWORD = directory.PASSWORDS["alice"]


@pytest.mark.parametrize("arguments, given, status, expected", [
    (["user-search", "alice adams", "--full", "--long"], "", OK, directory.user_dn("Alice Adams")),
    (["all-users", "--dn", directory.GROUPS["Staff"]], "", OK, "bob@corp.test"),
    (["validate", "alice"], PASSWORD, OK, ""),  # without a line end
    (["validate", "alice"], "\n", OTHER, ""),
    (["validate", "alice"], "", USAGE, ""),
    (["validate", "alice", "secret"], "", USAGE, ""),  # never from the arguments
    (["bind", "10.7.2.1"], "", USAGE, ""),
    (["export", "relative.csv"], "", OTHER, ""),
    (["ip-auth", "10.7.2.1", "--wait"], "", OTHER, ""),  # no agent
    (["user-groups", "nobody", "--json"], "", OTHER, '{"result":32,"groupList":[]}\n'),
    (["--json", "all-users", "labrats"], "", OK, '{"result":0,"groupuserlist":[{"group_dn":'
                                                 f'"{directory.LABRATS_DN}","userlist":["rat@lab.test"]}}]}}\n'),
    ([], "", USAGE, ""), (["dance"], "", USAGE, ""),
    (["user-info", "alice", "--timeout", "soon"], "", USAGE, ""),
    (["user-info", "alice", "--server", "127.0.0.1:1101"], "", NO_ANSWER, ""),
    (["user-info", "alice", "--server", "no.such.host.invalid"], "", NO_ANSWER, ""),
    (["--help"], "", OK, "user-search"),
], ids=lambda value: " ".join(value) or "none" if isinstance(value, list) else "")
def test_command__text_and_status(served, arguments, given, status, expected):
    code, out, errors = authctl(*arguments, given=given)
    assert code == status, (out, errors)
    assert out == expected if "--json" in arguments else expected in out
    assert bool(errors) == (code != OK)
    if status == OTHER:
        assert re.search(r"^authctl: result -?\d+", errors, re.MULTILINE)
    if status == NO_ANSWER:
        assert (out, errors.count("\n")) == ("", 1)
    assert not given.strip() or given.strip() not in out + errors


@pytest.mark.parametrize("typed, end, expected", [
    (PASSWORD.encode() + b"\n", OK, b"the password is right"),
    (b"half\x03", -signal.SIGINT, b": \r\n"),
])
def test_password__from_a_terminal_is_asked_for_without_echo(served, typed, end, expected):
    pid, terminal = pty.fork()
    if pid == 0:
        os.execv(program("authctl"), ["authctl", "validate", "alice"])
    seen = b""
    while b":" not in seen:
        seen += os.read(terminal, 1024)
    assert not termios.tcgetattr(terminal)[3] & termios.ECHO
    os.write(terminal, typed)
    while expected not in seen:
        seen += os.read(terminal, 1024)
    assert os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]) == end
    assert termios.tcgetattr(terminal)[3] & termios.ECHO
    os.close(terminal)
    assert b"Password of alice" in seen and typed.strip() not in seen


@pytest.mark.parametrize("command, status, expected", [
    ("authctl --nope", USAGE, "authctl: there is no option '--nope'"),
    ("authctl user-info --nope", USAGE, "authctl: there is no option '--nope'"),
    # Nothing that drives the terminal comes back, in neither form.
    (r"""authctl "$(printf 'no\033[2J\302\23331mpe')" """, USAGE, "authctl: there is no command 'no[2J31mpe'"),
    ("authhelper --mdoe basic", USAGE, "authhelper: there is no option '--mdoe'"),
    ("ldap_sync --workdir ''", USAGE, "ldap_sync: --workdir: the folder is empty"),
    ("ipcache_dump", USAGE, "ipcache_dump: file is required"),
    # What is printed is the purpose: it does not get lost without a word. Without descriptor 1 the connection or
    # the database would get its number.
    ("authctl --help >/dev/full", NO_ANSWER, "authctl: cannot write"),
    ("authctl user-info alice >&-", NO_ANSWER, "authctl: cannot write"),
    ("authctl check-config --workdir / >/dev/full", NO_ANSWER, "authctl: cannot write"),
    ("ldap_sync --check >&-", 1, "ldap_sync: cannot write"),
    ("ldap_sync >&- && ! test -s directory.db.lock", 0, "ldap_sync: cannot write"),
    ("ipcache_dump --version >/dev/full", 1, "ipcache_dump: cannot write"),
    ("wmi_agent_sample --version >/dev/full", 1, "wmi_agent_sample: cannot write"),
])
def test_tools__mistakes_and_an_output_that_takes_nothing(served, tmp_path, command, status, expected):
    done = subprocess.run(["sh", "-c", command], env={"PATH": f"{os.path.dirname(program('authctl'))}:/usr/bin:/bin"},
                          cwd=tmp_path, capture_output=True, text=True, timeout=LONG_WAIT, check=False)
    assert (done.returncode, done.stdout) == (status, ""), done.stderr
    assert done.stderr.startswith(expected) and done.stderr.count("\n") == 1
