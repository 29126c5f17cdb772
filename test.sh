#!/usr/bin/env bash
# Builds and runs every test twice: a plain build, and one under
# AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")"
source tools/deps.sh
intf_need_packages "${INTF_BASE_PACKAGES[@]}"

jobs=$(nproc)
run() {
   local dir=$1
   shift
   cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
   cmake --build "$dir" -j "$jobs"
   (cd "$dir" && ctest --output-on-failure -j "$jobs")
}

echo "== plain build"
run build/plain -DCMAKE_BUILD_TYPE=RelWithDebInfo
echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
   run build/asan -DCMAKE_BUILD_TYPE=Debug -DINTF_SANITIZE=ON -DINTF_BENCH=OFF
echo "all tests passed in both builds"
