"""The servers that are measured: ours, and those that it is compared with."""

import os
import pathlib
import signal
import subprocess

import machine
from machine import PATIENCE, WORKDIR, Broken, collected, need, until

PID_FILE = pathlib.Path("/etc/quarn/pids/auth_daemon.pid")
WORKERS = 2  # the daemon's default
SLAPD_FOLDER = pathlib.Path("/var/brel/slapd")
UNITS = ("Sales", "Finance", "Research", "Support", "Legal", "Production")  # make_ldif leaves their entries out

# What make_ldif writes, in terms that slapd knows.
SCHEMA = """
attributetype ( 1.3.6.1.4.1.4203.666.1.9001 NAME 'sAMAccountName' EQUALITY caseIgnoreMatch
  SYNTAX 1.3.6.1.4.1.1466.115.121.1.15 SINGLE-VALUE )
attributetype ( 1.3.6.1.4.1.4203.666.1.9002 NAME 'userPrincipalName' EQUALITY caseIgnoreMatch
  SYNTAX 1.3.6.1.4.1.1466.115.121.1.15 SINGLE-VALUE )
attributetype ( 1.3.6.1.4.1.4203.666.1.9003 NAME 'objectSid'
  SYNTAX 1.3.6.1.4.1.1466.115.121.1.40 SINGLE-VALUE )
attributetype ( 1.3.6.1.4.1.4203.666.1.9004 NAME 'primaryGroupID' EQUALITY integerMatch
  SYNTAX 1.3.6.1.4.1.1466.115.121.1.27 SINGLE-VALUE )
attributetype ( 1.3.6.1.4.1.4203.666.1.9005 NAME 'userAccountControl' EQUALITY integerMatch
  SYNTAX 1.3.6.1.4.1.1466.115.121.1.27 SINGLE-VALUE )
attributetype ( 1.3.6.1.4.1.4203.666.1.9006 NAME 'memberOf' EQUALITY distinguishedNameMatch
  SYNTAX 1.3.6.1.4.1.1466.115.121.1.12 )
objectclass ( 1.3.6.1.4.1.4203.666.3.9001 NAME 'user' SUP organizationalPerson STRUCTURAL
  MAY ( givenName $ mail $ sAMAccountName $ userPrincipalName $ objectSid $ primaryGroupID $ userAccountControl
  $ memberOf ) )
objectclass ( 1.3.6.1.4.1.4203.666.3.9002 NAME 'group' SUP top STRUCTURAL
  MAY ( cn $ sAMAccountName $ objectSid $ member ) )
objectclass ( 1.3.6.1.4.1.4203.666.3.9003 NAME 'domainDNS' SUP domain STRUCTURAL )
"""
# Four threads, not the default of 16: the best rounds of a comparison on a busy machine with two processors were
# faster with them, at searches and at binds. To be confirmed on a calm one.
CONFIGURATION = """
include /etc/ldap/schema/core.schema
include /etc/ldap/schema/cosine.schema
include {folder}/directory.schema
modulepath /usr/lib/ldap
moduleload back_mdb
loglevel 0
threads 4
database mdb
maxsize 1073741824
suffix "DC=example"
directory {folder}/db
index objectClass,sAMAccountName eq
access to attrs=userPassword by anonymous auth by * none
access to * by * read
"""


class Server:
    """A server that runs in the foreground."""

    def __init__(self, protocol, port, command, log=subprocess.DEVNULL):
        self.protocol = protocol
        self.port = port
        # In a session of its own like the daemon: kernels share processors out by sessions, and the generator's would
        # be shared by those that stay in it.
        self._process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                         start_new_session=True)
        until(self._listens, f"{command[0]} listens on port {port}")

    def _listens(self):
        if self._process.poll() is not None:
            raise Broken(f"{self._process.args[0]} ended with status {self._process.returncode}")
        return machine.accepts(self.port)

    def pids(self):
        return [self._process.pid, *children(self._process.pid)]

    def stop(self):
        self._process.terminate()
        self._process.wait(PATIENCE)

    def wait_quiet(self):
        """The connections of the run before are closed on this side, too."""
        until(lambda: machine.connections_left(self.port) == 0, f"port {self.port} is left alone")

    def allow_processors(self, processors):
        """For all its threads; those that they start later inherit it."""
        for pid in self.pids():
            for thread in os.listdir(f"/proc/{pid}/task"):
                os.sched_setaffinity(int(thread), processors)

    def cpu_seconds(self):
        return sum(machine.cpu_seconds(pid) for pid in self.pids())

    def memory(self):
        """Bytes of heap and stacks of all its processes; mapped files are left out."""
        total = 0
        for pid in self.pids():
            rollup = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text(encoding="ascii")
            total += next(int(line.split()[1]) for line in rollup.splitlines() if line.startswith("Anonymous:"))
        return total * 1024


class Daemon(Server):
    """Our own; it detaches by itself. The working directory stays from start to start."""

    def __init__(self, program, *options):  # pylint: disable=super-init-not-called
        self.protocol = "daemon"
        self.port = 1100
        PID_FILE.unlink(missing_ok=True)
        subprocess.run([program, "--workdir", str(WORKDIR), *options], stdin=subprocess.DEVNULL, check=True)
        self._pid = int(until(lambda: PID_FILE.exists() and PID_FILE.read_text(encoding="ascii"),
                              "the daemon writes its pid file (its log: " + self._log_tail() + ")"))
        self._workers = until(lambda: len(found := children(self._pid)) == WORKERS and found, "the workers run")
        until(lambda: machine.accepts(self.port), "the daemon listens")

    @staticmethod
    def _log_tail():
        logs = sorted(pathlib.Path("/var/brel/log").glob("AuthDaemon.log.*"))
        return logs[-1].read_text(encoding="utf-8", errors="replace")[-500:] if logs else "none"

    def pids(self):
        return [self._pid, *self._workers]

    def stop(self):
        os.kill(self._pid, signal.SIGTERM)
        until(lambda: all(collected(pid) for pid in self.pids()), "the daemon's processes end")


def children(pid):
    listed = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text(encoding="ascii")
    return [int(child) for child in listed.split()]


def start_memcached():
    return Server("memcached", 11211, [need("memcached"), "-u", "root", "-l", "127.0.0.1", "-p", "11211", "-t", "2",
                                       "-c", "10000", "-m", "256"])


def start_redis(port, *options):
    folder = f"/var/brel/redis/{port}"
    os.makedirs(folder)
    return Server("redis", port, [need("redis-server"), "--bind", "127.0.0.1", "--port", str(port), "--save", "",
                                  "--maxclients", "10000", "--dir", folder, *options])


def start_redis_aof():
    return start_redis(6380, "--appendonly", "yes", "--appendfsync", "everysec",
                       "--auto-aof-rewrite-percentage", "0")


def start_slapd():
    """Filled with the daemon's directory, on the RAM disk like it."""
    slapd, slapadd = need("slapd"), need("slapadd")
    (SLAPD_FOLDER / "db").mkdir(parents=True)
    (SLAPD_FOLDER / "directory.schema").write_text(SCHEMA, encoding="ascii")
    settings = SLAPD_FOLDER / "slapd.conf"
    settings.write_text(CONFIGURATION.format(folder=SLAPD_FOLDER), encoding="ascii")
    ldif = SLAPD_FOLDER / "directory.ldif"
    version = b"version: 1\n"
    with open(ldif, "wb") as target:
        target.write(b"dn: DC=example\nobjectClass: domain\ndc: example\n\n")
        target.write((WORKDIR / "directory.ldif").read_bytes().removeprefix(version).lstrip(b"\n"))
        for domain in ("corp", "lab"):
            for unit in UNITS:
                target.write(f"dn: OU={unit},OU=People,DC={domain},DC=example\n"
                             f"objectClass: organizationalUnit\nou: {unit}\n\n".encode())
    # Not checked against the schema (-s): the naming attributes of some containers are left out.
    machine.run(slapadd, "-q", "-s", "-f", str(settings), "-l", str(ldif))
    ldif.unlink()
    return Server("ldap", 3890, [slapd, "-f", str(settings), "-d", "0", "-h", "ldap://127.0.0.1:3890"])


def start_echo(program, port, answer_bytes, *options):
    return Server("echo", port, [program, "--port", str(port), "--answer-bytes", str(answer_bytes), *options])
