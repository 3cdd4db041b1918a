#!/usr/bin/env bash
# Builds the Debian package in BUILD_DIR (a configured, non-sanitized build
# with the prefix /usr), unpacks it into a scratch root and runs what it
# installed from there: the replay tool on its shipped example (outputs
# compared with the example's expected ones), dhcpsnoopd --help, dhcpsnoopctl
# --help, the example configuration through the configuration parser, the
# manual pages through mandoc -T lint, the unit through systemd-analyze.
#
#   check-package.sh BUILD_DIR
set -uo pipefail
build=$1
src="$(cd "$(dirname "$0")/.." && pwd)"
fail() { echo "== [package] FAILED: $*"; exit 1; }

(cd "$build" && cpack -G DEB >cpack.log 2>&1) || { cat "$build/cpack.log"; fail "cpack -G DEB"; }
deb=$(ls -t "$build"/dhcpsnoop_*.deb | head -n1)
[ -f "$deb" ] || fail "no package in $build"
echo "== [package] $(basename "$deb")"
depends=$(dpkg-deb -f "$deb" Depends)
echo "Depends: $depends"
for lib in libc6 libstdc++6 libpcap0.8 libsystemd0 libcap-ng0 adduser; do
  case ", $depends," in *", $lib"[\ ,]*) ;; *) fail "$lib missing from Depends" ;; esac
done
for script in postinst prerm; do
  dpkg-deb --ctrl-tarfile "$deb" | tar -xO "./$script" | sh -n || fail "$script does not parse"
done
dpkg-deb --ctrl-tarfile "$deb" | tar -xO ./conffiles | grep -qx /etc/dhcpsnoop/dhcpsnoop.toml ||
  fail "the configuration is not a conffile"

root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
dpkg -x "$deb" "$root" || fail "dpkg -x"
for f in usr/sbin/dhcpsnoopd usr/bin/dhcpsnoopctl usr/bin/dhcpsnoop-replay \
    etc/dhcpsnoop/dhcpsnoop.toml usr/lib/systemd/system/dhcpsnoopd.service usr/lib/sysusers.d/dhcpsnoop.conf \
    usr/share/man/man8/dhcpsnoopd.8 usr/share/man/man8/dhcpsnoopctl.8 usr/share/man/man1/dhcpsnoop-replay.1 \
    usr/share/man/man5/dhcpsnoop.toml.5 usr/share/dhcpsnoop/examples/basic/switch.toml; do
  [ -e "$root/$f" ] || fail "/$f not in the package"
done

# The installed replay tool on its built-in example, found beside it.
out="$root/replay-out"
env -u DHCPSNOOP_EXAMPLES "$root/usr/bin/dhcpsnoop-replay" --out "$out" >"$root/replay.txt" 2>&1 ||
  { cat "$root/replay.txt"; fail "installed dhcpsnoop-replay"; }
env -u DHCPSNOOP_EXAMPLES "$root/usr/bin/dhcpsnoop-replay" >"$root/summary.txt" 2>&1 ||
  { cat "$root/summary.txt"; fail "installed dhcpsnoop-replay without arguments"; }
head -n1 "$root/summary.txt" | grep -qx "Example $root/usr/share/dhcpsnoop/examples/basic" ||
  fail "the installed tool did not use its installed example: $(head -n1 "$root/summary.txt")"
expected="$root/usr/share/dhcpsnoop/examples/basic/expected"
for f in "$expected"/*; do
  name=$(basename "$f")
  if [ "$name" = summary.txt ]; then
    tail -n "$(wc -l <"$f")" "$root/summary.txt" | cmp -s - "$f" || fail "summary differs from $name"
  else
    cmp -s "$f" "$out/$name" || fail "$name differs from the expected one"
  fi
done
echo "installed dhcpsnoop-replay: the basic example's outputs as expected"

# The example configuration parses (the replay tool shares the parser).
"$root/usr/bin/dhcpsnoop-replay" --config "$root/etc/dhcpsnoop/dhcpsnoop.toml" \
  --in "1/0/1=$root/usr/share/dhcpsnoop/examples/basic/1_0_1.pcap" >"$root/conf.txt" 2>&1 ||
  { cat "$root/conf.txt"; fail "the example configuration does not load"; }

"$root/usr/sbin/dhcpsnoopd" --help >"$root/help.txt" 2>&1 && grep -q -- "--config" "$root/help.txt" ||
  { cat "$root/help.txt"; fail "installed dhcpsnoopd --help"; }
"$root/usr/bin/dhcpsnoopctl" --help >"$root/help.txt" 2>&1 && grep -q "bindings" "$root/help.txt" ||
  { cat "$root/help.txt"; fail "installed dhcpsnoopctl --help"; }
echo "installed dhcpsnoopd --help, dhcpsnoopctl --help: fine"

mandoc -T lint "$root"/usr/share/man/man*/* || fail "mandoc -T lint of the installed pages"
bash "$src/systemd/verify-unit.sh" "$root/usr/lib/systemd/system/dhcpsnoopd.service" \
  "$root/usr/sbin/dhcpsnoopd" "$root/usr/share/man" || fail "the installed unit"
echo "== [package] passed"
