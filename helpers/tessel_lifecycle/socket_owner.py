"""Which user a socket of this host belongs to, as the kernel tells it (sock_diag(7), netlink(7))."""

import os
import socket
import struct
import sys

_SOCK_DIAG = 4
_BY_FAMILY, _DUMP = 20, 0x301
_DONE = 3
_ALL_STATES = 0xffffffff
_SHOW_NAME_AND_USER = 0x41
_NAME, _USER = 0, 7
_HEADER = struct.Struct("=IHHII")          # nlmsghdr
_REQUEST = struct.Struct("=BBHIIIQ")       # unix_diag_req
_SOCKET = struct.Struct("=BBBBIQ")         # unix_diag_msg
_ATTRIBUTE = struct.Struct("=HH")


def owner_of_name(name):
    """The user who has bound a Unix socket to a name that begins with NUL, this process's own if it is one of several;
    None when nobody has, or the kernel does not tell. @throws OSError"""
    owners = {user for bound, user in _unix_sockets() if bound == name}
    return os.geteuid() if os.geteuid() in owners else next(iter(owners), None)


def _unix_sockets():
    """The name and user of each Unix socket that a process holds; those that wait to be accepted are told as root's."""
    request = _REQUEST.pack(socket.AF_UNIX, 0, 0, _ALL_STATES, 0, _SHOW_NAME_AND_USER, 0)
    with socket.socket(socket.AF_NETLINK, socket.SOCK_DGRAM, _SOCK_DIAG) as kernel:
        kernel.send(_HEADER.pack(_HEADER.size + len(request), _BY_FAMILY, _DUMP, 0, 0) + request)
        while True:
            for kind, body in _parts(kernel.recv(1 << 16), _HEADER):
                if kind == _DONE:
                    return
                if kind != _BY_FAMILY:
                    raise OSError("the kernel does not tell of Unix sockets")
                if _SOCKET.unpack_from(body)[4]:
                    attributes = dict(_parts(body[_SOCKET.size:], _ATTRIBUTE))
                    if attributes.keys() >= {_NAME, _USER}:
                        yield attributes[_NAME], int.from_bytes(attributes[_USER], sys.byteorder)


def _parts(data, head):
    """The kind and content of each part of a message; parts begin at multiples of four."""
    while len(data) >= head.size:
        length, kind, *_ = head.unpack_from(data)
        yield kind, data[head.size:length]
        data = data[max(-(-length // 4) * 4, head.size):]
