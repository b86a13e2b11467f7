"""Connections to this host's own daemon, and to nobody else who listens on its port.

What is sent there may be a ticket, with which whoever receives it acts as root.
"""

import errno
import ipaddress
import os
import socket
import struct

_LISTENS = "0A"
_ANY6 = ipaddress.ip_address("::")
_LOOPBACK = ("127.0.0.1", "::1")  # one family may be all that the daemon could listen on


class Stranger(ConnectionError):
    """Somebody else listens there."""


def connect(port, timeout):
    """A connection to a socket of this process's user that listens on a port of this host. @throws OSError"""
    failure = ConnectionRefusedError(errno.ECONNREFUSED, f"connection refused, as nobody listens on port {port}")
    for address in _LOOPBACK:
        try:
            return _connect(address, port, timeout)
        except Stranger as error:
            failure = error
        except ConnectionRefusedError:
            pass
    raise failure


def _connect(address, port, timeout):
    before = _own_listeners(address, port)
    connection = socket.create_connection((address, port), timeout)
    try:
        # Those that were there before and are there now were there when the connection was made.
        if _own_listeners(address, port) != before:
            raise Stranger(f"who listens on port {port} of {address} has changed meanwhile")
        return connection
    except BaseException:
        connection.close()
        raise


def _own_listeners(address, port):
    """The inodes of the sockets at which a connection can arrive, all of this process's user. @throws OSError"""
    found = _listeners(ipaddress.ip_address(address), port)
    if not found:
        raise ConnectionRefusedError(errno.ECONNREFUSED, f"connection refused by port {port} of {address}")
    strangers = sorted({user for _, user in found} - {os.geteuid()})
    if strangers:
        raise Stranger(f"port {port} of {address} belongs to user {strangers[0]}, not to this host's daemon")
    return {inode for inode, _ in found}


def _listeners(address, port):
    """The sockets at which a connection can arrive, as pairs of inode and user. @throws OSError"""
    sockets = [*_listening("/proc/net/tcp6", port), *_listening("/proc/net/tcp", port)]
    found = {owner for local, owner in sockets if local in (address, type(address)(0))}
    # One of all IPv6 addresses takes IPv4, too, unless it is told not to, which it must be beside one of IPv4.
    return found or {owner for local, owner in sockets if local == _ANY6}


def _listening(table, port):
    """The sockets of a table of the kernel (proc(5)) that listen on a port: address, and pair of inode and user."""
    try:
        with open(table, encoding="ascii") as lines:
            next(lines)
            for line in lines:
                _, local, _, state, _, _, _, user, _, inode, *_ = line.split()
                words, _, number = local.partition(":")
                if state == _LISTENS and int(number, 16) == port:
                    yield _address(words), (int(inode), int(user))
    except FileNotFoundError:
        pass  # a kernel without this family


def _address(words):
    """An address as the tables have it: in hexadecimal words of this machine's byte order."""
    packed = b"".join(struct.pack("=I", int(words[at:at + 8], 16)) for at in range(0, len(words), 8))
    address = ipaddress.ip_address(packed)
    return getattr(address, "ipv4_mapped", None) or address
