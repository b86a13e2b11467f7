#!/usr/bin/python3
"""Usage: bench/slow_link.py DESCRIPTOR RATE DELAY LOSS COMMAND [ARG...]

Runs COMMAND at the far end of a link, in the network namespace that this was started in: packets between a tunnel
device there, 10.9.0.1, and the one at DESCRIPTOR, at the near end, take DELAY seconds and RATE bytes a second, and of
100 of them LOSS are lost. What a link's queue cannot hold, for a quarter of a second, is lost as well. It is what `tc
netem` does, for kernels that lack it; the two ends' TCP is the kernel's own.
"""

import collections
import fcntl
import os
import random
import select
import struct
import subprocess
import sys
import time

MTU = 1500
QUEUE = 0.25  # seconds
FAR, NEAR = "10.9.0.1", "10.9.0.2"


def open_tunnel(name, own, other):
    """A tunnel device of this network namespace; what is written to its descriptor arrives there."""
    if not os.path.exists("/dev/net/tun"):  # in a sandboxed host
        os.makedirs("/dev/net", exist_ok=True)
        os.mknod("/dev/net/tun", 0o20600, os.makedev(10, 200))
    tunnel = os.open("/dev/net/tun", os.O_RDWR | os.O_NONBLOCK)
    fcntl.ioctl(tunnel, 0x400454CA, struct.pack("16sH", name.encode(), 0x1001))  # TUNSETIFF; IFF_TUN, IFF_NO_PI
    for words in (["address", "add", own, "peer", other, "dev", name], ["link", "set", name, "mtu", str(MTU), "up"],
                  ["link", "set", name, "txqueuelen", "1000"]):
        subprocess.run(["ip", *words], check=True)
    return tunnel


class Direction:
    """Packets from one tunnel to another."""

    def __init__(self, source, target, rate, delay, loss, chance):
        self.source, self.target = source, target
        self._rate, self._delay, self._loss, self._chance = rate, delay, loss / 100, chance
        self._free, self.under_way = 0.0, collections.deque()  # when the link is free; (when it arrives, packet)

    def receive(self, now):
        try:
            while packet := os.read(self.source, MTU + 100):
                begin = max(now, self._free)
                if begin - now > QUEUE or self._chance.random() < self._loss:
                    continue
                self._free = begin + len(packet) / self._rate
                self.under_way.append((self._free + self._delay, packet))
        except BlockingIOError:
            pass

    def deliver(self, now):
        while self.under_way and self.under_way[0][0] <= now:
            try:
                os.write(self.target, self.under_way.popleft()[1])
            except BlockingIOError:
                pass  # lost


def main():
    near, rate, delay, loss = int(sys.argv[1]), *map(float, sys.argv[2:5])
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    far, chance = open_tunnel("far", FAR, NEAR), random.Random(1)
    os.set_blocking(near, False)
    directions = [Direction(near, far, rate, delay, loss, chance), Direction(far, near, rate, delay, loss, chance)]
    command = subprocess.Popen(sys.argv[5:])
    try:
        while command.poll() is None:
            now = time.monotonic()
            due = [direction.under_way[0][0] - now for direction in directions if direction.under_way]
            ready, _, _ = select.select([near, far], [], [], max(0, min([0.1, *due])))
            now = time.monotonic()
            for direction in directions:
                if direction.source in ready:
                    direction.receive(now)
                direction.deliver(now)
    finally:
        command.terminate()
        command.wait()


if __name__ == "__main__":
    main()
