"""A Samba domain controller with accounts, nested and big groups. Making the domain takes a while, so that is done once
for each build directory; later runs start from a copy."""

import glob
import hashlib
import os
from pathlib import Path

from harness import sandbox
from harness.daemon import PROGRAMS
from servers.process import ServerProcess, cannot_run, kerberos_client, need_programs, new_folder, put_into_etc, run
from servers.slapd import entry, rdn_value

ADDRESS = "10.99.0.1"
HOST = "dc1.corp.test"
SUFFIX = "DC=corp,DC=test"
USERS = f"CN=Users,{SUFFIX}"
PEOPLE = f"OU=Staff (all),{SUFFIX}"
READER, READER_PASSWORD = f"CN=svc-read,{USERS}", "Reads.Everyth1ng"
GATEWAY = "gw.corp.test"  # takes tickets, in the name of svc-gw
CROWD = 1501  # more than one page
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

_CONFIGURATION = """[netlogon]
path = {folder}/state/sysvol/corp.test/scripts
[sysvol]
path = {folder}/state/sysvol
[global]
netbios name = DC1
realm = CORP.TEST
workgroup = CORP
server role = active directory domain controller
interfaces = lo {address}/24
bind interfaces only = yes
lock directory = {folder}
log file = {folder}/log/log.%m
server services = {services}
dns forwarder =
"""
_FOLDERS = {"private dir": "private", "state directory": "state", "cache directory": "cache", "binddns dir": "bind-dns",
            "pid directory": "run", "ncalrpc dir": "run/ncalrpc", "ntp signd socket directory": "run/ntp_signd"}


def user_dn(uid):
    return f"CN={rdn_value(PEOPLE_OF_NOTE[uid][0])},{PEOPLE}"


def group_dn(cn):
    return f"CN={rdn_value(cn)},{PEOPLE}"


def crowd_dn(number):
    return f"CN=Member {number:05},OU=Crowd,{SUFFIX}"


def _user(dn, uid, password, control="512", **more):
    return entry(dn, objectClass="user", sAMAccountName=uid, unicodePwd=f'"{password}"'.encode("utf-16-le"),
                 userAccountControl=control, **more)


def _group(cn, members):
    name = "".join(c for c in cn if c.isalnum())
    return entry(group_dn(cn), objectClass="group", cn=cn, sAMAccountName=name, member=members)


def _content():
    """What goes straight into the controller's database."""
    text = entry(PEOPLE, objectClass="organizationalUnit") + entry(f"OU=Crowd,{SUFFIX}", objectClass="organizationalUnit")
    text += _user(READER, "svc-read", READER_PASSWORD)
    text += _user(f"CN=svc-gw,{USERS}", "svc-gw", "Svc.Gw.Passw0rd", servicePrincipalName=f"HTTP/{GATEWAY}",
                  **{"msDS-SupportedEncryptionTypes": "24"})
    for uid, (_, password) in PEOPLE_OF_NOTE.items():
        principal = {"userPrincipalName": f"{uid}@corp.test"} if uid in ("alice", "jm\u00fcller") else {}
        text += _user(user_dn(uid), uid, password, "514" if uid == "gone" else "512", **principal)
    for number in range(1, CROWD + 1):
        text += entry(crowd_dn(number), objectClass="user", sAMAccountName=f"m{number:05}")
    # Members have to exist before their group; the circle is closed afterwards.
    return (text + _group("Inner", [user_dn("alice")]) + _group("Middle", [group_dn("Inner"), user_dn("paren(1)")])
            + _group("Outer", [group_dn("Middle"), user_dn("jm\u00fcller")]) + _group("Primary Crew", [user_dn("pia")])
            + _group("R&D (K\u00f6ln), \\Lab*", [user_dn("back"), user_dn("star")])
            + _group("Crowd", [crowd_dn(number) for number in range(1, CROWD + 1)]))


class SambaDomain(ServerProcess):
    def __init__(self, services="rpc, ldap, cldap, kdc"):
        need_programs("samba", "samba-tool", "ldbadd", "ldbmodify", "ldbsearch", "tar", "unshare")
        self.folder = new_folder("ad")
        self.url, self.tls_url = f"ldap://{HOST}", f"ldaps://{HOST}"
        self.configuration, self.ca = f"{self.folder}/smb.conf", f"{self.folder}/private/tls/ca.pem"
        super().__init__(self._in_a_machine("samba", f"--configfile={self.configuration}", "--foreground",
                                            "--no-process-group", "--model=standard"),
                         (389, 636), f"{self.folder}/output", host=ADDRESS)
        try:
            self._make_machine(services)
            self._make_domain()
        except sandbox.Impossible as error:
            cannot_run(f"no domain controller on this machine: {error}")

    @staticmethod
    def _in_a_machine(*command):
        """Under a host name of its own, and with pipes of its own, which a member of the domain has, too."""
        return ["unshare", "--uts", "--mount", "sh", "-c",
                'hostname dc1 && mount -t tmpfs samba /run/samba && exec "$0" "$@"', *command]

    def _make_machine(self, services):
        """An address that is not loopback's own, and the few system paths that Samba and Kerberos read."""
        run("ip", "address", "replace", f"{ADDRESS}/24", "dev", "lo")
        run("mount", "-t", "tmpfs", "-o", "mode=755", "run", "/run")
        os.mkdir("/run/samba")
        put_into_etc({"hosts": f"127.0.0.1 localhost\n{ADDRESS} {HOST} dc1\n", "krb5.conf": kerberos_client(ADDRESS),
                      "resolv.conf": f"search corp.test\nnameserver {ADDRESS}\noptions timeout:1 attempts:1\n"})
        for folder in ("log", "state/winbindd_privileged", *_FOLDERS.values()):
            os.makedirs(f"{self.folder}/{folder}", 0o755, exist_ok=True)
        text = _CONFIGURATION.format(folder=self.folder, address=ADDRESS, services=services)
        text += "".join(f"{name} = {self.folder}/{folder}\n" for name, folder in _FOLDERS.items())
        Path(self.configuration).write_text(text, "utf-8")

    def _make_domain(self):
        recipe = hashlib.sha256(Path(__file__).read_bytes()).hexdigest()[:16]
        stem = f"{os.path.dirname(PROGRAMS)}/test-domain-"
        copy = f"{stem}{recipe}.tar"
        if os.path.exists(copy):
            run("tar", "--extract", "--file", copy, "--directory", self.folder)
        else:
            self._provision()
            for old in glob.glob(f"{stem}*"):
                os.unlink(old)
            run("tar", "--create", "--file", f"{copy}.new", "--directory", self.folder, "private", "state")
            os.rename(f"{copy}.new", copy)
        os.chmod(f"{self.folder}/state/winbindd_privileged", 0o750)  # else winbind does not start

    def _provision(self):
        run(*self._in_a_machine(
            "samba-tool", "domain", "provision", f"--configfile={self.configuration}", "--realm=CORP.TEST",
            "--domain=CORP", "--host-name=dc1", f"--host-ip={ADDRESS}", "--server-role=dc",
            "--dns-backend=SAMBA_INTERNAL", "--adminpass=Adm1n.Pass"))
        self._ldb("ldbadd", input=_content())
        rid = self._value(group_dn("Primary Crew"), "objectSid").rpartition("-")[2]
        self._ldb("ldbmodify", input=entry(group_dn("Inner"), changetype="modify", add="member", member=group_dn("Outer"))
                  + entry(user_dn("pia"), changetype="modify", replace="primaryGroupID", primaryGroupID=rid))
        self.tool("domain", "passwordsettings", "set", f"--account-lockout-threshold={LOCKED_AFTER}",
                  "--account-lockout-duration=30", "--reset-account-lockout-after=30", "--max-pwd-age=0")

    def tool(self, *arguments):
        run("samba-tool", *arguments, f"--configfile={self.configuration}")

    def keytab(self):
        """The keys of the gateway's service."""
        path = new_folder("keytab") + "/http"
        self.tool("domain", "exportkeytab", path, f"--principal=HTTP/{GATEWAY}")
        return Path(path).read_bytes()

    def _ldb(self, program, *arguments, **options):
        """On the database files; the server, if it runs, notices changes."""
        return run(program, "-H", f"{self.folder}/private/sam.ldb", f"--configfile={self.configuration}", *arguments, **options)

    def _value(self, dn, attribute):
        found = self._ldb("ldbsearch", "-b", dn, "-s", "base", attribute).splitlines()
        return next((line.partition(": ")[2] for line in found if line.startswith(f"{attribute}:")), "")

    def wrong_passwords(self, dn):
        """How many the controller has counted since the last right one."""
        return int(self._value(dn, "badPwdCount") or 0)
