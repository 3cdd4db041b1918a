#!/usr/bin/env python3
"""Helpers of the end-to-end tests: reading captures, the daemon's JSON and
files, and a DHCP flood sender. Standard library only.

Each subcommand prints what it found on one line and exits 0 when the
condition holds, 1 when it does not, 2 on bad input."""
import json
import socket
import struct
import sys
import time

OPT_PAD, OPT_END, OPT_MSG_TYPE, OPT_RELAY_AGENT = 0, 255, 53, 82
COOKIE = b"\x63\x82\x53\x63"


def die(text):
    print("e2e_tool: " + text, file=sys.stderr)
    sys.exit(2)


def read_pcap(path):
    """Yields the Ethernet frames of a pcap file; a record cut short at the
    end (a capture still being written) ends the file."""
    try:
        data = open(path, "rb").read()
    except OSError as err:
        die("%s: %s" % (path, err))
    if len(data) < 24:
        return
    magic = data[:4]
    if magic in (b"\xa1\xb2\xc3\xd4", b"\xa1\xb2\x3c\x4d"):
        endian = ">"
    elif magic in (b"\xd4\xc3\xb2\xa1", b"\x4d\x3c\xb2\xa1"):
        endian = "<"
    else:
        die("%s: not a pcap file" % path)
    linktype = struct.unpack(endian + "I", data[20:24])[0]
    if linktype != 1:
        die("%s: link type %d is not Ethernet" % (path, linktype))
    pos = 24
    while pos + 16 <= len(data):
        incl = struct.unpack(endian + "I", data[pos + 8:pos + 12])[0]
        pos += 16
        if pos + incl > len(data):
            return
        yield data[pos:pos + incl]
        pos += incl


def parse_frame(frame):
    """Returns a dict for an IPv4 frame (UDP, ICMP), else None."""
    if len(frame) < 14:
        return None
    etype = (frame[12] << 8) | frame[13]
    off = 14
    vid = None
    if etype == 0x8100 and len(frame) >= 18:
        vid = ((frame[14] << 8) | frame[15]) & 0x0FFF
        etype = (frame[16] << 8) | frame[17]
        off = 18
    if etype != 0x0800 or len(frame) < off + 20:
        return None
    ip = frame[off:]
    ihl = (ip[0] & 0x0F) * 4
    if ihl < 20 or len(ip) < ihl:
        return None
    out = {"src_mac": frame[6:12], "dst_mac": frame[0:6], "src": socket.inet_ntoa(ip[12:16]),
           "dst": socket.inet_ntoa(ip[16:20]), "proto": ip[9], "vid": vid}
    l4 = ip[ihl:]
    if ip[9] == 1 and len(l4) >= 1:
        out["icmp_type"] = l4[0]
    if ip[9] == 17 and len(l4) >= 8:
        out["sport"] = (l4[0] << 8) | l4[1]
        out["dport"] = (l4[2] << 8) | l4[3]
        bootp = l4[8:]
        if {out["sport"], out["dport"]} & {67, 68} and len(bootp) >= 240 and bootp[236:240] == COOKIE:
            out["op"] = bootp[0]
            out["xid"] = struct.unpack(">I", bootp[4:8])[0]
            out["chaddr"] = bootp[28:34]
            out["options"] = parse_options(bootp[240:])
    return out


def parse_options(raw):
    """Options as a list of (code, bytes); stops at END or where an option
    would run past the buffer."""
    opts = []
    i = 0
    while i < len(raw):
        code = raw[i]
        if code == OPT_PAD:
            i += 1
            continue
        if code == OPT_END or i + 1 >= len(raw):
            break
        length = raw[i + 1]
        if i + 2 + length > len(raw):
            break
        opts.append((code, raw[i + 2:i + 2 + length]))
        i += 2 + length
    return opts


def dhcp_frames(path):
    for frame in read_pcap(path):
        p = parse_frame(frame)
        if p is not None and "op" in p:
            yield p


def mac_bytes(text):
    try:
        b = bytes(int(x, 16) for x in text.split(":"))
    except ValueError:
        die("bad MAC " + text)
    if len(b) != 6:
        die("bad MAC " + text)
    return b


def hexs(b):
    return " ".join("%02x" % x for x in b)


def opt82_of(p):
    for code, value in p["options"]:
        if code == OPT_RELAY_AGENT:
            return value
    return None


def cmd_opt82(args):
    """pcap-opt82 PCAP CLIENT_MAC EXPECTED_HEX: every client request of the
    MAC seen in the capture carries option 82 with exactly these bytes (the
    value, after code and length); at least one request seen."""
    path, mac, expected = args[0], mac_bytes(args[1]), bytes.fromhex(args[2])
    seen = good = 0
    bad = []
    for p in dhcp_frames(path):
        if p["op"] != 1 or p["chaddr"] != mac:
            continue
        seen += 1
        value = opt82_of(p)
        if value == expected:
            good += 1
        else:
            bad.append("xid %08x: %s" % (p["xid"], "no option 82" if value is None else hexs(value)))
    print("requests of %s: %d, with the expected option 82 (%s): %d%s" %
          (args[1], seen, hexs(expected), good, "; other: " + ", ".join(bad[:4]) if bad else ""))
    return 0 if seen > 0 and good == seen else 1


def cmd_no_opt82(args):
    """pcap-no-opt82 PCAP: no server reply (op 2) of the capture carries
    option 82."""
    total = with82 = 0
    for p in dhcp_frames(args[0]):
        if p["op"] != 2:
            continue
        total += 1
        if opt82_of(p) is not None:
            with82 += 1
    print("server replies: %d, with option 82: %d" % (total, with82))
    return 0 if with82 == 0 else 1


def cmd_requests_with_opt82(args):
    """pcap-requests-opt82 PCAP: (information) client requests (op 1) that
    carry option 82."""
    n = sum(1 for p in dhcp_frames(args[0]) if p["op"] == 1 and opt82_of(p) is not None)
    print(n)
    return 0


def cmd_replies_with_opt82(args):
    """pcap-replies-opt82 PCAP: (information) server replies that carry option 82."""
    n = sum(1 for p in dhcp_frames(args[0]) if p["op"] == 2 and opt82_of(p) is not None)
    print(n)
    return 0


def cmd_count_from(args):
    """pcap-replies-from PCAP IP: number of DHCP replies sent from IP; the
    condition holds when there are none."""
    n = sum(1 for p in dhcp_frames(args[0]) if p["op"] == 2 and p["src"] == args[1])
    print("DHCP replies from %s: %d" % (args[1], n))
    return 0 if n == 0 else 1


def cmd_count_xid(args):
    """pcap-count-xid PCAP XID_PREFIX_HEX: prints the number of requests whose
    transaction ID starts with the 16-bit prefix."""
    prefix = int(args[1], 16)
    n = sum(1 for p in dhcp_frames(args[0]) if p["op"] == 1 and (p["xid"] >> 16) == prefix)
    print(n)
    return 0


def cmd_dhcp_vlan(args):
    """pcap-dhcp-vlan PCAP OP MAC XID_PREFIX_HEX VLAN|untagged: DHCP frames
    of the op (1 request, 2 reply) for chaddr MAC whose transaction ID
    starts with the prefix: at least one, and every one carried with that
    802.1Q tag (or none)."""
    op, mac, prefix = int(args[1]), mac_bytes(args[2]), int(args[3], 16)
    want = None if args[4] == "untagged" else int(args[4])
    tags = [p["vid"] for p in dhcp_frames(args[0])
            if p["op"] == op and p["chaddr"] == mac and (p["xid"] >> 16) == prefix]
    print("frames: %d, tags: %s" % (len(tags), ", ".join("untagged" if t is None else str(t) for t in tags)))
    return 0 if tags and all(t == want for t in tags) else 1


def cmd_count_echo(args):
    """pcap-count-echo PCAP SRC_IP: prints the number of ICMP echo requests from SRC_IP."""
    n = 0
    for frame in read_pcap(args[0]):
        p = parse_frame(frame)
        if p is not None and p["proto"] == 1 and p.get("icmp_type") == 8 and p["src"] == args[1]:
            n += 1
    print(n)
    return 0


def load_json(path):
    try:
        with open(path) as f:
            return json.load(f)
    except (OSError, ValueError) as err:
        die("%s: %s" % (path, err))


def read_leasefile(path):
    """dnsmasq's lease file: EXPIRY MAC IP HOSTNAME CLIENT-ID per line."""
    leases = {}
    try:
        with open(path) as f:
            for line in f:
                cols = line.split()
                if len(cols) >= 3 and cols[0].isdigit():
                    leases[cols[1].lower()] = cols[2]
    except OSError:
        pass
    return leases


def cmd_bindings_match(args):
    """bindings-match BINDINGS_JSON LEASEFILE VLAN MAC=PORT...: the daemon's
    bindings are exactly the server's leases, each on its client's port and
    the VLAN, with a lease that has not run out."""
    bindings = load_json(args[0])
    leases = read_leasefile(args[1])
    vlan = int(args[2])
    ports = dict(a.lower().split("=", 1) for a in args[3:])
    problems = []
    if not isinstance(bindings, list):
        die("bindings: not a JSON list")
    got = {}
    for b in bindings:
        try:
            got[str(b["mac"])] = b
            if str(b["mac"]) != str(b["mac"]).lower():
                problems.append("MAC %s not lower case" % b["mac"])
        except (TypeError, KeyError):
            die("bindings: entry without mac: %r" % (b,))
    if set(got) != set(leases):
        problems.append("MACs differ: daemon %s, server %s" % (sorted(got), sorted(leases)))
    for mac, ip in leases.items():
        b = got.get(mac)
        if b is None:
            continue
        if b.get("ip") != ip:
            problems.append("%s: daemon ip %s, server %s" % (mac, b.get("ip"), ip))
        if b.get("vlan") != vlan:
            problems.append("%s: vlan %r" % (mac, b.get("vlan")))
        if mac in ports and b.get("port") != ports[mac]:
            problems.append("%s: port %r, expected %s" % (mac, b.get("port"), ports[mac]))
        lease = b.get("lease")
        if not isinstance(lease, int) or lease <= 0 or lease > 3600:
            problems.append("%s: lease %r" % (mac, lease))
    for mac in ports:
        if mac not in leases:
            problems.append("the server has no lease for %s" % mac)
    print("daemon: %s; server: %s%s" % (
        ", ".join("%s %s %s" % (b.get("ip"), m, b.get("port")) for m, b in sorted(got.items())) or "none",
        ", ".join("%s %s" % (ip, m) for m, ip in sorted(leases.items())) or "none",
        "; " + "; ".join(problems) if problems else ""))
    return 0 if not problems else 1


def read_binding_file(path):
    """The module's binding file: IP (hex bytes, dotted) MAC VLAN(hex) PORT
    LEASE(hex) CHECK(hex) between BEGIN and END."""
    out = {}
    try:
        text = open(path, "rb").read().decode("ascii", "replace")
    except OSError:
        return None
    inside = False
    for line in text.splitlines():
        if line.strip() == "BEGIN":
            inside = True
            continue
        if line.strip() == "END":
            break
        if not inside:
            continue
        cols = [c.strip() for c in line.split("\t")]
        if len(cols) < 6:
            continue
        try:
            ip = ".".join(str(int(x, 16)) for x in cols[0].split("."))
            out[cols[1].lower()] = (ip, int(cols[2], 16), cols[3], int(cols[4], 16))
        except ValueError:
            continue
    return out


def cmd_binding_file_match(args):
    """binding-file-match FILE LEASEFILE VLAN MAC=PORT...: the binding file
    holds exactly the server's leases on their ports."""
    entries = read_binding_file(args[0])
    leases = read_leasefile(args[1])
    vlan = int(args[2])
    ports = dict(a.lower().split("=", 1) for a in args[3:])
    if entries is None:
        print("no binding file %s" % args[0])
        return 1
    problems = []
    if set(entries) != set(leases):
        problems.append("MACs differ: file %s, server %s" % (sorted(entries), sorted(leases)))
    for mac, ip in leases.items():
        e = entries.get(mac)
        if e is None:
            continue
        if e[0] != ip or e[1] != vlan or (mac in ports and e[2] != ports[mac]) or not 0 < e[3] <= 3600:
            problems.append("%s: %r" % (mac, e))
    for mac in ports:
        if mac not in leases:
            problems.append("the server has no lease for %s" % mac)
    print("file: %s%s" % (", ".join("%s %s %s lease %d" % (e[0], m, e[2], e[3])
                                    for m, e in sorted(entries.items())) or "empty",
                          "; " + "; ".join(problems) if problems else ""))
    return 0 if not problems else 1


def cmd_bindings_without(args):
    """bindings-without BINDINGS_JSON MAC: the daemon has no binding of MAC."""
    macs = [str(b.get("mac")) for b in load_json(args[0]) if isinstance(b, dict)]
    print("daemon bindings: %s" % (", ".join(macs) or "none"))
    return 0 if args[1].lower() not in macs else 1


def cmd_binding_file_without(args):
    """binding-file-without FILE MAC: the binding file exists and has no line of MAC."""
    entries = read_binding_file(args[0])
    if entries is None:
        print("no binding file %s" % args[0])
        return 1
    print("file: %s" % (", ".join(sorted(entries)) or "empty"))
    return 0 if args[1].lower() not in entries else 1


def cmd_rate_events(args):
    """rate-events EVENTS_JSON PORT: prints the number of DHCP rate-limit
    entries of the port (not the DECLINE limit's)."""
    events = load_json(args[0])
    if not isinstance(events, list):
        die("events: not a JSON list")
    want = "DHCP rate limit exceeded on port " + args[1]
    n = 0
    for e in events:
        text = str(e.get("text", "")) if isinstance(e, dict) else ""
        if text.endswith(want) and "DECLINE" not in text:
            n += 1
    print(n)
    return 0


def event_epoch(e):
    """The event's time ("2026-01-02T03:04:05Z") in seconds since 1970."""
    import calendar
    try:
        return calendar.timegm(time.strptime(str(e.get("time", "")), "%Y-%m-%dT%H:%M:%SZ"))
    except ValueError:
        die("events: bad time %r" % e.get("time"))


def cmd_rate_event_spacing(args):
    """rate-event-spacing EVENTS_JSON PORT T0 T1: the port's DHCP rate-limit
    entries during a flood from T0 to T1 (seconds since 1970) must show a
    log that works: at least one entry in the flood, never two within 30 s,
    and never more than 32 s of flood after the last one (its 30-second
    timer re-arms the log). Prints the entries' times from T0."""
    events = load_json(args[0])
    if not isinstance(events, list):
        die("events: not a JSON list")
    want = "DHCP rate limit exceeded on port " + args[1]
    t0, t1 = int(args[2]), int(args[3])
    times = sorted(event_epoch(e) for e in events
                   if isinstance(e, dict) and str(e.get("text", "")).endswith(want))
    shown = " ".join("%+d" % (t - t0) for t in times)
    print("entries at %s s of a %d s flood" % (shown or "(none)", t1 - t0))
    if not any(t0 <= t <= t1 + 1 for t in times):
        return 1
    # Times are whole seconds: 29 allows for the rounding of both.
    if any(b - a < 29 for a, b in zip(times, times[1:])):
        return 1
    last = max(t for t in times if t <= t1 + 1)
    return 1 if t1 - last > 32 else 0


def cmd_binding_lease(args):
    """binding-lease BINDINGS_JSON MAC: prints the seconds left of MAC's
    binding."""
    for b in load_json(args[0]):
        if isinstance(b, dict) and str(b.get("mac", "")).lower() == args[1].lower():
            print(b.get("lease"))
            return 0
    die("bindings: no binding of %s" % args[1])


def port_counters(path, port):
    for c in load_json(path):
        if isinstance(c, dict) and c.get("port") == port:
            return c
    die("counters: no port %s" % port)


def cmd_counter(args):
    """counter COUNTERS_JSON PORT KEY [REASON...]: prints a port's counter (a
    drop reason's count with KEY dropped; the sum of several reasons)."""
    c = port_counters(args[0], args[1])
    if args[2] == "dropped":
        print(sum(int(c.get("dropped", {}).get(r, 0)) for r in args[3:]))
    else:
        print(int(c.get(args[2], 0)))
    return 0


def checksum(data):
    if len(data) % 2:
        data += b"\0"
    s = sum(struct.unpack("!%dH" % (len(data) // 2), data))
    s = (s & 0xFFFF) + (s >> 16)
    s = (s & 0xFFFF) + (s >> 16)
    return (~s) & 0xFFFF


def discover(mac, xid, vid=None, length=0):
    """A broadcast DISCOVER from mac; padded behind its end option to
    length bytes of frame where that is longer."""
    bootp = struct.pack("!BBBBIHH4s4s4s4s16s64s128s", 1, 1, 6, 0, xid, 0, 0x8000, b"\0" * 4,
                        b"\0" * 4, b"\0" * 4, b"\0" * 4, mac + b"\0" * 10, b"", b"")
    bootp += COOKIE + bytes([OPT_MSG_TYPE, 1, 1, 255]) + b"\0" * 8
    frame_len = 14 + (4 if vid is not None else 0) + 20 + 8 + len(bootp)
    bootp += b"\0" * max(0, length - frame_len)
    udp_len = 8 + len(bootp)
    src, dst = b"\0" * 4, b"\xff" * 4
    pseudo = src + dst + struct.pack("!BBH", 0, 17, udp_len)
    udp = struct.pack("!HHHH", 68, 67, udp_len, 0) + bootp
    csum = checksum(pseudo + udp) or 0xFFFF
    udp = udp[:6] + struct.pack("!H", csum) + udp[8:]
    ip = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + udp_len, 0, 0, 64, 17, 0, src, dst)
    ip = ip[:10] + struct.pack("!H", checksum(ip)) + ip[12:]
    tag = b"" if vid is None else struct.pack("!HH", 0x8100, vid)
    return b"\xff" * 6 + mac + tag + b"\x08\x00" + ip + udp


def cmd_flood(args):
    """flood IFACE MAC COUNT PER_SECOND XID_PREFIX_HEX [VLAN]: sends COUNT
    DHCP DISCOVERs from MAC at about PER_SECOND frames a second, each with a
    transaction ID of the prefix and a running number; with VLAN, tagged."""
    iface, mac, count, rate, prefix = args[0], mac_bytes(args[1]), int(args[2]), int(args[3]), int(args[4], 16)
    vid = int(args[5]) if len(args) > 5 else None
    s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
    s.bind((iface, 0))
    gap = 1.0 / rate
    start = time.monotonic()
    for i in range(count):
        s.send(discover(mac, (prefix << 16) | i, vid))
        delay = start + (i + 1) * gap - time.monotonic()
        if delay > 0:
            time.sleep(delay)
    print("sent %d DISCOVERs in %.2f s" % (count, time.monotonic() - start))
    return 0


def cmd_big_discover(args):
    """big-discover IFACE MAC LENGTH XID_HEX: sends one DHCP DISCOVER from
    MAC padded to LENGTH bytes (the interface's MTU must let it out)."""
    iface, mac, length, xid = args[0], mac_bytes(args[1]), int(args[2]), int(args[3], 16)
    s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
    s.bind((iface, 0))
    frame = discover(mac, xid, None, length)
    s.send(frame)
    print("sent a DISCOVER of %d bytes" % len(frame))
    return 0


def ip_of(text):
    return bytes(int(x) for x in text.split("."))


def cmd_spoof(args):
    """spoof IFACE SRC_MAC DST_MAC SRC_IP DST_IP KIND MARKER_HEX: sends one
    IPv4 UDP frame (port 9, payload MARKER) wrapped so that it might slip
    past a filter of IPv4: KIND qinq (802.1Q in 802.1Q, VLAN 10 twice), ad
    (an 802.1ad outer tag, VLAN 10) or snap (802.3 with SNAP)."""
    iface, src, dst = args[0], mac_bytes(args[1]), mac_bytes(args[2])
    sip, dip, kind, marker = ip_of(args[3]), ip_of(args[4]), args[5], bytes.fromhex(args[6])
    udp_len = 8 + len(marker)
    pseudo = sip + dip + struct.pack("!BBH", 0, 17, udp_len)
    udp = struct.pack("!HHHH", 40000, 9, udp_len, 0) + marker
    udp = udp[:6] + struct.pack("!H", checksum(pseudo + udp) or 0xFFFF) + udp[8:]
    ip = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + udp_len, 0, 0, 64, 17, 0, sip, dip)
    ip = ip[:10] + struct.pack("!H", checksum(ip)) + ip[12:]
    if kind == "qinq":
        frame = dst + src + struct.pack("!HHHH", 0x8100, 10, 0x8100, 10) + b"\x08\x00" + ip + udp
    elif kind == "ad":
        frame = dst + src + struct.pack("!HH", 0x88A8, 10) + b"\x08\x00" + ip + udp
    elif kind == "snap":
        llc = b"\xaa\xaa\x03\x00\x00\x00\x08\x00" + ip + udp
        frame = dst + src + struct.pack("!H", len(llc)) + llc
    else:
        die("spoof: KIND is qinq, ad or snap")
    s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
    s.bind((iface, 0))
    for _ in range(3):
        s.send(frame)
        time.sleep(0.05)
    return 0


def cmd_count_marker(args):
    """pcap-count-marker PCAP MARKER_HEX: frames holding the bytes anywhere."""
    marker = bytes.fromhex(args[1])
    print(sum(1 for f in read_pcap(args[0]) if marker in f))
    return 0


COMMANDS = {
    "spoof": (cmd_spoof, 7),
    "pcap-count-marker": (cmd_count_marker, 2),
    "pcap-opt82": (cmd_opt82, 3),
    "pcap-no-opt82": (cmd_no_opt82, 1),
    "pcap-replies-opt82": (cmd_replies_with_opt82, 1),
    "pcap-requests-opt82": (cmd_requests_with_opt82, 1),
    "pcap-replies-from": (cmd_count_from, 2),
    "pcap-count-xid": (cmd_count_xid, 2),
    "pcap-count-echo": (cmd_count_echo, 2),
    "pcap-dhcp-vlan": (cmd_dhcp_vlan, 5),
    "bindings-match": (cmd_bindings_match, 3),
    "binding-file-match": (cmd_binding_file_match, 3),
    "bindings-without": (cmd_bindings_without, 2),
    "binding-file-without": (cmd_binding_file_without, 2),
    "rate-events": (cmd_rate_events, 2),
    "rate-event-spacing": (cmd_rate_event_spacing, 4),
    "binding-lease": (cmd_binding_lease, 2),
    "counter": (cmd_counter, 3),
    "flood": (cmd_flood, 5),
    "big-discover": (cmd_big_discover, 4),
}


def main():
    if len(sys.argv) < 2 or sys.argv[1] not in COMMANDS:
        die("usage: e2e_tool.py %s ARGS..." % "|".join(sorted(COMMANDS)))
    fn, nargs = COMMANDS[sys.argv[1]]
    if len(sys.argv) - 2 < nargs:
        die("%s: needs %d arguments" % (sys.argv[1], nargs))
    sys.exit(fn(sys.argv[2:]))


if __name__ == "__main__":
    main()
