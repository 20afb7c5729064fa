"""A small LDAP server with the habit of Active Directory that no free server has: it hands out at most 1,500 values
of an attribute, unasked, as "member;range=0-1499", and the rest only range by range. Beside such an attribute stands
the plain one, empty. Pages, filters and binds work; unpaged searches end after 1,000 entries; search references that
nobody can follow come with every search of the whole tree."""

import itertools
import re

from harness.listener import Listener
from servers import ber

MOST_VALUES = 1500
MOST_ENTRIES = 1000
PAGED_RESULTS = "1.2.840.113556.1.4.319"

_BIND, _UNBIND, _SEARCH, _EXTENDED = 0x60, 0x42, 0x63, 0x77
_BIND_DONE, _ENTRY, _SEARCH_DONE, _REFERENCE, _EXTENDED_DONE = 0x61, 0x64, 0x65, 0x73, 0x78
_SUCCESS, _PROTOCOL_ERROR, _SIZE_LIMIT, _NO_SUCH_OBJECT, _BAD_CREDENTIALS, _DENIED = 0, 2, 4, 32, 49, 1

_ports = itertools.count(7300)


def normal_dn(dn):
    return re.sub(r"\s*([,=])\s*", r"\1", dn).lower()


class RangedServer(Listener):
    """`entries`: DN -> {attribute: [values]}; memberOf is made from member, as the original does. `account`: (DN,
    password) who alone may search. `hidden` attributes exist for nobody who searches. `binds` are the names that were
    tried, `ranges` the ranges that were asked for."""

    def __init__(self, base, entries, account):
        self.port = next(_ports)
        super().__init__(("127.0.0.1", self.port))
        self.base, self.account = base, account
        self.entries = {normal_dn(dn): (dn, attributes) for dn, attributes in entries.items()}
        for dn, attributes in entries.items():
            for member in map(normal_dn, attributes.get("member", [])):
                if member in self.entries:  # not one of another domain
                    self.entries[member][1].setdefault("memberOf", []).append(dn)
        self.url = f"ldap://127.0.0.1:{self.port}"
        self.binds, self.ranges = [], []
        self.hidden = {"password"}

    def serve(self, peer, _number):
        _Session(self, peer).run()


class _Session:
    def __init__(self, server, peer):
        self.server, self.peer = server, peer
        self.bound = False
        self.pages = {}  # cookie -> entries that are still to come

    def run(self):
        data = b""
        while piece := self.peer.recv(65536):
            data += piece
            while message := ber.read(data):
                data = data[message[2]:]
                if not self.answer(message[1]):
                    return

    def send(self, number, tag, *parts, controls=b""):
        self.peer.sendall(ber.sequence(ber.integer(number), ber.sequence(*parts, tag=tag), controls))

    def result(self, number, tag, code, text="", controls=b""):
        self.send(number, tag, ber.integer(code, ber.ENUMERATED), ber.octets(""), ber.octets(text), controls=controls)

    def answer(self, message):
        (_, number), (tag, body), *controls = ber.elements(message)
        number = ber.number(number)
        if tag == _UNBIND:
            return False
        if tag == _BIND:
            self.bind(number, ber.elements(body))
        elif tag == _SEARCH:
            self.search(number, ber.elements(body), controls)
        elif tag == _EXTENDED:
            self.result(number, _EXTENDED_DONE, _PROTOCOL_ERROR)
        return True

    def bind(self, number, parts):
        name, password = parts[1][1].decode(), parts[2][1].decode()
        self.server.binds.append(name)
        passwords = {normal_dn(self.server.account[0]): self.server.account[1]}
        for dn, (_, attributes) in self.server.entries.items():
            passwords[dn] = attributes.get("password", [None])[0]
        self.bound = normal_dn(name) == normal_dn(self.server.account[0])
        if name == "" and password == "":
            self.result(number, _BIND_DONE, _SUCCESS)
        elif password and passwords.get(normal_dn(name)) == password:
            self.result(number, _BIND_DONE, _SUCCESS)
        else:
            self.bound = False
            self.result(number, _BIND_DONE, _BAD_CREDENTIALS,
                        "80090308: LdapErr: DSID-0C09042A, comment: AcceptSecurityContext error, data 52e, v3839")

    def search(self, number, parts, controls):
        base, scope = parts[0][1].decode(), ber.number(parts[1][1])
        wanted = [name.decode() for _, name in ber.elements(parts[7][1])]
        if base == "" and scope == 0:
            self.send_entry(number, "", {"supportedControl": [PAGED_RESULTS], "namingContexts": [self.server.base],
                                         "defaultNamingContext": [self.server.base], "supportedLDAPVersion": ["3"]}, [])
            return self.result(number, _SEARCH_DONE, _SUCCESS)
        if not self.bound:
            return self.result(number, _SEARCH_DONE, _DENIED,
                               "000004DC: LdapErr: DSID-0C0907E9, comment: In order to perform this operation a "
                               "successful bind must be completed on the connection., data 0, v3839")
        key = normal_dn(base)
        if scope == 0:
            found = [self.server.entries[key]] if key in self.server.entries else None
        elif key.endswith(normal_dn(self.server.base)):
            found = [value for dn, value in self.server.entries.items() if dn.endswith(key)]
        else:
            found = None
        if found is None:
            return self.result(number, _SEARCH_DONE, _NO_SUCH_OBJECT)
        size, cookie = page_request(controls)
        if cookie:
            hits = self.pages.pop(cookie)
        else:
            hits = [one for one in found if matches(parts[6], self.visible(one[1]))]
        limit = MOST_ENTRIES if size is None else min(size, MOST_ENTRIES)
        for dn, attributes in hits[:limit]:
            self.send_entry(number, dn, attributes, wanted)
        if scope == 2 and not cookie:
            self.send(number, _REFERENCE, ber.octets(f"ldap://nowhere.corp.test/CN=Configuration,{self.server.base}"))
        rest = hits[limit:]
        if size is None:
            return self.result(number, _SEARCH_DONE, _SIZE_LIMIT if rest else _SUCCESS)
        next_cookie = b"" if not rest else f"page {number}".encode()
        if rest:
            self.pages[next_cookie] = rest
        answer = ber.sequence(ber.integer(0), ber.octets(next_cookie))
        control = ber.sequence(ber.sequence(ber.octets(PAGED_RESULTS), ber.octets(answer)), tag=0xA0)
        return self.result(number, _SEARCH_DONE, _SUCCESS, controls=control)

    def visible(self, attributes):
        return {name: values for name, values in attributes.items() if name not in self.server.hidden}

    def send_entry(self, number, dn, attributes, wanted):
        listed = [name for name in wanted if name not in ("*", "1.1")] or list(attributes)
        parts = []
        for description in listed:
            name, _, option = description.partition(";")
            name = next((own for own in attributes if own.lower() == name.lower()), name)
            values = attributes.get(name, [])
            if name in self.server.hidden or not values:
                continue
            parts += self.in_ranges(name, values, option)
        self.send(number, _ENTRY, ber.octets(dn), ber.sequence(*parts))

    def in_ranges(self, name, values, option):
        def attribute(description, part):
            return ber.sequence(ber.octets(description), ber.sequence(*map(ber.octets, part), tag=ber.SET))

        asked = re.fullmatch(r"range=(\d+)-(\d+|\*)", option)
        if not asked:
            if len(values) <= MOST_VALUES:
                return [attribute(name, values)]
            return [attribute(name, []), attribute(f"{name};range=0-{MOST_VALUES - 1}", values[:MOST_VALUES])]
        self.server.ranges.append(asked[0])
        low = int(asked[1])
        part = values[low:low + MOST_VALUES]
        high = "*" if low + MOST_VALUES >= len(values) else low + MOST_VALUES - 1
        return [attribute(f"{name};range={low}-{high}", part)]


def page_request(controls):
    """(size, cookie) of the paging control; (None, b"") without it."""
    for _, control in ber.elements(controls[0][1]) if controls else []:
        parts = ber.elements(control)
        if parts[0][1].decode() == PAGED_RESULTS:
            (_, size), (_, cookie) = ber.elements(ber.elements(parts[-1][1])[0][1])
            return ber.number(size), cookie
    return None, b""


def matches(condition, attributes):
    """And, or, not, equality and presence; anything else matches nothing."""
    tag, body = condition
    if tag in (0xA0, 0xA1):
        inside = [matches(part, attributes) for part in ber.elements(body)]
        return all(inside) if tag == 0xA0 else any(inside)
    if tag == 0xA2:
        return not matches(ber.elements(body)[0], attributes)
    if tag == 0xA3:
        (_, name), (_, value) = ber.elements(body)
        values = values_of(attributes, name)
        return value.lower() in (one.encode().lower() if isinstance(one, str) else one for one in values)
    if tag == 0x87:
        return bool(values_of(attributes, body))
    return False


def values_of(attributes, name):
    for own, values in attributes.items():
        if own.lower() == name.decode().lower():
            return values
    return []
