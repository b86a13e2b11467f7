"""What is left on a disk after a cut, from logs made by hand."""

import io
import os
import pathlib
import random
import struct
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))

from power_cut.write_log import DISCARD, FLUSH, FUA, MAGIC, SECTOR, WriteLog

SECTORS = 8  # of the disk, which holds dots before the log begins


def log_of(requests, whole=True):
    """A log's bytes: requests are (first sector, a letter for each sector's content, flags)."""
    log = io.BytesIO()
    log.write(struct.pack("<QQQI", MAGIC, 1, 0, SECTOR).ljust(SECTOR, b"\0"))
    for first, letters, flags in requests:
        data = b"" if flags & DISCARD else b"".join(letter.encode() * SECTOR for letter in letters)
        log.write(struct.pack("<QQQQ", first, len(letters), flags, len(data)).ljust(SECTOR, b"\0") + data)
    return log.getvalue() + (b"" if whole else bytes(SECTOR) + b"data of a request whose head is missing")


class WriteLogTest(unittest.TestCase):
    def setUp(self):
        folder = self.enterContext(tempfile.TemporaryDirectory())
        self.log, self.disk = os.path.join(folder, "log"), os.path.join(folder, "disk")

    def read(self, content):
        pathlib.Path(self.log).write_bytes(content)
        log = WriteLog(self.log)
        self.addCleanup(log.close)
        log.update()
        return log

    def disks(self, requests):
        """What the disk can be after a cut, over many draws: a letter for each sector, nought for zeros."""
        log, found = self.read(log_of(requests)), set()
        for seed in range(100):
            pathlib.Path(self.disk).write_bytes(b"." * SECTORS * SECTOR)
            log.write_over(self.disk, random.Random(seed))
            content = pathlib.Path(self.disk).read_bytes()
            sectors = [content[at:at + SECTOR] for at in range(0, len(content), SECTOR)]
            assert all(len(set(sector)) == 1 for sector in sectors), "a sector is torn"
            found.add("".join(chr(sector[0] or ord("0")) for sector in sectors))
        return found

    def test_what_was_flushed_lasts_and_of_the_rest_anything(self):
        flush = (0, "", FLUSH)
        for what, requests, expected in (
            ("nothing was written", [], {"........"}),
            ("flushed", [(0, "aa", 0), (1, "b", 0), flush], {"ab......"}),
            ("the last flush counts", [(0, "a", 0), flush, (0, "b", 0), flush], {"b......."}),
            ("not flushed", [(3, "a", 0)], {"........", "...a...."}),
            ("out of order", [(0, "a", 0), (1, "b", 0)], {"........", "a.......", ".b......", "ab......"}),
            ("overwritten", [(0, "a", 0), flush, (0, "b", 0)], {"a.......", "b......."}),
            ("torn", [(0, "abc", 0)], {"........", "a.......", "ab......", "abc.....", ".bc.....", "..c....."}),
            ("written through", [(0, "a", 0), (1, "b", FUA)], {".b......", "ab......"}),
            ("discarded", [(0, "xx", DISCARD), flush], {"00......"}),
            ("flush and write in one", [(0, "a", 0), (1, "b", FLUSH | FUA), (2, "c", 0)], {"ab......", "abc....."}),
        ):
            with self.subTest(what):
                self.assertEqual(self.disks(requests), expected)

    def test_the_same_draw_gives_the_same_disk(self):
        log = self.read(log_of([(number % SECTORS, "a", 0) for number in range(50)]))

        def lasting(seed):
            return [(log.entries.index(entry), first, end) for entry, first, end in log.lasting(random.Random(seed))]
        self.assertEqual(lasting("7 3"), lasting("7 3"))
        self.assertNotEqual(lasting("7 3"), lasting("7 4"))

    def test_a_log_is_read_as_far_as_it_is_whole(self):
        requests = [(0, "ab", 0), (0, "", FLUSH)]
        for whole in (True, False):
            log = self.read(log_of(requests, whole))
            self.assertEqual((len(log.entries), log.unflushed(), log.is_whole()), (2, 0, whole))
        with self.assertRaises(ValueError):
            self.read(b"another kind of file".ljust(SECTOR, b"\0"))


if __name__ == "__main__":
    unittest.main()
