#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan + UBSan) in build/fuzz/ and runs
# each *_fuzz binary for N seconds (default 60) on a fresh copy of its seed
# corpus fuzz/corpus/<name>/. New inputs, crash artifacts and logs go to
# fuzz/findings/<name>/ (git-ignored). Exits non-zero if any run fails.
#
#    ./fuzz.sh [seconds]
#
# FUZZ_BUILD_JOBS sets the build parallelism (default 1); ASAN_OPTIONS, when
# set, replaces the default below.
set -euo pipefail

cd "$(dirname "$0")"
secs=${1:-60}
if ! [[ $secs =~ ^[1-9][0-9]*$ ]]; then
   echo "usage: $0 [seconds]" >&2
   exit 2
fi

source tools/deps.sh
intf_need_packages clang libclang-rt-14-dev cmake ninja-build

CC=clang CXX=clang++ cmake -S . -B build/fuzz -G Ninja -DINTF_FUZZ=ON -DINTF_TESTS=OFF \
   -DINTF_BENCH=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/fuzz -j "${FUZZ_BUILD_JOBS:-1}"

shopt -s nullglob
targets=(build/fuzz/fuzz/*_fuzz)
if ((${#targets[@]} == 0)); then
   echo "no fuzz targets in build/fuzz/fuzz/" >&2
   exit 1
fi

failed=()
for bin in "${targets[@]}"; do
   name=$(basename "$bin" _fuzz)
   seeds=fuzz/corpus/$name
   out=fuzz/findings/$name
   rm -rf "$out/corpus"
   mkdir -p "$out/corpus"
   if [[ -d $seeds ]]; then
      cp -R "$seeds/." "$out/corpus/"
   else
      echo "warning: no seed corpus $seeds" >&2
   fi
   log=$out/run.log
   echo "== $name: ${secs}s, log $log"
   rc=0
   # A small quarantine keeps RSS and page faults down; inputs are tiny.
   ASAN_OPTIONS=${ASAN_OPTIONS:-quarantine_size_mb=32} "$bin" -max_total_time="$secs" \
      -rss_limit_mb=2048 -malloc_limit_mb=512 -timeout=10 -print_final_stats=1 \
      -artifact_prefix="$out/" "$out/corpus" >"$log" 2>&1 || rc=$?
   grep -E '^(#[0-9]+[[:space:]]+DONE|Done [0-9]+ runs|stat::number_of_executed_units|stat::peak_rss_mb)' \
      "$log" || true
   if ((rc != 0)); then
      echo "!! $name failed (exit $rc); artifacts in $out/" >&2
      tail -n 40 "$log" >&2
      failed+=("$name")
   fi
done

if ((${#failed[@]})); then
   echo "fuzz failures: ${failed[*]}" >&2
   exit 1
fi
echo "all fuzz targets ran clean"
