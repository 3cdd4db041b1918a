#!/usr/bin/env bash
# Checks dhcpsnoopd.service with systemd-analyze, without a running systemd:
# "verify" (syntax, the program it starts, with MANDIR also the manual pages
# it names) and the exposure score of "security --offline", which must stay
# at most MAX (default 2.0).
#
#   verify-unit.sh UNIT DAEMON [MANDIR]
# UNIT is the unit file as built or installed; DAEMON the dhcpsnoopd it is
# checked with (its ExecStart names the installed path, which need not exist
# here); MANDIR a directory with man8/ and man5/. Exit 0 pass, 1 fail, 77
# skipped (no systemd-analyze).
set -uo pipefail
unit=$1 daemon=$2 mandir=${3:-}
max=${DHCPSNOOP_MAX_EXPOSURE:-2.0}
command -v systemd-analyze >/dev/null || { echo "SKIPPED: systemd-analyze not found (package systemd)"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# The same unit, starting this build's daemon.
sed -E "s|^ExecStart=[^ ]*/dhcpsnoopd |ExecStart=$(realpath "$daemon") |" "$unit" >"$work/dhcpsnoopd.service"
grep -q "^ExecStart=$(realpath "$daemon") " "$work/dhcpsnoopd.service" || { echo "FAILED: no ExecStart of dhcpsnoopd in $unit"; exit 1; }
if [ -n "$mandir" ]; then
  MANPATH="$mandir" systemd-analyze verify --man=yes "$work/dhcpsnoopd.service" || { echo "FAILED: systemd-analyze verify"; exit 1; }
else
  systemd-analyze verify --man=no "$work/dhcpsnoopd.service" || { echo "FAILED: systemd-analyze verify"; exit 1; }
fi
systemd-analyze security --offline=true --no-pager "$work/dhcpsnoopd.service" >"$work/security" 2>&1 || true
score=$(sed -n 's/.*Overall exposure level for dhcpsnoopd.service: \([0-9.]*\).*/\1/p' "$work/security")
[ -n "$score" ] || { cat "$work/security"; echo "FAILED: no exposure score"; exit 1; }
echo "dhcpsnoopd.service: verified, exposure $score (at most $max)"
if awk -v s="$score" -v m="$max" 'BEGIN { exit !(s > m) }'; then
  grep "✗" "$work/security"
  echo "FAILED: exposure $score above $max"
  exit 1
fi
