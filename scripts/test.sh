#!/usr/bin/env bash
# Runs every test: the native suite with AddressSanitizer and
# UndefinedBehaviorSanitizer, then the same suite cross-compiled for the
# 32-bit big-endian MIPS switch and run under qemu-mips.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc 2>/dev/null || echo 2)

scripts/deps.sh cmake ninja-build g++ clang libgtest-dev libgmock-dev libbenchmark-dev \
  g++-mips-linux-gnu qemu-user libpcap-dev libtomlplusplus-dev libcli11-dev

status=0
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

# The benchmarks are built (optimised, no sanitizers), not run: run
# build/bench/bench/bench_main_path by hand for the figures.
echo "== [bench] configure and build"
if ! { cmake -G Ninja -S . -B build/bench -DCMAKE_BUILD_TYPE=Release \
         -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG" -DDHCPSNOOP_TESTS=OFF -DDHCPSNOOP_BENCH=ON >/dev/null &&
       ninja -C build/bench -j "$jobs" bench_main_path; }; then
  status=1
fi

if [ $status -ne 0 ]; then
  echo "== some suites FAILED"
  exit 1
fi
echo "== all suites passed (native with ASan+UBSan, mips under qemu-mips)"
