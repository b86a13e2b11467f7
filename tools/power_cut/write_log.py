"""What a disk holds after its power was cut: reads the log that QEMU's driver blklogwrites keeps of a disk's writes,
and writes what lasts of them over what the disk held before.

The log has the format of Linux's dm-log-writes: in its first sector the magic number, the version, the number of
entries and the size of a sector; then the entries, each a sector with place, length and flags, and behind it the data.
All numbers are little endian.
"""

import os
import struct

MAGIC = 0x6A736677736872
SECTOR = 512  # bytes
FLUSH, FUA, DISCARD = 1, 2, 4
_KNOWN = FLUSH | FUA | DISCARD
_HEADER = struct.Struct("<QQQQ")  # first sector, sectors, flags, bytes of data
_CHUNK = 1 << 20
_MOST_IN_FLIGHT = 16 << 20  # bytes of requests that are carried out at once


class Entry:
    """One request: sectors of the disk, flags, and where in the log its data begins."""

    def __init__(self, first, count, flags, data):
        self.first, self.count, self.flags, self.data = first, count, flags, data


class WriteLog:
    """The entries of a log that may still grow; `update` reads on.

    It is read by what stands in it: QEMU writes the first sector with the first flush, and the number of entries not
    with each.
    """

    def __init__(self, path):
        with open(path, "rb") as file:
            first = file.read(SECTOR)
        if first.strip(b"\0") and struct.unpack_from("<QQ8xI", first) != (MAGIC, 1, SECTOR):
            raise ValueError(f"{path} is no log of writes")
        self._file, self._end, self.entries = open(path, "rb"), SECTOR, []

    def close(self):
        self._file.close()

    def update(self):
        """Reads the entries that came since, as far as they stand there without a gap."""
        size = os.fstat(self._file.fileno()).st_size
        while self._end + SECTOR <= size:
            first, count, flags, length = _HEADER.unpack(os.pread(self._file.fileno(), _HEADER.size, self._end))
            if not (count or flags) or flags & ~_KNOWN:
                return
            data = 0 if flags & DISCARD else count * SECTOR
            self.entries.append(Entry(first, count, flags, self._end + SECTOR))
            self._end += SECTOR + data

    def is_whole(self):
        """Whether nothing lies behind the last entry: a request whose place is taken but not yet filled leaves a gap.

        For a log whose writer stands still, after `update`.
        """
        return not os.pread(self._file.fileno(), _MOST_IN_FLIGHT, self._end).strip(b"\0")

    def unflushed(self):
        """How many entries came after the last flush."""
        return next((index for index, entry in enumerate(reversed(self.entries)) if entry.flags & FLUSH),
                    len(self.entries))

    def lasting(self, draw):
        """The writes that the disk still has after the cut, in their order, as (entry, first, end): which of the
        entry's sectors.

        All before the last flush, and those that were to be written through. Of the others the disk has kept any, in
        any order: each is there, is not, or is torn between two sectors, as `draw` (random.Random) falls.
        """
        flushed = len(self.entries) - self.unflushed()
        for index, entry in enumerate(self.entries):
            first, end = 0, entry.count
            if index >= flushed and not entry.flags & FUA:
                first, end = _kept(entry.count, draw)
            if first < end:
                yield entry, first, end

    def write_over(self, disk, draw):
        """Writes what lasts into the file `disk`, which holds what the disk held when the log began."""
        with open(disk, "r+b") as file:
            for entry, first, end in self.lasting(draw):
                file.seek((entry.first + first) * SECTOR)
                for offset in range(first * SECTOR, end * SECTOR, _CHUNK):
                    length = min(_CHUNK, end * SECTOR - offset)
                    file.write(bytes(length) if entry.flags & DISCARD
                               else os.pread(self._file.fileno(), length, entry.data + offset))


def _kept(count, draw):
    """Which sectors of an unflushed write are there: two in five wholly, two not at all, one up to or from a point."""
    kind, point = draw.randrange(5), draw.randint(0, count)
    return ((0, count), (0, count), (0, 0), (0, 0), (0, point) if draw.random() < 0.5 else (point, count))[kind]
