"""As much of the Basic Encoding Rules as LDAP messages and tokens need."""

SEQUENCE, SET, OCTETS, ENUMERATED = 0x30, 0x31, 0x04, 0x0A


def encode(tag, content):
    size = len(content)
    if size < 0x80:
        return bytes([tag, size]) + content
    length = size.to_bytes((size.bit_length() + 7) // 8, "big")
    return bytes([tag, 0x80 | len(length)]) + length + content


def octets(text):
    return encode(OCTETS, text.encode())


def sequence(*parts, tag=SEQUENCE):
    return encode(tag, b"".join(parts))


def read(data, at=0):
    """(tag, content, where the next element begins); None when the element is not complete."""
    begin, size = at + 2, data[at + 1] if len(data) > at + 1 else 0
    if size & 0x80:
        begin += size & 0x7F
        size = int.from_bytes(data[at + 2:begin], "big")
    return (data[at], data[begin:begin + size], begin + size) if len(data) >= begin + size else None


def elements(content):
    """The (tag, content) pairs inside a constructed element."""
    found, at = [], 0
    while at < len(content):
        tag, inside, at = read(content, at)
        found.append((tag, inside))
    return found
