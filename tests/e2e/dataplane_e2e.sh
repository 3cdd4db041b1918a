#!/usr/bin/env bash
# End-to-end test of the user data plane's frame path with the interfaces'
# default offloads (no ethtool changes anywhere): a DHCP lease, a TCP
# transfer checked byte for byte, no send failure, and a port whose
# interface is deleted and made again reopened with its events.
#
#   dataplane_e2e.sh --daemon DHCPSNOOPD --ctl DHCPSNOOPCTL
#
# Namespace "sw" holds the daemon and the switch ends of two veth pairs:
#   1/0/1  dnsmasq, trusted                          198.18.0.1
#   1/0/2  busybox udhcpc, untrusted (ip_filter and arp_defend on)
# Exit 0 pass, 1 fail, 77 skipped (not root, no namespaces, programs missing).
# Namespaces are named dse<pid>-*: e2e.sh removes those of a killed run.
set -uo pipefail

SKIP=77
PATH="$PATH:/usr/sbin:/sbin"
usage() { echo "usage: dataplane_e2e.sh --daemon DHCPSNOOPD --ctl DHCPSNOOPCTL" >&2; exit 2; }
daemon="" ctl=""
while [ $# -gt 0 ]; do
  case "$1" in
    --daemon) [ $# -ge 2 ] || usage; daemon="$2"; shift 2 ;;
    --ctl) [ $# -ge 2 ] || usage; ctl="$2"; shift 2 ;;
    *) usage ;;
  esac
done
[ -x "$daemon" ] && [ -x "$ctl" ] || usage

skip() { echo "SKIPPED: $*"; exit $SKIP; }
[ "$(id -u)" -eq 0 ] || skip "needs root (network namespaces, veth pairs, raw sockets)"
for prog in ip dnsmasq busybox python3 timeout ethtool; do
  command -v "$prog" >/dev/null 2>&1 || skip "$prog missing (scripts/test.sh installs it)"
done

tag="dse$$"
ns_sw="$tag-dsw" ns_srv="$tag-dsrv" ns_cli="$tag-dcli"
all_ns=("$ns_srv" "$ns_cli" "$ns_sw")
mac_srv=02:00:c6:12:01:01 mac_cli=02:00:c6:12:01:02
ip_srv=198.18.0.1
work="$(mktemp -d "/tmp/dhcpsnoop-e2e-$tag-XXXXXX")"
pids=()
daemon_pid=""
failures=()

cleanup() {
  local rc=$?
  trap - EXIT INT TERM
  set +e
  for p in "${pids[@]}"; do kill -TERM "$p" 2>/dev/null; done
  for p in "${pids[@]}"; do timeout 5 tail --pid="$p" -f /dev/null 2>/dev/null; kill -KILL "$p" 2>/dev/null; done
  for n in "${all_ns[@]}"; do
    for p in $(ip netns pids "$n" 2>/dev/null); do kill -KILL "$p" 2>/dev/null; done
    ip netns del "$n" 2>/dev/null
  done
  if [ $rc -ne 0 ] && [ $rc -ne $SKIP ]; then
    for f in daemon.log server.log udhcpc.log tcp.log; do
      [ -s "$work/$f" ] && { echo "---- $f (last lines)"; tail -n 25 "$work/$f"; }
    done
  fi
  if [ "${DHCPSNOOP_E2E_KEEP:-0}" = 1 ]; then touch "$work/.kept"; echo "work directory kept: $work"; else rm -rf "$work"; fi
  exit $rc
}
trap cleanup EXIT
trap 'echo "dataplane e2e: interrupted"; exit 1' INT TERM

check() {
  local name=$1 out; shift
  if out=$("$@" 2>&1); then
    echo "  ok    $name${out:+: $out}"
  else
    echo "  FAIL  $name${out:+: $out}"
    failures+=("$name")
  fi
}
fatal() { echo "  FAIL  $*"; failures+=("$*"); finish; }
finish() {
  if [ ${#failures[@]} -eq 0 ]; then echo "PASSED: user data plane"; exit 0; fi
  echo "FAILED:"; printf '  %s\n' "${failures[@]}"; exit 1
}
wait_for() {
  local deadline=$((SECONDS + $1)); shift
  until "$@" >/dev/null 2>&1; do
    [ $SECONDS -ge $deadline ] && return 1
    sleep 0.2
  done
}
in_ns() { local n=$1; shift; ip netns exec "$n" "$@"; }
ctl_cmd() { "$ctl" --control "$work/ctl.sock" "$@"; }
client_ip() { ip -n "$ns_cli" -4 -o addr show dev eth0 | awk '$3 == "inet" {split($4, a, "/"); print a[1]; exit}'; }
has_lease() { client_ip | grep -q '^198\.18\.0\.'; }
log_has() { grep -qF -- "$1" "$work/daemon.log"; }

# The client's end of port 1/0/2, made again by the reopen step.
client_link() {
  ip link add sw2 netns "$ns_sw" type veth peer name eth0 netns "$ns_cli" || return 1
  ip -n "$ns_cli" link set eth0 address "$mac_cli"
  ip -n "$ns_cli" link set eth0 up
  ip -n "$ns_sw" link set sw2 up
}

echo "== e2e: user data plane with default offloads"
ip netns add "$ns_sw" 2>"$work/netns.err" || skip "cannot make network namespaces: $(cat "$work/netns.err")"
ip netns add "$ns_srv" && ip netns add "$ns_cli" || fatal "ip netns add"
for n in "${all_ns[@]}"; do
  in_ns "$n" sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
  ip -n "$n" link set lo up
done
ip link add sw1 netns "$ns_sw" type veth peer name eth0 netns "$ns_srv" || fatal "veth sw1"
ip -n "$ns_srv" link set eth0 address "$mac_srv"
ip -n "$ns_srv" link set eth0 up
ip -n "$ns_sw" link set sw1 up
client_link || fatal "veth sw2"
ip -n "$ns_srv" addr add "$ip_srv/24" dev eth0
echo "  info  client offloads: $(in_ns "$ns_cli" ethtool -k eth0 | grep -E '^(tx-checksumming|tcp-segmentation-offload|generic-segmentation-offload|generic-receive-offload):' | tr -s ' \n' ' ')"

cat >"$work/switch.toml" <<EOF
[switch]
dataplane = "user"
mac = "02:00:c6:12:ff:01"
snooping_vlans = [10]
ip_filter = true
arp_defend = true

[[port]]
name = "1/0/1"
vlan = 10
trust = true
interface = "sw1"

[[port]]
name = "1/0/2"
vlan = 10
interface = "sw2"
EOF
mkdir -p "$work/data"
ip netns exec "$ns_sw" "$daemon" --config "$work/switch.toml" --data-dir "$work/data" \
  --control "$work/ctl.sock" >>"$work/daemon.log" 2>&1 &
daemon_pid=$!
pids+=("$daemon_pid")
wait_for 20 log_has 'dhcpsnoopd: ready' || fatal "dhcpsnoopd not ready within 20 s"

ip netns exec "$ns_srv" dnsmasq --no-daemon --port=0 --conf-file=/dev/null --interface=eth0 --bind-interfaces \
  --no-ping --dhcp-option=option:router --dhcp-option=option:dns-server --log-dhcp \
  --dhcp-range=198.18.0.100,198.18.0.150,255.255.255.0,1h --dhcp-leasefile="$work/server.leases" \
  2>"$work/server.log" &
pids+=($!)
wait_for 10 grep -q 'DHCP, IP range' "$work/server.log" || fatal "dnsmasq did not start"
cat >"$work/udhcpc.sh" <<'EOF'
#!/bin/sh
case "$1" in
  deconfig) ip -4 addr flush dev "$interface" ;;
  bound|renew) ip -4 addr flush dev "$interface"; ip addr add "$ip/$mask" dev "$interface" ;;
esac
exit 0
EOF
chmod +x "$work/udhcpc.sh"
ip netns exec "$ns_cli" busybox udhcpc -f -q -i eth0 -s "$work/udhcpc.sh" -t 5 -T 2 >"$work/udhcpc.log" 2>&1 &
pids+=($!)
check "the client is leased through the daemon (DHCP with checksum offload)" wait_for 25 has_lease
ip_cli=$(client_ip)
[ -n "$ip_cli" ] || fatal "no lease: nothing more to test"

# tcp_transfer SECONDS: the client sends 32 MiB of random bytes to the
# server, which answers with their SHA-256; both must agree.
cat >"$work/tcp.py" <<'EOF'
import hashlib, os, socket, sys
mode, host, port = sys.argv[1], sys.argv[2], int(sys.argv[3])
if mode == "server":
    s = socket.socket()
    s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    s.bind((host, port)); s.listen(1)
    open(sys.argv[4], "w").close()
    c, _ = s.accept()
    h = hashlib.sha256()
    while True:
        b = c.recv(1 << 16)
        if not b:
            break
        h.update(b)
    c.sendall(h.hexdigest().encode()); c.close()
else:
    data = os.urandom(32 << 20)
    s = socket.create_connection((host, port), timeout=20)
    s.sendall(data); s.shutdown(socket.SHUT_WR)
    got = b""
    while True:
        b = s.recv(100)
        if not b:
            break
        got += b
    want = hashlib.sha256(data).hexdigest()
    print("32 MiB, sha256 %s" % ("matches" if got.decode() == want else "DIFFERS"))
    sys.exit(0 if got.decode() == want else 1)
EOF
tcp_transfer() {
  local ready="$work/tcp.ready.$1"
  rm -f "$ready"
  timeout 40 ip netns exec "$ns_srv" python3 "$work/tcp.py" server "$ip_srv" "$1" "$ready" >>"$work/tcp.log" 2>&1 &
  pids+=($!)
  wait_for 10 test -e "$ready" || { echo "the server did not listen"; return 1; }
  timeout 40 ip netns exec "$ns_cli" python3 "$work/tcp.py" client "$ip_srv" "$1"
}
counters_json() { ctl_cmd counters --json; }
no_send_failure() {
  local out
  out=$(counters_json) || return 1
  ! grep -o '"tx_failed":{[^}]*}' <<<"$out" | grep -v '"tx_failed":{}'
}

check "a TCP transfer between the client and the server arrives whole" tcp_transfer 5001
check "no send failed on any port" no_send_failure
echo "  info  counters: $(counters_json | tr -d '\n')"

# Frames behind two tags from the client: the kernel takes the outer one
# off into the packet's metadata, the daemon must still see the inner
# frame. IPv4 from an address nobody leased behind [VLAN 0][VLAN 0] is
# refused by the source guard; behind [VLAN 0][VLAN 20] (a hop into VLAN
# 20) it is discarded.
counter() {
  python3 -c '
import json, sys
v = {c["port"]: c for c in json.load(sys.stdin)}[sys.argv[1]]
for k in sys.argv[2:]:
    v = v.get(k, 0)
print(v)' "$@" <<<"$(counters_json)"
}
counter_at_least() { [ "$(counter "${@:2}")" -ge "$1" ]; }
frames=(python3 "$(cd "$(dirname "$0")" && pwd)/dataplane_frames.py")
sg_before=$(counter 1/0/2 source_guard_dropped)
in_ns "$ns_cli" "${frames[@]}" stacked eth0 "$mac_cli" 0,0 3
check "IPv4 behind two priority tags is checked by the source guard (3 refused)" \
  wait_for 5 counter_at_least $((sg_before + 3)) 1/0/2 source_guard_dropped
in_ns "$ns_cli" "${frames[@]}" stacked eth0 "$mac_cli" 0,20 3
check "a frame hopping into VLAN 20 behind a priority tag is discarded (3)" \
  wait_for 5 counter_at_least 3 1/0/2 discarded "stacked VLAN tags"

# The client's interface goes (deleted with its peer) and comes back under
# the same name: the port reopens on it by itself.
ip -n "$ns_sw" link del sw2
check "the daemon reports the interface gone" wait_for 10 log_has "interface sw2 of port 1/0/2 is gone"
client_link || fatal "veth sw2 again"
in_ns "$ns_cli" ip addr add "$ip_cli/24" dev eth0
check "the daemon reports the port reopened" wait_for 10 log_has "interface sw2 of port 1/0/2 is back: port reopened"
check "dhcpsnoopctl events holds both" sh -c "'$ctl' --control '$work/ctl.sock' events | grep -c 'interface sw2 of port 1/0/2' | grep -qx 2"
check "the client pings the server through the reopened port" in_ns "$ns_cli" ping -n -q -c 3 -W 2 "$ip_srv"
check "and a TCP transfer arrives whole again" tcp_transfer 5002

kill -TERM "$daemon_pid"
if timeout 15 tail --pid="$daemon_pid" -f /dev/null; then wait "$daemon_pid"; status=$?; else status=killed; fi
pids=("${pids[@]/$daemon_pid}")
check "dhcpsnoopd exits 0 on SIGTERM" test "$status" = 0
check "the daemon wrote no sanitizer report" sh -c "! grep -E 'ERROR: (Address|Leak|Thread)Sanitizer|runtime error:' '$work/daemon.log'"
finish
