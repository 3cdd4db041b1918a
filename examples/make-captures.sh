#!/usr/bin/env bash
# Records the captures of the built-in example from real DHCP programs.
#
# A Linux bridge in a network namespace plays the switch; each switch port is
# a veth pair whose far end sits in a namespace of its own:
#   1/0/1  dnsmasq, the real DHCP server (trusted in switch.toml)
#   1/0/2  a rogue dnsmasq whose replies come 3 s late (untrusted)
#   1/0/3  busybox udhcpc: takes a lease, releases it (untrusted)
#   1/0/4  ISC dhclient: takes a lease and keeps it (untrusted)
# tcpdump on the switch side of each veth records only the frames received
# from that port (-Q in), which is what dhcpsnoop-replay wants per port.
#
# Run as root: sudo examples/make-captures.sh [EXAMPLES_DIR]   (default: examples/)
# It writes basic/1_0_1.pcap .. basic/1_0_4.pcap (named after the port they
# were received on) and option82/1_0_1.pcap, 1_0_3.pcap: the real server and
# the udhcpc client alone, for the option 82 example.
# Only addresses of 198.18.0.0/15 (reserved for benchmarking) are used.
set -euo pipefail

here="$(cd "$(dirname "$0")" && pwd)"
out="${1:-$here}"
mkdir -p "$out"
out="$(cd "$out" && pwd)"

if [ "$(id -u)" -ne 0 ]; then
  echo "make-captures.sh: must run as root (network namespaces)" >&2
  exit 1
fi

"$here/../scripts/deps.sh" dnsmasq-base busybox isc-dhcp-client tcpdump iproute2 ethtool

tag="dsr$$"
sw="$tag-sw"
ns_of() { echo "$tag-p$1"; }
work="$(mktemp -d /tmp/dhcpsnoop-captures-XXXXXX)"
pids=()

cleanup() {
  set +e
  for p in "${pids[@]}"; do
    kill "$p" 2>/dev/null
  done
  for p in "${pids[@]}"; do
    wait "$p" 2>/dev/null
  done
  [ -f "$work/dhclient.pid" ] && kill "$(cat "$work/dhclient.pid")" 2>/dev/null
  for n in 1 2 3 4; do
    ip netns del "$(ns_of $n)" 2>/dev/null
  done
  ip netns del "$sw" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

# The clients' scripts only set the address: the RELEASE needs it, and
# nothing of the host (resolv.conf, routes) may be touched.
cat >"$work/udhcpc.sh" <<'EOF'
#!/bin/sh
case "$1" in
  deconfig) ip -4 addr flush dev "$interface" ;;
  bound|renew) ip -4 addr flush dev "$interface"; ip addr add "$ip/$mask" dev "$interface" ;;
esac
exit 0
EOF
cat >"$work/dhclient.sh" <<'EOF'
#!/bin/sh
case "$reason" in
  BOUND|RENEW|REBIND|REBOOT)
    ip -4 addr flush dev "$interface"
    ip addr add "$new_ip_address/$new_subnet_mask" dev "$interface" ;;
  EXPIRE|FAIL|RELEASE|STOP) ip -4 addr flush dev "$interface" ;;
esac
exit 0
EOF
chmod +x "$work/udhcpc.sh" "$work/dhclient.sh"
# An empty dhclient configuration: the host's name must not go on the wire.
: >"$work/dhclient.conf"

ip netns add "$sw"
ip -n "$sw" link add br0 type bridge stp_state 0
ip -n "$sw" link set br0 up
for n in 1 2 3 4; do
  ns="$(ns_of $n)"
  ip netns add "$ns"
  ip netns exec "$ns" sysctl -qw net.ipv6.conf.all.disable_ipv6=1
  ip link add "sw-p$n" netns "$sw" type veth peer name eth0 netns "$ns"
  # Fixed MACs keep the captures comparable from one recording to the next.
  ip -n "$ns" link set eth0 address "02:00:c6:12:00:0$n"
  ip netns exec "$sw" sysctl -qw "net.ipv6.conf.sw-p$n.disable_ipv6=1"
  ip -n "$sw" link set "sw-p$n" master br0 up
  ip -n "$ns" link set lo up
  ip -n "$ns" link set eth0 up
  # veth leaves UDP checksums to an offload that never happens: without
  # this the captures would hold checksums no real wire carries.
  ip netns exec "$ns" ethtool -K eth0 tx off >/dev/null
done
ip netns exec "$sw" sysctl -qw net.ipv6.conf.br0.disable_ipv6=1

ip -n "$(ns_of 1)" addr add 198.18.0.1/24 dev eth0
ip -n "$(ns_of 2)" addr add 198.18.1.1/24 dev eth0

for n in 1 2 3 4; do
  ip netns exec "$sw" tcpdump -q -n -U -Z root -Q in -i "sw-p$n" -w "$work/port$n.pcap" \
    2>"$work/tcpdump$n.log" &
  pids+=($!)
done
sleep 2

dnsmasq_common=(--no-daemon --port=0 --conf-file=/dev/null --interface=eth0 --bind-interfaces
  --dhcp-option=option:router --dhcp-option=option:dns-server)
ip netns exec "$(ns_of 1)" dnsmasq "${dnsmasq_common[@]}" --no-ping \
  --dhcp-range=198.18.0.100,198.18.0.150,255.255.255.0,1h \
  --dhcp-leasefile="$work/server.leases" --pid-file="$work/server.pid" 2>"$work/server.log" &
pids+=($!)
ip netns exec "$(ns_of 2)" dnsmasq "${dnsmasq_common[@]}" --no-ping --dhcp-reply-delay=3 \
  --dhcp-range=198.18.1.100,198.18.1.150,255.255.255.0,10m \
  --dhcp-leasefile="$work/rogue.leases" --pid-file="$work/rogue.pid" 2>"$work/rogue.log" &
pids+=($!)
sleep 1

# udhcpc: lease, a few seconds bound, RELEASE (SIGUSR2), then gone.
ip netns exec "$(ns_of 3)" busybox udhcpc -f -i eth0 -s "$work/udhcpc.sh" -t 5 -T 2 \
  >"$work/udhcpc.log" 2>&1 &
udhcpc=$!
pids+=($udhcpc)
sleep 1

# dhclient: lease and keep it (-1: one try; it stays as a daemon once bound).
ip netns exec "$(ns_of 4)" dhclient -1 -v -cf "$work/dhclient.conf" -sf "$work/dhclient.sh" -lf "$work/dhclient.leases" \
  -pf "$work/dhclient.pid" eth0 >"$work/dhclient.log" 2>&1

sleep 3
kill -USR2 "$udhcpc"
sleep 2
# Let the rogue's late replies arrive before the recording ends.
sleep 2

for p in "${pids[@]}"; do
  kill "$p" 2>/dev/null || true
done
for p in "${pids[@]}"; do
  wait "$p" 2>/dev/null || true
done
pids=()
[ -f "$work/dhclient.pid" ] && kill "$(cat "$work/dhclient.pid")" 2>/dev/null || true

mkdir -p "$out/basic" "$out/option82"
for n in 1 2 3 4; do
  cp "$work/port$n.pcap" "$out/basic/1_0_$n.pcap"
done
# The option 82 example: only the exchange of the udhcpc client (port 3).
cp "$work/port3.pcap" "$out/option82/1_0_3.pcap"
tcpdump -q -Z root -r "$work/port1.pcap" -w "$out/option82/1_0_1.pcap" ether host 02:00:c6:12:00:03 \
  2>/dev/null
echo "== server log"; cat "$work/server.log"
echo "== rogue log"; cat "$work/rogue.log"
echo "== captures in $out"
for f in "$out"/basic/*.pcap "$out"/option82/*.pcap; do
  tcpdump -n -e -r "$f" 2>/dev/null | sed "s|^|${f#"$out"/}: |"
done
