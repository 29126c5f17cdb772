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
intf_want_packages "${INTF_GNMI_PACKAGES[@]}"

cmake -S . -B build/bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DINTF_TESTS=OFF -DINTF_BENCH=ON >/dev/null
cmake --build build/bench -j "${INTF_BENCH_JOBS:-$(nproc)}" --target intf_bench
gnmi=false
cmake --build build/bench -j "${INTF_BENCH_JOBS:-$(nproc)}" --target gnmi_bench 2>/dev/null && gnmi=true
./build/bench/bench/intf_bench "$@" | tee build/bench/bench-output.txt
# intf-gnmid's figures (gRPC): their own binary, run against the real program.
if $gnmi; then
   ./build/bench/bench/gnmi_bench build/bench/apps/intf-gnmid | tee -a build/bench/bench-output.txt
else
   echo "gnmi.*: not measured, intf-gnmid is not built here (no gRPC and protobuf)"
fi
