#!/usr/bin/env bash
# Release build of the benchmarks in build/bench, then every benchmark pair.
# The run ends with one line per comparison:
#    BENCH <name> <figure> <= <target>
# Arguments go to intf_bench (e.g. --benchmark_filter=hashmap).
# INTF_BENCH_JOBS sets the build parallelism (default: every core).
set -euo pipefail
cd "$(dirname "$0")"
source tools/deps.sh
intf_need_packages cmake ninja-build g++ libbenchmark-dev libgtest-dev libgmock-dev redis-server iproute2 prometheus-node-exporter libsigc++-3.0-dev libboost-dev

cmake -S . -B build/bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DINTF_TESTS=OFF -DINTF_BENCH=ON >/dev/null
cmake --build build/bench -j "${INTF_BENCH_JOBS:-$(nproc)}" --target intf_bench
./build/bench/bench/intf_bench "$@" | tee build/bench/bench-output.txt
