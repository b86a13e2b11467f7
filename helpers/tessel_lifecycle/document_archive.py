"""A zip file of many small documents, read from disk one by one: neither they nor its directory are kept in memory.

It comes from an untrusted source; everything here raises ValueError, struct.error or zlib.error for one that is broken.
"""

import os
import struct
import zlib

_END = struct.Struct("<4s4H2LH")        # APPNOTE.TXT, 4.3.16
_ENTRY = struct.Struct("<4s6H3L5H2L")   # 4.3.12
_LOCAL = struct.Struct("<4s5H3L2H")     # 4.3.7
_STORED, _DEFLATED, _ENCRYPTED, _UTF8 = 0, 8, 1, 0x800
_BLOCK = 1 << 18


class DocumentArchive:
    """The archive in an open file, which stays open as long as this lives. Members are told apart by their positions.

    `count` and `size` are the members' number and how many bytes they are unpacked. Threads may read at the same time.
    """

    MOST_DIRECTORY = 32 << 20
    MOST_MEMBERS = 200000
    MOST_MEMBER = 16 << 20

    def __init__(self, file):
        self._file, length = file, os.fstat(file.fileno()).st_size
        end = self._at(length - _END.size, _END.size) if length >= _END.size else b""
        if not end.startswith(b"PK\5\6") or not end.endswith(b"\0\0"):
            raise ValueError("not a zip file, or one with a comment")
        *_, directory_size, self._begin, _ = _END.unpack(end)
        self._end = self._begin + directory_size
        if directory_size > self.MOST_DIRECTORY or self._end > length:
            raise ValueError("the zip file's directory is too large")
        self.count = self.size = 0
        names = set()
        for _, name, size in self.members():
            names.add(name)
            self.count, self.size = self.count + 1, self.size + size
            if len(names) < self.count or self.count > self.MOST_MEMBERS:
                raise ValueError(f"{name!r:.200} occurs twice, or as one too many")

    def _at(self, offset, length):
        data = os.pread(self._file.fileno(), length, offset)
        if len(data) < length:
            raise ValueError("the zip file ends in the middle")
        return data

    def members(self):
        """Of each member its position, name and unpacked size, in the directory's order."""
        position, block, start = self._begin, b"", self._begin
        while position < self._end:
            if position + _ENTRY.size + 3 * 65535 > start + len(block):
                start, block = position, self._at(position, min(_BLOCK, self._end - position))
            name, size, end = self._entry(block, position - start)
            yield position, name, size
            position = start + end

    def part_before(self, position):
        """Which part of the members come before the one at a position."""
        return (position - self._begin) / (self._end - self._begin)

    @staticmethod
    def _entry(block, at):
        signature, *rest = _ENTRY.unpack_from(block, at)
        flags, size, name_size, extra_size, comment_size = rest[2], rest[8], *rest[9:12]
        end = at + _ENTRY.size + name_size + extra_size + comment_size
        if signature != b"PK\1\2" or end > len(block):
            raise ValueError("the zip file's directory is damaged")
        name = block[at + _ENTRY.size:at + _ENTRY.size + name_size]
        return name.decode("utf-8" if flags & _UTF8 else "cp437"), size, end

    def read(self, position):
        """The content of the member at a position that `members` told; at most MOST_MEMBER bytes."""
        entry = _ENTRY.unpack(self._at(position, _ENTRY.size))
        flags, method, crc, packed_size, size, name_size, offset = *entry[3:5], *entry[7:11], entry[16]
        if method not in (_STORED, _DEFLATED) or flags & _ENCRYPTED:
            raise ValueError("a member is packed in an unusual way")
        if max(size, packed_size) > self.MOST_MEMBER:
            raise ValueError("a member is too large")
        local = _LOCAL.unpack(self._at(offset, _LOCAL.size))
        names_end = _LOCAL.size + local[9]
        if local[0] != b"PK\3\4" or local[9] != name_size:
            raise ValueError("a member is not where the zip file's directory says")
        packed = self._at(offset + names_end + local[10], packed_size)
        content = packed if method == _STORED else _inflated(packed, size)
        if len(content) != size or zlib.crc32(content) != crc:
            raise ValueError("a member is damaged")
        return content


def _inflated(packed, size):
    unpacker = zlib.decompressobj(-zlib.MAX_WBITS)
    content = unpacker.decompress(packed, size + 1)
    if not unpacker.eof:
        raise ValueError("a member does not end where the zip file's directory says")
    return content
