#!/usr/bin/env python3
"""Writes the datagrams that the kernel sends a routing socket into files: candidates for seeds.

    unshare -n python3 capture.py DIRECTORY

Asks for the three dumps of the daemon and listens while links, addresses and routes come and go in
the network namespace. A dump that ends in the datagram of its last record is also written with the
end in a datagram of its own, as kernels before 6.9 send it.
"""
import os
import socket
import struct
import subprocess
import sys

GROUPS = (1, 9, 11, 18)  # links; IPv6 addresses, routes, prefixes
SOL_NETLINK, ADD_MEMBERSHIP = 270, 1
NLMSG_DONE = 3
BATCH = """
    link add eth0 type veth peer name eth1
    link set lo up
    link set eth0 up
    link set eth1 up
    addr add 2001:db8::5/64 dev eth0
    addr add 2001:db8::6/128 dev eth0 nodad
    addr add 2001:db8:1::1 peer 2001:db8:1::2/64 dev eth1
    route add default via fe80::1 dev eth0 proto static
    route add 2001:db8:2::/48 via fe80::2 dev eth1
    route add unreachable 2001:db8:3::/48
    link add br0 type bridge
    link set eth1 master br0
    link set eth1 nomaster
    link set eth0 down
    link set eth0 name eth7
    addr del 2001:db8:1::1 peer 2001:db8:1::2/64 dev eth1
    route del 2001:db8:2::/48
"""


def split_end(datagram):
    """The datagram without its NLMSG_DONE, and the NLMSG_DONE; empty if none follows a record."""
    at = 0
    while at + 16 <= len(datagram):
        length, kind = struct.unpack_from("=IH", datagram, at)
        if kind == NLMSG_DONE and at > 0:
            return [datagram[:at], datagram[at:]]
        at += (length + 3) & ~3
    return []


def main():
    directory = sys.argv[1]
    taken = []
    sock = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 0)
    sock.bind((0, 0))
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)

    def receive():
        sock.settimeout(1)
        try:
            while True:
                datagram = sock.recv(1 << 16)
                taken.append(datagram)
                taken.extend(split_end(datagram))
        except socket.timeout:
            pass

    def ask(kind, body, flags=0x101):
        sock.send(struct.pack("=IHHII", 16 + len(body), kind, flags, 1, 0) + body)
        receive()

    def dumps():
        ask(18, struct.pack("=B15x", 10))
        ask(22, struct.pack("=B7x", 10))
        ask(26, struct.pack("=B11x", 10))

    dumps()
    for group in GROUPS:
        sock.setsockopt(SOL_NETLINK, ADD_MEMBERSHIP, group)
    for line in BATCH.split("\n"):
        if line.strip():
            subprocess.run(["ip", "-6"] + line.split(), check=False)
    receive()
    subprocess.run(["ip", "link", "set", "eth7", "up"], check=False)
    dumps()
    address = socket.inet_pton(socket.AF_INET6, "2001:db8::5")
    ask(20, struct.pack("=BBBBI", 10, 64, 0, 0, 3) + struct.pack("=HH", 20, 1) + address, 0xE05)
    ask(21, struct.pack("=BBBBI", 10, 99, 0, 0, 3) + struct.pack("=HH", 20, 1) + address, 5)
    ask(25, struct.pack("=10BH", 10, 0, 0, 0, 254, 0, 255, 0, 0, 0, 0)
        + struct.pack("=HHI", 8, 4, 3) + struct.pack("=HH", 20, 5) + address, 5)
    subprocess.run(["ip", "link", "del", "eth7"], check=False)
    receive()
    os.makedirs(directory, exist_ok=True)
    for number, datagram in enumerate(taken):
        with open(os.path.join(directory, "%03d" % number), "wb") as file:
            file.write(datagram)


if __name__ == "__main__":
    main()
