#!/usr/bin/env python3
"""Frames of the user data plane's end-to-end test that no program sends by
itself. Standard library only.

  dataplane_frames.py stacked IFACE SRC_MAC VIDS COUNT
      sends COUNT broadcast IPv4/UDP frames from 198.18.0.222 (an address
      nobody leased) behind one 802.1Q tag per VLAN id in VIDS ("0,0",
      "0,20"), outermost first.
"""
import socket
import struct
import sys


def checksum(b):
    s = sum(struct.unpack("!%dH" % (len(b) // 2), b))
    while s >> 16:
        s = (s & 0xFFFF) + (s >> 16)
    return ~s & 0xFFFF


def stacked(iface, src_mac, vids, count):
    mac = bytes.fromhex(src_mac.replace(":", ""))
    payload = b"stacked-tags" * 4
    udp = struct.pack("!HHHH", 5000, 53, 8 + len(payload), 0) + payload
    ip = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(udp), 1, 0, 64, 17, 0,
                     socket.inet_aton("198.18.0.222"), socket.inet_aton("198.18.0.1"))
    ip = ip[:10] + struct.pack("!H", checksum(ip)) + ip[12:]
    tags = b"".join(struct.pack("!HH", 0x8100, int(v)) for v in vids.split(","))
    frame = b"\xff" * 6 + mac + tags + b"\x08\x00" + ip + udp
    s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
    s.bind((iface, 0))
    for _ in range(count):
        s.send(frame)


def main():
    if len(sys.argv) == 6 and sys.argv[1] == "stacked":
        stacked(sys.argv[2], sys.argv[3], sys.argv[4], int(sys.argv[5]))
        return 0
    print(__doc__, file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main())
