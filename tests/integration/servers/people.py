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
# cn -> how its members are given
GROUP_CLASSES = {
    "staff": "groupOfNames",
    "engineers": "groupOfNames",
    "admins": "groupOfNames",
    "R&D (K\u00f6ln), \\Lab*": "groupOfNames",
    "board": "groupOfUniqueNames",
    "docker": "posixGroup",
    "everybody": "groupOfNames",
}
# Through the circle everybody in one of the three is in all of them.
CIRCLE = ["admins", "engineers", "staff"]
GROUPS_OF = {
    "alice": ["admins", "board", "docker", "engineers", "staff"],
    "bob": ["admins", "engineers", "staff"],
    "jm\u00fcller": ["R&D (K\u00f6ln), \\Lab*"],
    "back\\slash": ["R&D (K\u00f6ln), \\Lab*"],
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


def user(uid, cn, password):
    return entry(user_dn(uid), objectClass="inetOrgPerson", cn=cn, sn="Name", uid=uid, userPassword=password)


def crowd_uid(number):
    return f"c{number:05}"


def crowd(numbers):
    return "".join(user(uid, f"Crowd {uid}", f"pw {uid}") for uid in map(crowd_uid, numbers))


def content(crowd_numbers=range(CROWD), groups=True):
    members = [user_dn(crowd_uid(number)) for number in crowd_numbers] or [user_dn("starfish")]
    text = "".join(user(uid, cn, password) for uid, (cn, password) in NOTABLE.items()) + crowd(crowd_numbers)
    if not groups:
        return text
    return (text + entry(group_dn("staff"), objectClass="groupOfNames", cn="staff",
                         member=[user_dn("alice"), group_dn("engineers")])
            + entry(group_dn("engineers"), objectClass="groupOfNames", cn="engineers",
                    member=[user_dn("bob"), group_dn("admins")])
            + entry(group_dn("admins"), objectClass="groupOfNames", cn="admins", member=group_dn("staff"))
            + entry(group_dn("R&D (K\u00f6ln), \\Lab*"), objectClass="groupOfNames", cn="R&D (K\u00f6ln), \\Lab*",
                    member=[user_dn("jm\u00fcller"), user_dn("back\\slash")])
            + entry(group_dn("board"), objectClass="groupOfUniqueNames", cn="board",
                    uniqueMember=[user_dn("alice"), user_dn("paren(1)")])
            + entry(group_dn("docker"), objectClass="posixGroup", cn="docker", gidNumber="100",
                    memberUid=["alice", "star*"])
            + entry(group_dn("everybody"), objectClass="groupOfNames", cn="everybody", member=members))
