#!/usr/bin/env bash
# The main job on its built-in default: builds dhcpsnoop-replay and replays
# the shipped example (real dnsmasq, udhcpc and dhclient captures and a rogue
# server) through the module on the simulated switch. Arguments are passed
# to the tool (scripts/run.sh --help).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh cmake ninja-build g++ libgtest-dev libgmock-dev libpcap-dev libtomlplusplus-dev libcli11-dev
cmake -G Ninja -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DDHCPSNOOP_TESTS=OFF >/dev/null
ninja -C build/release dhcpsnoop-replay >/dev/null
exec build/release/tools/dhcpsnoop-replay "$@"
