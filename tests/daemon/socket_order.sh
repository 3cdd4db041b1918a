#!/usr/bin/env bash
# A port's AF_PACKET socket must not receive one frame of another interface:
# made with protocol 0 (it receives nothing), then bound to its interface
# with ETH_P_ALL in one step. A socket made with ETH_P_ALL takes every
# interface's frames until its bind, and the daemon would switch them as the
# port's. The daemon is traced (strace) on each data plane over a veth pair
# in a network namespace of its own.
#
#   socket_order.sh --daemon DHCPSNOOPD
# Exit 0 pass, 1 fail, 77 skipped (not root, no strace or no namespaces).
set -uo pipefail
daemon=""
while [ $# -gt 0 ]; do
  case "$1" in
    --daemon) daemon="$2"; shift 2 ;;
    *) echo "usage: socket_order.sh --daemon DHCPSNOOPD" >&2; exit 2 ;;
  esac
done
[ -x "$daemon" ] || { echo "usage: socket_order.sh --daemon DHCPSNOOPD" >&2; exit 2; }
skip() {
  if [ "${DHCPSNOOP_E2E_REQUIRE:-0}" = 1 ] && [ "$(id -u)" -eq 0 ]; then echo "FAILED: $*"; exit 1; fi
  echo "SKIPPED: $*"; exit 77
}
[ "$(id -u)" -eq 0 ] || skip "needs root (network namespaces, raw sockets)"
command -v strace >/dev/null 2>&1 || skip "strace missing (scripts/test.sh installs it)"

# Not of the e2e suite's form (dse<digits>-), so its clean-up leaves it be.
ns="dsesock$$"
work=$(mktemp -d)
daemon_pid=""
cleanup() {
  [ -n "$daemon_pid" ] && kill -KILL "$daemon_pid" 2>/dev/null
  ip netns del "$ns" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
ip netns add "$ns" 2>"$work/err" || skip "cannot make a network namespace: $(cat "$work/err")"
ip -n "$ns" link add swa type veth peer name swb || { echo "FAIL: veth"; exit 1; }
ip -n "$ns" link set swa up && ip -n "$ns" link set swb up
ip -n "$ns" link add br0 type bridge stp_state 0
ip -n "$ns" link set br0 up

failures=0
run_plane() {
  local plane=$1 dir="$work/$1"
  mkdir -p "$dir"
  if [ "$plane" = bridge ]; then
    ip -n "$ns" link set swa master br0 && ip -n "$ns" link set swb master br0
  else
    ip -n "$ns" link set swa nomaster && ip -n "$ns" link set swb nomaster
  fi
  cat >"$dir/switch.toml" <<EOF
[switch]
dataplane = "$plane"
snooping_vlans = [1]

[[port]]
name = "1/0/1"
vlan = 1
trust = true
interface = "swa"

[[port]]
name = "1/0/2"
vlan = 1
interface = "swb"
EOF
  # LeakSanitizer cannot run under ptrace; the leak checks are the other tests'.
  ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0" \
  ip netns exec "$ns" strace -f -qq -e trace=socket -o "$dir/trace" \
    "$daemon" --config "$dir/switch.toml" --data-dir "$dir/data" --control "$dir/ctl.sock" \
    >"$dir/log" 2>&1 &
  daemon_pid=$!
  local i
  for i in $(seq 1 100); do
    grep -q 'dhcpsnoopd: ready' "$dir/log" 2>/dev/null && break
    kill -0 "$daemon_pid" 2>/dev/null || break
    sleep 0.1
  done
  if ! grep -q 'dhcpsnoopd: ready' "$dir/log"; then
    echo "  FAIL  [$plane] the daemon did not start:"; sed 's/^/        /' "$dir/log" | tail -20
    failures=$((failures + 1))
  fi
  # The daemon itself, not strace: strace would only detach.
  pkill -TERM -f -x -- "$daemon --config $dir/switch.toml .*" 2>/dev/null
  wait "$daemon_pid"
  daemon_pid=""
  local zero all
  # strace writes protocol 0 as "0" or "htons(0 /* ETH_P_??? */)".
  zero=$(grep -cE 'socket\(AF_PACKET, SOCK_RAW, (0|htons\(0[ )])' "$dir/trace")
  all=$(grep -c 'socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL))' "$dir/trace")
  if [ "$zero" -ge 2 ] && [ "$all" -eq 0 ]; then
    echo "  ok    [$plane] $zero port sockets made with protocol 0, none with ETH_P_ALL"
  else
    echo "  FAIL  [$plane] port sockets: $zero made with protocol 0, $all with ETH_P_ALL:"
    grep 'AF_PACKET' "$dir/trace" | sed 's/^/        /'
    failures=$((failures + 1))
  fi
}
run_plane user
if ip netns exec "$ns" nft list tables >/dev/null 2>&1; then
  run_plane bridge
else
  echo "  skip  [bridge] nftables cannot be used here"
fi
if [ $failures -gt 0 ]; then
  echo "FAILED"; exit 1
fi
echo "passed"
