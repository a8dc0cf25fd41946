#!/usr/bin/env python3
"""Carries packets between a namespace's own tun or tap device and a second device.

  relay.py tun NAMESPACE DEVICE PEER-NAMESPACE PEER-DEVICE   two tun devices, joined (raw IP, no Ethernet)
  relay.py vlan NAMESPACE TAP-DEVICE TRUNK-DEVICE ID         an access port: untagged tap, tagged trunk

Runs until it is ended by a signal; `record` starts and ends it.
"""
import ctypes
import fcntl
import os
import selectors
import socket
import struct
import sys

CLONE_NEWNET = 0x40000000
TUNSETIFF, IFF_TUN, IFF_TAP, IFF_NO_PI = 0x400454CA, 1, 2, 0x1000
ETHERTYPE_VLAN, ETH_P_ALL = 0x8100, 3


def enter(namespace):
    with open(f"/run/netns/{namespace}") as handle:
        if ctypes.CDLL(None, use_errno=True).setns(handle.fileno(), CLONE_NEWNET):
            sys.exit(f"relay.py: cannot enter namespace {namespace}")


def open_device(namespace, name, kind):
    enter(namespace)
    device = os.open("/dev/net/tun", os.O_RDWR)
    fcntl.ioctl(device, TUNSETIFF, struct.pack("16sH22x", name.encode(), kind | IFF_NO_PI))
    return device


def pump(routes):
    """routes: descriptor to a function that moves one packet onward."""
    selector = selectors.DefaultSelector()
    for descriptor, move in routes.items():
        selector.register(descriptor, selectors.EVENT_READ, move)
    while True:
        for key, _ in selector.select():
            try:
                key.data()
            except OSError:
                pass  # the other end is down for the moment: the packet is lost, as on a wire


def join_tuns(namespace, device, peer_namespace, peer_device):
    one = open_device(namespace, device, IFF_TUN)
    two = open_device(peer_namespace, peer_device, IFF_TUN)
    pump({one: lambda: os.write(two, os.read(one, 65536)), two: lambda: os.write(one, os.read(two, 65536))})


def join_access_port(namespace, tap_name, trunk_name, vlan):
    tap = open_device(namespace, tap_name, IFF_TAP)
    trunk = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
    trunk.bind((trunk_name, 0))
    tag = struct.pack(">HH", ETHERTYPE_VLAN, int(vlan))

    def outward():
        frame = os.read(tap, 65536)
        trunk.send(frame[:12] + tag + frame[12:])

    def inward():
        frame, address = trunk.recvfrom(65536)
        if address[2] != socket.PACKET_OUTGOING:
            os.write(tap, frame)  # the kernel has already taken the tag out of a received frame

    pump({tap: outward, trunk.fileno(): inward})


if __name__ == "__main__":
    if sys.argv[1:2] == ["tun"] and len(sys.argv) == 6:
        join_tuns(*sys.argv[2:])
    elif sys.argv[1:2] == ["vlan"] and len(sys.argv) == 6:
        join_access_port(*sys.argv[2:])
    else:
        sys.exit(__doc__)
