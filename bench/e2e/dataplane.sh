#!/usr/bin/env bash
# Ordinary traffic through the switch: iperf3 TCP (the interfaces' default
# offloads) and 64-byte UDP datagrams delivered per second between two
# clients, through
#   (a) a plain Linux bridge,
#   (b) the same bridge with dhcpsnoopd in bridge mode, ip_filter and
#       arp_defend on and about 1,000 bindings installed,
#   (c) dhcpsnoopd's user data plane, same configuration,
# side by side in one run, with (b) and (c) as ratios of (a). The three
# topologies are made once and stand side by side; the measurements are
# interleaved over several rounds (the order turned each round), and the
# medians and their ratios are reported, so that the machine's load moves
# all three alike.
#
#   sudo bench/e2e/dataplane.sh [--daemon DHCPSNOOPD [--ctl DHCPSNOOPCTL]] [--seconds N] [--rounds N]
#     [--perf]
#
# --perf records the kernel (perf record -a -g) during one extra TCP and
# UDP measurement of (a) and (b) each and prints the top symbols.
#
# Without --daemon it builds an optimised dhcpsnoopd in build/bench-live.
# Namespaces: "sw" holds the switch side of four veth pairs: 1/0/1 the DHCP
# server (trusted), 1/0/2 and 1/0/3 the two clients (untrusted; they take
# their addresses by DHCP, so the daemon binds them), 1/0/4 many clients
# of bind_many.py (untrusted), which make the other bindings; one such set
# of namespaces per switch. Addresses of 198.18.0.0/15 (each set is a
# world of its own).
set -euo pipefail

here="$(cd "$(dirname "$0")" && pwd)"
top="$(cd "$here/../.." && pwd)"
daemon="" ctl="" seconds=5 rounds=5 bindings=1000 perf=0
while [ $# -gt 0 ]; do
  case "$1" in
    --daemon) daemon="$2"; shift 2 ;;
    --ctl) ctl="$2"; shift 2 ;;
    --seconds) seconds="$2"; shift 2 ;;
    --rounds) rounds="$2"; shift 2 ;;
    --perf) perf=1; shift ;;
    -h|--help) sed -n '2,27p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "dataplane.sh: unknown argument $1" >&2; exit 2 ;;
  esac
done
if [ "$(id -u)" -ne 0 ]; then
  echo "dataplane.sh: must run as root (network namespaces)" >&2
  exit 1
fi

"$top/scripts/deps.sh" dnsmasq-base iproute2 ethtool iperf3 busybox python3

if [ -z "$daemon" ]; then
  "$top/scripts/deps.sh" cmake ninja-build g++ libtomlplusplus-dev libcli11-dev libpcap-dev \
    libnftables-dev libmnl-dev pkg-config
  echo "== configuring a Release build (build/bench-live)"
  cmake -G Ninja -S "$top" -B "$top/build/bench-live" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG" -DDHCPSNOOP_TESTS=OFF >/dev/null
  echo "== building dhcpsnoopd and dhcpsnoopctl"
  ninja -C "$top/build/bench-live" -j 2 dhcpsnoopd dhcpsnoopctl >/dev/null
  daemon="$(find "$top/build/bench-live" -type f -name dhcpsnoopd -perm -u+x | head -n 1)"
fi
if [ -z "$ctl" ]; then
  for c in "$(dirname "$daemon")/dhcpsnoopctl" "$(dirname "$daemon")/../ctl/dhcpsnoopctl"; do
    [ -x "$c" ] && { ctl="$c"; break; }
  done
fi
[ -x "$daemon" ] && [ -x "$ctl" ] || { echo "dataplane.sh: no dhcpsnoopd/dhcpsnoopctl" >&2; exit 1; }

tag="dsd$$"
work="$(mktemp -d /tmp/dhcpsnoop-dataplane-XXXXXX)"
chmod 755 "$work"
pids=()
all_ns=()
switches=(plain bridge user)

stop_all() {
  local p n
  for p in "${pids[@]}"; do kill -TERM "$p" 2>/dev/null || true; done
  for p in "${pids[@]}"; do timeout 15 tail --pid="$p" -f /dev/null 2>/dev/null || kill -KILL "$p" 2>/dev/null || true; done
  pids=()
  for n in "${all_ns[@]}"; do
    for p in $(ip netns pids "$n" 2>/dev/null); do kill -KILL "$p" 2>/dev/null || true; done
    ip netns del "$n" 2>/dev/null || true
  done
}
cleanup() { set +e; stop_all; rm -rf "$work"; }
trap cleanup EXIT
trap 'exit 1' INT TERM

cat >"$work/udhcpc.sh" <<'EOF'
#!/bin/sh
case "$1" in
  bound|renew) ip -4 addr flush dev "$interface"; ip addr add "$ip/${mask:-24}" dev "$interface" ;;
esac
exit 0
EOF
chmod +x "$work/udhcpc.sh"

# The namespace of ROLE (sw, srv, c1, c2, perf) in the set of SWITCH.
ns_of() { echo "$tag-$1-$2"; }
client_ip() { ip -n "$1" -4 -o addr show dev eth0 | awk '$3 == "inet" {split($4, a, "/"); print a[1]; exit}'; }
ctl_of() { "$ctl" --control "$work/$1/ctl.sock" "${@:2}"; }
binding_count() { ctl_of "$1" bindings --json | grep -o '"mac"' | wc -l; }

# topology SWITCH: plain, bridge or user, in namespaces of its own.
topology() {
  local sw=$1 n ns roles=(srv c1 c2 perf)
  local ns_sw ns_srv
  ns_sw=$(ns_of "$sw" sw) ns_srv=$(ns_of "$sw" srv)
  mkdir -p "$work/$sw"
  ip netns add "$ns_sw"
  all_ns+=("$ns_sw")
  ip netns exec "$ns_sw" sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
  for n in 1 2 3 4; do
    ns=$(ns_of "$sw" "${roles[$((n - 1))]}")
    ip netns add "$ns"
    all_ns+=("$ns")
    ip netns exec "$ns" sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
    ip link add "sw$n" netns "$ns_sw" type veth peer name eth0 netns "$ns"
    ip -n "$ns" link set eth0 address "02:00:c6:12:02:0$n"
    ip -n "$ns" link set lo up
    ip -n "$ns" link set eth0 up
    ip -n "$ns_sw" link set "sw$n" up
  done
  ip -n "$ns_srv" addr add 198.18.0.1/15 dev eth0
  if [ "$sw" != user ]; then
    ip -n "$ns_sw" link add br0 type bridge stp_state 0
    for n in 1 2 3 4; do ip -n "$ns_sw" link set "sw$n" master br0; done
    ip -n "$ns_sw" link set br0 up
  fi
  if [ "$sw" != plain ]; then
    cat >"$work/$sw/switch.toml" <<EOF
[switch]
dataplane = "$sw"
unit = 1
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

[[port]]
name = "1/0/3"
vlan = 10
interface = "sw3"

[[port]]
name = "1/0/4"
vlan = 10
interface = "sw4"
EOF
    mkdir -p "$work/$sw/data"
    ip netns exec "$ns_sw" "$daemon" --config "$work/$sw/switch.toml" --data-dir "$work/$sw/data" \
      --control "$work/$sw/ctl.sock" >"$work/daemon-$sw.log" 2>&1 &
    local daemon_pid=$!
    pids+=("$daemon_pid")
    local deadline=$((SECONDS + 20))
    until grep -qs 'dhcpsnoopd: ready' "$work/daemon-$sw.log"; do
      if ! kill -0 "$daemon_pid" 2>/dev/null || [ $SECONDS -ge $deadline ]; then
        echo "dataplane.sh: dhcpsnoopd did not start:" >&2; cat "$work/daemon-$sw.log" >&2; exit 1
      fi
      sleep 0.2
    done
  fi
  ip netns exec "$ns_srv" dnsmasq --no-daemon --port=0 --conf-file=/dev/null --interface=eth0 \
    --bind-interfaces --no-ping --leasefile-ro --dhcp-lease-max=1000000 \
    --dhcp-range=198.18.1.0,198.19.255.254,255.254.0.0,1h \
    --dhcp-option=option:router --dhcp-option=option:dns-server 2>"$work/server-$sw.log" &
  pids+=($!)
  local deadline=$((SECONDS + 10))
  until grep -qs 'DHCP, IP range' "$work/server-$sw.log"; do
    [ $SECONDS -lt $deadline ] || { echo "dataplane.sh: dnsmasq did not start" >&2; exit 1; }
    sleep 0.2
  done
  for ns in "$(ns_of "$sw" c1)" "$(ns_of "$sw" c2)"; do
    ip netns exec "$ns" timeout 30 busybox udhcpc -q -n -f -i eth0 -s "$work/udhcpc.sh" -t 10 -T 1 \
      >>"$work/udhcpc-$sw.log" 2>&1 || { echo "dataplane.sh: a client got no lease ($sw)" >&2; exit 1; }
  done
  if [ "$sw" != plain ]; then
    # The other bindings: as many clients behind 1/0/4, each with a MAC of
    # its own (perfdhcp speaks as a relay, which an untrusted port does not
    # bind).
    ip netns exec "$(ns_of "$sw" perf)" timeout 90 python3 "$here/bind_many.py" eth0 "$bindings" \
      >"$work/bind_many-$sw.txt" 2>&1 || true
    sleep 1
    fig[$sw.bindings]=$(binding_count "$sw")
  fi
  ip1[$sw]=$(client_ip "$(ns_of "$sw" c1)")
  ip2[$sw]=$(client_ip "$(ns_of "$sw" c2)")
  ip netns exec "$(ns_of "$sw" c2)" iperf3 -s -B "${ip2[$sw]}" >"$work/iperf3-s-$sw.log" 2>&1 &
  pids+=($!)
}

# iperf3 from client 1 to client 2 of SWITCH with the given options; the
# JSON document on standard output.
iperf() {
  local sw=$1; shift
  ip netns exec "$(ns_of "$sw" c1)" timeout $((seconds + 20)) iperf3 -c "${ip2[$sw]}" -t "$seconds" -J "$@" 2>&1 || true
}
tcp_gbps() {
  iperf "$1" | python3 -c 'import json,sys
try:
    print("%.2f" % (json.load(sys.stdin)["end"]["sum_received"]["bits_per_second"] / 1e9))
except Exception:
    print("0")'
}
udp_pps() {
  iperf "$1" -u -b 0 -l 64 | python3 -c 'import json,sys
try:
    s = json.load(sys.stdin)["end"]["sum"]
    print("%d" % ((s["packets"] - s["lost_packets"]) / s["seconds"]))
except Exception:
    print("0")'
}

declare -A fig ip1 ip2
for sw in "${switches[@]}"; do
  echo "== $sw: topology"
  topology "$sw"
  [ "$sw" = plain ] || echo "   $sw: ${fig[$sw.bindings]} bindings"
done
sleep 1

# Round r starts with switch r mod 3: each is measured first, second and
# third alike.
for ((r = 0; r < rounds; r++)); do
  order=()
  for i in 0 1 2; do order+=("${switches[$(((r + i) % 3))]}"); done
  for sw in "${order[@]}"; do fig[$sw.tcp.$r]=$(tcp_gbps "$sw"); done
  for sw in "${order[@]}"; do fig[$sw.pps.$r]=$(udp_pps "$sw"); done
  printf 'round %d (%s): TCP Gbit/s a %s b %s c %s; UDP pkt/s a %s b %s c %s\n' $((r + 1)) "${order[*]}" \
    "${fig[plain.tcp.$r]}" "${fig[bridge.tcp.$r]}" "${fig[user.tcp.$r]}" \
    "${fig[plain.pps.$r]}" "${fig[bridge.pps.$r]}" "${fig[user.pps.$r]}"
done

values() { local sw=$1 what=$2 r out=""; for ((r = 0; r < rounds; r++)); do out+="${fig[$sw.$what.$r]} "; done; echo "$out"; }
median() { python3 -c 'import statistics,sys; print(statistics.median(float(x) for x in sys.argv[1:]))' $1; }
# Ratios round by round (each against (a) of its own round): their median.
round_ratios() {
  local r out=""
  for ((r = 0; r < rounds; r++)); do
    out+="$(awk -v a="${fig[plain.$2.$r]}" -v b="${fig[$1.$2.$r]}" 'BEGIN { if (a + 0 > 0) printf "%.2f", b / a; else print 0 }') "
  done
  echo "$out"
}
for sw in "${switches[@]}"; do
  for what in tcp pps; do fig[$sw.$what]=$(median "$(values "$sw" $what)"); done
done
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (a + 0 > 0) printf "%.2f", b / a; else print "-" }'; }
echo
echo "== Ordinary traffic between two clients: plain bridge (a), dhcpsnoopd bridge mode (b), user data plane (c)"
echo "   medians of $rounds interleaved rounds of $seconds s each"
printf '%-34s %12s %12s %12s %8s %8s\n' "" "(a) plain" "(b) bridge" "(c) user" "(b)/(a)" "(c)/(a)"
printf '%-34s %12.2f %12.2f %12.2f %8s %8s\n' "TCP, default offloads (Gbit/s)" "${fig[plain.tcp]}" "${fig[bridge.tcp]}" \
  "${fig[user.tcp]}" "$(ratio "${fig[plain.tcp]}" "${fig[bridge.tcp]}")" "$(ratio "${fig[plain.tcp]}" "${fig[user.tcp]}")"
printf '%-34s %12.0f %12.0f %12.0f %8s %8s\n' "UDP 64-byte delivered (pkt/s)" "${fig[plain.pps]}" "${fig[bridge.pps]}" \
  "${fig[user.pps]}" "$(ratio "${fig[plain.pps]}" "${fig[bridge.pps]}")" "$(ratio "${fig[plain.pps]}" "${fig[user.pps]}")"
echo "ratios round by round: TCP (b)/(a) $(round_ratios bridge tcp)(median $(median "$(round_ratios bridge tcp)")), (c)/(a) $(round_ratios user tcp)"
echo "                       UDP (b)/(a) $(round_ratios bridge pps)(median $(median "$(round_ratios bridge pps)")), (c)/(a) $(round_ratios user pps)"
echo "bindings installed: bridge mode ${fig[bridge.bindings]}, user data plane ${fig[user.bindings]}"

if [ "$perf" = 1 ]; then
  if ! command -v perf >/dev/null; then
    echo "== --perf: no perf program"
  else
    for sw in plain bridge; do
      for what in tcp udp; do
        echo "== perf: $what through $sw (kernel, all processors, the top symbols)"
        if [ $what = tcp ]; then
          perf record -q -a -o "$work/perf-$sw-$what.data" -- \
            ip netns exec "$(ns_of "$sw" c1)" iperf3 -c "${ip2[$sw]}" -t "$seconds" >/dev/null 2>&1 || true
        else
          perf record -q -a -o "$work/perf-$sw-$what.data" -- \
            ip netns exec "$(ns_of "$sw" c1)" iperf3 -c "${ip2[$sw]}" -t "$seconds" -u -b 0 -l 64 >/dev/null 2>&1 || true
        fi
        perf report -q -i "$work/perf-$sw-$what.data" --no-children --sort sym \
          --comm iperf3,ksoftirqd/0,ksoftirqd/1,swapper >"$work/perf-$sw-$what.txt" 2>/dev/null || true
        grep '%' "$work/perf-$sw-$what.txt" | head -n 15 || true
        # The bridge data plane's own share: its table and the log of
        # trapped frames, and any AF_PACKET tap with its filter (the hook
        # runner and socket filters run through a plain bridge too).
        echo "   of which nftables, nfnetlink_log, AF_PACKET taps and their filters:"
        grep -E 'nft_|nf_tables|nfulnl|packet_rcv|run_filter|bpf_prog|sk_filter|nf_hook_slow' "$work/perf-$sw-$what.txt" | head -n 12 || true
        awk '/nft_|nf_tables|nfulnl|packet_rcv|run_filter|bpf_prog|sk_filter|nf_hook_slow/ {sub("%", "", $1); t += $1}
          END {printf "   together %.2f %% of the samples\n", t}' "$work/perf-$sw-$what.txt"
      done
    done
  fi
fi
echo "== dhcpsnoopctl counters, bridge mode"
ctl_of bridge counters 2>&1 || true
