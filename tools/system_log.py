"""The system log of a sandboxed host, which has none of its own."""

import contextlib
import os
import socket
import threading


def collect_system_log(device, file):
    """Writes what arrives at a host's /dev/log, given as `device`, into a file, as long as this process lives."""
    log_socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    with contextlib.suppress(FileNotFoundError):
        os.unlink(device)
    log_socket.bind(os.fspath(device))

    def collect():
        with open(file, "w", encoding="utf-8") as log:
            while True:
                log.write(log_socket.recv(65536).decode(errors="replace") + "\n")
                log.flush()

    threading.Thread(target=collect, daemon=True).start()
