"""Reading what is encoded in DER (ITU-T X.690), as certificates and signatures are. ValueError for what is not."""

import datetime

INTEGER, BIT_STRING, OCTET_STRING, OID, UTC_TIME, GENERALIZED_TIME = 0x02, 0x03, 0x04, 0x06, 0x17, 0x18
BOOLEAN, SEQUENCE, SET = 0x01, 0x30, 0x31


def context(number, constructed=True):
    """The tag of a context-specific element."""
    return (0xA0 if constructed else 0x80) | number


class Element:
    """One element: its tag, the bytes that it holds, and all of its bytes."""

    __slots__ = ("tag", "content", "whole")

    def __init__(self, tag, content, whole):
        self.tag, self.content, self.whole = tag, content, whole

    def items(self):
        """The elements that it holds, to be taken in their order."""
        return Items(self.content)


class Items:
    """Elements one behind the other."""

    def __init__(self, data):
        self._data, self._at = data, 0

    def __bool__(self):
        return self._at < len(self._data)

    def take(self, *tags):
        """The next element, whose tag has to be one of these if any are given."""
        if not self:
            raise ValueError("DER: an element is missing")
        element = _element(self._data, self._at)
        if tags and element.tag not in tags:
            raise ValueError(f"DER: unexpected element of tag 0x{element.tag:02x}")
        self._at += len(element.whole)
        return element

    def optional(self, *tags):
        """The next element if it has one of these tags, else None."""
        return self.take() if self and self._data[self._at] in tags else None

    def rest(self):
        """All that are left."""
        while self:
            yield self.take()


def _element(data, at):
    head = data[at:at + 6]
    if len(head) < 2 or head[0] & 0x1F == 0x1F:
        raise ValueError("DER: cut off, or an unusual tag")
    length, begin = head[1], 2
    if length >= 0x80:
        begin += length - 0x80
        length = int.from_bytes(head[2:begin], "big")
        if begin > len(head) or begin == 2 or length < 0x80:
            raise ValueError("DER: a length that is none")
    whole = data[at:at + begin + length]
    if len(whole) != begin + length:
        raise ValueError("DER: cut off")
    return Element(head[0], whole[begin:], whole)


def sole(data, *tags):
    """The one element that `data` consists of."""
    items = Items(data)
    element = items.take(*tags)
    if items:
        raise ValueError("DER: something follows")
    return element


def oid(dotted):
    """The content of an object identifier's element."""
    first, second, *rest = map(int, dotted.split("."))
    encoded = bytearray()
    for number in (40 * first + second, *rest):
        groups = [number & 0x7F]
        while number := number >> 7:
            groups.append(number & 0x7F | 0x80)
        encoded += bytes(reversed(groups))
    return bytes(encoded)


def time(element):
    """The point of time that an element tells (RFC 5280, 4.1.2.5)."""
    text = element.content.decode("ascii")
    if element.tag == UTC_TIME:
        text = ("19" if text[:2] >= "50" else "20") + text
    return datetime.datetime.strptime(text, "%Y%m%d%H%M%SZ").replace(tzinfo=datetime.timezone.utc)
