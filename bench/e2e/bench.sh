#!/usr/bin/env bash
# DHCP exchanges per second and latency through dhcpsnoopd against a Linux
# kernel bridge, the same dnsmasq server and Kea's perfdhcp on both.
#
#   sudo bench/e2e/bench.sh [--daemon DHCPSNOOPD [--ctl DHCPSNOOPCTL]] [--bridge-only]
#                           [--seconds N] [--clients N] [--rounds N]
#
# Without --daemon it builds an optimised dhcpsnoopd in build/bench-live when the
# source tree has one; without one (or with --bridge-only) it measures the
# bridge alone. Namespaces: "sw" holds the switch side of four veth pairs
# (ports 1/0/1..1/0/4, sw1..sw4), the server sits behind 1/0/1, perfdhcp
# behind 1/0/3; 1/0/2 and 1/0/4 are idle. Addresses of 198.18.0.0/15 only.
#
# perfdhcp speaks as a relay agent (from port 67, giaddr set), so its port is
# a trusted one, as a relay's uplink would be; no rate limits, no option 82.
# The simulated clients (--clients) stay below the module's 1024 binding
# elements, so that every client can hold a binding and a pending request.
# Two runs per switch: as fast as perfdhcp can (throughput), then 50
# exchanges a second (latency of a switch that is not loaded). The daemon's
# resident memory (VmRSS) is read before and after the load. --rounds N
# (default 3) measures bridge and daemon in turn N times and reports the
# medians, so that a change of the machine's load hits both columns alike.
set -euo pipefail

here="$(cd "$(dirname "$0")" && pwd)"
top="$(cd "$here/../.." && pwd)"
daemon="" ctl="" bridge_only=0 seconds=10 clients=500 rounds=3
while [ $# -gt 0 ]; do
  case "$1" in
    --daemon) daemon="$2"; shift 2 ;;
    --ctl) ctl="$2"; shift 2 ;;
    --bridge-only) bridge_only=1; shift ;;
    --seconds) seconds="$2"; shift 2 ;;
    --clients) clients="$2"; shift 2 ;;
    --rounds) rounds="$2"; shift 2 ;;
    -h|--help) sed -n '2,21p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "bench.sh: unknown argument $1" >&2; exit 2 ;;
  esac
done
if [ "$(id -u)" -ne 0 ]; then
  echo "bench.sh: must run as root (network namespaces)" >&2
  exit 1
fi

"$top/scripts/deps.sh" kea-admin dnsmasq-base iproute2 ethtool
command -v perfdhcp >/dev/null || export PATH="$PATH:/usr/sbin"

if [ $bridge_only -eq 0 ] && [ -z "$daemon" ] && [ -d "$top/tools/daemon" ]; then
  "$top/scripts/deps.sh" cmake ninja-build g++ libtomlplusplus-dev libcli11-dev libpcap-dev
  echo "== configuring a Release build (build/bench-live)"
  # Optimised as the benchmarks of scripts/test.sh are.
  cmake -G Ninja -S "$top" -B "$top/build/bench-live" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG" -DDHCPSNOOP_TESTS=OFF >/dev/null
  # The daemon is a target only where the live platform builds.
  if ninja -C "$top/build/bench-live" -t targets all | grep -q '^dhcpsnoopd:'; then
    echo "== building dhcpsnoopd and dhcpsnoopctl"
    ninja -C "$top/build/bench-live" -j 2 dhcpsnoopd dhcpsnoopctl >/dev/null
    daemon="$(find "$top/build/bench-live" -type f -name dhcpsnoopd -perm -u+x | head -n 1)"
  fi
fi
if [ $bridge_only -eq 0 ] && [ -z "$daemon" ]; then
  echo "== no dhcpsnoopd in this source tree: measuring the bridge alone"
fi
[ $bridge_only -eq 1 ] && daemon=""
if [ -n "$daemon" ] && [ -z "$ctl" ]; then
  for c in "$(dirname "$daemon")/dhcpsnoopctl" "$(dirname "$daemon")/../ctl/dhcpsnoopctl"; do
    [ -x "$c" ] && { ctl="$c"; break; }
  done
fi

tag="dsb$$"
ns_sw="$tag-sw" ns_srv="$tag-srv" ns_perf="$tag-perf" ns_i2="$tag-i2" ns_i4="$tag-i4"
all_ns=("$ns_srv" "$ns_perf" "$ns_i2" "$ns_i4" "$ns_sw")
work="$(mktemp -d /tmp/dhcpsnoop-bench-XXXXXX)"
pids=()

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

# topology MODE: the namespaces, the switch (bridge or daemon), the server.
topology() {
  local mode=$1 n ns nss=("$ns_srv" "$ns_i2" "$ns_perf" "$ns_i4")
  ip netns add "$ns_sw"
  ip netns exec "$ns_sw" sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
  for n in 1 2 3 4; do
    ns=${nss[$((n - 1))]}
    ip netns add "$ns"
    ip netns exec "$ns" sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
    ip link add "sw$n" netns "$ns_sw" type veth peer name eth0 netns "$ns"
    ip -n "$ns" link set eth0 address "02:00:c6:12:01:0$n"
    ip -n "$ns" link set lo up
    ip -n "$ns" link set eth0 up
    ip -n "$ns_sw" link set "sw$n" up
    ip netns exec "$ns" ethtool -K eth0 tx off >/dev/null
    ip netns exec "$ns_sw" ethtool -K "sw$n" tx off >/dev/null
  done
  ip -n "$ns_srv" addr add 198.18.0.1/15 dev eth0
  ip -n "$ns_perf" addr add 198.18.0.2/15 dev eth0

  # The daemon runs on the same bridge (its default data plane): it traps
  # DHCP, the kernel switches the rest.
  ip -n "$ns_sw" link add br0 type bridge stp_state 0
  for n in 1 2 3 4; do ip -n "$ns_sw" link set "sw$n" master br0; done
  ip -n "$ns_sw" link set br0 up
  if [ "$mode" != bridge ]; then
    cat >"$work/switch.toml" <<'EOF'
[switch]
dataplane = "bridge"
bridge = "br0"
unit = 1
mac = "02:00:c6:12:ff:01"
snooping_vlans = [10]
table_updates = true
ip_filter = true
arp_defend = false

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
trust = true
interface = "sw3"

[[port]]
name = "1/0/4"
vlan = 10
interface = "sw4"
EOF
    mkdir -p "$work/data"
    : >"$work/daemon.log"
    ip netns exec "$ns_sw" "$daemon" --config "$work/switch.toml" --data-dir "$work/data" \
      --control "$work/ctl.sock" >"$work/daemon.log" 2>&1 &
    daemon_pid=$!
    pids+=("$daemon_pid")
    local deadline=$((SECONDS + 20))
    until grep -q 'dhcpsnoopd: ready' "$work/daemon.log"; do
      if ! kill -0 "$daemon_pid" 2>/dev/null || [ $SECONDS -ge $deadline ]; then
        echo "bench.sh: dhcpsnoopd did not start:" >&2; cat "$work/daemon.log" >&2; exit 1
      fi
      sleep 0.2
    done
  fi

  # A pool for every simulated client; the lease file is not written, so
  # the server's disk is not what is measured.
  ip netns exec "$ns_srv" dnsmasq --no-daemon --port=0 --conf-file=/dev/null --interface=eth0 \
    --bind-interfaces --no-ping --leasefile-ro --dhcp-lease-max=1000000 \
    --dhcp-range=198.18.1.0,198.19.255.254,255.254.0.0,1h \
    --dhcp-option=option:router --dhcp-option=option:dns-server 2>"$work/server.log" &
  pids+=($!)
  local deadline=$((SECONDS + 10))
  until grep -qs 'DHCP, IP range' "$work/server.log"; do
    [ $SECONDS -lt $deadline ] || { echo "bench.sh: dnsmasq did not start" >&2; cat "$work/server.log" >&2; exit 1; }
    sleep 0.2
  done
}

# The daemon's own trap-to-transmit histogram (dhcpsnoopctl latency).
latency() { [ -n "$ctl" ] && "$ctl" --control "$work/ctl.sock" latency "$@" 2>&1 || echo "(no dhcpsnoopctl latency)"; }

vmrss() { awk '/^VmRSS:/ {print $2}' "/proc/$1/status" 2>/dev/null || echo 0; }

# perfdhcp RUN ARGS...: its report in $work/RUN.txt.
perf() {
  local run=$1; shift
  ip netns exec "$ns_perf" timeout $((seconds + 30)) perfdhcp -4 -l eth0 -R "$clients" -p "$seconds" "$@" \
    198.18.0.1 >"$work/$run.txt" 2>&1 || true
}

# Figures of a perfdhcp report: rate, sent, received, drops and delays (ms).
declare -A fig
# field FILE SECTION LABEL: the number after LABEL in SECTION of a perfdhcp
# report ("" when the section has none, e.g. "n/a" without answers).
field() {
  awk -v sec="$2" -v lab="$3" '
    index($0, sec) { s = 1 }
    s && index($0, lab) == 1 {
      v = substr($0, length(lab) + 1); sub(/^[ \t]+/, "", v); split(v, a, /[ \t]/)
      if (a[1] ~ /^[0-9.]+$/) print a[1]
      exit
    }' "$1"
}
parse() {
  local key=$1 file=$2
  fig[$key.rate]=$(awk '/^Rate:/ {print $2; exit}' "$file")
  fig[$key.sent]=$(field "$file" DISCOVER-OFFER "sent packets:")
  fig[$key.drops]=$(field "$file" REQUEST-ACK "drops:")
  fig[$key.do_avg]=$(field "$file" DISCOVER-OFFER "avg delay:")
  fig[$key.ra_avg]=$(field "$file" REQUEST-ACK "avg delay:")
  fig[$key.ra_min]=$(field "$file" REQUEST-ACK "min delay:")
  fig[$key.ra_max]=$(field "$file" REQUEST-ACK "max delay:")
  fig[$key.ra_std]=$(field "$file" REQUEST-ACK "std deviation:")
}

# latency_fields FILE KEY: p50, p99 and max (us) of a dhcpsnoopctl latency line.
latency_fields() {
  local line; line=$(cat "$1" 2>/dev/null || true)
  fig[$2.p50]=$(sed -n 's/.* p50 \([0-9.]*\) us.*/\1/p' <<<"$line")
  fig[$2.p99]=$(sed -n 's/.* p99 \([0-9.]*\) us.*/\1/p' <<<"$line")
  fig[$2.pmax]=$(sed -n 's/.* max \([0-9.]*\) us.*/\1/p' <<<"$line")
}

# measure MODE ROUND: the figures under MODE.max.ROUND and MODE.lat.ROUND.
measure() {
  local mode=$1 r=$2
  echo "== round $r, $mode: topology"
  topology "$mode"
  [ "$mode" = daemon ] && fig[daemon.rss0.$r]=$(vmrss "$daemon_pid")
  [ "$mode" = daemon ] && latency --clear >/dev/null
  echo "== round $r, $mode: perfdhcp, $clients clients, $seconds s as fast as it can"
  perf "$mode-max-$r"
  [ "$mode" = daemon ] && fig[daemon.rss1.$r]=$(vmrss "$daemon_pid")
  [ "$mode" = daemon ] && latency --clear >"$work/latency-max-$r.txt"
  echo "== round $r, $mode: perfdhcp, 50 exchanges a second, $seconds s"
  perf "$mode-lat-$r" -r 50
  if [ "$mode" = daemon ]; then
    fig[daemon.rss2.$r]=$(vmrss "$daemon_pid")
    latency >"$work/latency-lat-$r.txt"
    latency_fields "$work/latency-max-$r.txt" "daemon.hmax.$r"
    latency_fields "$work/latency-lat-$r.txt" "daemon.hlat.$r"
    if [ -n "$ctl" ]; then
      "$ctl" --control "$work/ctl.sock" counters >"$work/counters-$r.txt" 2>&1 || true
    else
      echo "(no dhcpsnoopctl found: pass --ctl)" >"$work/counters-$r.txt"
    fi
    # Frames the daemon could not queue, all ports.
    fig[daemon.qfull.$r]=$(awk -F': ' '/dropped: .*queue full/ { n += $NF } END { print n + 0 }' "$work/counters-$r.txt")
  fi
  parse "$mode.max.$r" "$work/$mode-max-$r.txt"
  parse "$mode.lat.$r" "$work/$mode-lat-$r.txt"
  if [ -z "${fig[$mode.max.$r.rate]}" ]; then
    echo "bench.sh: perfdhcp gave no figures ($mode):" >&2; cat "$work/$mode-max-$r.txt" >&2; exit 1
  fi
  stop_all
}

# median KEY FIELD: the median over the rounds of KEY.ROUND.FIELD into KEY.FIELD.
median() {
  local key=$1 field=$2 r vals=()
  for ((r = 1; r <= rounds; r++)); do
    [ -n "${fig[$key.$r.$field]:-}" ] && vals+=("${fig[$key.$r.$field]}")
  done
  [ ${#vals[@]} -gt 0 ] || return 0
  fig[$key.$field]=$(printf '%s\n' "${vals[@]}" | sort -g | awk '{ v[NR] = $1 } END { if (NR % 2) print v[(NR + 1) / 2]; else printf "%.6g\n", (v[NR / 2] + v[NR / 2 + 1]) / 2 }')
}

for ((round = 1; round <= rounds; round++)); do
  measure bridge "$round"
  [ -n "$daemon" ] && measure daemon "$round"
done
for m in bridge daemon; do
  for k in max lat; do
    for f in rate sent drops do_avg ra_avg ra_min ra_max ra_std; do median "$m.$k" "$f"; done
  done
done
for f in p50 p99 pmax; do median daemon.hmax "$f"; median daemon.hlat "$f"; done
# Per round: the ratios of that round (bridge and daemon measured in turn).
per_round() {
  local r
  for ((r = 1; r <= rounds; r++)); do
    printf '  round %d: exchanges/s bridge %s, daemon %s (%s); REQUEST-ACK avg at 50/s bridge %s ms, daemon %s ms (+%s ms)\n' "$r" \
      "${fig[bridge.max.$r.rate]:--}" "${fig[daemon.max.$r.rate]:--}" \
      "$(awk -v b="${fig[bridge.max.$r.rate]:-0}" -v d="${fig[daemon.max.$r.rate]:-0}" 'BEGIN { if (b > 0) printf "%.2fx", d / b; else print "-" }')" \
      "${fig[bridge.lat.$r.ra_avg]:--}" "${fig[daemon.lat.$r.ra_avg]:--}" \
      "$(awk -v b="${fig[bridge.lat.$r.ra_avg]:-0}" -v d="${fig[daemon.lat.$r.ra_avg]:-0}" 'BEGIN { printf "%.3f", d - b }')"
  done
}

# row LABEL KEY: bridge value, daemon value, daemon / bridge.
row() {
  local b="${fig[bridge.$2]:-}" d="${fig[daemon.$2]:-}" r="-"
  if [ -n "$b" ] && [ -n "$d" ]; then
    r=$(awk -v b="$b" -v d="$d" 'BEGIN { if (b + 0 > 0) printf "%.2f", d / b; else print "-" }')
  fi
  printf '%-44s %14s %14s %8s\n' "$1" "${b:--}" "${d:--}" "$r"
}
echo
echo "== DHCP through a kernel bridge and through dhcpsnoopd (same server, same load; medians of $rounds rounds)"
printf '%-44s %14s %14s %8s\n' "" "bridge" "dhcpsnoopd" "ratio"
row "4-way exchanges/s (as fast as possible)" max.rate
row "  DISCOVERs sent" max.sent
row "  REQUESTs unanswered" max.drops
row "  DISCOVER-OFFER avg delay (ms)" max.do_avg
row "  REQUEST-ACK avg delay (ms)" max.ra_avg
row "4-way exchanges/s (50/s offered)" lat.rate
row "  DISCOVER-OFFER avg delay (ms)" lat.do_avg
row "  REQUEST-ACK avg delay (ms)" lat.ra_avg
row "  REQUEST-ACK min delay (ms)" lat.ra_min
row "  REQUEST-ACK max delay (ms)" lat.ra_max
row "  REQUEST-ACK std deviation (ms)" lat.ra_std
if [ -n "$daemon" ] && [ -n "${fig[bridge.lat.ra_avg]}" ] && [ -n "${fig[daemon.lat.ra_avg]}" ]; then
  add=$(awk -v b="${fig[bridge.lat.ra_avg]}" -v d="${fig[daemon.lat.ra_avg]}" 'BEGIN { printf "%.3f", d - b }')
  echo "added latency per REQUEST-ACK at 50/s: $add ms (medians of the columns)"
  # The same from each round's pair, bridge and daemon measured one after the other.
  for ((r = 1; r <= rounds; r++)); do
    fig[pair.$r.ratio]=$(awk -v b="${fig[bridge.max.$r.rate]:-0}" -v d="${fig[daemon.max.$r.rate]:-0}" 'BEGIN { if (b > 0) printf "%.3f", d / b }')
    fig[pair.$r.add]=$(awk -v b="${fig[bridge.lat.$r.ra_avg]:-0}" -v d="${fig[daemon.lat.$r.ra_avg]:-0}" 'BEGIN { printf "%.3f", d - b }')
    fig[pair.$r.addmin]=$(awk -v b="${fig[bridge.lat.$r.ra_min]:-0}" -v d="${fig[daemon.lat.$r.ra_min]:-0}" 'BEGIN { printf "%.3f", d - b }')
  done
  median pair ratio; median pair add; median pair addmin
  echo "median of the rounds' own figures: exchanges/s daemon / bridge ${fig[pair.ratio]:--}, added REQUEST-ACK delay at 50/s ${fig[pair.add]:--} ms avg, ${fig[pair.addmin]:--} ms min"
fi
if [ -n "$daemon" ]; then
  echo "rounds (bridge and daemon in turn):"
  per_round
  # The pools and tables are sized at start-up: once touched, memory stays.
  for ((r = 1; r <= rounds; r++)); do
    printf 'round %d: dhcpsnoopd VmRSS %s kB before the load, %s kB after the full-speed run, %s kB at the end (end / after full speed: %s)\n' "$r" \
      "${fig[daemon.rss0.$r]}" "${fig[daemon.rss1.$r]}" "${fig[daemon.rss2.$r]}" \
      "$(awk -v a="${fig[daemon.rss1.$r]}" -v b="${fig[daemon.rss2.$r]}" 'BEGIN { if (a > 0) printf "%.2f", b / a; else print "-" }')"
  done
  printf 'dhcpsnoopd trap to transmit (us, medians of the rounds), as fast as possible: p50 %s, p99 %s, max %s\n' \
    "${fig[daemon.hmax.p50]:--}" "${fig[daemon.hmax.p99]:--}" "${fig[daemon.hmax.pmax]:--}"
  printf 'dhcpsnoopd trap to transmit (us, medians of the rounds), 50/s offered:        p50 %s, p99 %s, max %s\n' \
    "${fig[daemon.hlat.p50]:--}" "${fig[daemon.hlat.p99]:--}" "${fig[daemon.hlat.pmax]:--}"
  for ((r = 1; r <= rounds; r++)); do
    echo "round $r, as fast as possible: $(cat "$work/latency-max-$r.txt")"
    echo "round $r, 50/s offered:        $(cat "$work/latency-lat-$r.txt")"
  done
  printf 'frames dropped as "queue full" per round: %s\n' \
    "$(for ((r = 1; r <= rounds; r++)); do printf '%s ' "${fig[daemon.qfull.$r]:-?}"; done)"
  echo "== dhcpsnoopctl counters after the last round"
  cat "$work/counters-$rounds.txt"
else
  echo "(no dhcpsnoopd column: the daemon is not built in this tree; pass --daemon PATH)"
fi
