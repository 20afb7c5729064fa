"""The working directory of a daemon whose directory lies on servers: its settings, ldap_sync on it, and what a
client is told about everybody."""

import contextlib
import os
import re
import resource
import sqlite3
import subprocess
from collections import namedtuple
from pathlib import Path

from harness import sandbox, wire
from harness.daemon import PROGRAMS, program, write_file
from harness.wire import pb

SNAPSHOT = f"{sandbox.WORKDIR}/directory.db"
EXAMPLES = Path(__file__).resolve().parents[3] / "examples"
PASSWORD_FILE = "reader.password"
_ACCOUNT = {"user": sandbox.ACCOUNT_ID, "group": sandbox.ACCOUNT_ID, "extra_groups": [sandbox.SECOND_GROUP_ID]}

Outcome = namedtuple("Outcome", "status output errors")


def domain(number, servers, reader, base=None, **keys):
    """A section of LdapSetting.ini. `keys` replace or add to it."""
    keys = {"DnsName": "corp.test", "Servers": " ".join(servers), "BindDN": reader, "BindPasswordFile": PASSWORD_FILE,
            "ConnectTimeout": 2, "OperationTimeout": 2, **({"BaseDN": base} if base else {}), **keys}
    return f"[Domain_{number}]\n" + "".join(f"{key}={value}\n" for key, value in keys.items())


def settings(servers, reader, base=None, general=(), **keys):
    """LdapSetting.ini for one domain."""
    lines = ["[LDAP_Setting]", "SyncInterval=1440", "SearchLimit=0", *general, ""]
    return "\n".join(lines) + domain(1, servers, reader, base, **keys)


def place(text, password, **more):
    """An empty working directory with these settings and the reading account's password."""
    sandbox.clean(True)
    put(text, password, **more)


def put(text, password, **more):
    for name, content in {"LdapSetting.ini": text, PASSWORD_FILE: password + "\n", **more}.items():
        write_file(name, content)
    os.chmod(f"{sandbox.WORKDIR}/{PASSWORD_FILE}", 0o600)


def place_script():
    write_file("LdapSyncTool.sh", (EXAMPLES / "workdir/LdapSyncTool.sh").read_bytes())


def run_script(*arguments, as_root=True):
    return subprocess.run([f"{sandbox.WORKDIR}/LdapSyncTool.sh", *arguments], capture_output=True, text=True, check=False,
                          env={**os.environ, "AUTH_PROGRAM_DIR": PROGRAMS}, **({} if as_root else _ACCOUNT))


def start_sync(*options, as_root=False, **more):
    more = {"stderr": subprocess.PIPE, **({} if as_root else _ACCOUNT), **more}
    return subprocess.Popen([program("ldap_sync"), "--workdir", sandbox.WORKDIR, *options], text=True,
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, **more)


def finish(process):
    output, errors = process.communicate(timeout=600)
    return Outcome(process.returncode, output, errors)


def ldap_sync(*options, **more):
    return finish(start_sync(*options, **more))


def good_sync(*options, **more):
    done = ldap_sync(*options, **more)
    assert (done.status, done.errors, len(done.output.splitlines())) == (0, "", 1), done
    return done.output


def refused_sync(*words):
    """One line says why, and nothing is left of it."""
    done = ldap_sync()
    assert (done.status, done.output, len(done.errors.splitlines())) == (1, "", 1), done
    assert all(re.search(word, done.errors) for word in words), (words, done.errors)
    assert leftovers() == []


def limit(what, size):
    return {"preexec_fn": lambda: resource.setrlimit(what, (size, size))}


def sanitized(name):
    """Whether the program carries a sanitizer, which takes memory of its own."""
    libraries = subprocess.run(["ldd", program(name)], capture_output=True, text=True, check=True).stdout
    return "libasan" in libraries or "libtsan" in libraries


def snapshot():
    """What identifies the snapshot in use, and its bytes."""
    return os.stat(SNAPSHOT).st_ino, Path(SNAPSHOT).read_bytes()


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


def expect_live_as_stored(daemon, answers):
    """Question -> answer, of the servers before the first snapshot and of the snapshot then: all the same."""
    live = answers()
    place_script()
    assert run_script().returncode == 0
    daemon.wait_line(re.compile("Directory: snapshot of the servers"), count=2)  # not: "no snapshot"
    stored = answers()
    assert {name: (live[name], stored[name]) for name in live if live[name] != stored[name]} == {}


class Questions(wire.Connection):
    """Short forms of the answers: what was asked for, or the result code."""

    def user(self, name):
        """(domain, uid, cn, dn, upn)"""
        answer = self.user_info(name)
        info = answer.userInfo
        return (info.domain_dns, info.uid, info.cn, info.dn, info.upn) if answer.result == 0 else answer.result

    def users(self, name, whole=0):
        answer = self.user_search(name, whole)
        return [one.uid for one in answer.userList] if answer.result == 0 else answer.result

    def _groups(self, kind, request):
        answer = self.ask(kind, request)
        return [one.cn for one in answer.groupList] if answer.result == 0 else answer.result

    def groups(self, name, whole=0):
        return self._groups(wire.GROUP_SEARCH, pb.GroupSearchRequest(name=name, fullmatch=whole))

    def groups_of(self, user):
        return self._groups(wire.USER_GROUPS, pb.UserGroupQueryRequest(user_ln=user))

    def groups_in(self, group, whole=1):
        return self._groups(wire.GROUP_GROUPS, pb.GroupSearchRequest(name=group, fullmatch=whole))

    def members(self, *groups, by_dn=0):
        """DN of the group -> its users."""
        answer = self.ask(wire.ALL_USERS, pb.AllUserQueryRequest(grouplist=groups, isDN=by_dn))
        return {one.group_dn: sorted(one.userlist) for one in answer.groupuserlist} if answer.result == 0 else answer.result

    def validate(self, user, password):
        """True, False, or another result code."""
        return {0: True, -1: False}.get(code := super().validate(user, password), code)
