#!/usr/bin/env bash
# dhcpsnoopd --user: the daemon gives up root once its ports and files are
# open and still does its work. In network namespaces: a dnsmasq server on
# 1/0/1 (trusted), a busybox udhcpc client on 1/0/2; the daemon runs with
# --user nobody and must
#   - run every thread as that user and group, no supplementary groups, with
#     only CAP_NET_RAW and CAP_NET_ADMIN (effective, permitted, bounding),
#     nothing inheritable or ambient, no_new_privs set;
#   - switch the client's lease and learn its binding (dhcpsnoopctl as root),
#     which its metrics show, from dhcpsnoopctl and over HTTP (--metrics),
#     with the module's pools, pending requests, main queue and the
#     trap-to-transmit histogram, checked by promtool where it is found;
#   - save the binding file as that user in the data directory root made;
#   - re-read its configuration on SIGHUP;
#   - stop with exit 0 on SIGTERM and remove its control socket;
# refuse --user root and an unknown user with exit 2; and start, answer and
# stop as dhcpsnoopd.service runs it (a user with ambient capabilities).
#
#   user.sh --daemon DHCPSNOOPD --ctl DHCPSNOOPCTL
# Exit 0 pass, 1 fail, 77 skipped; DHCPSNOOP_USER_DEBUG=1 runs the daemon
# with --debug and prints the logs. Makes dse* namespaces: run under
# flock /tmp/dhcpsnoop-e2e.lock (CTest holds the e2e resource lock instead).
set -uo pipefail
PATH="$PATH:/usr/sbin:/sbin"
daemon="" ctl=""
while [ $# -gt 0 ]; do
  case "$1" in
    --daemon) daemon="$2"; shift 2 ;;
    --ctl) ctl="$2"; shift 2 ;;
    *) echo "usage: user.sh --daemon DHCPSNOOPD --ctl DHCPSNOOPCTL" >&2; exit 2 ;;
  esac
done
[ -x "$daemon" ] && [ -x "$ctl" ] || { echo "user: $daemon or $ctl is not an executable" >&2; exit 1; }
[ "$(id -u)" -eq 0 ] || { echo "SKIPPED: needs root (network namespaces, raw sockets)"; exit 77; }
for prog in ip dnsmasq busybox ethtool python3; do
  command -v "$prog" >/dev/null || { echo "SKIPPED: $prog missing"; exit 77; }
done
getent passwd nobody >/dev/null || { echo "SKIPPED: no user nobody"; exit 77; }
ldd "$daemon" 2>/dev/null | grep -q libcap-ng || { echo "SKIPPED: dhcpsnoopd built without libcap-ng"; exit 77; }

tag="dse$$u"
ns_sw="$tag-sw" ns_srv="$tag-srv" ns_cli="$tag-cli"
work=$(mktemp -d /tmp/dhcpsnoop-user.XXXXXX)
chmod 755 "$work"          # the daemon's user reads the configuration here
pids=()
dpid=""
cleanup() {
  for p in "${pids[@]}" $dpid; do kill "$p" 2>/dev/null; done
  wait 2>/dev/null
  for ns in "$ns_srv" "$ns_cli" "$ns_sw"; do ip netns delete "$ns" 2>/dev/null; done
  rm -rf "$work"
}
trap cleanup EXIT
failed=0
fail() { echo "FAILED: $*"; failed=1; }
fatal() { echo "FAILED: $*"; show; exit 1; }
show() {
  for f in daemon.log daemon-svc.log server.log udhcpc.log; do echo "--- $f"; cat "$work/$f" 2>/dev/null; done
}
wait_for() {
  local t=$1; shift
  for _ in $(seq $((t * 10))); do "$@" && return 0; sleep 0.1; done
  return 1
}

ip netns add "$ns_sw" 2>"$work/netns.err" || { echo "SKIPPED: cannot make network namespaces: $(cat "$work/netns.err")"; exit 77; }
n=0
for ns in "$ns_srv" "$ns_cli"; do
  n=$((n + 1))
  ip netns add "$ns" || fatal "ip netns add $ns"
  ip netns exec "$ns" sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
  ip link add "sw$n" netns "$ns_sw" type veth peer name eth0 netns "$ns" || fatal "veth sw$n"
  ip -n "$ns" link set eth0 address "02:00:c6:12:00:0$n"
  ip -n "$ns" link set lo up
  ip -n "$ns" link set eth0 up
  ip -n "$ns_sw" link set "sw$n" up
  # veth leaves checksums to an offload that never happens.
  ip netns exec "$ns" ethtool -K eth0 tx off >/dev/null
  ip netns exec "$ns_sw" ethtool -K "sw$n" tx off >/dev/null
done
ip -n "$ns_srv" addr add 198.18.0.1/24 dev eth0
ip -n "$ns_sw" link set lo up    # the metrics endpoint

write_config() {
  cat >"$work/switch.toml" <<TOML
[switch]
dataplane = "user"
mac = "02:00:c6:12:ff:01"
snooping_vlans = [10]
[[port]]
name = "1/0/1"
vlan = 10
trust = true
interface = "sw1"
[[port]]
name = "1/0/2"
vlan = 10
rate = $1
interface = "sw2"
TOML
}
write_config 20
mkdir -m 700 "$work/data"    # made by root, handed over by the daemon

start() {
  ip netns exec "$ns_sw" "$daemon" --config "$work/switch.toml" --data-dir "$work/data" \
    --control "$work/run/ctl.sock" "$@" ${DHCPSNOOP_USER_DEBUG:+--debug} >>"$work/daemon.log" 2>&1 &
  dpid=$!
}

# Refused users: exit 2 before anything is touched.
for u in root no-such-user-dse; do
  start --user "$u"
  wait "$dpid"; rc=$?; dpid=""
  [ "$rc" -eq 2 ] || fail "--user $u: exit $rc, not 2"
done
grep -q "that is root" "$work/daemon.log" || fail "--user root not refused as root"
grep -q "no-such-user-dse: no such user" "$work/daemon.log" || fail "an unknown user not named"
[ "$(stat -c %U "$work/data")" = root ] || fail "a refused start handed the data directory over"
: >"$work/daemon.log"

metrics_http=0
if ldd "$daemon" 2>/dev/null | grep -q libprometheus-cpp; then
  metrics_http=1
  start --user nobody --metrics 127.0.0.1:9817
else
  start --user nobody
fi
wait_for 20 grep -q "dhcpsnoopd: ready" "$work/daemon.log" || fatal "dhcpsnoopd --user nobody not ready"
uid=$(id -u nobody) gid=$(id -g nobody)
for status in /proc/"$dpid"/task/*/status; do
  t=$(basename "$(dirname "$status")")
  read -r _ ruid euid suid fsuid < <(grep '^Uid:' "$status")
  read -r _ rgid egid sgid fsgid < <(grep '^Gid:' "$status")
  [ "$ruid $euid $suid $fsuid" = "$uid $uid $uid $uid" ] || fail "thread $t: Uid $ruid $euid $suid $fsuid"
  [ "$rgid $egid $sgid $fsgid" = "$gid $gid $gid $gid" ] || fail "thread $t: Gid $rgid $egid $sgid $fsgid"
  [ -z "$(grep '^Groups:' "$status" | cut -f2- | tr -d ' \t')" ] || fail "thread $t: supplementary groups kept"
  # CAP_NET_ADMIN (12) and CAP_NET_RAW (13).
  for cap in CapEff CapPrm CapBnd; do
    v=$(awk -v k="$cap:" '$1 == k { print $2 }' "$status")
    [ "$v" = 0000000000003000 ] || fail "thread $t: $cap $v, not CAP_NET_RAW and CAP_NET_ADMIN only"
  done
  for cap in CapInh CapAmb; do
    v=$(awk -v k="$cap:" '$1 == k { print $2 }' "$status")
    [ "$v" = 0000000000000000 ] || fail "thread $t: $cap $v"
  done
  grep -q '^NoNewPrivs:[[:space:]]*1' "$status" || fail "thread $t: no_new_privs not set"
done
threads=$(ls /proc/"$dpid"/task | wc -l)
[ "$threads" -gt 1 ] || fail "only $threads thread: the module's threads not checked"
[ "$(stat -c %U "$work/data")" = nobody ] || fail "the data directory was not handed over"

# The data plane still works: a real lease through the switch, its binding.
ip netns exec "$ns_srv" dnsmasq --no-daemon --port=0 --conf-file=/dev/null --interface=eth0 \
  --bind-interfaces --no-ping --log-dhcp --dhcp-range=198.18.0.100,198.18.0.150,255.255.255.0,1h \
  --dhcp-leasefile="$work/server.leases" 2>"$work/server.log" &
pids+=($!)
wait_for 10 grep -q 'DHCP, IP range' "$work/server.log" || fatal "dnsmasq did not start"
cat >"$work/udhcpc.sh" <<'SH'
#!/bin/sh
case "$1" in
  deconfig) ip -4 addr flush dev "$interface" ;;
  bound|renew) ip -4 addr flush dev "$interface"; ip addr add "$ip/$mask" dev "$interface" ;;
esac
exit 0
SH
chmod +x "$work/udhcpc.sh"
ip netns exec "$ns_cli" busybox udhcpc -f -i eth0 -s "$work/udhcpc.sh" -t 5 -T 2 >"$work/udhcpc.log" 2>&1 &
pids+=($!)
has_lease() { ip -n "$ns_cli" -4 addr show dev eth0 | grep -q "inet 198.18.0."; }
wait_for 20 has_lease || fatal "the client got no lease through dhcpsnoopd --user nobody"
ip_cli=$(ip -n "$ns_cli" -4 addr show dev eth0 | sed -n 's/.*inet \(198\.18\.0\.[0-9]*\).*/\1/p')
has_binding() { "$ctl" --control "$work/run/ctl.sock" bindings --json | grep -q "\"ip\":\"$ip_cli\""; }
wait_for 10 has_binding || fail "no binding of $ip_cli in dhcpsnoopctl bindings"
# Its metrics: the binding and the port counters, text promtool accepts.
"$ctl" --control "$work/run/ctl.sock" metrics >"$work/metrics.txt" || fail "dhcpsnoopctl metrics"
grep -qx 'dhcpsnoop_bindings{vlan="10"} 1' "$work/metrics.txt" || fail "metrics: not one binding in VLAN 10"
grep -q '^dhcpsnoop_port_dhcp_forwarded_total{port="1/0/1",interface="sw1"} [1-9]' "$work/metrics.txt" ||
  fail "metrics: no DHCP frame forwarded from the server's port"
# The module's and the platform's occupancy, and the latency histogram of
# the frames so far (the lease's own among them).
occupancy() {
  local f=$1 what=$2 re
  for re in '^dhcpsnoop_pending_requests [0-9]+$' \
    '^dhcpsnoop_port_pending_requests\{.*port="1/0/2".*\} [0-9]+$' \
    '^dhcpsnoop_element_pool_in_use [1-9][0-9]*$' '^dhcpsnoop_element_pool_size 1024$' \
    '^dhcpsnoop_packet_pool_in_use [0-9]+$' '^dhcpsnoop_packet_pool_size [1-9][0-9]*$' \
    '^dhcpsnoop_main_queue_depth [0-9]+$' '^dhcpsnoop_main_queue_capacity [1-9][0-9]*$' \
    '^# TYPE dhcpsnoop_trap_to_transmit_seconds histogram$' \
    '^dhcpsnoop_trap_to_transmit_seconds_bucket\{.*le="0.001".*\} [0-9]+$' \
    '^dhcpsnoop_trap_to_transmit_seconds_bucket\{.*le="\+Inf".*\} [1-9][0-9]*$' \
    '^dhcpsnoop_trap_to_transmit_seconds_sum [0-9.e+-]+$' \
    '^dhcpsnoop_trap_to_transmit_seconds_count [1-9][0-9]*$'; do
    grep -qE -- "$re" "$f" || fail "$what: no line matching $re"
  done
}
occupancy "$work/metrics.txt" "dhcpsnoopctl metrics"
promtool=${DHCPSNOOP_PROMTOOL:-$(command -v promtool)}
if [ -n "$promtool" ]; then
  "$promtool" check metrics <"$work/metrics.txt" || fail "promtool check metrics"
fi
# The same over HTTP, served by threads of the user.
if [ $metrics_http = 1 ]; then
  ip netns exec "$ns_sw" python3 -c '
import sys, urllib.request
sys.stdout.write(urllib.request.urlopen("http://127.0.0.1:9817/metrics", timeout=5).read().decode())' \
    >"$work/scrape.txt" 2>"$work/scrape.err" || fail "scraping /metrics: $(cat "$work/scrape.err")"
  grep -q '^dhcpsnoop_bindings{vlan="10"} 1' "$work/scrape.txt" || fail "/metrics: not one binding in VLAN 10"
  grep -q '^dhcpsnoop_port_dhcp_forwarded_total{.*port="1/0/1".*} [1-9]' "$work/scrape.txt" ||
    fail "/metrics: no DHCP frame forwarded from the server's port"
  occupancy "$work/scrape.txt" /metrics
  if [ -n "$promtool" ]; then
    "$promtool" check metrics <"$work/scrape.txt" || fail "promtool check metrics of /metrics"
  fi
fi
saved() { grep -q "02:00:c6:12:00:02" "$work/data/dhcpSnoop.cfg" 2>/dev/null; }
wait_for 20 saved || fail "the binding file was not saved with the client's binding"
[ "$(stat -c %U "$work/data/dhcpSnoop.cfg" 2>/dev/null)" = nobody ] || fail "the binding file is not the user's"

# SIGHUP: the user reads the changed file.
write_config 30
kill -HUP "$dpid"
wait_for 10 grep -q "configuration reloaded" "$work/daemon.log" || fail "SIGHUP: not reloaded as the user"

kill -TERM "$dpid"
wait "$dpid"; rc=$?; dpid=""
[ "$rc" -eq 0 ] || fail "SIGTERM: exit $rc"
# The daemon made its socket's directory: the user can remove the socket.
[ ! -e "$work/run/ctl.sock" ] || fail "the control socket was left behind"

# As dhcpsnoopd.service runs it: started as the user with the two
# capabilities ambient (setpriv standing in for systemd's User= and
# AmbientCapabilities=), its state and runtime directories made for it.
if command -v setpriv >/dev/null; then
  install -d -m 700 -o nobody "$work/state"
  install -d -m 755 -o nobody "$work/runtime"
  ip netns exec "$ns_sw" setpriv --reuid=nobody --regid="$(id -g nobody)" --clear-groups --no-new-privs \
    --inh-caps=-all,+net_raw,+net_admin --ambient-caps=-all,+net_raw,+net_admin \
    --bounding-set=-all,+net_raw,+net_admin \
    "$daemon" --config "$work/switch.toml" --data-dir "$work/state" \
    --control "$work/runtime/dhcpsnoopd.sock" >"$work/daemon-svc.log" 2>&1 &
  dpid=$!
  if wait_for 20 grep -q "dhcpsnoopd: ready" "$work/daemon-svc.log"; then
    "$ctl" --control "$work/runtime/dhcpsnoopd.sock" counters >/dev/null || fail "as the service: dhcpsnoopctl counters"
  else
    fail "as the service (user nobody, ambient CAP_NET_RAW and CAP_NET_ADMIN): not ready"
  fi
  kill -TERM "$dpid"
  wait "$dpid"; rc=$?; dpid=""
  [ "$rc" -eq 0 ] || fail "as the service: SIGTERM exit $rc"
fi

if [ $failed -ne 0 ] || [ -n "${DHCPSNOOP_USER_DEBUG:-}" ]; then
  show
  [ $failed -ne 0 ] && exit 1
fi
http=""
[ $metrics_http = 1 ] && http=", metrics over HTTP"
echo "user: dhcpsnoopd --user nobody: every thread as nobody with CAP_NET_RAW and CAP_NET_ADMIN only, lease $ip_cli switched and bound, binding file saved$http, reload, clean stop; root and unknown users refused; started as the unit runs it"
