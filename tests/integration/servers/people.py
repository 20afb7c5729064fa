"""The directory of the slapd tests: names that are awkward in DNs and filters, nested groups with a cycle, all
three kinds of membership, and a crowd that is larger than a page and than the server's size limit."""

from servers.slapd import GROUPS, PEOPLE, entry, rdn_value

CROWD = 1100

# uid -> (cn, password)
NOTABLE = {
    "alice": ("Alice Adams", "correct horse"),
    "bob": ("Bob Brown", "bob's own"),
    "jm\u00fcller": ("M\u00fcller, J\u00f6rg", "stra\u00dfe"),
    "back\\slash": ("Back\\slash", "back"),
    "paren(1)": ("Paren (these)", "paren"),
    "star*": ("Star * of all", "wild"),
    "starfish": ("Star Fish", "sea"),
    "hash": ("# Hash + Plus = \"Quote\" <x>;", "hash"),
}
LAB = "R&D (K\u00f6ln), \\Lab*"
# Through the circle everybody in one of the three is in all of them.
CIRCLE = ["admins", "engineers", "staff"]
_GROUPS = {  # cn -> users, groups within
    "staff": (["alice"], ["engineers"]),
    "engineers": (["bob"], ["admins"]),
    "admins": ([], ["staff"]),
    LAB: (["jm\u00fcller", "back\\slash"], []),
}
ALL_GROUPS = sorted([*_GROUPS, "board", "docker", "everybody"], key=str.lower)
GROUPS_OF = {
    "alice": ["admins", "board", "docker", "engineers", "staff"],
    "bob": ["admins", "engineers", "staff"],
    "jm\u00fcller": [LAB],
    "back\\slash": [LAB],
    "paren(1)": ["board"],
    "star*": ["docker"],
    "starfish": [],
    "c00001": ["everybody"],
}


def user_dn(uid):
    cn = NOTABLE[uid][0] if uid in NOTABLE else f"Crowd {uid}"
    return f"cn={rdn_value(cn)},{PEOPLE}"


def group_dn(cn):
    return f"cn={rdn_value(cn)},{GROUPS}"


def _user(uid, cn, password):
    return entry(user_dn(uid), objectClass="inetOrgPerson", cn=cn, sn="Name", uid=uid, userPassword=password)


def _group(cn, kind="groupOfNames", **members):
    return entry(group_dn(cn), objectClass=kind, cn=cn, **members)


def crowd_uid(number):
    return f"c{number:05}"


def crowd(numbers):
    return "".join(_user(uid, f"Crowd {uid}", f"pw {uid}") for uid in map(crowd_uid, numbers))


def content(crowd_numbers=range(CROWD), groups=True):
    text = "".join(_user(uid, *rest) for uid, rest in NOTABLE.items()) + crowd(crowd_numbers)
    if not groups:
        return text
    text += "".join(_group(cn, member=[*map(user_dn, users), *map(group_dn, within)])
                    for cn, (users, within) in _GROUPS.items())
    return (text + _group("board", "groupOfUniqueNames", uniqueMember=[user_dn("alice"), user_dn("paren(1)")])
            + _group("docker", "posixGroup", gidNumber="100", memberUid=["alice", "star*"])
            + _group("everybody", member=[user_dn(crowd_uid(number)) for number in crowd_numbers]))
