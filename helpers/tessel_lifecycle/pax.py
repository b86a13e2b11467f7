"""PAX files: a zip with `descriptor.json` and one xz-packed tar archive of the files to install.

One that is signed has a third member, the detached signature over the bytes of `descriptor.json`.
"""

import contextlib
import errno
import hashlib
import os
import stat
import tarfile
import zipfile

from tessel_lifecycle import files, installed_file
from tessel_lifecycle.archive import ARCHIVE_ERRORS, CHUNK, XzStream, ZipReader, add_member, tar_members
from tessel_lifecycle.document import compact, parse
from tessel_lifecycle.errors import ImageError
from tessel_lifecycle.metadata import MOST_SIGNATURE

DESCRIPTOR = "descriptor.json"
SIGNATURE = "descriptor.json.cms"
PAYLOAD = "payload.tar.xz"
MOST_DESCRIPTOR = 16 << 20
TAR_OVERHEAD = 4096  # per member: headers, long names and filling
TAR_END = 1 << 20
PRESET = 3           # packs in less than 40 MiB of memory


def verify(path, descriptor, signature=None):
    """Checks that the PAX at `path` is the described one, up to its packed payload. @throws ImageError

    `signature` is the one that its depot tells; whether it is worth anything is not looked at here.
    """
    members = {DESCRIPTOR, descriptor.payload_name} | ({SIGNATURE} if signature else set())
    with _format_errors(descriptor), files.open_regular(path) as file, ZipReader(file) as archive:
        if set(archive.names()) != members:
            raise ValueError("wrong members")
        if signature and archive.read(SIGNATURE, MOST_SIGNATURE) != signature:
            raise ValueError("the signature is not the depot's")
        if parse(archive.read(DESCRIPTOR, MOST_DESCRIPTOR)) != descriptor.document:
            raise ValueError("the descriptor is not the depot's")
        found = archive.sha256(descriptor.payload_name, descriptor.payload_size)
        if found != (descriptor.payload_size, descriptor.payload_sha256):
            raise ImageError("PaxSigDigestError", descriptor.label, detail="payload")


def unpack(path, descriptor, root, time, on_bytes=lambda count: None, memory=XzStream.MOST_MEMORY):
    """Unpacks a PAX below the folder `root`, which has none of its files yet, verifying it on the way.

    Only what the descriptor lists is written, and only as it lists it, with `time` (seconds) as modification time. The
    modes of directories are left to set_directory_modes. @throws ImageError, OSError; LargeDictionary, having written
    nothing of use, when it takes more than `memory` bytes
    """
    wanted = {file.path: file for file in descriptor.files}
    most = descriptor.installed_size + TAR_OVERHEAD * len(wanted) + TAR_END
    with (_format_errors(descriptor), files.open_regular(path) as file, ZipReader(file) as archive,
          archive.open(descriptor.payload_name) as packed):
        stream = XzStream(packed, most, memory)
        for info, content in tar_members(stream):
            entry = wanted.pop(info.name, None)
            if entry is None:
                raise ValueError(f"{info.name!r:.200} is not listed, or twice in the payload")
            _install(root, entry, info, content, time, on_bytes)
        if wanted:
            raise ValueError(f"{next(iter(wanted))} is missing in the payload")
        if stream.finish() != descriptor.payload_sha256:
            raise ImageError("PaxSigDigestError", descriptor.label, detail="payload")


def _install(root, file, info, content, time, on_bytes):
    kind = "file" if content else "directory" if info.isdir() else "link" if info.issym() else "special file"
    if kind != file.type:
        raise ValueError(f"{file.path}: a {kind}, not a {file.type}")
    target = os.path.join(root, file.path)
    if kind == "directory":
        files.make_directories(target)
        return
    files.make_directories(os.path.dirname(target))
    if kind == "link":
        if info.linkname != file.target:
            raise ValueError(f"{file.path}: link has another target")
        os.symlink(file.target, target)
    elif not write_verified(content, file, target, time, on_bytes):
        raise ValueError(f"{file.path}: content is not as listed")


def write_verified(content, file, target, time, on_bytes):
    """Writes a listed file from a stream; False when size or digest differ from the list's."""
    digest, length = hashlib.sha256(), 0
    flags = os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_NOFOLLOW | os.O_CLOEXEC
    with open(os.open(target, flags, 0o600), "wb") as output:
        while length <= file.size and (data := content.read(CHUNK)):
            output.write(data)
            digest.update(data)
            length += len(data)
            on_bytes(len(data))
        output.flush()
        os.fchmod(output.fileno(), file.mode)
        installed_file.set_time(output.fileno(), time)
    return (length, digest.hexdigest()) == (file.size, file.sha256)


def set_directory_modes(root, listed):
    """Sets the directories' modes, last, since one that forbids writing would be in the way."""
    for file in listed:
        if file.type == "directory":
            os.chmod(os.path.join(root, file.path), file.mode)


@contextlib.contextmanager
def _format_errors(descriptor):
    try:
        yield
    except (*ARCHIVE_ERRORS, OSError) as error:
        if isinstance(error, OSError) and error.errno != errno.EINVAL:  # a zip's directory may lead before it
            raise
        raise ImageError("PaxFormatError", descriptor.label, detail=error) from error


def listing(root):
    """The descriptor's file list of everything below a folder, as JSON values, in an order that can be unpacked."""
    found = []
    for folder, directories, names in os.walk(root):
        directories.sort()
        for name in sorted(directories + names):
            path = os.path.join(folder, name)
            found.append(_entry(path, os.path.relpath(path, root)))
    return sorted(found, key=lambda entry: entry["path"])


def _entry(path, relative):
    status = os.lstat(path)
    if stat.S_ISLNK(status.st_mode):
        return {"path": relative, "type": "link", "target": os.readlink(path)}
    entry = {"path": relative, "type": "directory", "mode": stat.S_IMODE(status.st_mode)}
    if stat.S_ISREG(status.st_mode):
        entry |= {"type": "file", "size": status.st_size, "sha256": files.sha256(path)}
    elif not stat.S_ISDIR(status.st_mode):
        raise ValueError(f"{path}: neither file, directory nor link")
    return entry


def create(path, document, root, listed, sign=lambda content: None, on_bytes=lambda count: None):
    """Makes a PAX from the files of a folder and returns its descriptor's document, `document` with the payload's data,
    and what `sign` made of the descriptor's bytes: its signature, or None. `on_bytes` hears of bytes before they are
    packed.

    @throws ChangedFile when a file is not as listed any more, OSError
    """
    packed = path + ".payload"
    try:
        with tarfile.open(packed, "w:xz", preset=PRESET) as tar:
            for file in listed:
                _pack(tar, file, os.path.join(root, file.path), on_bytes)
        document = document | {"payload": {"name": PAYLOAD, "size": os.path.getsize(packed),
                                           "sha256": files.sha256(packed)}}
        content = compact(document).encode()
        signature = sign(content)
        with zipfile.ZipFile(path, "x") as archive:
            add_member(archive, DESCRIPTOR, content=content)
            if signature:
                add_member(archive, SIGNATURE, content=signature)
            add_member(archive, PAYLOAD, source=packed)
    finally:
        files.remove(packed)
    return document, signature


class _Counted:
    """A file that tells what is read of it."""

    def __init__(self, file, on_bytes):
        self._file, self._on_bytes = file, on_bytes

    def read(self, length):
        data = self._file.read(length)
        self._on_bytes(len(data))
        return data


class ChangedFile(Exception):
    """A file that should be packed differs from its recorded size or digest."""


def _pack(tar, file, path, on_bytes):
    info = tarfile.TarInfo(file.path)  # owner root, time 0: the same content gives the same archive
    info.mode = file.mode
    if file.type == "file":
        with files.open_regular(path) as content:
            if (os.fstat(content.fileno()).st_size, files.sha256(path)) != (file.size, file.sha256):
                raise ChangedFile(file.path)
            info.size = file.size
            tar.addfile(info, _Counted(content, on_bytes))
        return
    info.type = tarfile.DIRTYPE if file.type == "directory" else tarfile.SYMTYPE
    info.linkname = file.target if file.type == "link" else ""
    tar.addfile(info)


def make_directories(root, descriptors):
    """Makes all directories that the PAXs' files lie in."""
    folders = {file.path if file.type == "directory" else os.path.dirname(file.path)
               for descriptor in descriptors for file in descriptor.files}
    for folder in sorted(folders):
        files.make_directories(os.path.join(root, folder))


def reuse(old_root, new_root, descriptor, time, on_bytes=lambda count: None):
    """Gives one image what another has of a PAX; False when files there are not as installed at `time` (seconds).

    A file that nobody has touched gets a second name. One that is known by its digest alone is copied, so that what was
    done to it is not shared. @throws OSError
    """
    for file in descriptor.files:
        source, target = os.path.join(old_root, file.path), os.path.join(new_root, file.path)
        if file.type == "link":
            os.symlink(file.target, target)
        elif file.type == "file" and not _share(source, target, file, time):
            try:
                content = files.open_regular(source)
            except OSError:
                return False
            with content:
                if not write_verified(content, file, target, time, on_bytes):
                    return False
    return True


def _share(source, target, file, time):
    """Gives an untouched file a second name; False when it was touched, or the file system knows no such names."""
    if not installed_file.is_untouched(source, file, time):
        return False
    try:
        os.link(source, target, follow_symlinks=False)
    except OSError as error:
        if error.errno in (errno.EMLINK, errno.EPERM, errno.EOPNOTSUPP, errno.ENOENT, errno.EXDEV):
            return False
        raise
    if installed_file.is_untouched(target, file, time):
        return True
    os.unlink(target)
    return False


def discard(root, descriptor):
    """Removes what there is of a PAX's files."""
    for file in descriptor.files:
        if file.type != "directory":
            files.remove(os.path.join(root, file.path))
