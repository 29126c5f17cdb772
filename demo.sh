#!/usr/bin/env bash
# Builds the library and runs its demonstration program.
set -euo pipefail
cd "$(dirname "$0")"
source tools/deps.sh
intf_need_packages "${INTF_BASE_PACKAGES[@]}"
cmake -S . -B build/plain -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/plain -j "$(nproc)" --target intf_demo
./build/plain/tools/intf_demo
