"""The working directory of a daemon whose directory lies on servers: its settings, ldap_sync on it, and what a
client is told about everybody."""

import contextlib
import os
import pathlib
import re
import resource
import sqlite3
import subprocess
import time
from collections import namedtuple

from harness import sandbox, wire
from harness.daemon import PROGRAMS, program, write_file
from harness.wire import pb

SNAPSHOT = f"{sandbox.WORKDIR}/directory.db"
EXAMPLES = pathlib.Path(__file__).resolve().parents[3] / "examples"
PASSWORD_FILE = "reader.password"

Outcome = namedtuple("Outcome", "status output errors seconds")


def settings(servers, reader, base=None, search_limit=0, general=(), **keys):
    """LdapSetting.ini for one domain. `keys` replace or add to its section."""
    domain = {"DnsName": "corp.test", "Servers": " ".join(servers), "BindDN": reader,
              "BindPasswordFile": PASSWORD_FILE, "ConnectTimeout": 2, "OperationTimeout": 2, **keys}
    if base is not None:
        domain["BaseDN"] = base
    lines = ["[LDAP_Setting]", "SyncInterval=1440", f"SearchLimit={search_limit}", *general, "[Domain_1]"]
    return "\n".join(lines + [f"{key}={value}" for key, value in domain.items()]) + "\n"


def place(text, password, mode=0o600, account=True, **more):
    """An empty working directory with these settings and the reading account's password."""
    sandbox.clean(account)
    put(text, password, mode, **more)


def put(text, password, mode=0o600, **more):
    write_file("LdapSetting.ini", text)
    write_file(PASSWORD_FILE, password + "\n")
    os.chmod(f"{sandbox.WORKDIR}/{PASSWORD_FILE}", mode)
    for name, content in more.items():
        write_file(name, content)


def place_script():
    write_file("LdapSyncTool.sh", (EXAMPLES / "workdir/LdapSyncTool.sh").read_bytes())


def start_sync(*options, as_root=False, **more):
    identity = {} if as_root else {"user": sandbox.ACCOUNT_ID, "group": sandbox.ACCOUNT_ID, "extra_groups": []}
    return subprocess.Popen([program("ldap_sync"), "--workdir", sandbox.WORKDIR, *options], text=True,
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            **{"stderr": subprocess.PIPE, **identity, **more})


def finish(process, begin=None):
    output, errors = process.communicate(timeout=600)
    return Outcome(process.returncode, output, errors, time.monotonic() - begin if begin else 0)


def ldap_sync(*options, **more):
    begin = time.monotonic()
    return finish(start_sync(*options, **more), begin)


def sanitized(name):
    """Whether the program carries a sanitizer, which takes memory of its own."""
    libraries = subprocess.run(["ldd", program(name)], capture_output=True, text=True, check=True).stdout
    return "libasan" in libraries or "libtsan" in libraries


def measure(process):
    """Waits for the end of a process; (seconds, peak memory in MB). What the system tells afterwards would count
    the process that started it, too."""
    begin, peak = time.monotonic(), 0
    while process.poll() is None:
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            with open(f"/proc/{process.pid}/status", encoding="ascii") as file:
                peak = max([peak] + [int(line.split()[1]) for line in file if line.startswith("VmHWM:")])
        time.sleep(0.005)
    return time.monotonic() - begin, peak / 1024


def good_sync(*options, **more):
    done = ldap_sync(*options, **more)
    assert (done.status, done.errors) == (0, ""), done
    assert len(done.output.splitlines()) == 1, done
    return done


def run_script(*arguments, as_root=True):
    identity = {} if as_root else {"user": sandbox.ACCOUNT_ID, "group": sandbox.ACCOUNT_ID, "extra_groups": []}
    return subprocess.run([f"{sandbox.WORKDIR}/LdapSyncTool.sh", *arguments], capture_output=True, text=True, check=False,
                          env={**os.environ, "AUTH_PROGRAM_DIR": PROGRAMS}, **identity)


def snapshot():
    """What identifies the snapshot in use, and its bytes."""
    with open(SNAPSHOT, "rb") as file:
        return os.fstat(file.fileno()).st_ino, file.read()


def stored_users():
    """How many users the snapshot has, by its own tables; it has to be whole."""
    with contextlib.closing(sqlite3.connect(f"file:{SNAPSHOT}?immutable=1", uri=True)) as database:
        assert database.execute("PRAGMA integrity_check").fetchall() == [("ok",)]
        [(meta, users)] = database.execute("SELECT users, (SELECT count(*) FROM user_entry) FROM meta")
    assert meta == users
    return users


def leftovers():
    return sorted(name for name in os.listdir(sandbox.WORKDIR)
                  if name.startswith("directory.db") and name not in ("directory.db", "directory.db.lock"))


def limit_file_size(size):
    return lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (size, size))


def expect_live_as_stored(daemon, answers):
    """Question -> answer, of the servers before the first snapshot and of the snapshot then: all the same."""
    live = answers()
    place_script()
    assert run_script().returncode == 0
    daemon.wait_line(re.compile("Directory: snapshot of the servers"), count=2)  # not: "no snapshot"
    stored = answers()
    assert {name: (live[name], stored[name]) for name in live if live[name] != stored[name]} == {}


class Questions:
    """What a client asks on one connection; short forms of the answers."""

    def __init__(self, timeout=20):
        self.connection = wire.Connection(timeout)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.connection.close()

    def user(self, name):
        """(domain, uid, cn, dn, upn), or the result code."""
        answer = self.connection.user_info(name)
        info = answer.userInfo
        return (info.domain_dns, info.uid, info.cn, info.dn, info.upn) if answer.result == 0 else answer.result

    def users(self, name, whole=0):
        answer = self.connection.user_search(name, whole)
        return [one.uid for one in answer.userList] if answer.result == 0 else answer.result

    def groups(self, name, whole=0):
        answer = self.connection.ask(wire.GROUP_SEARCH, pb.GroupSearchRequest(name=name, fullmatch=whole))
        return [one.cn for one in answer.groupList] if answer.result == 0 else answer.result

    def groups_of(self, user):
        answer = self.connection.ask(wire.USER_GROUPS, pb.UserGroupQueryRequest(user_ln=user))
        return [one.cn for one in answer.groupList] if answer.result == 0 else answer.result

    def groups_in(self, group, whole=1):
        answer = self.connection.ask(wire.GROUP_GROUPS, pb.GroupSearchRequest(name=group, fullmatch=whole))
        return [one.cn for one in answer.groupList] if answer.result == 0 else answer.result

    def members(self, *groups, by_dn=0):
        answer = self.connection.ask(wire.ALL_USERS, pb.AllUserQueryRequest(grouplist=groups, isDN=by_dn))
        if answer.result != 0:
            return answer.result
        return {one.group_dn: list(one.userlist) for one in answer.groupuserlist}

    def validate(self, user, password):
        """True, False, or another result code."""
        return {0: True, -1: False}.get(code := self.connection.validate(user, password), code)
