#!/usr/bin/env bash
# dhcpsnoopd's notifications to the service manager (Type=notify), checked
# against a socket of our own in $NOTIFY_SOCKET, with the daemon switching
# two veth ports in a network namespace:
#   READY=1 only once every port switches and the control socket listens,
#   from the daemon's own process (NotifyAccess=main), with a status line;
#   RELOADING=1 (with MONOTONIC_USEC) then READY=1 around every SIGHUP, the
#   status saying so when the new file was refused;
#   STOPPING=1 on SIGTERM, then exit 0;
#   a daemon that cannot start never says READY=1.
#
#   notify.sh --daemon DHCPSNOOPD
# Exit 0 pass, 1 fail, 77 skipped (not root, no network namespaces).
# Makes namespaces named dse*: run under flock /tmp/dhcpsnoop-e2e.lock (CTest
# holds the e2e resource lock instead).
set -uo pipefail
PATH="$PATH:/usr/sbin:/sbin"
here="$(cd "$(dirname "$0")" && pwd)"
daemon=""
while [ $# -gt 0 ]; do
  case "$1" in
    --daemon) daemon="$2"; shift 2 ;;
    *) echo "usage: notify.sh --daemon DHCPSNOOPD" >&2; exit 2 ;;
  esac
done
[ -x "$daemon" ] || { echo "notify: $daemon is not an executable" >&2; exit 1; }
[ "$(id -u)" -eq 0 ] || { echo "SKIPPED: needs root (network namespaces, raw sockets)"; exit 77; }
command -v python3 >/dev/null && command -v ip >/dev/null || { echo "SKIPPED: needs ip and python3"; exit 77; }

ns="dse$$-svc"
work=$(mktemp -d /tmp/dhcpsnoop-notify.XXXXXX)
listener=""
dpid=""
cleanup() {
  [ -n "$dpid" ] && kill "$dpid" 2>/dev/null && wait "$dpid" 2>/dev/null
  [ -n "$listener" ] && kill "$listener" 2>/dev/null && wait "$listener" 2>/dev/null
  ip netns delete "$ns" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
failed=0
fail() { echo "FAILED: $*"; failed=1; }
show() {
  echo "--- notifications"; cat "$work/notify.log" 2>/dev/null
  echo "--- daemon"; cat "$work/daemon.err" 2>/dev/null
}

ip netns add "$ns" 2>"$work/netns.err" || { echo "SKIPPED: cannot make network namespaces: $(cat "$work/netns.err")"; exit 77; }
for n in 1 2; do
  ip -n "$ns" link add "sw$n" type veth peer name "peer$n" || { echo "FAILED: veth"; exit 1; }
  ip -n "$ns" link set "sw$n" up && ip -n "$ns" link set "peer$n" up
done
write_config() {
  cat >"$work/switch.toml" <<TOML
[switch]
dataplane = "user"
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
interface = "$2"
TOML
}

python3 "$here/notify_listener.py" "$work/notify" "$work/notify.log" &
listener=$!
for _ in $(seq 50); do [ -S "$work/notify" ] && break; sleep 0.1; done
[ -S "$work/notify" ] || { echo "FAILED: the listener did not bind"; exit 1; }

# Lines of the log that carry FIELD; waits up to 10 s for at least N of them.
count() { grep -c -- "$1" "$work/notify.log" 2>/dev/null || true; }
wait_for() {
  local field=$1 n=$2
  for _ in $(seq 100); do
    [ "$(count "$field")" -ge "$n" ] && return 0
    sleep 0.1
  done
  return 1
}
start() {
  NOTIFY_SOCKET="$work/notify" ip netns exec "$ns" "$daemon" --config "$work/switch.toml" \
    --data-dir "$work/data" --control "$work/ctl.sock" 2>>"$work/daemon.err" &
  dpid=$!
}

# A port whose interface is missing: exit 2 and no READY=1.
write_config 20 nosuchif
start
wait "$dpid"; rc=$?; dpid=""
[ "$rc" -eq 2 ] || fail "start with a missing interface: exit $rc, not 2"
[ "$(count READY=1)" -eq 0 ] || fail "a daemon that did not start said READY=1"

write_config 20 sw2
: >"$work/daemon.err"
start
wait_for READY=1 1 || fail "no READY=1 within 10 s"
grep -q "dhcpsnoopd: ready" "$work/daemon.err" || fail "READY=1 before the daemon was ready"
[ -S "$work/ctl.sock" ] || fail "READY=1 before the control socket listens"
line=$(grep -m1 READY=1 "$work/notify.log")
[ "${line%% *}" = "$dpid" ] || fail "READY=1 came from pid ${line%% *}, not the daemon's $dpid"
case "$line" in *"STATUS=switching 2 ports"*) ;; *) fail "READY=1 without its status: $line" ;; esac

# A good reload: RELOADING=1 with the monotonic time, then READY=1.
write_config 30 sw2
kill -HUP "$dpid"
wait_for READY=1 2 || fail "no READY=1 after SIGHUP"
[ "$(count RELOADING=1)" -eq 1 ] || fail "not one RELOADING=1 for one SIGHUP"
grep RELOADING=1 "$work/notify.log" | grep -q "MONOTONIC_USEC=[0-9]" || fail "RELOADING=1 without MONOTONIC_USEC"
order=$(grep -E "RELOADING=1|READY=1" "$work/notify.log" | sed -n '2,3p' | cut -d' ' -f2 | cut -d'|' -f1 | tr '\n' ' ')
[ "$order" = "RELOADING=1 READY=1 " ] || fail "reload order: $order"
grep -q "configuration reloaded" "$work/daemon.err" || fail "the reload did not happen"

# A refused file: still READY=1 (the old configuration runs), saying so.
echo "this is not toml = = =" >"$work/switch.toml"
kill -HUP "$dpid"
wait_for READY=1 3 || fail "no READY=1 after a refused reload"
[ "$(count RELOADING=1)" -eq 2 ] || fail "not two RELOADING=1 for two SIGHUPs"
tail -n1 "$work/notify.log" | grep -q "STATUS=.*reload failed" || fail "a refused reload not in the status"

# Stop: STOPPING=1, exit 0.
kill -TERM "$dpid"
wait "$dpid"; rc=$?; dpid=""
[ "$rc" -eq 0 ] || fail "SIGTERM: exit $rc"
tail -n1 "$work/notify.log" | grep -q "STOPPING=1" || fail "no STOPPING=1 as the last notification"
[ "$(count STOPPING=1)" -eq 1 ] || fail "not one STOPPING=1"

if [ $failed -ne 0 ]; then
  show
  exit 1
fi
echo "notify: READY, RELOADING/READY (good and refused file), STOPPING and a failed start all as expected"
