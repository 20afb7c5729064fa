"""As much of the Basic Encoding Rules as LDAP messages need."""

SEQUENCE, SET, INTEGER, OCTETS, BOOLEAN, ENUMERATED = 0x30, 0x31, 0x02, 0x04, 0x01, 0x0A


def encode(tag, content):
    size = len(content)
    if size < 0x80:
        return bytes([tag, size]) + content
    length = size.to_bytes((size.bit_length() + 7) // 8, "big")
    return bytes([tag, 0x80 | len(length)]) + length + content


def integer(value, tag=INTEGER):
    return encode(tag, value.to_bytes(value.bit_length() // 8 + 1, "big", signed=True))


def octets(text, tag=OCTETS):
    return encode(tag, text.encode() if isinstance(text, str) else text)


def sequence(*parts, tag=SEQUENCE):
    return encode(tag, b"".join(parts))


def read(data, at=0):
    """(tag, content, where the next element begins); None when the element is not complete."""
    if len(data) < at + 2:
        return None
    tag, size = data[at], data[at + 1]
    begin = at + 2
    if size & 0x80:
        begin += size & 0x7F
        if len(data) < begin:
            return None
        size = int.from_bytes(data[at + 2:begin], "big")
    if len(data) < begin + size:
        return None
    return tag, data[begin:begin + size], begin + size


def elements(content):
    """The (tag, content) pairs inside a constructed element."""
    found, at = [], 0
    while at < len(content):
        tag, inside, at = read(content, at)
        found.append((tag, inside))
    return found


def number(content):
    return int.from_bytes(content, "big", signed=True)
