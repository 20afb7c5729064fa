"""A Samba domain controller of the tests' own. Setting the domain up and filling it takes a while, so that is done
once for each build directory; later runs start from a copy."""

import glob
import hashlib
import os
import subprocess

from harness import sandbox
from harness.daemon import PROGRAMS
from servers.process import ServerProcess, cannot_run, kerberos_client, make_room, need_programs, new_folder, put_into_etc, run
from servers.slapd import entry, rdn_value

ADDRESS = "10.99.0.1"
HOST = "dc1.corp.test"
SUFFIX = "DC=corp,DC=test"
USERS = f"CN=Users,{SUFFIX}"
PEOPLE = f"OU=Staff (all),{SUFFIX}"
READER, READER_PASSWORD = f"CN=svc-read,{USERS}", "Reads.Everyth1ng"
CROWD, FIRST_PART = 5001, 1501
LOCKED_AFTER = 5

# uid -> (cn, password)
PEOPLE_OF_NOTE = {
    "alice": ("Alice Adams", "Al1ce.Pass"),
    "jm\u00fcller": ("M\u00fcller, J\u00f6rg", "J\u00f6rg.Passw0rd"),
    "back": ("Back\\slash", "B4ck.Slash"),
    "paren(1)": ("Paren (these) & more", "Par3n.These"),
    "star": ("Star*fish", "St4r.Fish"),
    "pia": ("Pia Primary", "P1a.Primary"),
    "gone": ("Gone Gary", "G0ne.Gary1"),
    "lou": ("Locked Lou", "L0cked.Lou"),
}

_CONFIGURATION = """[global]
netbios name = DC1
realm = CORP.TEST
workgroup = CORP
server role = active directory domain controller
interfaces = lo {address}/24
bind interfaces only = yes
private dir = {folder}/private
state directory = {folder}/state
cache directory = {folder}/cache
lock directory = {folder}
binddns dir = {folder}/bind-dns
pid directory = {folder}/run
ncalrpc dir = {folder}/run/ncalrpc
ntp signd socket directory = {folder}/run/ntp_signd
log file = {folder}/log/log.%m
logging = file
log level = 1
server services = {services}
load printers = no
disable spoolss = yes
dns forwarder =
template shell = /bin/false
[netlogon]
path = {folder}/state/sysvol/corp.test/scripts
[sysvol]
path = {folder}/state/sysvol
"""

def user_dn(uid):
    return f"CN={rdn_value(PEOPLE_OF_NOTE[uid][0])},{PEOPLE}"


def group_dn(cn):
    return f"CN={rdn_value(cn)},{PEOPLE}"


def crowd_dn(number):
    return f"CN=Member {number:05},OU=Crowd,{SUFFIX}"


def _group(cn, members):
    name = "".join(c for c in cn if c.isalnum())
    return entry(group_dn(cn), objectClass="group", cn=cn, sAMAccountName=name, member=members)


def _content():
    """What goes straight into the controller's database. Passwords come later."""
    text = entry(PEOPLE, objectClass="organizationalUnit") + entry(f"OU=Crowd,{SUFFIX}", objectClass="organizationalUnit")
    for uid, (cn, _) in {**PEOPLE_OF_NOTE, "svc-read": ("svc-read", "")}.items():
        where = user_dn(uid) if uid in PEOPLE_OF_NOTE else READER
        principal = {"userPrincipalName": f"{uid}@corp.test"} if uid in ("alice", "jm\u00fcller") else {}
        text += entry(where, objectClass="user", cn=cn, sAMAccountName=uid, **principal)
    for number in range(1, CROWD + 1):
        text += entry(crowd_dn(number), objectClass="user", sAMAccountName=f"m{number:05}")
    # Members have to exist before their group; the circle is closed afterwards.
    return (text + _group("Inner", [user_dn("alice")]) + _group("Middle", [group_dn("Inner"), user_dn("paren(1)")])
            + _group("Outer", [group_dn("Middle"), user_dn("jm\u00fcller")])
            + _group("Primary Crew", [user_dn("pia")])
            + _group("R&D (K\u00f6ln), \\Lab*", [user_dn("back"), user_dn("star")])
            + _group("Crowd 1501", [crowd_dn(number) for number in range(1, FIRST_PART + 1)])
            + _group("Crowd 5001", [crowd_dn(number) for number in range(1, CROWD + 1)]))


class SambaDomain(ServerProcess):
    def __init__(self, services="rpc, ldap, cldap, kdc"):
        self.services = services
        need_programs("samba", "samba-tool", "ldbadd", "ldbmodify", "ldbsearch", "tar", "unshare")
        make_room()
        self.folder = new_folder("ad")
        self.url, self.tls_url = f"ldap://{HOST}", f"ldaps://{HOST}"
        self.configuration = os.path.join(self.folder, "smb.conf")
        self.database = os.path.join(self.folder, "private/sam.ldb")
        self.ca = os.path.join(self.folder, "private/tls/ca.pem")
        super().__init__(self._in_a_machine("samba", f"--configfile={self.configuration}", "--foreground",
                                            "--no-process-group", "--model=standard"),
                         (389, 636), os.path.join(self.folder, "output"), host=ADDRESS)
        try:
            self._make_machine()
            self._make_domain()
            os.chmod(os.path.join(self.folder, "state/winbindd_privileged"), 0o750)  # else winbind does not start
        except sandbox.Impossible as error:
            cannot_run(f"no domain controller on this machine: {error}")

    @staticmethod
    def _in_a_machine(*command):
        """Under a host name of its own, and with pipes of its own, which a member of the domain has, too."""
        return ["unshare", "--uts", "--mount", "sh", "-c",
                'hostname dc1 && mount -t tmpfs samba /run/samba && exec "$0" "$@"', *command]

    def _make_machine(self):
        """An address that is not loopback's own, and the few system paths that Samba and Kerberos read."""
        known = subprocess.run(["ip", "-o", "address", "show", "dev", "lo"], capture_output=True, text=True, check=True)
        if ADDRESS not in known.stdout:
            run("ip", "address", "add", f"{ADDRESS}/24", "dev", "lo")
            run("mount", "-t", "tmpfs", "-o", "mode=755", "run", "/run")
        os.makedirs("/run/samba", 0o755, exist_ok=True)
        put_into_etc({"hosts": f"127.0.0.1 localhost\n{ADDRESS} {HOST} dc1\n", "krb5.conf": kerberos_client(ADDRESS),
                      "resolv.conf": f"search corp.test\nnameserver {ADDRESS}\noptions timeout:1 attempts:1\n"})
        for name in ("etc", "run", "cache", "log", "private", "state/winbindd_privileged", "bind-dns"):
            os.makedirs(os.path.join(self.folder, name), 0o755)
        with open(self.configuration, "w", encoding="ascii") as file:
            file.write(_CONFIGURATION.format(folder=self.folder, address=ADDRESS, services=self.services))

    def _make_domain(self):
        with open(__file__, "rb") as file:
            recipe = hashlib.sha256(file.read()).hexdigest()[:16]
        copy = os.path.join(os.path.dirname(PROGRAMS), f"test-domain-{recipe}.tar")
        if os.path.exists(copy):
            run("tar", "--extract", "--file", copy, "--directory", self.folder)
            return
        self._provision()
        for old in glob.glob(os.path.join(os.path.dirname(PROGRAMS), "test-domain-*")):
            os.unlink(old)
        draft = f"{copy}.new"
        run("tar", "--create", "--file", draft, "--directory", self.folder, "private", "state")
        os.rename(draft, copy)

    def _provision(self):
        run(*self._in_a_machine(
            "samba-tool", "domain", "provision", f"--configfile={self.configuration}", "--realm=CORP.TEST",
            "--domain=CORP", "--host-name=dc1", f"--host-ip={ADDRESS}", "--server-role=dc",
            "--dns-backend=SAMBA_INTERNAL", "--adminpass=Adm1n.Pass"))
        self._write("ldbadd", _content())
        self._write("ldbmodify", entry(group_dn("Inner"), changetype="modify", add="member", member=group_dn("Outer")))
        for uid, password in [(uid, password) for uid, (_, password) in PEOPLE_OF_NOTE.items()] + [
                ("svc-read", READER_PASSWORD)]:
            self.tool("user", "setpassword", uid, f"--newpassword={password}")
            self.tool("user", "enable", uid)
        self._write("ldbmodify", entry(user_dn("pia"), changetype="modify", replace="primaryGroupID",
                                       primaryGroupID=self._rid(group_dn("Primary Crew"))))
        self.tool("user", "disable", "gone")
        self.tool("domain", "passwordsettings", "set", f"--account-lockout-threshold={LOCKED_AFTER}",
                  "--account-lockout-duration=30", "--reset-account-lockout-after=30", "--max-pwd-age=0")

    def tool(self, *arguments):
        run("samba-tool", *arguments, f"--configfile={self.configuration}")

    def _write(self, program, ldif):
        """Into the database files; the server, if it runs, notices."""
        run(program, "-H", self.database, f"--configfile={self.configuration}", input=ldif)

    def _rid(self, dn):
        found = run("ldbsearch", "-H", self.database, f"--configfile={self.configuration}", "-b", dn, "-s", "base",
                    "objectSid")
        return next(line for line in found.splitlines() if line.startswith("objectSid:")).rpartition("-")[2]

    def wrong_passwords(self, dn):
        """How many the controller has counted since the last right one."""
        found = run("ldbsearch", "-H", self.database, f"--configfile={self.configuration}", "-b", dn, "-s", "base",
                    "badPwdCount")
        counts = [line.split()[1] for line in found.splitlines() if line.startswith("badPwdCount:")]
        return int(counts[0]) if counts else 0
