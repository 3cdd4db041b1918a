#!/usr/bin/env python3
"""Stands in for systemd's notification socket: binds a datagram socket at
PATH and appends every message to LOG as one line, "PID FIELD|FIELD|...",
PID being the sender's process as the kernel reports it (SO_PASSCRED), which
is what NotifyAccess=main checks. Runs until killed."""
import socket
import struct
import sys

path, log = sys.argv[1], sys.argv[2]
s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
s.setsockopt(socket.SOL_SOCKET, socket.SO_PASSCRED, 1)
s.bind(path)
with open(log, "a", buffering=1) as out:
    while True:
        data, anc, _flags, _addr = s.recvmsg(4096, socket.CMSG_SPACE(12))
        pid = 0
        for level, kind, payload in anc:
            if level == socket.SOL_SOCKET and kind == socket.SCM_CREDENTIALS:
                pid = struct.unpack("iII", payload[:12])[0]
        fields = data.decode("utf-8", "replace").strip("\n").split("\n")
        out.write("%d %s\n" % (pid, "|".join(fields)))
