#!/usr/bin/env bash
# What the bridge data plane's nftables rules cost a frame, alone: 60-byte
# IPv4 frames sent as fast as one thread can (bench/e2e/flood.cpp, an
# AF_PACKET socket) through a veth pair into a Linux bridge and out to a
# second namespace, whose interface drops them at once (they are addressed
# to another MAC). The sender's processor pays for the whole way across the
# bridge, so frames a second delivered are the bridge's speed, measured with
#   none     no table
#   hook     an empty base chain at bridge prerouting (the hook alone)
#   daemon   the first rule of dhcpsnoopd's table (platform/linux/nft_rules.cpp)
#            with --bindings elements in its set, the sender's among them
#   lookup   one look-up of the source address in a set of as many IPv4 addresses
#   compare  one comparison of the source address with a constant
# interleaved over --rounds rounds (the order turned each round). Prints the
# medians and what each adds to a frame, in nanoseconds, over "none".
#
#   sudo bench/e2e/nftcost.sh [--seconds 3] [--rounds 7] [--bindings 1000]
set -euo pipefail

here="$(cd "$(dirname "$0")" && pwd)"
top="$(cd "$here/../.." && pwd)"
seconds=3 rounds=7 bindings=1000
while [ $# -gt 0 ]; do
  case "$1" in
    --seconds) seconds="$2"; shift 2 ;;
    --rounds) rounds="$2"; shift 2 ;;
    --bindings) bindings="$2"; shift 2 ;;
    -h|--help) sed -n '2,19p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "nftcost.sh: unknown argument $1" >&2; exit 2 ;;
  esac
done
if [ "$(id -u)" -ne 0 ]; then
  echo "nftcost.sh: must run as root (network namespaces)" >&2
  exit 1
fi
"$top/scripts/deps.sh" iproute2 nftables g++ python3

work="$(mktemp -d /tmp/dhcpsnoop-nftcost-XXXXXX)"
tag="nc$$"
a="${tag}a" b="${tag}b" br="${tag}br"
cleanup() {
  for n in "$a" "$b" "$br"; do ip netns del "$n" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT

g++ -std=c++17 -O2 -o "$work/flood" "$here/flood.cpp"

mac_a=02:00:5e:00:00:01 mac_b=02:00:5e:00:00:02 mac_far=02:00:5e:00:00:99
for n in "$a" "$b" "$br"; do ip netns add "$n"; done
ip link add p1 netns "$a" type veth peer name sw1 netns "$br"
ip link add p2 netns "$b" type veth peer name sw2 netns "$br"
ip -n "$br" link add br0 type bridge stp_state 0
for l in sw1 sw2; do ip -n "$br" link set "$l" master br0 up; done
ip -n "$br" link set br0 up
ip -n "$a" link set p1 address "$mac_a" up
ip -n "$b" link set p2 address "$mac_b" up
ip -n "$a" addr add 198.18.0.1/24 dev p1
ip -n "$b" addr add 198.18.0.2/24 dev p2

# The tables, by name.
python3 - "$work" "$bindings" "$mac_a" <<'PY'
import sys
work, n, mac = sys.argv[1], int(sys.argv[2]), sys.argv[3]
rows = [("sw1", mac, "198.18.0.1")]
for i in range(n - 1):
    rows.append(("sw2", "02:00:5e:01:%02x:%02x" % (i >> 8 & 255, i & 255), "198.19.%d.%d" % (i >> 8 & 255, i & 255)))
bound = ",\n\t\t\t".join('"%s" . %s . %s' % r for r in rows)
addrs = ",\n\t\t\t".join(r[2] for r in rows)
head = "table bridge nftcost {}\ndelete table bridge nftcost\ntable bridge nftcost {\n"
chain = "\tchain prerouting {\n\t\ttype filter hook prerouting priority -300; policy accept;\n%s\t}\n"
tables = {
    "hook": head + chain % "" + "}\n",
    "daemon": head + "\tset bound {\n\t\ttype iface_index . ether_addr . ipv4_addr\n\t\telements = { %s }\n\t}\n" % bound
    + chain % "\t\tmeta protocol ip iif . ether saddr . ip saddr @bound th dport != 67-68 accept\n" + "}\n",
    "lookup": head + "\tset addrs {\n\t\ttype ipv4_addr\n\t\telements = { %s }\n\t}\n" % addrs
    + chain % "\t\tmeta protocol ip ip saddr @addrs accept\n" + "}\n",
    "compare": head + chain % "\t\tmeta protocol ip ip saddr 198.18.0.1 accept\n" + "}\n",
}
for name, text in tables.items():
    open("%s/%s.nft" % (work, name), "w").write(text)
PY

variants=(none hook daemon lookup compare)
declare -A pps
rx() { ip netns exec "$b" cat /sys/class/net/p2/statistics/rx_packets; }
for ((r = 0; r < rounds; r++)); do
  order=("${variants[@]:r % ${#variants[@]}}" "${variants[@]:0:r % ${#variants[@]}}")
  line="round $((r + 1)):"
  for v in "${order[@]}"; do
    ip netns exec "$br" nft delete table bridge nftcost 2>/dev/null || true
    [ "$v" = none ] || ip netns exec "$br" nft -f "$work/$v.nft"
    # The bridge learns the far MAC behind sw2 (again: it ages out).
    ip netns exec "$b" "$work/flood" p2 "$mac_far" "$mac_a" 198.18.0.2 198.18.0.1 0 >/dev/null
    before=$(rx)
    out=$(ip netns exec "$a" "$work/flood" p1 "$mac_a" "$mac_far" 198.18.0.1 198.18.0.2 "$seconds")
    after=$(rx)
    took=$(echo "$out" | awk '{print $2}')
    pps[$v.$r]=$(awk -v a="$before" -v b="$after" -v t="$took" 'BEGIN { printf "%.0f", (b - a) / t }')
    line="$line $v ${pps[$v.$r]}"
  done
  echo "$line"
done

median() { tr ' ' '\n' | grep . | sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
echo
echo "== 60-byte frames across a bridge, delivered a second (medians of $rounds rounds of ${seconds} s)"
printf '%-10s %12s %10s %16s\n' variant frames/s "vs none" "ns a frame more"
base=$(for ((r = 0; r < rounds; r++)); do echo -n "${pps[none.$r]} "; done | median)
for v in "${variants[@]}"; do
  m=$(for ((r = 0; r < rounds; r++)); do echo -n "${pps[$v.$r]} "; done | median)
  awk -v v="$v" -v m="$m" -v b="$base" 'BEGIN { printf "%-10s %12.0f %10.3f %16.0f\n", v, m, m / b, 1e9 / m - 1e9 / b }'
done
