#!/usr/bin/env python3
"""Writes the example directory, workdir/directory.ldif: two invented domains as their servers export them.

corp.example.com looks like an Active Directory read with ldapsearch, lab.example.net like an OpenLDAP server
dumped with slapcat. The output depends on this file only, so the LDIF can be renewed and compared:

    make_directory.py            writes workdir/directory.ldif beside this file
    make_directory.py --check    only compares; status 1 when the file differs
"""
import base64
import ctypes
import ctypes.util
import hashlib
import os
import struct
import sys

CORP = "DC=corp,DC=example,DC=com"
LAB = "dc=lab,dc=example,dc=net"
CORP_SID = (21, 1085031214, 1563985344, 725345543)
LINE_WIDTH = 76

NORMAL, DISABLED, NO_EXPIRY, COMPUTER = 512, 514, 66048, 4096

# uid, given name, surname, site, department, groups. The common name is "Given Surname", or what
# COMMON_NAMES says.
CORP_USERS = [
    ("jmueller", "Jörg", "Müller", "Berlin", "Engineering", ["Gateway Team", "Release Board"]),
    ("mweber", "Martina", "Weber", "Berlin", "Engineering", ["Platform Team"]),
    ("agrosse", "Änne", "Große", "Berlin", "Engineering", ["Gateway Team", "Aurora Reviewers"]),
    ("jürgen.weiß", "Jürgen", "Weiß", "Zürich", "Engineering", ["Platform Team", "Büro Zürich"]),
    ("akowalski", "Adam", "Kowalski", "Berlin", "Engineering", ["Engineering"]),
    ("hpatel", "Hari", "Patel", "London", "Engineering", ["Engineering", "Project Aurora"]),
    ("lwojcik", "Łukasz", "Wójcik", "Berlin", "Engineering", ["Platform Team"]),
    ("dsokolov", "Дмитрий", "Соколов", "Berlin", "Engineering", ["Gateway Team"]),
    ("tsuzuki", "太郎", "鈴木", "Tokyo", "Engineering", ["Platform Team", "東京オフィス"]),
    ("npetrova", "Nadia", "Petrova", "Berlin", "Engineering", ["Engineering", "Aurora Reviewers"]),
    ("nmeyer", "Nils", "Meyer", "Zürich", "Engineering", ["Engineering", "Büro Zürich"]),
    ("jsmith", "John", "Smith", "London", "Sales", ["Sales EMEA"]),
    ("sobrien", "Sean", "O'Brien", "London", "Sales", ["Sales EMEA"]),
    ("afontaine", "Adele", "Fontaine", "Zürich", "Sales", ["Sales EMEA", "Büro Zürich"]),
    ("kpapadopoulos", "Κώστας", "Παπαδόπουλος", "Athens", "Sales", ["Sales EMEA"]),
    ("epapadaki", "Ελένη", "Παπαδάκη", "Athens", "Sales", ["Sales EMEA", "Project Aurora"]),
    ("mjimenez", "María José", "Jiménez", "London", "Sales", ["Sales EMEA"]),
    ("ytanaka", "陽子", "田中", "Tokyo", "Sales", ["Sales", "東京オフィス"]),
    ("lnguyen", "Lan", "Nguyễn Thị", "Tokyo", "Sales", ["Sales", "東京オフィス"]),
    ("dbauer", "Dieter", "Bauer", "Berlin", "Sales", ["Sales EMEA", "VPN Users"]),
    ("efischer", "Eva", "Fischer", "Berlin", "Finance", ["Finance, Controlling"]),
    ("fcote", "François", "Côté", "Zürich", "Finance", ["Finance, Controlling", "Büro Zürich"]),
    ("ivolkova", "Ирина", "Волкова", "Berlin", "Finance", ["Finance, Controlling", "VPN Users"]),
    ("rgarcia", "Rosa", "García", "London", "Finance", ["Finance, Controlling"]),
    ("hschmidt", "Hanna", "Schmidt", "Berlin", "Human Resources", ["Human Resources"]),
    ("gmoreau", "Gaëlle", "Moreau", "Zürich", "Human Resources", ["Human Resources", "Büro Zürich"]),
    ("ikaya", "İrem", "Kaya", "Berlin", "Human Resources", ["Human Resources"]),
    ("pdvorak", "Petr", "Dvořák", "Berlin", "IT", ["IT Operations", "Domain Admins"]),
    ("sbjork", "Søren", "Bjørk", "London", "IT", ["IT Operations"]),
    ("ameier", "Adrian", "Meier", "Zürich", "IT", ["Helpdesk", "Büro Zürich"]),
    ("znowak", "Zofia", "Nowak", "Berlin", "IT", ["Helpdesk"]),
    ("aali", "Amina", "Ali", "London", "IT", ["Helpdesk"]),
    ("cadams", "Carol", "Adams", "London", "Management", ["Internet Full Access", "All Staff"]),
    ("tlind", "Tove", "Lind", "Berlin", "Management", ["Internet Full Access", "All Staff"]),
]
COMMON_NAMES = {
    "jmueller": "Müller, Jörg",
    "sobrien": "O'Brien, Sean",
    "tsuzuki": "鈴木 太郎",
    "ytanaka": "田中 陽子",
    "lnguyen": "Nguyễn Thị Lan",
}
DISABLED_USERS = {"dbauer"}
# uid, common name, account control, groups, has a password. None of them has a principal name.
CORP_ACCOUNTS = [
    ("Administrator", "Administrator", NO_EXPIRY, ["Domain Admins"], False),
    ("svc-backup", "Backup Service", NO_EXPIRY, ["IT Operations"], True),
    ("svc-scanner", "Scanner (3rd floor)", NO_EXPIRY, [], False),
]
# common name, relative id, groups that it is in, description
CORP_GROUPS = [
    ("Domain Admins", 512, [], "Designated administrators of the domain"),
    ("Domain Users", 513, [], "All domain users"),
    ("Domain Computers", 515, [], "All workstations and servers joined to the domain"),
    ("All Staff", 2001, [], "Everybody with a contract. Filled through the departments' groups, so please add nobody by hand"),
    ("Engineering", 2002, ["All Staff", "Internet Full Access"], "Development"),
    ("Platform Team", 2003, ["Engineering"], "Base system and build"),
    ("Gateway Team", 2004, ["Platform Team"], "Proxy and filters"),
    ("Sales", 2005, ["All Staff", "VPN Users"], "Sales, all regions"),
    ("Sales EMEA", 2006, ["Sales"], "Europe, Middle East and Africa"),
    ("Finance, Controlling", 2007, ["All Staff"], "Accounts and controlling"),
    ("Human Resources", 2008, ["All Staff"], "People & culture"),
    ("IT Operations", 2009, ["All Staff", "VPN Users"], "Servers, network, accounts"),
    ("Helpdesk", 2010, ["IT Operations"], "First level; call 4711 "),
    ("VPN Users", 2011, [], "May dial in from outside"),
    ("Internet Full Access", 2012, [], "No category filter"),
    ("Project Aurora", 2013, ["Release Board"], "Joint project with the laboratory"),
    ("Aurora Reviewers", 2014, ["Project Aurora"], "Reviewers of Project Aurora"),
    ("Release Board", 2015, ["Aurora Reviewers"], ": decides on releases (and closes the circle)"),
    ("Büro Zürich", 2016, [], "Standort Zürich, Löwenstraße"),
    ("東京オフィス", 2017, [], "東京の社員"),
]
BUILT_IN_GROUPS = {"Domain Admins", "Domain Users", "Domain Computers"}

# uid, given name, surname, groups of names, posix groups
LAB_USERS = [
    ("aberg", "Anders", "Berg", ["research", "safety-board"], ["lab-users"]),
    ("mweber", "Moritz", "Weber", ["robotics"], ["lab-users", "docker"]),
    ("cchen", "志明", "陳", ["robotics"], ["lab-users", "docker"]),
    ("eharris", "Emma", "Harris", ["research"], ["lab-users"]),
    ("fkhan", "Faisal", "Khan", ["gpu-cluster"], ["lab-users", "docker"]),
    ("gnovak", "Goran", "Novák", ["robotics"], ["lab-users"]),
    ("hyamada", "花子", "山田", ["gpu-cluster"], ["lab-users"]),
    ("ilopez", "Inés", "López", ["research"], ["lab-users"]),
    ("jkim", "지훈", "김", ["gpu-cluster"], ["lab-users", "docker"]),
    ("kolsen", "Kåre", "Olsen", ["safety-board"], ["lab-users"]),
    ("lrossi", "Luca", "Rossi", ["research"], ["lab-users"]),
    ("mhaddad", "Mona", "Haddad", ["research"], ["lab-users"]),
    ("nivanov", "Никола", "Иванов", ["robotics"], ["lab-users"]),
    ("operez", "Óscar", "Pérez", [], ["lab-users"]),
    ("pdubois", "Pauline", "Dubois", ["research"], ["lab-users"]),
    ("qzhang", "Qi", "Zhang", ["gpu-cluster"], ["lab-users", "docker"]),
    ("rstein", "Ruth", "Stein", ["safety-board"], ["lab-users"]),
    ("sgupta", "Sanjay", "Gupta", ["robotics"], ["lab-users"]),
    ("tvirtanen", "Tuomas", "Virtanen", [], ["lab-users"]),
    ("uwagner", "Ulrike", "Wagner", ["research"], ["lab-users"]),
    ("vantoniou", "Βασίλης", "Αντωνίου", ["robotics"], ["lab-users"]),
    ("wbrandt", "Wanda", "Brandt", ["safety-board"], ["lab-users"]),
]
# Memberships across the domains: group and uid.
CORP_IN_LAB = {"gpu-cluster": "hpatel"}
LAB_IN_CORP = {"Project Aurora": "eharris"}

SCHEMES = ["SSHA", "SSHA512", "CRYPT-SHA512", "SSHA256", "CRYPT-YESCRYPT"]
PASSWORDS = {"jürgen.weiß": "Straße.42"}  # everybody else: "Trial." and the uid


def escape(value):
    """A value for a DN, as the servers write it: only what must be escaped."""
    return "".join("\\" + c if c in ',+"\\<>;' else c for c in value)


def seeded(*words, size):
    """Bytes that look random and are the same in every run."""
    return hashlib.shake_256("/".join(words).encode()).digest(size)


def sid(*sub_authorities):
    return struct.pack("<BB", 1, len(sub_authorities)) + (5).to_bytes(6, "big") + b"".join(
        struct.pack("<I", part) for part in sub_authorities)


def system_crypt(password, setting):
    library = ctypes.CDLL(ctypes.util.find_library("crypt") or "libcrypt.so.1")
    library.crypt.restype = ctypes.c_char_p
    result = library.crypt(password.encode(), setting.encode())
    if not result or result.startswith(b"*"):
        sys.exit(f"this system's crypt does not know {setting[:3]}")
    return result.decode()


def stored_password(scheme, domain, uid):
    password = PASSWORDS.get(uid, "Trial." + uid)
    if scheme == "CLEARTEXT":
        return "{CLEARTEXT}" + password
    # Of the letters that crypt takes in a salt; the last one of a yescrypt salt may only hold a few bits.
    salt = base64.b32encode(seeded("salt", domain, uid, size=10)).decode()
    if scheme == "CRYPT-SHA512":
        return "{CRYPT}" + system_crypt(password, "$6$" + salt)
    if scheme == "CRYPT-YESCRYPT":
        return "{CRYPT}" + system_crypt(password, "$y$j9T$" + salt[:15] + "/")
    digest = {"SSHA": "sha1", "SSHA256": "sha256", "SSHA512": "sha512"}[scheme]
    raw = seeded("salt", domain, uid, size=8)
    hashed = hashlib.new(digest, password.encode() + raw).digest()
    return "{%s}%s" % (scheme, base64.b64encode(hashed + raw).decode())


def md4(message):
    """RFC 1320. hashlib has it on few systems only."""
    def rotated(value, bits):
        value &= 0xFFFFFFFF
        return value << bits | value >> 32 - bits

    rounds = [
        (lambda x, y, z: x & y | ~x & z, 0, range(16), (3, 7, 11, 19)),
        (lambda x, y, z: x & y | x & z | y & z, 0x5A827999, [i % 4 * 4 + i // 4 for i in range(16)], (3, 5, 9, 13)),
        (lambda x, y, z: x ^ y ^ z, 0x6ED9EBA1, [int(f"{i:04b}"[::-1], 2) for i in range(16)], (3, 9, 11, 15)),
    ]
    padded = message + b"\x80" + b"\0" * (-(len(message) + 9) % 64) + struct.pack("<Q", 8 * len(message))
    state = [0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476]
    for start in range(0, len(padded), 64):
        words = struct.unpack_from("<16I", padded, start)
        a, b, c, d = state
        for mix, constant, order, shifts in rounds:
            for step, word in enumerate(order):
                a, b, c, d = d, rotated(a + mix(b, c, d) + words[word] + constant, shifts[step % 4]), b, c
        state = [(old + new) & 0xFFFFFFFF for old, new in zip(state, (a, b, c, d))]
    return struct.pack("<4I", *state)


def nt_hash(uid):
    """What NTLM is proved against."""
    return md4(PASSWORDS.get(uid, "Trial." + uid).encode("utf-16-le")).hex().upper()


def ldif_line(name, value):
    """One attribute, folded; in base64 when it is given as bytes and where RFC 2849 demands it."""
    data = value if isinstance(value, bytes) else str(value).encode()
    plain = (not isinstance(value, bytes) and all(0 < byte < 128 and byte not in b"\r\n" for byte in data)
             and data[:1] not in (b" ", b":", b"<") and data[-1:] != b" ")
    line = f"{name}: {data.decode()}" if plain else f"{name}:: {base64.b64encode(data).decode()}"
    parts = [line[:LINE_WIDTH]]
    rest = line[LINE_WIDTH:]
    while rest:
        parts.append(" " + rest[:LINE_WIDTH - 1])
        rest = rest[LINE_WIDTH - 1:]
    return "\n".join(parts)


class Output:
    def __init__(self):
        self.blocks = []

    def comment(self, *lines):
        self.blocks.append("\n".join(("# " + line).rstrip() for line in lines))

    def entry(self, dn, *attributes, note=None):
        lines = [f"# {note}"] if note else []
        lines.append(ldif_line("dn", dn))
        for name, values in attributes:
            if values is None:
                continue
            lines += [ldif_line(name, v) for v in (values if isinstance(values, list) else [values])]
        self.blocks.append("\n".join(lines))

    def text(self):
        return "version: 1\n\n" + "\n\n".join(self.blocks) + "\n"


def corp_cn(uid, given, surname):
    return COMMON_NAMES.get(uid, f"{given} {surname}")


def corp_user_dn(uid):
    for user, given, surname, site, *_ in CORP_USERS:
        if user == uid:
            return f"CN={escape(corp_cn(uid, given, surname))},OU={site},OU=Staff,{CORP}"
    raise KeyError(uid)


def corp_account_dn(cn):
    return f"CN={escape(cn)},{'CN=Users' if cn == 'Administrator' else 'OU=Service Accounts'},{CORP}"


def corp_group_dn(cn):
    return f"CN={escape(cn)},{'CN=Users' if cn in BUILT_IN_GROUPS else 'OU=Groups'},{CORP}"


def lab_user_dn(uid):
    return f"uid={uid},ou=people,{LAB}"


def lab_group_dn(cn):
    return f"cn={cn},ou=groups,{LAB}"


def ad_common(dn, cn, category, number, uid=None):
    return [
        ("distinguishedName", dn), ("instanceType", 4),
        ("whenCreated", f"2019{number % 12 + 1:02}{number % 28 + 1:02}083000.0Z"),
        ("uSNCreated", 12000 + number * 7), ("name", cn),
        ("objectGUID", seeded("guid", dn, size=16)),
        ("objectCategory", f"CN={category},CN=Schema,CN=Configuration,{CORP}"),
    ] + ([("sAMAccountName", uid)] if uid else [])


def write_corp(out):
    out.comment("corp.example.com, read with", "",
                "  ldapsearch -o ldif-wrap=76 -E pr=900/noprompt -H ldaps://dc1.corp.example.com \\",
                f"      -D ldapread@corp.example.com -W -b {CORP} '(objectClass=*)'", "",
                "The servers do not give passwords away: userPassword and sambaNTPassword were added here for trials.")
    out.entry(CORP, ("objectClass", ["top", "domain", "domainDNS"]), ("dc", "corp"),
              ("objectSid", sid(*CORP_SID)), ("name", "corp"))
    out.entry(f"CN=Users,{CORP}", ("objectClass", ["top", "container"]), ("cn", "Users"))
    for ou in ["Staff", "Groups", "Service Accounts", "Workstations"]:
        out.entry(f"OU={ou},{CORP}", ("objectClass", ["top", "organizationalUnit"]), ("ou", ou))
    for site in sorted({user[3] for user in CORP_USERS}):
        out.entry(f"OU={site},OU=Staff,{CORP}", ("objectClass", ["top", "organizationalUnit"]), ("ou", site))

    members = {group[0]: [] for group in CORP_GROUPS}
    for number, (uid, given, surname, site, department, groups) in enumerate(CORP_USERS):
        dn = corp_user_dn(uid)
        cn = corp_cn(uid, given, surname)
        for group in groups:
            members[group].append(dn)
        scheme = SCHEMES[number % len(SCHEMES)]
        out.entry(
            dn, ("objectClass", ["top", "person", "organizationalPerson", "user"]), ("cn", cn), ("sn", surname),
            ("givenName", given), ("displayName", f"{given} {surname}"), ("l", site), ("department", department),
            ("memberOf", [corp_group_dn(group) for group in groups]),
            *ad_common(dn, cn, "Person", number, uid),
            ("userAccountControl", DISABLED if uid in DISABLED_USERS else NORMAL), ("primaryGroupID", 513),
            ("objectSid", sid(*CORP_SID, 1103 + number)), ("sAMAccountType", 805306368),
            ("userPrincipalName", f"{uid}@corp.example.com"),
            ("mail", f"{uid}@example.com" if uid.isascii() else None),
            ("userPassword", stored_password(scheme, "corp", uid)), ("sambaNTPassword", nt_hash(uid)),
            note="left in 2025, disabled" if uid in DISABLED_USERS else None)
    for number, (uid, cn, control, groups, has_password) in enumerate(CORP_ACCOUNTS):
        dn = corp_account_dn(cn)
        for group in groups:
            members[group].append(dn)
        out.entry(
            dn, ("objectClass", ["top", "person", "organizationalPerson", "user"]), ("cn", cn),
            ("memberOf", [corp_group_dn(group) for group in groups]),
            *ad_common(dn, cn, "Person", 60 + number, uid), ("userAccountControl", control), ("primaryGroupID", 513),
            ("objectSid", sid(*CORP_SID, 500 if uid == "Administrator" else 1180 + number)),
            ("sAMAccountType", 805306368),
            ("userPassword", stored_password("SSHA512", "corp", uid) if has_password else None),
            ("sambaNTPassword", nt_hash(uid) if has_password else None),
            note="no userPrincipalName")
    for number, host in enumerate(["WS-BER-0042", "SRV-FILE-01"]):
        dn = f"CN={host},OU=Workstations,{CORP}"
        out.entry(
            dn, ("objectClass", ["top", "person", "organizationalPerson", "user", "computer"]), ("cn", host),
            *ad_common(dn, host, "Computer", 70 + number, host + "$"), ("userAccountControl", COMPUTER),
            ("primaryGroupID", 515), ("objectSid", sid(*CORP_SID, 1190 + number)), ("sAMAccountType", 805306369),
            ("dNSHostName", f"{host.lower()}.corp.example.com"), note="a machine, not a user")

    for cn, _, inside, _ in CORP_GROUPS:
        for outer in inside:
            members[outer].append(corp_group_dn(cn))
    for group, uid in LAB_IN_CORP.items():
        members[group].append(lab_user_dn(uid))
    for number, (cn, rid, inside, description) in enumerate(CORP_GROUPS):
        dn = corp_group_dn(cn)
        out.entry(
            dn, ("objectClass", ["top", "group"]), ("cn", cn), ("description", description),
            ("member", members[cn] or None), ("memberOf", [corp_group_dn(outer) for outer in inside] or None),
            *ad_common(dn, cn, "Group", 80 + number, cn), ("objectSid", sid(*CORP_SID, rid)),
            ("sAMAccountType", 268435456), ("groupType", -2147483646))


def write_lab(out):
    out.comment("lab.example.net, dumped with slapcat (which writes every userPassword in base64)")
    out.entry(LAB, ("objectClass", ["top", "dcObject", "organization"]), ("dc", "lab"),
              ("o", "Example Laboratory"))
    for ou in ["people", "groups", "services"]:
        out.entry(f"ou={ou},{LAB}", ("objectClass", "organizationalUnit"), ("ou", ou))
    for number, (uid, given, surname, _, _) in enumerate(LAB_USERS):
        scheme = SCHEMES[(number + 1) % len(SCHEMES)]
        out.entry(
            lab_user_dn(uid), ("objectClass", ["inetOrgPerson", "posixAccount", "shadowAccount"]), ("uid", uid),
            ("cn", f"{given} {surname}"), ("sn", surname), ("givenName", given),
            ("description;lang-en", "Guest scientist until the end of the funding period of the robotics programme, "
             "room 2.17" if uid == "cchen" else None),
            ("uidNumber", 10001 + number), ("gidNumber", 5000), ("homeDirectory", f"/home/{uid}"),
            ("loginShell", "/bin/bash"), ("mail", f"{uid}@lab.example.net"),
            ("userPassword", stored_password(scheme, "lab", uid).encode()), ("sambaNTPassword", nt_hash(uid)),
            ("entryUUID", "-".join(seeded("uuid", uid, size=16).hex()[a:b] for a, b in
                                   [(0, 8), (8, 12), (12, 16), (16, 20), (20, 32)])))
    out.entry(
        f"uid=probe,ou=services,{LAB}", ("objectClass", ["account", "posixAccount"]), ("uid", "probe"),
        ("cn", "Probe Station 7"), ("uidNumber", 10900), ("gidNumber", 5000), ("homeDirectory", "/var/lib/probe"),
        ("userPassword", stored_password("CLEARTEXT", "lab", "probe").encode()), note="password in clear, for trials")

    def of_names(group):
        found = [lab_user_dn(uid) for uid, _, _, names, _ in LAB_USERS if group in names]
        return found + [corp_user_dn(uid) for name, uid in CORP_IN_LAB.items() if name == group]

    def of_uids(group):
        return [uid for uid, _, _, _, posix in LAB_USERS if group in posix]

    for cn, kind, name, values in [
        ("research", "groupOfNames", "member", of_names("research") + [lab_group_dn("robotics")]),
        ("robotics", "groupOfNames", "member", of_names("robotics")),
        ("gpu-cluster", "groupOfNames", "member", of_names("gpu-cluster")),
        ("safety-board", "groupOfUniqueNames", "uniqueMember", of_names("safety-board")),
        ("lab-users", "posixGroup", "memberUid", of_uids("lab-users") + ["probe"]),
        ("docker", "posixGroup", "memberUid", of_uids("docker")),
    ]:
        number = {"lab-users": 5000, "docker": 5001}.get(cn)
        out.entry(lab_group_dn(cn), ("objectClass", kind), ("cn", cn), ("gidNumber", number), (name, values))


def main():
    out = Output()
    out.comment("An example directory. Every name in it is invented. Written by make_directory.py; edit that.")
    write_corp(out)
    write_lab(out)
    path = os.path.join(os.path.dirname(os.path.abspath(__file__)), "workdir", "directory.ldif")
    if sys.argv[1:] == ["--check"]:
        with open(path, encoding="ascii") as file:
            if file.read() != out.text():
                sys.exit(f"{path} is not what {os.path.basename(__file__)} writes")
    elif sys.argv[1:]:
        sys.exit(__doc__)
    else:
        with open(path, "w", encoding="ascii", newline="\n") as file:
            file.write(out.text())


if __name__ == "__main__":
    main()
