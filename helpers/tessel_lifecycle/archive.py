"""Zip and tar archives from untrusted sources, read within bounds and without trusting what they say of themselves."""

import hashlib
import lzma
import os
import shutil
import struct
import tarfile
import zipfile
import zlib

# What the readers below raise for an archive that is broken, truncated, oversized or hostile.
ARCHIVE_ERRORS = (ValueError, EOFError, zipfile.BadZipFile, zlib.error, lzma.LZMAError, tarfile.TarError, struct.error,
                  RuntimeError, NotImplementedError, OverflowError, LookupError)

CHUNK = 1 << 16
PIECE = 1 << 19


class ZipReader:
    """A zip file, given as an open file, whose directory and members are bounded. Use in a with statement."""

    MOST_DIRECTORY = 2 << 20
    END_RECORD = struct.Struct("<4s4H2LH")

    def __init__(self, file):
        self._check_directory(file)
        self._file = file
        self._zip = zipfile.ZipFile(file)
        if len(set(self.names())) != len(self.names()):
            raise ValueError("a member occurs twice")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._zip.close()

    def _check_directory(self, file):
        """The library keeps the whole directory in memory, so its size is looked at first."""
        length = file.seek(0, os.SEEK_END)
        if length < self.END_RECORD.size:
            raise ValueError("not a zip file")
        file.seek(length - self.END_RECORD.size)
        signature, *_, directory_size, _, comment = self.END_RECORD.unpack(file.read())
        if signature != b"PK\5\6" or comment or directory_size > self.MOST_DIRECTORY:
            raise ValueError("not a zip file, or its directory is too large")

    def names(self):
        return self._zip.namelist()

    def open(self, name):
        """A stream of a member's content; only the two ordinary ways of packing are taken."""
        info = self._zip.getinfo(name) if name in self._zip.NameToInfo else None
        if info is None:
            raise ValueError(f"no member {name}")
        if info.compress_type not in (zipfile.ZIP_STORED, zipfile.ZIP_DEFLATED):
            raise ValueError(f"{name}: unusual compression")
        return self._zip.open(info)

    def sha256(self, name, most):
        """The size and digest of a member's content; of one that is longer than `most` bytes not the true ones."""
        digest, length = hashlib.sha256(), 0
        for data in self._pieces(name):
            digest.update(data)
            length += len(data)
            if length > most:
                break
        return length, digest.hexdigest()

    def _pieces(self, name):
        with self.open(name) as stream:
            info = self._zip.getinfo(name)
            if info.compress_type != zipfile.ZIP_STORED:
                yield from iter(lambda: stream.read(CHUNK), b"")
                return
        # Past the library, whose checksum takes as long as the digest.
        self._file.seek(info.header_offset + 26)
        left = info.file_size
        self._file.seek(sum(struct.unpack("<2H", self._file.read(4))), os.SEEK_CUR)  # name and extra field
        while left and (data := self._file.read(min(left, PIECE))):
            left -= len(data)
            yield data

    def read(self, name, most):
        """A member's content, at most `most` bytes."""
        with self.open(name) as stream:
            content = stream.read(most + 1)
        if len(content) > most:
            raise ValueError(f"{name}: too large")
        return content


class LargeDictionary(Exception):
    """An xz stream takes more memory to unpack than it was given."""


class XzStream:
    """The unpacked bytes of an xz stream, for tarfile: forward only, at most `most` bytes, no huge reads.

    `finish` reads on to the end of the packed bytes and tells their digest. Unpacking takes at most `memory` bytes;
    where less than MOST_MEMORY are given and do not suffice, reading raises LargeDictionary.
    """

    MOST_MEMORY = 128 << 20
    MOST_HEADER = 1 << 18  # tarfile reads a whole extended header at once, however long it says it is

    def __init__(self, packed, most, memory=MOST_MEMORY):
        self._packed, self._most, self._memory = packed, most, memory
        self._xz = lzma.LZMADecompressor(lzma.FORMAT_XZ, memlimit=memory)
        self._sha256, self.packed_size = hashlib.sha256(), 0
        self._buffer, self._offset, self._position = b"", 0, 0

    def _fill(self):
        self._buffer, self._offset = b"", 0
        while not self._buffer and not self._xz.eof:
            data = b""
            if self._xz.needs_input:
                data = self._take()
                if not data:
                    raise EOFError("payload ends in the middle")
            try:
                self._buffer = self._xz.decompress(data, CHUNK)
            except lzma.LZMAError as error:
                if self._memory < self.MOST_MEMORY and "emory usage limit" in str(error):
                    raise LargeDictionary() from error
                raise

    def _take(self):
        data = self._packed.read(CHUNK)
        self._sha256.update(data)
        self.packed_size += len(data)
        return data

    def read(self, length):
        if length > self.MOST_HEADER or length < 0:
            raise ValueError("tar header is too large")
        pieces = []
        while length:
            if self._offset == len(self._buffer):
                self._fill()
                if not self._buffer:
                    break
            piece = self._buffer[self._offset:self._offset + length]
            pieces.append(piece)
            self._offset += len(piece)
            self._position += len(piece)
            length -= len(piece)
        if self._position > self._most:
            raise ValueError("payload unpacks to more than it says")
        return b"".join(pieces)

    def tell(self):
        return self._position

    def seek(self, position):
        while self._position < position and self.read(min(CHUNK, position - self._position)):
            pass
        if self._position > position:
            raise ValueError("tar archive jumps backwards")

    def finish(self):
        """Digest of all packed bytes; refuses anything behind the end of the archive."""
        while self.read(CHUNK):
            pass
        if self._xz.unused_data or self._take():
            raise ValueError("something follows the payload")
        return self._sha256.hexdigest()


def tar_members(stream):
    """The members of an uncompressed tar stream, each with its content: (tarfile.TarInfo, stream or None)."""
    with tarfile.open(fileobj=stream, mode="r:") as tar:
        while (info := tar.next()) is not None:
            tar.members.clear()  # the library would remember them all
            yield info, tar.extractfile(info) if info.isreg() else None


def add_member(archive, name, source=None, content=b""):
    """Adds a file (or `content`) to a zip file, so that the same content always gives the same bytes."""
    info = zipfile.ZipInfo(name, (1980, 1, 1, 0, 0, 0))
    info.external_attr = 0o644 << 16
    if source is None:
        info.compress_type = zipfile.ZIP_DEFLATED
        archive.writestr(info, content)
        return
    info.file_size = os.path.getsize(source)
    with open(source, "rb") as file, archive.open(info, "w") as member:
        shutil.copyfileobj(file, member)
