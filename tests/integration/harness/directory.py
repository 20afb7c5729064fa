"""The directory of the tests: two domains, nested groups with a cycle, names beyond ASCII, passwords."""

import base64
import hashlib
import re
import struct
import time

CORP = "DC=corp,DC=test"
LAB = "dc=lab,dc=test"
PASSWORDS = {"alice": "correct horse", "bob": "bob's own", "carol": "carol", "dave": "d\u00e9j\u00e0 vu", "rat": "cheese"}


def user_dn(cn):
    return f"CN={cn},OU=People,{CORP}"


def group_dn(cn):
    return f"CN={cn},OU=Groups,{CORP}"


RAT_DN = f"uid=rat,ou=People,{LAB}"
LABRATS_DN = f"cn=labrats,ou=Groups,{LAB}"

# cn of every user in the order of answers -> (dn, uid, domain, principal name or "")
USERS = {
    "adele Andrews": (user_dn("adele Andrews"), "adele", "corp.test", ""),
    "Alice Adams": (user_dn("Alice Adams"), "alice", "corp.test", "alice.adams@corp.test"),
    "Bob Brown": (user_dn("Bob Brown"), "bob", "corp.test", "bob@corp.test"),
    "Carol Clark": (user_dn("Carol Clark"), "carol", "corp.test", ""),
    "Chad Cole": (user_dn("Chad Cole"), "chad", "corp.test", "chad@corp.test"),
    "Dave, the Diver": (user_dn("Dave\\, the Diver"), "dave", "corp.test", "dave@corp.test"),
    "Lab Rat": (RAT_DN, "rat", "lab.test", ""),
    "Zo\u00eb \u00c5ngstr\u00f6m": (user_dn("Zo\u00eb \u00c5ngstr\u00f6m"), "zo\u00eb", "corp.test", "zoe@corp.test"),
}
# cn of every group in the order of answers -> dn
GROUPS = {
    "Admins": group_dn("Admins"),
    "Domain Users": group_dn("Domain Users"),
    "Engineers": group_dn("Engineers"),
    "labrats": LABRATS_DN,
    "Staff": group_dn("Staff"),
    "\u00dcber G\u00e4ste": group_dn("\u00dcber G\u00e4ste"),
}
# Staff holds Engineers, Engineers hold Admins, Admins hold Staff.
GROUPS_OF = {
    "alice": ["Admins", "Domain Users", "Engineers", "Staff"],
    "bob": ["Admins", "Engineers", "Staff"],
    "dave": ["Admins", "Engineers", "Staff"],
    "chad": [],
    "rat": ["labrats"],
}


def ldif_line(name, value):
    """One LDIF line, base64 where a plain one is not possible."""
    data = value if isinstance(value, bytes) else value.encode()
    if re.fullmatch(rb"[!-9;=-~]([ -~]*[!-~])?", data):
        return f"{name}: {data.decode()}\n"
    return f"{name}:: {base64.b64encode(data).decode()}\n"


def entry(dn, *attributes):
    return ldif_line("dn", dn) + "".join(ldif_line(name, value) for name, value in attributes) + "\n"


def _salted(scheme, hash_name, password):
    salt = b"seven up"
    digest = hashlib.new(hash_name, password.encode() + salt).digest()
    return f"{{{scheme}}}" + base64.b64encode(digest + salt).decode()


def _sid(rid):
    return struct.pack("<BB6s5I", 1, 5, b"\0\0\0\0\0\5", 21, 10, 20, 30, rid)


def _ad_user(cn, *more):
    dn, uid, _, upn = USERS[cn]
    principal = [("userPrincipalName", upn)] if upn else []
    return entry(dn, ("objectClass", "top"), ("objectClass", "user"), ("cn", cn), ("sAMAccountName", uid),
                 *principal, *more)


def _group(cn, *more):
    return entry(GROUPS[cn], ("objectClass", "group"), ("cn", cn), *more)


def ldif():
    return "version: 1\n\n" + "".join([
        _ad_user("Alice Adams", ("objectSid", _sid(1101)), ("primaryGroupID", "513"),
                 ("userPassword", _salted("SSHA", "sha1", PASSWORDS["alice"]))),
        _ad_user("Bob Brown", ("userAccountControl", "514"), ("userPassword", PASSWORDS["bob"])),
        _ad_user("Carol Clark", ("userPassword", "{CLEARTEXT}" + PASSWORDS["carol"])),
        _ad_user("Chad Cole"),
        _ad_user("Dave, the Diver", ("userPassword", _salted("SSHA256", "sha256", PASSWORDS["dave"]))),
        _ad_user("Zo\u00eb \u00c5ngstr\u00f6m"),
        _ad_user("adele Andrews"),
        entry(f"CN=PC-17,OU=Machines,{CORP}", ("objectClass", "user"), ("objectClass", "computer"),
              ("cn", "PC-17"), ("sAMAccountName", "PC-17$")),
        _group("Staff", ("member", USERS["Alice Adams"][0]), ("member", USERS["Carol Clark"][0]),
               ("member", GROUPS["Engineers"])),
        _group("Engineers", ("member", USERS["Dave, the Diver"][0]), ("member", GROUPS["Admins"])),
        _group("Admins", ("member", USERS["Bob Brown"][0]), ("member", GROUPS["Staff"])),
        _group("Domain Users", ("objectSid", _sid(513))),
        _group("\u00dcber G\u00e4ste"),
        entry(RAT_DN, ("objectClass", "inetOrgPerson"), ("objectClass", "posixAccount"), ("cn", "Lab Rat"),
              ("uid", "rat"), ("userPassword", _salted("SSHA512", "sha512", PASSWORDS["rat"]))),
        entry(LABRATS_DN, ("objectClass", "posixGroup"), ("cn", "labrats"), ("memberUid", "rat"),
              ("memberUid", "alice")),
    ])


def newcomer(uid="newman"):
    """An entry to append: a user that came later."""
    return entry(user_dn(f"New {uid}"), ("objectClass", "user"), ("cn", f"New {uid}"), ("sAMAccountName", uid))


def crowd(count, padding=""):
    """A directory of so many users, whose names can be made long."""
    return "".join(entry(user_dn(f"Member {number:06}{padding}"), ("objectClass", "user"), ("cn", f"Member {number:06}{padding}"),
                         ("sAMAccountName", f"m{number:06}")) for number in range(count))


def crowd_group(count, padding=""):
    """The group of everybody in crowd(count, padding)."""
    members = [("member", user_dn(f"Member {number:06}{padding}")) for number in range(count)]
    return entry(group_dn("Crowd"), ("objectClass", "group"), ("cn", "Crowd"), *members)


# For files(), where deaths are counted: the daemon takes one a signal, so a synchronisation that ends together with a
# worker would hide the worker's death until the next one.
SYNCHRONISED = {".LastSyncTime.ini": f"[LdapSync]\nLastSyncTime={int(time.time()) - 1}\n"}


def files(**more):
    """The working directory of most tests: files() plus whatever is given as name=content."""
    return {"directory.ldif": ldif(), **more}
