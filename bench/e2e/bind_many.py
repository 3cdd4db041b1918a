#!/usr/bin/env python3
"""bind_many.py IFACE COUNT: COUNT DHCP clients behind one interface, each
with a MAC of its own (02:00:c6:13:HH:LL, as frame source and chaddr), take a
lease by DISCOVER, OFFER, REQUEST, ACK; prints how many got an ACK. The
switch's snooping makes a binding of each."""
import select
import socket
import struct
import sys
import time

COOKIE = b"\x63\x82\x53\x63"


def checksum(data):
    if len(data) % 2:
        data += b"\0"
    s = sum(struct.unpack("!%dH" % (len(data) // 2), data))
    s = (s & 0xFFFF) + (s >> 16)
    s = (s & 0xFFFF) + (s >> 16)
    return (~s) & 0xFFFF


def frame(mac, xid, options):
    bootp = struct.pack("!BBBBIHH4s4s4s4s16s64s128s", 1, 1, 6, 0, xid, 0, 0x8000, b"\0" * 4,
                        b"\0" * 4, b"\0" * 4, b"\0" * 4, mac + b"\0" * 10, b"", b"")
    bootp += COOKIE + options + b"\xff" + b"\0" * 8
    udp_len = 8 + len(bootp)
    src, dst = b"\0" * 4, b"\xff" * 4
    udp = struct.pack("!HHHH", 68, 67, udp_len, 0) + bootp
    csum = checksum(src + dst + struct.pack("!BBH", 0, 17, udp_len) + udp) or 0xFFFF
    udp = udp[:6] + struct.pack("!H", csum) + udp[8:]
    ip = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + udp_len, 0, 0, 64, 17, 0, src, dst)
    ip = ip[:10] + struct.pack("!H", checksum(ip)) + ip[12:]
    return b"\xff" * 6 + mac + b"\x08\x00" + ip + udp


def reply(data):
    """(xid, message type, yiaddr, server id) of a DHCP reply, or None."""
    if len(data) < 14 + 20 + 8 + 240 or data[12:14] != b"\x08\x00" or data[23] != 17:
        return None
    ip = 14
    udp = ip + (data[ip] & 0x0F) * 4
    if struct.unpack("!H", data[udp + 2:udp + 4])[0] != 68:
        return None
    b = udp + 8
    if data[b] != 2 or data[b + 236:b + 240] != COOKIE:
        return None
    xid = struct.unpack("!I", data[b + 4:b + 8])[0]
    yiaddr = data[b + 16:b + 20]
    mtype, sid = None, None
    i = b + 240
    while i + 1 < len(data) and data[i] != 255:
        if data[i] == 0:
            i += 1
            continue
        code, length = data[i], data[i + 1]
        val = data[i + 2:i + 2 + length]
        if code == 53 and length == 1:
            mtype = val[0]
        elif code == 54 and length == 4:
            sid = val
        i += 2 + length
    return xid, mtype, yiaddr, sid


def main():
    iface, count = sys.argv[1], int(sys.argv[2])
    s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x0800))
    s.bind((iface, 0))
    s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
    macs = {0xB0000000 + i: b"\x02\x00\xc6\x13" + struct.pack("!H", i) for i in range(count)}
    offered, acked = {}, set()
    deadline = time.monotonic() + 60
    pending = list(macs)
    while len(acked) < count and time.monotonic() < deadline:
        # Requests in rounds of 50, then the answers; a lost one goes again.
        for xid in pending[:50]:
            if xid in offered:
                y, sid = offered[xid]
                opts = bytes([53, 1, 3, 50, 4]) + y + bytes([54, 4]) + sid
            else:
                opts = bytes([53, 1, 1])
            s.send(frame(macs[xid], xid, opts))
        wait_until = time.monotonic() + 0.3
        while time.monotonic() < wait_until:
            r, _, _ = select.select([s], [], [], 0.05)
            if not r:
                continue
            info = reply(s.recv(2048))
            if not info or info[0] not in macs:
                continue
            xid, mtype, y, sid = info
            if mtype == 2 and sid:
                offered[xid] = (y, sid)
            elif mtype == 5:
                acked.add(xid)
        pending = [x for x in macs if x not in acked]
    print(len(acked))
    return 0


if __name__ == "__main__":
    sys.exit(main())
