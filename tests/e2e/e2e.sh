#!/usr/bin/env bash
# End-to-end tests of dhcpsnoopd with real DHCP programs in network namespaces.
#
#   e2e.sh --daemon DHCPSNOOPD --ctl DHCPSNOOPCTL [--dataplane bridge|user] STEP
#   e2e.sh --bridge STEP
#
# Namespace "sw" holds the switch side of four veth pairs (sw1..sw4), the
# ports 1/0/1..1/0/4 of the daemon; every other end sits in a namespace of its
# own as eth0:
#   1/0/1  dnsmasq, the real server (trusted, option 82 stripped from its
#          replies)                                 198.18.0.1, pool .100-.150
#   1/0/2  a rogue dnsmasq (untrusted)              198.18.1.1, pool 198.18.1.x
#   1/0/3  client A, busybox udhcpc (untrusted, option 82, rate 20/s)
#   1/0/4  client B, ISC dhclient   (untrusted, option 82, rate 20/s)
#   1/0/5  a trunk: VLAN 10 tagged, access VLAN 99 (unsnooped); raw frames
#          only, to prove tagging on real interfaces
# tcpdump records the server's and each client's side.
#
# --dataplane bridge (the default) runs the daemon on a Linux bridge br0 of
# sw1..sw4 (the kernel switches, the daemon traps DHCP and installs its
# nftables table); this kernel's bridge has no VLAN filtering, so the trunk
# 1/0/5 is left out and the VLAN step skips. --dataplane user runs the
# daemon's own software switch on the five ports.
#
# --bridge puts a Linux bridge where the daemon goes. It proves the topology,
# the programs and the captures, and every check of snooping behaviour then
# runs as a negative control: a switch without snooping must FAIL it, so a
# check that cannot tell the difference fails the run. Checks that need the
# daemon's control interface are skipped there.
#
# STEP: leases bindings binding-file option82 release restart source-guard
# smuggle tcp lifecycle flood trap-flood tagged control reload errors monitor, or all (every step, one topology);
# host (the bridge device as a port; a topology of its own, not in all). Exit 0 pass, 1 fail, 77 skipped
# (not root, no network namespaces, programs missing; set
# DHCPSNOOP_E2E_REQUIRE=1 to fail instead of skipping on missing programs).
# DHCPSNOOP_E2E_KEEP=1 keeps the work directory (logs, captures, the daemon's
# files); DHCPSNOOP_E2E_DEBUG=1 runs the daemon with --debug.
set -uo pipefail

SKIP=77
PATH="$PATH:/usr/sbin:/sbin"
here="$(cd "$(dirname "$0")" && pwd)"
tool=(python3 "$here/e2e_tool.py")

usage() { echo "usage: e2e.sh (--daemon DHCPSNOOPD --ctl DHCPSNOOPCTL | --bridge) STEP" >&2; exit 2; }
mode="" daemon="" ctl="" step="" plane=bridge
while [ $# -gt 0 ]; do
  case "$1" in
    --daemon) [ $# -ge 2 ] || usage; daemon="$2"; mode=daemon; shift 2 ;;
    --ctl) [ $# -ge 2 ] || usage; ctl="$2"; shift 2 ;;
    --bridge) mode=bridge; shift ;;
    --dataplane) [ $# -ge 2 ] || usage; plane="$2"; shift 2 ;;
    -*) usage ;;
    *) step="$1"; shift ;;
  esac
done
[ -n "$mode" ] && [ -n "$step" ] || usage
if [ "$mode" = daemon ]; then
  [ -x "$daemon" ] && [ -x "$ctl" ] || { echo "e2e: $daemon or $ctl is not an executable" >&2; exit 1; }
fi
case "$plane" in bridge|user) ;; *) usage ;; esac
# The plain bridge stands for no data plane of the daemon's.
[ "$mode" = bridge ] && plane=plain
# smuggle runs within source-guard and lifecycle within restart (one
# topology each); on their own they are for a run by hand.
steps_all=(leases bindings binding-file option82 tagged source-guard tcp flood trap-flood restart release control reload errors
  monitor)
case "$step" in
  all) run_steps=("${steps_all[@]}") ;;
  leases|bindings|binding-file|option82|tagged|release|restart|source-guard|smuggle|tcp|lifecycle|flood|trap-flood|control|reload|errors|monitor|host)
    run_steps=("$step") ;;
  *) usage ;;
esac

skip() { echo "SKIPPED: $*"; exit $SKIP; }
# Why a step does not run on a data plane; said before any topology is made.
plane_skip_reason() {
  case "$plane:$1" in
    bridge:tagged) echo "VLAN trunk: this kernel's bridge has no VLAN filtering (and no 802.1Q module); the user data plane runs it" ;;
    user:host) echo "the bridge device as the host's port: the bridge data plane's (the user data plane has no bridge)" ;;
    user:smuggle) echo "tag and SNAP smuggling: a rule of the bridge data plane's table; the user data plane refuses such frames in its own frame path (live_test_guard, e2e_user-dataplane)" ;;
  esac
}
[ "$step" != all ] && [ "$step" != source-guard ] && [ -n "$(plane_skip_reason "$step")" ] && skip "$(plane_skip_reason "$step")"
[ "$(id -u)" -eq 0 ] || skip "needs root (network namespaces, veth pairs, raw sockets)"
missing=()
for prog in ip dnsmasq busybox dhclient tcpdump ethtool ping python3 timeout iperf3 nft; do
  command -v "$prog" >/dev/null 2>&1 || missing+=("$prog")
done
if [ ${#missing[@]} -gt 0 ]; then
  if [ "${DHCPSNOOP_E2E_REQUIRE:-0}" = 1 ]; then
    echo "FAILED: programs missing: ${missing[*]}"; exit 1
  fi
  skip "programs missing: ${missing[*]} (scripts/test.sh installs them)"
fi

tag="dse$$"
ns_sw="$tag-sw" ns_srv="$tag-srv" ns_rogue="$tag-rogue" ns_a="$tag-a" ns_b="$tag-b" ns_trunk="$tag-trunk"
all_ns=("$ns_srv" "$ns_rogue" "$ns_a" "$ns_b" "$ns_trunk" "$ns_sw")
mac_srv=02:00:c6:12:00:01 mac_rogue=02:00:c6:12:00:02 mac_a=02:00:c6:12:00:03 mac_b=02:00:c6:12:00:04
mac_trunk=02:00:c6:12:00:05
switch_mac=02:00:c6:12:ff:01
ip_srv=198.18.0.1 ip_rogue=198.18.1.1 ip_unleased=198.18.0.200
vlan=10
work=""
pids=()
daemon_pid=""
udhcpc_pid=""
failures=()

# Namespaces and work directories left behind by a run that was killed
# outright (its pid is gone).
# A run is alive while its pid runs this script (a zombie's or a reused
# pid's command line does not name it).
run_alive() { { tr '\0' ' ' <"/proc/$1/cmdline"; } 2>/dev/null | grep -q 'e2e\.sh'; }
for old in $(ip netns list 2>/dev/null | awk '{print $1}' | grep -E '^dse[0-9]+-' || true); do
  owner="${old%%-*}"; owner="${owner#dse}"
  if ! run_alive "$owner"; then
    for p in $(ip netns pids "$old" 2>/dev/null); do kill -KILL "$p" 2>/dev/null; done
    ip netns del "$old" 2>/dev/null
  fi
done
for old in /tmp/dhcpsnoop-e2e-dse[0-9]*-*; do
  [ -d "$old" ] || continue
  owner="${old#/tmp/dhcpsnoop-e2e-dse}"; owner="${owner%%-*}"
  [ -e "$old/.kept" ] || run_alive "$owner" || rm -rf "$old"
done

cleanup() {
  local rc=$?
  trap - EXIT INT TERM
  set +e
  [ -n "${watchdog:-}" ] && kill "$watchdog" 2>/dev/null
  for p in "${pids[@]}"; do kill -TERM "$p" 2>/dev/null; done
  for p in "${pids[@]}"; do timeout 5 tail --pid="$p" -f /dev/null 2>/dev/null; kill -KILL "$p" 2>/dev/null; done
  # Anything else still running inside the namespaces was started here too
  # (dhclient's daemon, a client's script).
  for n in "${all_ns[@]}"; do
    for p in $(ip netns pids "$n" 2>/dev/null); do kill -KILL "$p" 2>/dev/null; done
    ip netns del "$n" 2>/dev/null
  done
  if [ -n "$work" ] && [ -d "$work" ]; then
    if [ $rc -ne 0 ] && [ $rc -ne $SKIP ]; then
      for f in daemon.log server.log rogue.log udhcpc.log dhclient.log; do
        [ -s "$work/$f" ] && { echo "---- $f (last lines)"; tail -n 25 "$work/$f"; }
      done
    fi
    if [ "${DHCPSNOOP_E2E_KEEP:-0}" = 1 ]; then touch "$work/.kept"; echo "work directory kept: $work"; else rm -rf "$work"; fi
  fi
  exit $rc
}
trap cleanup EXIT
trap 'echo "e2e: interrupted"; exit 1' INT TERM

# A run never outlives its CTest timeout: the trap still cleans up.
# Its sleep holds no output open, so nothing waits on it once the run ends.
(
  trap 'kill "$nap" 2>/dev/null; exit 0' TERM
  sleep "${DHCPSNOOP_E2E_TIMEOUT:-150}" >/dev/null 2>&1 &
  nap=$!
  wait "$nap" && run_alive $$ && { echo "e2e: timed out"; kill -TERM $$; }
) &
watchdog=$!

work="$(mktemp -d "/tmp/dhcpsnoop-e2e-$tag-XXXXXX")"
chmod 755 "$work"
# DHCPSNOOP_E2E_USER=NAME runs the daemon with --user NAME: it reads its
# configuration here and removes its own socket (sticky, like /tmp).
[ -n "${DHCPSNOOP_E2E_USER:-}" ] && chmod 1777 "$work"

# ---- results ---------------------------------------------------------------

# check NAME CMD...: CMD must succeed.
check() {
  local name=$1 out; shift
  if out=$("$@" 2>&1); then
    echo "  ok    $name${out:+: $out}"
  else
    echo "  FAIL  $name${out:+: $out}"
    failures+=("$current_step: $name")
  fi
}
# snoop_check NAME CMD...: a check of snooping behaviour. With the daemon it
# must succeed; with the bridge it must fail (negative control).
snoop_check() {
  local name=$1 out; shift
  if [ "$mode" = daemon ]; then check "$name" "$@"; return; fi
  if out=$("$@" 2>&1); then
    echo "  FAIL  $name holds on a plain bridge: the check cannot see snooping${out:+ ($out)}"
    failures+=("$current_step: $name (negative control)")
  else
    echo "  ok    $name fails on a plain bridge, as it must${out:+ ($out)}"
  fi
}
daemon_only() { [ "$mode" = daemon ] || { echo "  skip  $* (needs the daemon)"; return 1; }; }
# wait_for SECONDS CMD...: polls CMD every 0.2 s.
wait_for() {
  local deadline=$((SECONDS + $1)); shift
  until "$@" >/dev/null 2>&1; do
    [ $SECONDS -ge $deadline ] && return 1
    sleep 0.2
  done
}
fatal() { echo "  FAIL  $*"; failures+=("${current_step:-setup}: $*"); finish; }
finish() {
  if [ ${#failures[@]} -eq 0 ]; then
    echo "PASSED: ${run_steps[*]} ($mode)"
    exit 0
  fi
  echo "FAILED ($mode):"
  printf '  %s\n' "${failures[@]}"
  exit 1
}

# ---- the topology ----------------------------------------------------------

# Only for commands waited for: a background job needs "ip netns exec" itself,
# so that $! is the program (signals reach it).
in_ns() { local n=$1; shift; ip netns exec "$n" "$@"; }
client_ip() { ip -n "$1" -4 -o addr show dev eth0 | awk '$3 == "inet" {split($4, a, "/"); print a[1]; exit}'; }
has_lease() { client_ip "$1" | grep -q '^198\.18\.'; }
lease_ip() { awk -v m="$1" 'tolower($2) == m {print $3}' "$work/server.leases" 2>/dev/null; }
ctl_cmd() { "$ctl" --control "$work/ctl.sock" "$@"; }

write_config() {
  local bridge_line=""
  [ "$plane" = bridge ] && bridge_line='bridge = "br0"'
  cat >"$work/switch.toml" <<EOF
[switch]
dataplane = "$plane"
$bridge_line
unit = 1
mac = "$switch_mac"
snooping_vlans = [$vlan]
table_updates = true
ip_filter = true
arp_defend = true

[[port]]
name = "1/0/1"
vlan = $vlan
trust = true
# Replies are handled by the configuration of the port they arrive on: this
# strips the option 82 the server echoes before the replies reach a client.
option82 = true
interface = "sw1"

[[port]]
name = "1/0/2"
vlan = $vlan
interface = "sw2"

[[port]]
name = "1/0/3"
vlan = $vlan
option82 = true
option82_policy = "replace"
rate = 20
interface = "sw3"

[[port]]
name = "1/0/4"
vlan = $vlan
option82 = true
rate = 20
interface = "sw4"
EOF
  # A trunk needs VLANs: the user data plane's alone here.
  [ "$plane" = user ] || return 0
  cat >>"$work/switch.toml" <<EOF

[[port]]
name = "1/0/5"
vlan = 99
tagged = [$vlan]
option82 = true
interface = "sw5"
EOF
}

daemon_start() {
  local before
  before=$(grep -c 'dhcpsnoopd: ready' "$work/daemon.log" 2>/dev/null)
  local debug=()
  [ "${DHCPSNOOP_E2E_DEBUG:-0}" = 1 ] && debug=(--debug)
  [ -n "${DHCPSNOOP_E2E_USER:-}" ] && debug+=(--user "$DHCPSNOOP_E2E_USER")
  ip netns exec "$ns_sw" "$daemon" --config "$work/switch.toml" --data-dir "$work/data" \
    --control "$work/ctl.sock" "${debug[@]}" >>"$work/daemon.log" 2>&1 &
  daemon_pid=$!
  pids+=("$daemon_pid")
  local deadline=$((SECONDS + 20))
  until [ "$(grep -c 'dhcpsnoopd: ready' "$work/daemon.log" 2>/dev/null)" -gt "${before:-0}" ]; do
    kill -0 "$daemon_pid" 2>/dev/null || fatal "dhcpsnoopd exited before it was ready"
    [ $SECONDS -ge $deadline ] && fatal "dhcpsnoopd not ready within 20 s"
    sleep 0.2
  done
}

# Stops the daemon with SIGTERM; its exit status in daemon_status.
daemon_stop() {
  kill -TERM "$daemon_pid" 2>/dev/null
  if timeout 15 tail --pid="$daemon_pid" -f /dev/null; then
    wait "$daemon_pid"; daemon_status=$?
  else
    kill -KILL "$daemon_pid" 2>/dev/null; wait "$daemon_pid"; daemon_status="killed after 15 s"
  fi
  # Reaped: its pid is no longer ours to signal.
  local p kept=()
  for p in "${pids[@]}"; do [ "$p" = "$daemon_pid" ] || kept+=("$p"); done
  pids=("${kept[@]}")
}

# tcpdump NS FILE: records DHCP, ICMP and ARP on eth0 of NS, each frame written at
# once (without --immediate-mode frames wait up to a second in the kernel).
capture() {
  ip netns exec "$1" tcpdump -n -U --immediate-mode -Z root -i eth0 -w "$work/$2" \
    'udp port 67 or udp port 68 or icmp or arp' \
    2>"$work/$2.log" &
  pids+=($!)
}

rogue_offered() { grep -q "DHCPOFFER(eth0) .* $1" "$work/rogue.log"; }

topology_up() {
  mkdir -p "$work/data"
  ip netns add "$ns_sw" 2>"$work/netns.err" || skip "cannot make network namespaces: $(cat "$work/netns.err")"
  local n i ns macs=("$mac_srv" "$mac_rogue" "$mac_a" "$mac_b" "$mac_trunk")
  local nss=("$ns_srv" "$ns_rogue" "$ns_a" "$ns_b" "$ns_trunk")
  in_ns "$ns_sw" sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
  for i in 0 1 2 3 4; do
    n=$((i + 1)); ns=${nss[$i]}
    ip netns add "$ns" || fatal "ip netns add $ns"
    in_ns "$ns" sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
    ip link add "sw$n" netns "$ns_sw" type veth peer name eth0 netns "$ns" || fatal "veth sw$n"
    ip -n "$ns" link set eth0 address "${macs[$i]}"
    ip -n "$ns" link set lo up
    ip -n "$ns" link set eth0 up
    ip -n "$ns_sw" link set "sw$n" up
    # veth leaves checksums to an offload that never happens: the frames
    # must carry the checksums a real wire would.
    in_ns "$ns" ethtool -K eth0 tx off >/dev/null
    in_ns "$ns_sw" ethtool -K "sw$n" tx off >/dev/null
  done
  ip -n "$ns_srv" addr add "$ip_srv/24" dev eth0
  ip -n "$ns_rogue" addr add "$ip_rogue/24" dev eth0

  if [ "$mode" = bridge ] || [ "$plane" = bridge ]; then
    ip -n "$ns_sw" link add br0 type bridge stp_state 0
    local members="1 2 3 4 5"
    [ "$plane" = bridge ] && members="1 2 3 4"
    for n in $members; do ip -n "$ns_sw" link set "sw$n" master br0; done
    ip -n "$ns_sw" link set br0 up
  fi
  if [ "$mode" = daemon ]; then
    write_config
    daemon_start
  fi

  capture "$ns_srv" server.pcap
  capture "$ns_a" a.pcap
  capture "$ns_b" b.pcap
  # Everything the trunk sees, tagged or not.
  ip netns exec "$ns_trunk" tcpdump -n -U --immediate-mode -Z root -i eth0 -w "$work/trunk.pcap" \
    2>"$work/trunk.pcap.log" &
  pids+=($!)
  for f in server a b trunk; do
    wait_for 10 grep -q 'listening on' "$work/$f.pcap.log" || fatal "tcpdump ($f) did not start"
  done

  local common=(--no-daemon --port=0 --conf-file=/dev/null --interface=eth0 --bind-interfaces --no-ping
    --dhcp-option=option:router --dhcp-option=option:dns-server --log-dhcp)
  ip netns exec "$ns_srv" dnsmasq "${common[@]}" --dhcp-range=198.18.0.100,198.18.0.150,255.255.255.0,1h \
    --dhcp-leasefile="$work/server.leases" 2>"$work/server.log" &
  pids+=($!)
  # The rogue answers at once where the daemon stops it; behind the bridge it
  # waits 2 s so the clients still take the real server's lease and the other
  # steps can run.
  local delay=0
  [ "$mode" = bridge ] && delay=2
  ip netns exec "$ns_rogue" dnsmasq "${common[@]}" --dhcp-reply-delay=$delay \
    --dhcp-range=198.18.1.100,198.18.1.150,255.255.255.0,1h \
    --dhcp-leasefile="$work/rogue.leases" 2>"$work/rogue.log" &
  pids+=($!)
  wait_for 10 grep -q 'DHCP, IP range' "$work/server.log" || fatal "dnsmasq (server) did not start"
  wait_for 10 grep -q 'DHCP, IP range' "$work/rogue.log" || fatal "dnsmasq (rogue) did not start"

  # The clients' scripts only set the address: nothing of the host is touched.
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
  : >"$work/dhclient.conf"

  ip netns exec "$ns_a" busybox udhcpc -f -i eth0 -s "$work/udhcpc.sh" -t 5 -T 2 >"$work/udhcpc.log" 2>&1 &
  udhcpc_pid=$!
  pids+=("$udhcpc_pid")
  # dhclient returns once bound and stays on as a daemon (killed by cleanup).
  timeout 30 ip netns exec "$ns_b" dhclient -1 -v -cf "$work/dhclient.conf" -sf "$work/dhclient.sh" \
    -lf "$work/dhclient.leases" -pf "$work/dhclient.pid" eth0 >"$work/dhclient.log" 2>&1 ||
    fatal "dhclient got no lease"
  wait_for 20 has_lease "$ns_a" || fatal "udhcpc got no lease"
  # Behind the bridge the rogue's late OFFERs (it delays one after the
  # other) are on the wire before the checks look for them.
  if [ "$mode" = bridge ]; then
    wait_for 10 rogue_offered "$mac_a" && wait_for 10 rogue_offered "$mac_b" || fatal "the rogue server sent no OFFER"
    sleep 0.5
  fi
  ip_a=$(client_ip "$ns_a") ip_b=$(client_ip "$ns_b")
  echo "  setup client A (udhcpc) $mac_a leased $ip_a, client B (dhclient) $mac_b leased $ip_b"
  # The last frames of the exchanges are in the captures.
  sleep 0.3
}

# ---- the steps -------------------------------------------------------------

in_trusted_pool() {
  local ip=$1 last=${1##*.}
  [ "${ip%.*}" = 198.18.0 ] && [ "$last" -ge 100 ] && [ "$last" -le 150 ]
}
same() { [ "$1" = "$2" ]; }
no_lease_of() { ! grep -qi -e "$1" -e "$2" "$3" 2>/dev/null; }

step_leases() {
  check "client A's address is from the trusted server's pool" in_trusted_pool "$ip_a"
  check "client B's address is from the trusted server's pool" in_trusted_pool "$ip_b"
  check "the trusted server's lease file holds client A" same "$(lease_ip $mac_a)" "$ip_a"
  check "the trusted server's lease file holds client B" same "$(lease_ip $mac_b)" "$ip_b"
  check "the rogue server leased to neither client" no_lease_of "$mac_a" "$mac_b" "$work/rogue.leases"
  snoop_check "no reply of the rogue server reached client A" "${tool[@]}" pcap-replies-from "$work/a.pcap" "$ip_rogue"
  snoop_check "no reply of the rogue server reached client B" "${tool[@]}" pcap-replies-from "$work/b.pcap" "$ip_rogue"
}

bindings_match() {
  ctl_cmd bindings --json >"$work/bindings.json" || return 1
  "${tool[@]}" bindings-match "$work/bindings.json" "$work/server.leases" $vlan "$@"
}
bindings_without() {
  ctl_cmd bindings --json >"$work/bindings.json" || return 1
  "${tool[@]}" bindings-without "$work/bindings.json" "$1"
}
binding_file_without() { "${tool[@]}" binding-file-without "$work/data/dhcpSnoop.cfg" "$1"; }
binding_file_match() {
  "${tool[@]}" binding-file-match "$work/data/dhcpSnoop.cfg" "$work/server.leases" $vlan "$@"
}
# until_ok SECONDS CMD...: CMD's last output, once it succeeds (or at the deadline).
until_ok() {
  local deadline=$((SECONDS + $1)) out; shift
  while :; do
    out=$("$@" 2>&1) && { echo "$out"; return 0; }
    [ $SECONDS -ge $deadline ] && { echo "$out"; return 1; }
    sleep 0.3
  done
}

step_bindings() {
  daemon_only "dhcpsnoopctl bindings --json matches the server's lease file" || return 0
  check "dhcpsnoopctl bindings --json matches the server's lease file" \
    until_ok 5 bindings_match "$mac_a=1/0/3" "$mac_b=1/0/4"
}

step_binding_file() {
  daemon_only "the binding file holds the bindings" || return 0
  check "DATA_DIR/dhcpSnoop.cfg holds both bindings" until_ok 5 binding_file_match "$mac_a=1/0/3" "$mac_b=1/0/4"
}

step_option82() {
  # Option 82 value: circuit ID (1) = VLAN (2 bytes), unit, port; remote ID
  # (2) = the switch MAC.
  local rid=${switch_mac//:/}
  snoop_check "client A's requests reach the server with option 82 (circuit ID VLAN 10 port 1/0/3, remote ID the switch MAC)" \
    "${tool[@]}" pcap-opt82 "$work/server.pcap" "$mac_a" "0104000a01030206$rid"
  snoop_check "client B's requests reach the server with option 82 (circuit ID VLAN 10 port 1/0/4, remote ID the switch MAC)" \
    "${tool[@]}" pcap-opt82 "$work/server.pcap" "$mac_b" "0104000a01040206$rid"
  # dnsmasq echoes option 82 in its replies (RFC 3046); the switch strips it
  # on the way back (option 82 is on for the server's port: replies are
  # handled by the configuration of the port they arrive on).
  local echoed
  echoed=$("${tool[@]}" pcap-replies-opt82 "$work/server.pcap")
  echo "  info  server replies carrying option 82 back: $echoed"
  [ "$mode" = daemon ] && check "the server echoed option 82 (so stripping it is put to the test)" at_least "$echoed" 1
  check "no server reply with option 82 reached client A" "${tool[@]}" pcap-no-opt82 "$work/a.pcap"
  check "no server reply with option 82 reached client B" "${tool[@]}" pcap-no-opt82 "$work/b.pcap"
  # A client's broadcast request is flooded to the VLAN's other ports, the
  # other client's included, with the option 82 the switch inserted.
  echo "  info  requests of the other client with option 82 seen by A: $("${tool[@]}" pcap-requests-opt82 "$work/a.pcap"), by B: $("${tool[@]}" pcap-requests-opt82 "$work/b.pcap")"
}

# dhcp_vlan PCAP OP MAC XID_PREFIX VLAN|untagged
dhcp_vlan() { "${tool[@]}" pcap-dhcp-vlan "$work/$1" "${@:2}"; }
xid_count() { "${tool[@]}" pcap-count-xid "$work/$1" "$2"; }

step_tagged() {
  if [ -n "$(plane_skip_reason tagged)" ]; then echo "  skip  $(plane_skip_reason tagged)"; return 0; fi
  local rid=${switch_mac//:/}
  # A DISCOVER tagged with VLAN 10 on the trunk: snooped in VLAN 10, it
  # reaches the server untagged with the trunk's circuit ID, and the OFFER
  # goes back to the trunk tagged.
  in_ns "$ns_trunk" "${tool[@]}" flood eth0 "$mac_trunk" 1 10 7a61 $vlan >/dev/null
  snoop_check "the trunk's tagged DISCOVER reaches the server untagged" \
    until_ok 5 dhcp_vlan server.pcap 1 "$mac_trunk" 7a61 untagged
  snoop_check "with option 82 of VLAN 10 and port 1/0/5" \
    "${tool[@]}" pcap-opt82 "$work/server.pcap" "$mac_trunk" "0104000a01050206$rid"
  snoop_check "the server's OFFER reaches the trunk tagged with VLAN 10" \
    until_ok 5 dhcp_vlan trunk.pcap 2 "$mac_trunk" 7a61 $vlan
  # A client's broadcast on an access port of VLAN 10 leaves the trunk tagged.
  in_ns "$ns_a" "${tool[@]}" flood eth0 "$mac_a" 1 10 7a62 >/dev/null
  snoop_check "client A's DISCOVER reaches the trunk tagged with VLAN 10" \
    until_ok 5 dhcp_vlan trunk.pcap 1 "$mac_a" 7a62 $vlan
  # Tagged with a VLAN the trunk does not carry, or untagged (access VLAN 99):
  # nothing reaches the server of VLAN 10.
  in_ns "$ns_trunk" "${tool[@]}" flood eth0 "$mac_trunk" 1 10 7a63 20 >/dev/null
  in_ns "$ns_trunk" "${tool[@]}" flood eth0 "$mac_trunk" 1 10 7a64 >/dev/null
  sleep 1
  snoop_check "a frame tagged with a VLAN the trunk does not carry is dropped" same "$(xid_count server.pcap 7a63)" 0
  snoop_check "an untagged frame of the trunk stays in its access VLAN" same "$(xid_count server.pcap 7a64)" 0
}

step_release() {
  # udhcpc unicasts the RELEASE and drops its address at once: a RELEASE
  # still waiting for the server's MAC would be discarded with the address.
  in_ns "$ns_a" ip neigh replace "$ip_srv" lladdr "$mac_srv" nud permanent dev eth0
  kill -USR2 "$udhcpc_pid"
  check "client A's RELEASE reached the server (its lease is gone)" wait_for 10 no_lease_of "$mac_a" "$mac_a" "$work/server.leases"
  daemon_only "the RELEASE removes client A's binding" || return 0
  check "client A's binding is gone" until_ok 5 bindings_without "$mac_a"
  check "client B's binding stays, as the server's lease file has it" until_ok 5 bindings_match "$mac_b=1/0/4"
  check "the binding file no longer holds client A" until_ok 5 binding_file_without "$mac_a"
  check "the binding file holds client B" until_ok 5 binding_file_match "$mac_b=1/0/4"
}

ping_from() { in_ns "$1" ping -n -q -c "$2" -W 1 -i 0.3 "$ip_srv" >/dev/null; }
no_ping_from() { ! ping_from "$@"; }

step_restart() {
  daemon_only "a restarted daemon reloads its bindings" || return 0
  check "the binding file holds both bindings before the restart" until_ok 5 binding_file_match "$mac_a=1/0/3" "$mac_b=1/0/4"
  daemon_stop
  check "dhcpsnoopd exits 0 on SIGTERM" same "$daemon_status" 0
  check "dhcpsnoopd removed its control socket" test ! -e "$work/ctl.sock"
  [ "$plane" = bridge ] && check "and its nftables table" no_table
  daemon_start
  check "the restarted daemon holds both bindings again" until_ok 5 bindings_match "$mac_a=1/0/3" "$mac_b=1/0/4"
  # ip_filter is on: the ping passes only with the reloaded source-guard entry.
  check "client B pings the server through the restarted daemon" ping_from "$ns_b" 3
  echo "-- step lifecycle (within restart)"
  step_lifecycle
}

counter() { ctl_cmd counters --json >"$work/counters.json" && "${tool[@]}" counter "$work/counters.json" "$@"; }
at_least() { [ "$1" -ge "$2" ]; }
# counter_at_least PORT N KEY [REASON...]: the port's counter has reached N.
counter_at_least() { local port=$1 n=$2; shift 2; at_least "$(counter "$port" "$@")" "$n"; }

step_source_guard() {
  # Static neighbour entries on both ends: no ARP is needed, so a ping that
  # fails can only have been stopped on its way (ip_filter), not by ARP
  # (arp_defend).
  in_ns "$ns_b" ip neigh replace "$ip_srv" lladdr "$mac_srv" nud permanent dev eth0
  in_ns "$ns_srv" ip neigh replace "$ip_b" lladdr "$mac_b" nud permanent dev eth0
  in_ns "$ns_srv" ip neigh replace "$ip_unleased" lladdr "$mac_b" nud permanent dev eth0
  check "client B pings the server from its leased address $ip_b" ping_from "$ns_b" 3
  local dropped_before=0 echo_before
  [ "$mode" = daemon ] && dropped_before=$(counter 1/0/4 source_guard_dropped)
  echo_before=$("${tool[@]}" pcap-count-echo "$work/server.pcap" "$ip_unleased")
  in_ns "$ns_b" ip -4 addr flush dev eth0
  in_ns "$ns_b" ip addr add "$ip_unleased/24" dev eth0
  in_ns "$ns_b" ip neigh replace "$ip_srv" lladdr "$mac_srv" nud permanent dev eth0
  snoop_check "client B cannot ping the server from $ip_unleased, which it was not leased" no_ping_from "$ns_b" 3
  sleep 0.5
  local echo_after
  echo_after=$("${tool[@]}" pcap-count-echo "$work/server.pcap" "$ip_unleased")
  snoop_check "no echo request from $ip_unleased reached the server" same "$echo_after" "$echo_before"
  if [ "$mode" = daemon ]; then
    check "port 1/0/4 counts the refused frames as source_guard_dropped" \
      at_least "$(counter 1/0/4 source_guard_dropped)" $((dropped_before + 3))
  fi
  # Without the static entries client B must ask for the server's MAC: the
  # server would learn the asker's address from the request, unless the
  # switch refused it (arp_defend).
  in_ns "$ns_srv" ip neigh del "$ip_unleased" dev eth0
  in_ns "$ns_b" ip neigh flush dev eth0
  no_ping_from "$ns_b" 2
  snoop_check "the server never learns $ip_unleased: client B's ARP requests from it are refused" \
    no_neigh "$ns_srv" "$ip_unleased"
  in_ns "$ns_b" ip -4 addr flush dev eth0
  in_ns "$ns_b" ip addr add "$ip_b/24" dev eth0
  in_ns "$ns_b" ip neigh replace "$ip_srv" lladdr "$mac_srv" nud permanent dev eth0
  check "back on its leased address, client B pings the server again" ping_from "$ns_b" 3
  echo "-- step smuggle (within source-guard)"
  step_smuggle
}

# The daemon's nftables table in the switch namespace.
has_table() { in_ns "$ns_sw" nft list table bridge dhcpsnoopd >/dev/null 2>&1; }
no_table() { ! has_table; }
set_holds() { in_ns "$ns_sw" nft list set bridge dhcpsnoopd bound | grep -qi -- "$1"; }

step_smuggle() {
  if [ -n "$(plane_skip_reason smuggle)" ]; then echo "  skip  $(plane_skip_reason smuggle)"; return 0; fi
  # Client B sends from an address it was not leased, wrapped so that a
  # filter of plain IPv4 would not see it. A capture of everything the server
  # receives holds what got through.
  ip netns exec "$ns_srv" tcpdump -n -U --immediate-mode -Z root -i eth0 -w "$work/smuggle.pcap" \
    2>"$work/smuggle.pcap.log" &
  pids+=($!)
  wait_for 10 grep -q 'listening on' "$work/smuggle.pcap.log" || fatal "tcpdump (smuggle) did not start"
  local before=0 kind marker
  [ "$mode" = daemon ] && before=$(counter 1/0/4 source_guard_dropped)
  for kind in qinq ad snap; do
    marker=$(printf 'smuggle-%s' "$kind" | od -An -tx1 | tr -d ' \n')
    in_ns "$ns_b" "${tool[@]}" spoof eth0 "$mac_b" "$mac_srv" "$ip_unleased" "$ip_srv" "$kind" "$marker"
  done
  sleep 0.5
  for kind in qinq ad snap; do
    marker=$(printf 'smuggle-%s' "$kind" | od -An -tx1 | tr -d ' \n')
    snoop_check "a $kind-wrapped IPv4 frame from an unbound source does not reach the server" \
      same "$("${tool[@]}" pcap-count-marker "$work/smuggle.pcap" "$marker")" 0
  done
  [ "$mode" = daemon ] && check "port 1/0/4 counts them as source_guard_dropped" \
    at_least "$(counter 1/0/4 source_guard_dropped)" $((before + 9))
  return 0
}

# TCP through the switch with the interfaces' default offloads (GSO/TSO
# super-frames, checksums left to the hardware).
step_tcp() {
  if [ -n "$(plane_skip_reason tcp)" ]; then echo "  skip  $(plane_skip_reason tcp)"; return 0; fi
  local n
  for n in "$ns_srv" "$ns_a"; do in_ns "$n" ethtool -K eth0 tx on >/dev/null; done
  for n in 1 3; do in_ns "$ns_sw" ethtool -K "sw$n" tx on >/dev/null; done
  ip netns exec "$ns_srv" iperf3 -s -1 -B "$ip_srv" >"$work/iperf3-server.log" 2>&1 &
  pids+=($!)
  wait_for 5 in_ns "$ns_srv" sh -c "ss -ltn | grep -q ':5201'"
  local out
  out=$(timeout 30 ip netns exec "$ns_a" iperf3 -c "$ip_srv" -n 50M -f m 2>&1)
  echo "$out" >"$work/iperf3-client.log"
  check "client A sends 50 MB over TCP to the server with default offloads" \
    grep -qE 'receiver' <<<"$out"
  echo "  info  $(grep -E 'receiver' <<<"$out" | awk '{print $7, $8}') (TCP, client A to the server)"
  for n in "$ns_srv" "$ns_a"; do in_ns "$n" ethtool -K eth0 tx off >/dev/null; done
  for n in 1 3; do in_ns "$ns_sw" ethtool -K "sw$n" tx off >/dev/null; done
}

daemon_kill9() {
  kill -KILL "$daemon_pid" 2>/dev/null
  wait "$daemon_pid" 2>/dev/null
  local p kept=()
  for p in "${pids[@]}"; do [ "$p" = "$daemon_pid" ] || kept+=("$p"); done
  pids=("${kept[@]}")
}

# What a killed daemon leaves: fail-closed. Its table stays in the kernel,
# so DHCP stays trapped (nobody answers it) and only the bound sources pass;
# the next start replaces the table.
step_lifecycle() {
  daemon_only "kill -9 and a restart" || return 0
  in_ns "$ns_b" ip neigh replace "$ip_srv" lladdr "$mac_srv" nud permanent dev eth0
  in_ns "$ns_srv" ip neigh replace "$ip_b" lladdr "$mac_b" nud permanent dev eth0
  if [ "$plane" = bridge ]; then
    check "table bridge dhcpsnoopd is there while the daemon runs" has_table
    check "its set holds client B's binding" until_ok 5 set_holds "$mac_b"
  fi
  check "client B is bound before the kill" until_ok 5 bindings_match "$mac_b=1/0/4"
  daemon_kill9
  if [ "$plane" = bridge ]; then
    check "after kill -9 the table stays" has_table
    check "client B, bound, still pings the server" ping_from "$ns_b" 3
  else
    check "after kill -9 nothing is switched: client B cannot ping" no_ping_from "$ns_b" 2
  fi
  in_ns "$ns_a" "${tool[@]}" flood eth0 "$mac_a" 1 10 9d01 >/dev/null
  sleep 1
  check "a DISCOVER sent while the daemon is down does not reach the server" same "$(xid_count server.pcap 9d01)" 0
  daemon_start
  [ "$plane" = bridge ] && check "the restarted daemon's table holds client B's binding again" until_ok 5 set_holds "$mac_b"
  check "client B pings the server through the restarted daemon" ping_from "$ns_b" 3
  in_ns "$ns_a" "${tool[@]}" flood eth0 "$mac_a" 1 10 9d02 >/dev/null
  check "a DISCOVER after the restart is snooped and reaches the server" until_ok 5 same_xid 9d02 1
}
same_xid() { same "$(xid_count server.pcap "$1")" "$2"; }

no_sanitizer_report() { ! grep -E 'ERROR: (Address|Leak|Thread)Sanitizer|runtime error:' "$work/daemon.log"; }
no_neigh() { ! ip -n "$1" neigh show "$2" dev eth0 | grep -q lladdr; }
in_range() { [ "$1" -ge "$2" ] && [ "$1" -le "$3" ]; }

# windows SECONDS: the most one-second rate windows a burst that long can touch.
windows() { awk -v d="$1" 'BEGIN { printf "%d", int(d) + 2 }'; }

step_flood() {
  # Client A's port allows 20 DHCP frames a second: 200 DISCOVERs in half a
  # second, then 100 more two seconds later, well within the 30 s in which
  # the port's overflow is logged only once.
  local sent=300 passed out1 out2 limit
  out1=$(in_ns "$ns_a" "${tool[@]}" flood eth0 "$mac_a" 200 400 f10d)
  sleep 2
  out2=$(in_ns "$ns_a" "${tool[@]}" flood eth0 "$mac_a" 100 400 f10d)
  sleep 1.5
  passed=$("${tool[@]}" pcap-count-xid "$work/server.pcap" f10d)
  # Each burst gets at most 20 frames through in every second it touches.
  limit=$((20 * ($(windows "$(echo "$out1" | awk '{print $5}')") + $(windows "$(echo "$out2" | awk '{print $5}')"))))
  echo "  info  flood: $out1, then $out2 on 1/0/3; $passed reached the server (at most $limit may)"
  snoop_check "the flood is cut to the port's rate (20 a second reach the server)" in_range "$passed" 1 "$limit"
  daemon_only "the flood is logged once" || return 0
  ctl_cmd events --json >"$work/events.json"
  check "dhcpsnoopctl events --json holds exactly one rate-limit entry for 1/0/3" \
    same "$("${tool[@]}" rate-events "$work/events.json" 1/0/3)" 1
  check "and none for 1/0/4" same "$("${tool[@]}" rate-events "$work/events.json" 1/0/4)" 0
  # Most of the excess, not all of it: a frame the switch could not even
  # trap (pool or queue full) is counted under its own reason. The trap's
  # policer takes what is over twice the rate before the module counts.
  check "port 1/0/3 counts the dropped DISCOVERs under \"rate limit\" and \"trap policer\"" \
    at_least "$(counter 1/0/3 dropped "rate limit" "trap policer")" $(((sent - passed) * 3 / 4))
}

lease_of() { ctl_cmd bindings --json >"$work/bindings.json" && "${tool[@]}" binding-lease "$work/bindings.json" "$1"; }
# lease_counted_down BEFORE AFTER SECONDS: the lease ran down by about SECONDS.
lease_at_least() { local l; l=$(lease_of "$mac_a") && [ "$l" != infinite ] && [ "$l" -ge "$1" ]; }
lease_counted_down() { [ "$1" != infinite ] && [ $(($1 - $2)) -ge $(($3 - 3)) ]; }

step_trap_flood() {
  # Ten times client A's rate (20 a second) from A's port for 34 s, longer
  # than the 30 s after which the port's overflow is logged again. A
  # client on another port meanwhile takes a lease as fast as it would
  # without the flood, and the one-second tick goes on ageing bindings.
  local mac_f=02:00:c6:12:00:aa seconds=34 rate=200 t0 t1 lease0="" lease1 start took
  if [ "$mode" = daemon ]; then
    lease0=$(until_ok 5 lease_of "$mac_b")
  fi
  t0=$(date +%s)
  in_ns "$ns_a" "${tool[@]}" flood eth0 "$mac_f" $((seconds * rate)) $rate f1a0 >"$work/trap-flood.out" &
  local flood_pid=$!
  pids+=("$flood_pid")
  sleep 3
  # A fresh client of B's port, with a MAC of its own (a macvlan on B's
  # interface), so nothing of B's lease helps it.
  ip -n "$ns_b" link add fresh link eth0 address 02:00:c6:12:00:bb type macvlan mode bridge
  ip -n "$ns_b" link set fresh up
  in_ns "$ns_b" ethtool -K fresh tx off >/dev/null 2>&1
  printf '#!/bin/sh\nexit 0\n' >"$work/noop.sh"; chmod +x "$work/noop.sh"
  start=$(date +%s.%N)
  ip netns exec "$ns_b" busybox udhcpc -n -q -f -i fresh -s "$work/noop.sh" -t 3 -T 2 \
    >"$work/udhcpc-fresh.log" 2>&1 &
  local probe=$!
  wait "$probe"; local probe_rc=$?
  took=$(awk -v s="$start" -v e="$(date +%s.%N)" 'BEGIN { printf "%.2f", e - s }')
  ip -n "$ns_b" link del fresh
  echo "  info  a new client on 1/0/4 was leased in $took s during the flood (udhcpc exit $probe_rc)"
  check "a client of port 1/0/4 gets its lease during the flood" same "$probe_rc" 0
  check "within its normal time (3 s)" awk -v t="$took" 'BEGIN { exit !(t <= 3) }'
  if [ "$mode" = daemon ]; then
    sleep 12
    lease1=$(lease_of "$mac_b")
    t1=$(date +%s)
    echo "  info  client B's binding: $lease0 s left before the flood, $lease1 s after $((t1 - t0)) s of it"
    check "the tick keeps ageing bindings during the flood" lease_counted_down "$lease0" "$lease1" $((t1 - t0))
  fi
  wait "$flood_pid"
  t1=$(date +%s)
  echo "  info  flood: $(cat "$work/trap-flood.out") on 1/0/3"
  local passed
  passed=$("${tool[@]}" pcap-count-xid "$work/server.pcap" f1a0)
  snoop_check "the flood reaches the server at the port's rate (at most 20 a second)" \
    in_range "$passed" 1 $((20 * (t1 - t0 + 2)))
  daemon_only "the overflow is logged once per 30 s" || return 0
  ctl_cmd events --json >"$work/events.json"
  check "the port's overflow is logged once per 30 s, again after 30 s of flood" \
    "${tool[@]}" rate-event-spacing "$work/events.json" 1/0/3 "$t0" "$t1"
  check "and never for 1/0/4" same "$("${tool[@]}" rate-events "$work/events.json" 1/0/4)" 0
  check "the trap's policer took what is over twice the rate" \
    at_least "$(counter 1/0/3 dropped "trap policer")" $((seconds * rate / 2))
  # A DHCP frame longer than a packet-pool buffer (A's pair let to carry
  # it): the table drops it for the daemon, whose trap copy is cut (bridge
  # data plane), or the core finds it too long (user data plane). Counted
  # either way, not lost without a word.
  local long_before
  long_before=$(counter 1/0/3 dropped "frame too long for the packet pool")
  in_ns "$ns_sw" ip link set sw3 mtu 9000
  in_ns "$ns_a" ip link set eth0 mtu 9000
  in_ns "$ns_a" "${tool[@]}" big-discover eth0 "$mac_f" 3000 f1a1 >/dev/null
  check "a DISCOVER of 3000 bytes is counted on 1/0/3 as too long for the packet pool" \
    until_ok 5 counter_at_least 1/0/3 $((long_before + 1)) dropped "frame too long for the packet pool"
  in_ns "$ns_a" ip link set eth0 mtu 1500
  in_ns "$ns_sw" ip link set sw3 mtu 1500
}

# ---- the daemon's control, reload and start-up errors -------------------------

# fails_with CODE TEXT CMD...: CMD exits with CODE and its standard error
# holds TEXT.
fails_with() {
  local code=$1 text=$2 err rc; shift 2
  err=$("$@" 2>&1 >/dev/null); rc=$?
  echo "exit $rc: $err"
  [ "$rc" -eq "$code" ] && grep -qF -- "$text" <<<"$err"
}
daemon_log_has() { grep -qF -- "$1" "$work/daemon.log"; }
daemon_log_count() { grep -cF -- "$1" "$work/daemon.log"; }
# log_count_above TEXT N: the daemon's log holds TEXT more than N times.
log_count_above() { [ "$(daemon_log_count "$1")" -gt "$2" ]; }

step_control() {
  daemon_only "dhcpsnoopctl delete, debug and debug-level" || return 0
  check "client B is bound before the removal" until_ok 5 bindings_match "$mac_b=1/0/4"
  local ip_b_bound
  ip_b_bound=$(lease_ip "$mac_b")
  check "dhcpsnoopctl delete of client B's binding succeeds" ctl_cmd delete "$ip_b_bound" $vlan "$mac_b"
  check "the binding is gone from the daemon" until_ok 5 bindings_without "$mac_b"
  check "and from the binding file" until_ok 5 binding_file_without "$mac_b"
  # Its source-guard entry went with it: B keeps its address but may no
  # longer use it.
  in_ns "$ns_b" ip neigh replace "$ip_srv" lladdr "$mac_srv" nud permanent dev eth0
  check "client B can no longer ping from its address" no_ping_from "$ns_b" 2
  check "a second delete is refused (exit 1), nothing posted" \
    fails_with 1 "dhcpsnoopctl:" ctl_cmd delete "$ip_b_bound" $vlan "$mac_b"
  check "a bad VLAN is refused before the daemon is asked" fails_with 1 "dhcpsnoopctl:" ctl_cmd delete "$ip_b_bound" 4095 "$mac_b"
  check "an unknown command is refused" fails_with 1 "dhcpsnoopctl:" ctl_cmd frobnicate
  check "a daemon that cannot be reached is exit 2" \
    fails_with 2 "dhcpsnoopctl:" "$ctl" --control "$work/no-such.sock" bindings

  # The debug switch: the module's lines reach the daemon's standard error
  # only while it is on.
  check "debug on" ctl_cmd debug on
  local before after
  before=$(daemon_log_count "[<")
  in_ns "$ns_a" "${tool[@]}" flood eth0 "$mac_a" 2 10 de60 >/dev/null
  check "with debug on, frames write the module's debug lines" wait_for 5 log_count_above "[<" "$before"
  check "debug off" ctl_cmd debug off
  sleep 0.5
  before=$(daemon_log_count "[<")
  in_ns "$ns_a" "${tool[@]}" flood eth0 "$mac_a" 2 10 de61 >/dev/null
  sleep 1
  after=$(daemon_log_count "[<")
  check "with debug off, they write none" same "$after" "$before"
  check "debug-level 1 set" ctl_cmd debug-level 1 set
  check "debug-level 0x1 clear" ctl_cmd debug-level 0x1 clear
  check "debug-level 9 is refused" fails_with 1 "dhcpsnoopctl:" ctl_cmd debug-level 9 set
}

# bound_on MAC PORT: the daemon holds a binding of MAC on PORT.
bound_on() {
  ctl_cmd bindings --json | grep -o '{[^}]*}' | grep -F "\"mac\":\"$1\"" | grep -qF "\"port\":\"$2\""
}

step_reload() {
  daemon_only "SIGHUP re-reads the configuration" || return 0
  # A user-defined circuit ID for client A's port, given by SIGHUP; the
  # requests A sends afterwards carry it. A capture of its own holds them.
  awk '{print} /^interface = "sw3"$/ {print "circuit_id = \"e2e-reload\""}' "$work/switch.toml" >"$work/switch.new"
  mv "$work/switch.new" "$work/switch.toml"
  local reloaded
  reloaded=$(daemon_log_count "configuration reloaded")
  kill -HUP "$daemon_pid"
  check "the daemon reports the reload" wait_for 5 log_count_above "configuration reloaded" "$reloaded"
  capture "$ns_srv" reload.pcap
  wait_for 10 grep -q 'listening on' "$work/reload.pcap.log" || fatal "tcpdump (reload) did not start"
  # Renews a bound client, starts over after a RELEASE.
  kill -USR1 "$udhcpc_pid"
  local rid=${switch_mac//:/} cid
  cid=$(printf 'e2e-reload' | od -An -tx1 | tr -d ' \n')
  check "client A gets its lease again" wait_for 15 has_lease "$ns_a"
  check "A's requests now reach the server with the circuit ID of the new configuration" \
    until_ok 10 "${tool[@]}" pcap-opt82 "$work/reload.pcap" "$mac_a" "010a${cid}0206$rid"
  check "client A is bound on 1/0/3" until_ok 5 bound_on "$mac_a" 1/0/3

  # A configuration that does not parse is refused and the running one kept.
  cp "$work/switch.toml" "$work/switch.good"
  echo "this is not toml = = =" >>"$work/switch.toml"
  local refused
  refused=$(daemon_log_count "keeping the previous configuration")
  kill -HUP "$daemon_pid"
  check "a bad configuration is refused on SIGHUP" \
    wait_for 5 log_count_above "keeping the previous configuration" "$refused"
  check "and the daemon still answers" ctl_cmd bindings
  mv "$work/switch.good" "$work/switch.toml"
}

step_errors() {
  daemon_only "start-up errors of dhcpsnoopd" || return 0
  local d=$work/errors
  mkdir -p "$d" && chmod 777 "$d"
  sed 's/^interface = "sw4"$/interface = "nosuch4"/' "$work/switch.toml" >"$d/missing.toml"
  check "a missing interface: exit 2, named" \
    fails_with 2 'interface nosuch4 of port 1/0/4' in_ns "$ns_sw" "$daemon" --config "$d/missing.toml" \
    --data-dir "$d/data" --control "$d/missing.sock"
  if [ "$plane" = bridge ]; then
    # sw5 is in the switch namespace but not in br0.
    { cat "$work/switch.toml"; printf '\n[[port]]\nname = "1/0/5"\nvlan = %s\ninterface = "sw5"\n' $vlan; } >"$d/outside.toml"
    check "a port whose interface is not a member of the bridge: exit 2, named" \
      fails_with 2 'port 1/0/5: interface sw5 is not a member of bridge br0' in_ns "$ns_sw" "$daemon" \
      --config "$d/outside.toml" --data-dir "$d/data" --control "$d/outside.sock"
    check "the running daemon's table is untouched" has_table
    # Another daemon on the same bridge: the ports' log groups are taken.
    check "a second daemon on the same bridge: exit 2, the log group named" \
      fails_with 2 'port 1/0/1: nfnetlink_log group 54528 bind: Operation not permitted (another program, another dhcpsnoopd perhaps, reads this group)' \
      in_ns "$ns_sw" "$daemon" --config "$work/switch.toml" --data-dir "$d/data" --control "$d/second.sock"
    check "the running daemon's table is still untouched" has_table
    # Its trap still works: client A's renewal through it resets the lease.
    local before
    before=$(lease_of "$mac_a")
    sleep 2
    kill -USR1 "$udhcpc_pid"
    check "and it still traps: client A's renewal is seen" wait_for 10 lease_at_least "$before"
  fi
  printf '[switch]\nunit = 1\n[[port]]\nname = "1/0/99"\n' >"$d/bad.toml"
  check "a bad configuration: exit 1, file and line named" \
    fails_with 1 "$d/bad.toml:" "$daemon" --config "$d/bad.toml" --data-dir "$d/data" --control "$d/bad.sock"
  check "a missing configuration file: exit 1" \
    fails_with 1 "dhcpsnoopd:" "$daemon" --config "$d/none.toml" --data-dir "$d/data" --control "$d/none.sock"
  check "a second daemon on the same control socket: exit 2" \
    fails_with 2 "another daemon is listening on" in_ns "$ns_sw" "$daemon" --config "$work/switch.toml" \
    --data-dir "$d/data" --control "$work/ctl.sock"
  local nobody=(setpriv --reuid=65534 --regid=65534 --clear-groups --inh-caps=-all --bounding-set=-all)
  if ! "${nobody[@]}" test -x "$daemon"; then
    echo "  skip  without privileges (an unprivileged user cannot reach $daemon)"
  else
  # The first thing each data plane opens: the bridge's log groups of
  # trapped DHCP (CAP_NET_ADMIN), the user plane's AF_PACKET ports.
  local needs="needs CAP_NET_RAW"
  [ "$plane" = bridge ] && needs="needs CAP_NET_ADMIN"
  check "without privileges: exit 2, said which: $needs" \
    fails_with 2 "$needs" in_ns "$ns_sw" "${nobody[@]}" "$daemon" --config "$work/switch.toml" --data-dir "$d/data" \
    --control "$d/nobody.sock"
  fi
  check "the running daemon is untouched" ctl_cmd bindings
}

# monitor_line FILE PATTERN: FILE holds a line matching the extended regex.
monitor_line() { grep -qE -- "$2" "$1"; }
# Every line of FILE is one JSON object.
all_json() { python3 -c 'import json, sys; [json.loads(l) for l in open(sys.argv[1])]' "$1"; }
no_lost_line() { ! grep -q 'lost' "$1"; }
has_lines() { [ -s "$1" ]; }

step_monitor() {
  daemon_only "dhcpsnoopctl monitor shows a lease leaving and arriving, and a drop" || return 0
  check "client A is bound before the monitors start" until_ok 5 bound_on "$mac_a" 1/0/3
  ctl_cmd monitor >"$work/monitor.txt" 2>"$work/monitor.err" &
  local mon_text=$!
  ctl_cmd monitor --json >"$work/monitor.json" 2>"$work/monitor-json.err" &
  local mon_json=$!
  pids+=("$mon_text" "$mon_json")
  # Their requests are taken at once; nothing to see before an event.
  sleep 1
  local ip
  ip=$(client_ip "$ns_a")
  # A's RELEASE (udhcpc unicasts it: the server's MAC is given), then a
  # new lease from the start (DISCOVER, the rogue's OFFER dropped, ACK).
  in_ns "$ns_a" ip neigh replace "$ip_srv" lladdr "$mac_srv" nud permanent dev eth0
  kill -USR2 "$udhcpc_pid"
  local gone="binding removed ${ip//./\\.} mac $mac_a vlan $vlan port 1/0/3 cause RELEASE\$"
  check "monitor: client A's binding leaves with its RELEASE" wait_for 10 monitor_line "$work/monitor.txt" "$gone"
  kill -USR1 "$udhcpc_pid"
  check "client A leases again" wait_for 15 has_lease "$ns_a"
  ip=$(client_ip "$ns_a")
  local came="binding added ${ip//./\\.} mac $mac_a vlan $vlan port 1/0/3 lease [0-9]+ cause ACK\$"
  check "monitor: client A's binding arrives with the ACK" wait_for 10 monitor_line "$work/monitor.txt" "$came"
  check "monitor: the rogue server's OFFER is a drop of 1/0/2" wait_for 10 monitor_line "$work/monitor.txt" \
    " drop port 1/0/2 mac $mac_rogue reason untrusted server message\$"
  check "monitor: every line starts with its time" monitor_line "$work/monitor.txt" "^[0-9]{4}-[0-9]{2}-[0-9]{2}T"
  local j='"mac":"'$mac_a'","vlan":'$vlan',"port":"1/0/3"'
  check "monitor --json: the RELEASE" wait_for 10 monitor_line "$work/monitor.json" \
    '"event":"binding-removed",.*'"$j"',"cause":"RELEASE"'
  check "monitor --json: the ACK" wait_for 10 monitor_line "$work/monitor.json" \
    '"event":"binding-added","ip":"'"${ip//./\\.}"'",'"$j"',"lease":[0-9]+,"cause":"ACK"'
  check "monitor --json: the drop" wait_for 10 monitor_line "$work/monitor.json" \
    '"event":"drop","port":"1/0/2","mac":"'$mac_rogue'","reason":"untrusted server message"'
  check "monitor --json: one JSON object a line" all_json "$work/monitor.json"
  check "the monitors lost nothing" no_lost_line "$work/monitor.txt"
  check "the monitors are still running" kill -0 "$mon_text" "$mon_json"
  # They run until stopped (a script's background jobs ignore SIGINT).
  kill -TERM "$mon_text" "$mon_json"
  wait "$mon_text" "$mon_json" 2>/dev/null
  check "monitor wrote nothing on standard error" same "$(cat "$work/monitor.err" "$work/monitor-json.err")" ""
  local p kept=()
  for p in "${pids[@]}"; do [ "$p" = "$mon_text" ] || [ "$p" = "$mon_json" ] || kept+=("$p"); done
  pids=("${kept[@]}")
  echo "  info  monitor: $(wc -l <"$work/monitor.txt") lines; $(grep -c ' drop ' "$work/monitor.txt") drops"
  [ "${#failures[@]}" -eq 0 ] || sed 's/^/  monitor| /' "$work/monitor.txt" | head -20
}

# ---- the bridge host as a port (step host) ---------------------------------
#
# A topology of its own: br0 of sw1 (1/0/1, trusted), sw3 (1/0/3, client A,
# udhcpc) and sw4 (1/0/4, a rogue dnsmasq of its own pool, untrusted), all
# of VLAN 10, and br0 itself as the port 1/0/8 (trusted): the host of a home
# router or a hypervisor. First dnsmasq serves on br0 itself: client A must
# be leased by it, bound, and then talk to the host from its leased address
# only. Then the host is a client: udhcpc on br0, the server behind 1/0/1;
# the rogue's replies never reach the host.

host_pair_up() { in_ns "$ns_sw" ip link show dhcpsnoop-br >/dev/null 2>&1; }
no_host_pair() {
  ! in_ns "$ns_sw" ip link show dhcpsnoop-br >/dev/null 2>&1 && ! in_ns "$ns_sw" ip link show dhcpsnoop-tx >/dev/null 2>&1
}
br0_mac() { in_ns "$ns_sw" cat /sys/class/net/br0/address; }
br0_ip() { ip -n "$ns_sw" -4 -o addr show dev br0 | awk '$3 == "inet" {split($4, a, "/"); print a[1]; exit}'; }

write_host_config() {
  cat >"$work/switch.toml" <<EOF
[switch]
dataplane = "bridge"
bridge = "br0"
unit = 1
mac = "$switch_mac"
snooping_vlans = [$vlan]
ip_filter = true
arp_defend = true

[[port]]
name = "1/0/8"
vlan = $vlan
trust = true
interface = "br0"

[[port]]
name = "1/0/1"
vlan = $vlan
trust = true
interface = "sw1"

[[port]]
name = "1/0/3"
vlan = $vlan
rate = 20
interface = "sw3"

[[port]]
name = "1/0/4"
vlan = $vlan
interface = "sw4"
EOF
}

host_topology_up() {
  mkdir -p "$work/data"
  ip netns add "$ns_sw" 2>"$work/netns.err" || skip "cannot make network namespaces: $(cat "$work/netns.err")"
  in_ns "$ns_sw" sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
  local n ns
  for n in 1 3 4; do
    case $n in 1) ns=$ns_srv ;; 3) ns=$ns_a ;; *) ns=$ns_rogue ;; esac
    ip netns add "$ns" || fatal "ip netns add $ns"
    in_ns "$ns" sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
    ip link add "sw$n" netns "$ns_sw" type veth peer name eth0 netns "$ns" || fatal "veth sw$n"
    ip -n "$ns" link set lo up
    ip -n "$ns" link set eth0 up
    ip -n "$ns_sw" link set "sw$n" up
    in_ns "$ns" ethtool -K eth0 tx off >/dev/null
    in_ns "$ns_sw" ethtool -K "sw$n" tx off >/dev/null
  done
  ip -n "$ns_srv" link set eth0 address "$mac_srv"
  ip -n "$ns_a" link set eth0 address "$mac_a"
  ip -n "$ns_rogue" link set eth0 address "$mac_rogue"
  ip -n "$ns_rogue" addr add "$ip_rogue/24" dev eth0
  ip -n "$ns_sw" link add br0 type bridge stp_state 0
  for n in 1 3 4; do ip -n "$ns_sw" link set "sw$n" master br0; done
  ip -n "$ns_sw" link set br0 up
  mac_host=$(br0_mac)
  if [ "$mode" = daemon ]; then
    write_host_config
    daemon_start
  fi
  capture "$ns_a" a.pcap
  ip netns exec "$ns_sw" tcpdump -n -U --immediate-mode -Z root -i br0 -w "$work/host.pcap" \
    'udp port 67 or udp port 68 or icmp or arp' 2>"$work/host.pcap.log" &
  pids+=($!)
  for n in a host; do
    wait_for 10 grep -q 'listening on' "$work/$n.pcap.log" || fatal "tcpdump ($n) did not start"
  done
  host_common=(--no-daemon --port=0 --conf-file=/dev/null --bind-interfaces --no-ping
    --dhcp-option=option:router --dhcp-option=option:dns-server --log-dhcp)
  # As in the other topology: behind a plain bridge the rogue waits 2 s.
  local delay=0
  [ "$mode" = bridge ] && delay=2
  ip netns exec "$ns_rogue" dnsmasq "${host_common[@]}" --interface=eth0 --dhcp-reply-delay=$delay \
    --dhcp-range=198.18.1.100,198.18.1.150,255.255.255.0,1h \
    --dhcp-leasefile="$work/rogue.leases" 2>"$work/rogue.log" &
  pids+=($!)
  wait_for 10 grep -q 'DHCP, IP range' "$work/rogue.log" || fatal "dnsmasq (rogue) did not start"
  cat >"$work/udhcpc.sh" <<'EOF'
#!/bin/sh
case "$1" in
  deconfig) ip -4 addr flush dev "$interface" ;;
  bound|renew) ip -4 addr flush dev "$interface"; ip addr add "$ip/$mask" dev "$interface" ;;
esac
exit 0
EOF
  chmod +x "$work/udhcpc.sh"
}

ping_host_from() { in_ns "$1" ping -n -q -c "$2" -W 1 -i 0.3 "$ip_srv" >/dev/null; }
no_ping_host_from() { ! ping_host_from "$@"; }
host_leased() { br0_ip | grep -q '^198\.18\.0\.'; }

step_host() {
  if [ -n "$(plane_skip_reason host)" ]; then echo "  skip  $(plane_skip_reason host)"; return 0; fi
  # 1. dnsmasq on the bridge device serves client A behind an untrusted port.
  in_ns "$ns_sw" ip addr add "$ip_srv/24" dev br0
  ip netns exec "$ns_sw" dnsmasq "${host_common[@]}" --interface=br0 \
    --dhcp-range=198.18.0.100,198.18.0.150,255.255.255.0,1h \
    --dhcp-leasefile="$work/server.leases" 2>"$work/server.log" &
  local host_server=$!
  pids+=("$host_server")
  wait_for 10 grep -q 'DHCP, IP range' "$work/server.log" || fatal "dnsmasq (on br0) did not start"
  if [ "$mode" = daemon ]; then
    check "the daemon's veth pair to the host is there" host_pair_up
    check "br0 kept its MAC" same "$(br0_mac)" "$mac_host"
  fi
  ip netns exec "$ns_a" busybox udhcpc -f -i eth0 -s "$work/udhcpc.sh" -t 5 -T 2 >"$work/udhcpc.log" 2>&1 &
  udhcpc_pid=$!
  pids+=("$udhcpc_pid")
  wait_for 20 has_lease "$ns_a" || fatal "client A got no lease from the server on br0"
  if [ "$mode" = bridge ]; then
    wait_for 10 rogue_offered "$mac_a" || fatal "the rogue server sent no OFFER"
    sleep 0.5
  fi
  ip_a=$(client_ip "$ns_a")
  echo "  info  client A (udhcpc) $mac_a leased $ip_a from dnsmasq on br0"
  check "client A's address is from the host's pool" in_trusted_pool "$ip_a"
  check "the host's lease file holds client A" same "$(lease_ip $mac_a)" "$ip_a"
  snoop_check "no reply of the rogue server reached client A" "${tool[@]}" pcap-replies-from "$work/a.pcap" "$ip_rogue"
  if daemon_only "client A is bound on 1/0/3"; then
    check "client A is bound on 1/0/3, as the host's lease file has it" until_ok 5 bindings_match "$mac_a=1/0/3"
    check "the table's set holds client A" until_ok 5 set_holds "$mac_a"
  fi
  check "client A pings the host from its leased address" ping_host_from "$ns_a" 3
  # From an address it was not leased (static neighbour entries on both
  # ends: only the source guard can stop it).
  kill -STOP "$udhcpc_pid"
  in_ns "$ns_sw" ip neigh replace "$ip_unleased" lladdr "$mac_a" nud permanent dev br0
  in_ns "$ns_a" ip -4 addr flush dev eth0
  in_ns "$ns_a" ip addr add "$ip_unleased/24" dev eth0
  in_ns "$ns_a" ip neigh replace "$ip_srv" lladdr "$mac_host" nud permanent dev eth0
  snoop_check "client A cannot ping the host from $ip_unleased, which it was not leased" no_ping_host_from "$ns_a" 3
  in_ns "$ns_a" ip -4 addr flush dev eth0
  in_ns "$ns_a" ip addr add "$ip_a/24" dev eth0
  in_ns "$ns_a" ip neigh replace "$ip_srv" lladdr "$mac_host" nud permanent dev eth0
  check "back on its leased address, client A pings the host again" ping_host_from "$ns_a" 3
  kill -CONT "$udhcpc_pid"

  # 2. The host is a client: udhcpc on br0, the server behind 1/0/1.
  kill -TERM "$host_server" "$udhcpc_pid" 2>/dev/null
  wait "$host_server" "$udhcpc_pid" 2>/dev/null
  in_ns "$ns_sw" ip -4 addr flush dev br0
  in_ns "$ns_srv" ip addr add "$ip_srv/24" dev eth0
  mv "$work/server.leases" "$work/host-server.leases"
  ip netns exec "$ns_srv" dnsmasq "${host_common[@]}" --interface=eth0 \
    --dhcp-range=198.18.0.100,198.18.0.150,255.255.255.0,1h \
    --dhcp-leasefile="$work/server.leases" 2>"$work/server2.log" &
  pids+=($!)
  wait_for 10 grep -q 'DHCP, IP range' "$work/server2.log" || fatal "dnsmasq (behind 1/0/1) did not start"
  local rc
  timeout 30 ip netns exec "$ns_sw" busybox udhcpc -n -q -f -i br0 -s "$work/udhcpc.sh" -t 5 -T 2 \
    >"$work/udhcpc-host.log" 2>&1
  rc=$?
  check "udhcpc on br0 gets a lease from the server behind 1/0/1 (exit $rc)" same "$rc" 0
  check "br0's address is from the server's pool" host_leased
  check "the server's lease file holds the host" same "$(lease_ip "$mac_host")" "$(br0_ip)"
  if [ "$mode" = bridge ]; then
    wait_for 10 rogue_offered "$mac_host" || fatal "the rogue server sent the host no OFFER"
    sleep 0.5
  fi
  snoop_check "no reply of the rogue server reached the host" "${tool[@]}" pcap-replies-from "$work/host.pcap" "$ip_rogue"
  check "the host pings the server from its leased address" in_ns "$ns_sw" ping -n -q -c 3 -W 1 -i 0.3 "$ip_srv"

  # 3. kill -9 leaves the pair as it leaves the table (inert: nothing is
  # sent into it, the bridge neither learns nor floods there); the next
  # start replaces both.
  daemon_only "kill -9 and a restart with the veth pair" || return 0
  local before after
  before=$(in_ns "$ns_sw" cat /sys/class/net/dhcpsnoop-br/ifindex)
  daemon_kill9
  check "after kill -9 the veth pair stays" host_pair_up
  check "and so does the table" has_table
  daemon_start
  after=$(in_ns "$ns_sw" cat /sys/class/net/dhcpsnoop-br/ifindex 2>/dev/null)
  check "the restarted daemon replaced the pair (ifindex $before, now $after)" test -n "$after" -a "$before" != "$after"
  timeout 30 ip netns exec "$ns_sw" busybox udhcpc -n -q -f -i br0 -s "$work/udhcpc.sh" -t 5 -T 2 \
    >>"$work/udhcpc-host.log" 2>&1
  rc=$?
  check "udhcpc on br0 is leased again through the new pair (exit $rc)" same "$rc" 0
}

echo "== e2e ($mode, data plane $plane): ${run_steps[*]}"
current_step=setup
if [ "$step" = host ]; then host_topology_up; else topology_up; fi
for s in "${run_steps[@]}"; do
  current_step=$s
  echo "-- step $s"
  "step_${s//-/_}"
done
if [ "$mode" = daemon ]; then
  current_step=stop
  daemon_stop
  check "dhcpsnoopd exits 0 on SIGTERM at the end" same "$daemon_status" 0
  check "the daemon wrote no sanitizer report" no_sanitizer_report
  [ "$plane" = bridge ] && check "its nftables table is gone after SIGTERM" no_table
  [ "$step" = host ] && check "and its veth pair to the host" no_host_pair
fi
finish
