"""A small LDAP server with the habit of Active Directory that no free server has: it hands out at most 1,500 values
of an attribute, unasked, as "member;range=0-1499", and the rest only range by range. Beside such an attribute stands
the plain one, empty. It knows neither pages nor memberOf: "member" alone tells who is in a group."""

import re

from harness.listener import Listener
from servers import ber

MOST_VALUES = 1500

_BIND, _UNBIND, _SEARCH = 0x60, 0x42, 0x63
_BIND_DONE, _ENTRY, _SEARCH_DONE = 0x61, 0x64, 0x65
_SUCCESS, _NO_SUCH_OBJECT, _BAD_CREDENTIALS = 0, 32, 49
_WHOLE_TREE = b"\2"


def normal_dn(dn):
    return re.sub(r"\s*([,=])\s*", r"\1", dn).lower()


class RangedServer(Listener):
    """`entries`: DN -> {attribute: [values]}. `account`: (DN, password) who reads; others bind with the "password" of
    their entries. `ranges` are the ranges that were asked for."""

    def __init__(self, base, entries, account):
        super().__init__()
        entries = {"": {"objectClass": ["top"], "namingContexts": [base], "defaultNamingContext": [base]}, **entries}
        self.entries = {normal_dn(dn): (dn, {name.lower(): values for name, values in attributes.items()})
                        for dn, attributes in entries.items()}
        self.passwords = {dn: attributes.pop("password", [None])[0] for dn, (_, attributes) in self.entries.items()}
        self.passwords[normal_dn(account[0])] = account[1]

    def serve(self, peer, _number):
        data = b""
        while piece := peer.recv(65536):
            data += piece
            while message := ber.read(data):
                data = data[message[2]:]
                number, (tag, body), *_ = ber.elements(message[1])
                if tag == _UNBIND:
                    return
                answers = self.bind if tag == _BIND else self.search if tag == _SEARCH else lambda _: []
                peer.sendall(b"".join(ber.sequence(ber.encode(*number), one) for one in answers(ber.elements(body))))

    def bind(self, parts):
        name, password = parts[1][1].decode(), parts[2][1].decode()
        yield result(_BIND_DONE, _SUCCESS if password == self.passwords.get(normal_dn(name)) else _BAD_CREDENTIALS)

    def search(self, parts):
        base, whole, fits = normal_dn(parts[0][1].decode()), parts[1][1] == _WHOLE_TREE, condition(*parts[6])
        wanted = [name.decode().lower() for _, name in ber.elements(parts[7][1])]
        found = [one for dn, one in self.entries.items() if dn == base or (whole and dn.endswith(base))]
        for dn, attributes in found:
            if fits(attributes):
                yield ber.sequence(ber.octets(dn), ber.sequence(*self.attributes(attributes, wanted)), tag=_ENTRY)
        yield result(_SEARCH_DONE, _SUCCESS if found else _NO_SUCH_OBJECT)

    def attributes(self, attributes, wanted):
        for description in wanted:
            name, _, option = description.partition(";")
            values = attributes.get(name, [])
            asked = re.fullmatch(r"range=(\d+)-(\d+|\*)", option)
            if not asked and values:
                yield attribute(name, values if len(values) <= MOST_VALUES else [])
            if values and (asked or len(values) > MOST_VALUES):
                low = int(asked[1]) if asked else 0
                high = "*" if low + MOST_VALUES >= len(values) else low + MOST_VALUES - 1
                yield attribute(f"{name};range={low}-{high}", values[low:low + MOST_VALUES])


def result(tag, code):
    return ber.sequence(ber.encode(ber.ENUMERATED, bytes([code])), ber.octets(""), ber.octets(""), tag=tag)


def attribute(description, values):
    return ber.sequence(ber.octets(description), ber.sequence(*map(ber.octets, values), tag=ber.SET))


def condition(tag, body):
    """Of and, or, not, equality and presence; anything else fits nothing."""
    if tag in (0xA0, 0xA1, 0xA2):
        inside = [condition(*part) for part in ber.elements(body)]
        combine = all if tag == 0xA0 else any
        return lambda attributes: combine(one(attributes) for one in inside) != (tag == 0xA2)
    if tag == 0xA3:
        name, value = (text.decode().lower() for _, text in ber.elements(body))
        return lambda attributes: value in (one.lower() for one in attributes.get(name, []))
    return lambda attributes: tag == 0x87 and body.decode().lower() in attributes
