"""A host in an emulator (QEMU without hardware support): started, spoken with line by line, stopped dead."""

import contextlib
import ctypes
import json
import os
import signal
import socket
import subprocess
import time

from power_cut.write_log import WriteLog

_PATIENCE = 60         # seconds for the emulator itself
LOG_SIZE = 8 << 30  # bytes, most of them never written: the log's file is sparse
_libc = ctypes.CDLL(None)


class HostIsSilent(Exception):
    """The host has not said in time what it was waited for."""


class Emulator:
    """A host that runs from the disk image `disk`. Files of its own go into `folder`.

    With `state` it goes on where that was saved, else it boots. With `log` every write to the disk is logged there, a
    new file. Not for use from several threads.
    """

    def __init__(self, folder, kernel, disk, state=None, log=None):
        self._monitor_path, self._channel_path = os.path.join(folder, "monitor"), os.path.join(folder, "channel")
        self._log_path, self._log, self._process = log, None, None
        self._buffer, self.told = b"", []
        for path in (self._monitor_path, self._channel_path):
            with contextlib.suppress(FileNotFoundError):
                os.unlink(path)
        if log:
            with open(log, "xb") as file:
                file.truncate(LOG_SIZE)
        command = ["qemu-system-x86_64", "-nodefaults", "-no-user-config", "-no-reboot", "-display", "none", "-accel",
                   "tcg", "-cpu", "qemu64,+rdrand,+ssse3,+sse4.1,+sse4.2,+popcnt", "-smp", "1", "-m", "512",
                   "-kernel", os.path.join(kernel, "vmlinuz"), "-initrd", os.path.join(kernel, "initrd"),
                   "-append", "console=ttyS0 quiet panic=-1 net.ifnames=0",
                   "-serial", "file:" + os.path.join(folder, "console.log"),
                   "-qmp", f"unix:{self._monitor_path},server=on,wait=off",
                   "-chardev", f"socket,id=channel,path={self._channel_path},server=on,wait=off",
                   "-device", "virtio-serial-pci", "-device", "virtserialport,chardev=channel",
                   *_block_devices(disk, log), "-device", "virtio-blk-pci,drive=disk,write-cache=on"]
        if state:
            command += ["-incoming", f"exec:cat {state}"]
        with open(os.path.join(folder, "emulator.log"), "wb") as output:
            self._process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                                             preexec_fn=lambda: _libc.prctl(1, signal.SIGKILL))  # PR_SET_PDEATHSIG
        try:
            self._monitor = self._connect(self._monitor_path).makefile("rwb", buffering=0)
            self._channel = self._connect(self._channel_path)
            self._order("qmp_capabilities")
            if state:
                self._wait_for_state("paused")  # as it was when it was saved
                self._order("cont")
        except BaseException:
            self.kill()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.kill()

    def _connect(self, path):
        end = time.monotonic() + _PATIENCE
        while True:
            try:
                connection = socket.socket(socket.AF_UNIX)
                connection.connect(path)
                return connection
            except OSError:
                connection.close()
                if self._process.poll() is not None or time.monotonic() > end:
                    raise HostIsSilent(f"no emulator starts, see {os.path.dirname(path)}/emulator.log") from None
            time.sleep(0.01)

    def _order(self, command, **arguments):
        self._monitor.write(json.dumps({"execute": command, "arguments": arguments}).encode() + b"\n")
        while True:
            answer = json.loads(self._monitor.readline())
            if "error" in answer:
                raise HostIsSilent(f"{command}: {answer['error']['desc']}")
            if "return" in answer:
                return answer["return"]

    def _wait_for_state(self, state):
        end = time.monotonic() + _PATIENCE
        while self._order("query-status")["status"] != state:
            if time.monotonic() > end:
                raise HostIsSilent(f"the emulator does not become {state}")
            time.sleep(0.01)

    def say(self, message):
        """Sends the host a JSON value."""
        self._channel.sendall(json.dumps(message).encode() + b"\n")

    def hear(self, seconds):
        """The next JSON value that the host sends; None when `seconds` go by without one.

        @throws HostIsSilent when the emulator has ended
        """
        while b"\n" not in self._buffer:
            self._channel.settimeout(max(seconds, 0.001))
            try:
                data = self._channel.recv(1 << 16)
            except TimeoutError:
                return None
            if not data:
                raise HostIsSilent("the emulator has ended")
            self._buffer += data
        line, _, self._buffer = self._buffer.partition(b"\n")
        self.told.append(json.loads(line))
        return self.told[-1]

    def ask(self, message, seconds):
        """Sends a value and returns the host's next that is an answer ({"answer": …}). @throws HostIsSilent"""
        self.say(message)
        return self.wait_for("answer", seconds)

    def wait_for(self, name, seconds):
        """The member `name` of the next value that has it. @throws HostIsSilent"""
        end = time.monotonic() + seconds
        while (left := end - time.monotonic()) > 0:
            message = self.hear(left)
            if message and name in message:
                return message[name]
        raise HostIsSilent(f"nothing was heard of '{name}' for {seconds} s")

    def wait_for_end(self, seconds):
        """Waits until the host has switched itself off. @throws HostIsSilent"""
        try:
            self._process.wait(seconds)
        except subprocess.TimeoutExpired:
            raise HostIsSilent("the host does not shut down") from None

    def save(self, path):
        """Stops the host and saves all but its disk."""
        self._order("stop")
        self._order("migrate", uri=f"exec:cat >{path}")
        self._wait_for_state("postmigrate")

    def writes(self):
        """The log of what was written to the disk so far."""
        if not self._log:
            self._log = WriteLog(self._log_path)
        self._log.update()
        return self._log

    def cut(self):
        """Stops the host where it stands, for good. Returns the log of its writes.

        A stopped process may leave a gap in the log, where a write's place is taken and its thread has not come to
        write: it gets a moment more then.
        """
        while True:
            self._process.send_signal(signal.SIGSTOP)
            while not all(state in "Tt" for state in self._thread_states()):
                time.sleep(0.001)
            log = self.writes()
            if log.is_whole():
                break
            self._process.send_signal(signal.SIGCONT)
            time.sleep(0.0005)
        with contextlib.suppress(HostIsSilent):
            while self.hear(0):  # what it said before
                pass
        self.kill()
        return log

    def _thread_states(self):
        tasks = f"/proc/{self._process.pid}/task"
        for thread in os.listdir(tasks):
            with contextlib.suppress(FileNotFoundError), open(f"{tasks}/{thread}/stat") as file:
                yield file.read().rpartition(")")[2].split()[0]

    def kill(self):
        self._process.kill()
        self._process.wait()


def _block_devices(disk, log):
    """Flushes are only logged, not carried out: the files need not survive the machine that tests."""
    def file(path):
        return {"driver": "raw", "file": {"driver": "file", "filename": str(path)}, "cache": {"no-flush": True}}
    top = {"driver": "blklogwrites", "file": file(disk), "log": file(log)} if log else file(disk)
    return ["-blockdev", json.dumps(top | {"node-name": "disk"})]
