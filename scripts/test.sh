#!/usr/bin/env bash
# Runs every test: the native suite with AddressSanitizer and
# UndefinedBehaviorSanitizer, then the same suite cross-compiled for the
# 32-bit big-endian MIPS switch and run under qemu-mips.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc 2>/dev/null || echo 2)

scripts/deps.sh cmake ninja-build g++ clang libgtest-dev libgmock-dev libbenchmark-dev \
  g++-mips-linux-gnu qemu-user libpcap-dev libtomlplusplus-dev libcli11-dev \
  dnsmasq-base busybox isc-dhcp-client tcpdump iproute2 ethtool iputils-ping python3 \
  libsystemd-dev libcap-ng-dev prometheus-cpp-dev systemd scdoc mandoc dpkg-dev \
  libnftables-dev libmnl-dev pkg-config nftables iperf3 strace
# The end-to-end tests (label e2e, native suite only) run real DHCP programs
# in network namespaces; here a missing program fails them instead of
# skipping them. Without root they still skip.
export DHCPSNOOP_E2E_REQUIRE=1

status=0
# promtool (Debian package prometheus) checks the metrics text (test_metrics).
# Only the tool is taken out of the package: installing it would also start a
# Prometheus server on this machine.
if command -v promtool >/dev/null 2>&1; then
  export DHCPSNOOP_PROMTOOL=promtool
else
  if [ ! -x build/promtool/usr/bin/promtool ]; then
    rm -rf build/promtool && mkdir -p build/promtool
    if ! (cd build/promtool && apt-get download -q prometheus >/dev/null 2>&1 &&
          dpkg -x prometheus_*.deb . && rm -f prometheus_*.deb); then
      echo "== cannot fetch promtool (package prometheus): test_metrics will fail"
    fi
  fi
  export DHCPSNOOP_PROMTOOL="$PWD/build/promtool/usr/bin/promtool"
fi
run_suite() {
  local name=$1 dir=$2; shift 2
  echo "== [$name] configure and build"
  cmake -G Ninja -S . -B "$dir" "$@" >/dev/null
  ninja -C "$dir" -j "$jobs"
  echo "== [$name] test"
  if ! (cd "$dir" && ctest --output-on-failure -j "$jobs" --timeout 600); then
    status=1
  fi
}

run_suite native build/native -DCMAKE_BUILD_TYPE=Debug -DDHCPSNOOP_SANITIZE=ON
run_suite mips-qemu build/mips -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_TOOLCHAIN_FILE=cmake/mips-linux-gnu.cmake

# The libFuzzer targets (clang): they must keep building and must not crash
# on their seed corpus; a short run of each. New inputs go to a scratch
# directory, never into the checked-in corpus.
echo "== [fuzz] configure and build (clang, libFuzzer, ASan+UBSan)"
CC=clang CXX=clang++ cmake -G Ninja -S . -B build/fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DDHCPSNOOP_FUZZ=ON -DDHCPSNOOP_TESTS=OFF >/dev/null
fuzz_targets=()
for dir in fuzz/corpus/*/; do
  fuzz_targets+=("fuzz_$(basename "$dir")")
done
ninja -C build/fuzz -j "$jobs" "${fuzz_targets[@]}"
for target in "${fuzz_targets[@]}"; do
  echo "== [fuzz] $target, 20 seconds over its corpus"
  scratch=$(mktemp -d)
  if ! build/fuzz/fuzz/"$target" -max_total_time=20 -max_len=1600 -print_final_stats=1 \
      -artifact_prefix="$scratch/" "$scratch" "fuzz/corpus/${target#fuzz_}" >"$scratch/log" 2>&1; then
    tail -n 60 "$scratch/log"
    echo "== [fuzz] $target FAILED; inputs kept in $scratch"
    status=1
  else
    grep -E '^stat::(number_of_executed_units|new_units_added)' "$scratch/log" || true
    rm -rf "$scratch"
  fi
done

# Stack records across byte orders: each build applies what the other made.
interop() {
  local name=$1 producer=$2 applier=$3 dir
  dir=$(mktemp -d)
  echo "== [interop] $name"
  if ! { $producer produce "$dir" && $applier apply "$dir"; }; then
    status=1
  fi
  rm -rf "$dir"
}
native_interop=build/native/tests/stack_interop
mips_interop="qemu-mips build/mips/tests/stack_interop"
interop "native produce -> mips apply" "$native_interop" "$mips_interop"
interop "mips produce -> native apply" "$mips_interop" "$native_interop"

# Under ThreadSanitizer: the stack callbacks against the main task, the
# daemon's control socket, and the live platform's tests (its tasks, queues,
# timers and switch core against the module). Any report fails the stage.
echo "== [tsan] configure and build"
cmake -G Ninja -S . -B build/tsan -DCMAKE_BUILD_TYPE=Debug -DDHCPSNOOP_TSAN=ON >/dev/null
tsan_tests=(tests/test_stack_stress tests/test_control)
for src in tests/linux/test_*.cpp; do
  tsan_tests+=("tests/linux/live_$(basename "$src" .cpp)")
done
ninja -C build/tsan -j "$jobs" "${tsan_tests[@]##*/}"
for t in "${tsan_tests[@]}"; do
  echo "== [tsan] $(basename "$t")"
  if ! TSAN_OPTIONS="halt_on_error=1 exitcode=66 second_deadlock_stack=1" "build/tsan/$t" >"build/tsan/$(basename "$t").log" 2>&1; then
    tail -n 80 "build/tsan/$(basename "$t").log"
    status=1
  fi
done

# The benchmarks are built (optimised, no sanitizers), not run: run
# build/bench/bench/bench_main_path by hand for the figures.
echo "== [bench] configure and build"
if ! { cmake -G Ninja -S . -B build/bench -DCMAKE_BUILD_TYPE=Release \
         -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG" -DDHCPSNOOP_TESTS=OFF -DDHCPSNOOP_BENCH=ON >/dev/null &&
       ninja -C build/bench -j "$jobs" bench_main_path; }; then
  status=1
fi

# The Debian package, from an optimised build of its own without sanitizers:
# built by CPack, unpacked into a scratch root, its programs run from there,
# its manual pages linted and its unit verified (packaging/check-package.sh).
echo "== [package] configure and build (Release, prefix /usr)"
if ! { cmake -G Ninja -S . -B build/pkg -DCMAKE_BUILD_TYPE=Release -DDHCPSNOOP_TESTS=OFF \
         -DCMAKE_INSTALL_PREFIX=/usr >/dev/null &&
       ninja -C build/pkg -j "$jobs" &&
       packaging/check-package.sh build/pkg; }; then
  status=1
fi

if [ $status -ne 0 ]; then
  echo "== some suites FAILED"
  exit 1
fi
echo "== all suites passed (native with ASan+UBSan and the e2e tests, mips under qemu-mips, fuzz targets, stack interop, tsan, the Debian package)"
