#!/usr/bin/env bash
# Builds and runs every test twice: a plain build, and one under
# AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")"
source tools/deps.sh
intf_need_packages "${INTF_BASE_PACKAGES[@]}" iproute2
# A real monitoring server for the scrape test.
intf_want_packages prometheus
# intf-gnmid, and openssl for its TLS test (its client comes from npm, into build/).
intf_want_packages "${INTF_GNMI_PACKAGES[@]}" openssl

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
echo "== installed package: a consumer built outside the tree, by CMake package and by pkg-config"
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
cmake --install build/plain --prefix "$stage/prefix" >/dev/null
cp -r tools/consumer "$stage/src"
cmake -S "$stage/src" -B "$stage/build" -G Ninja -DCMAKE_PREFIX_PATH="$stage/prefix" >/dev/null
cmake --build "$stage/build"
"$stage/build/intf_consumer"
for program in consumer intf_watch; do
   # shellcheck disable=SC2046
   c++ "$stage/src/$program.cpp" -o "$stage/$program-pc" -Wl,-rpath,"$stage/prefix/lib" \
      $(PKG_CONFIG_PATH="$stage/prefix/lib/pkgconfig" pkg-config --cflags --libs intf)
done
"$stage/consumer-pc"
echo "== installed programs and service units"
for p in intf-configd intf-agent intf-show intf-traffic; do
   "$stage/prefix/bin/$p" --version
   "$stage/prefix/bin/$p" --help >/dev/null
done
if command -v systemd-analyze >/dev/null; then
   systemd-analyze verify "$stage"/prefix/lib/systemd/system/intf-*.service
else
   echo "no systemd-analyze here: the service units are not checked"
fi

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
   run build/asan -DCMAKE_BUILD_TYPE=Debug -DINTF_SANITIZE=ON -DINTF_BENCH=OFF -DINTF_HEADER_CHECK=OFF
echo "all tests passed in both builds"
