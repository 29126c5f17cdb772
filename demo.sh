#!/usr/bin/env bash
# The interface agents at work on this host: builds, then starts the
# configuration agent and the host agent, drives traffic through a
# namespace's loopback device, shows rates and statuses moving, changes the
# configured MTU and reads it back from the kernel, clears the counters and
# shows the counts since the clear, serves the model to a gNMI
# collector (intf-gnmid, with Node's gRPC client as the collector), and
# cleans up.
# As root it works in a throwaway network namespace; otherwise on the
# default namespace, without changing the kernel.
set -euo pipefail
cd "$(dirname "$0")"
source tools/deps.sh
intf_need_packages "${INTF_BASE_PACKAGES[@]}" iproute2
intf_want_packages "${INTF_GNMI_PACKAGES[@]}"

cmake -S . -B build/plain -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/plain -j "$(nproc)" --target intf-configd intf-agent intf-show intf-traffic
gnmi=false
if cmake --build build/plain -j "$(nproc)" --target intf-gnmid >/dev/null 2>&1 && command -v node >/dev/null; then
   tests/gnmi/install-client.sh build/plain/node-gnmi
   [ -d build/plain/node-gnmi/node_modules/@grpc/grpc-js ] && gnmi=true
fi
bin=build/plain/apps

work=$(mktemp -d)
ns="intf-demo-$$"
prefix="/intf-demo-$$-"
pids=()
root=false
[ "$(id -u)" = 0 ] && ip netns add "$ns" 2>/dev/null && root=true
cleanup() {
   # Last started first: the agent goes before the configuration it mounts.
   for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
      kill "${pids[i]}" 2>/dev/null || true
      wait "${pids[i]}" 2>/dev/null || true
   done
   $root && ip netns del "$ns" 2>/dev/null || true
   rm -f /dev/shm/"${prefix#/}"* 2>/dev/null || true
   rm -rf "$work"
}
trap cleanup EXIT

step() { printf '\n\033[1m== %s\033[0m\n' "$*"; }

if $root; then
   ip -n "$ns" link set lo up
   intf=Loopback1
   traffic=(--netns "$ns")
   # An explicit mapping keeps the name stable whatever the namespace's number.
   printf 'global load-interval=5\n%s device=lo netns=%s mtu=65000 load-interval=5 description="demo loopback"\n' \
      "$intf" "$ns" >"$work/intf.conf"
else
   if [ "$(id -u)" = 0 ]; then
      echo "No network namespace could be made here: the demonstration runs on the default namespace"
   else
      echo "Not root: the demonstration runs on the default namespace"
   fi
   echo "and leaves the kernel alone (making a namespace and setting an MTU need root)."
   intf=Loopback0
   traffic=()
   printf 'global load-interval=5\n%s load-interval=5 description="demo loopback"\n' "$intf" >"$work/intf.conf"
fi

step "intf-configd serves $work/intf.conf"
cat "$work/intf.conf"
"$bin/intf-configd" --config "$work/intf.conf" --socket "$work/config.sock" &
pids+=($!)
agent_args=(--socket "$work/agent.sock" --config-socket "$work/config.sock" --config "$work/intf.conf"
            --interval 0.5 --shm-prefix "$prefix")
step "intf-agent models the host's devices"
"$bin/intf-agent" "${agent_args[@]}" &
pids+=($!)
show=("$bin/intf-show" --socket "$work/agent.sock" --config-socket "$work/config.sock" --shm-prefix "$prefix")
for _ in $(seq 50); do "${show[@]}" status >/dev/null 2>&1 && break; sleep 0.1; done
"${show[@]}" status

step "traffic through $intf for 4 seconds"
"$bin/intf-traffic" "${traffic[@]}" --seconds 4 --rate 20000 --size 1200 &
pids+=($!)
for i in 1 2 3; do
   sleep 1.3
   echo "-- after ${i}s"
   "${show[@]}" rates
done
wait "${pids[-1]}" || true
"${show[@]}" counters

step "intf-show clear counters $intf, then a second of traffic: counts since the clear"
"${show[@]}" clear counters "$intf"
"$bin/intf-traffic" "${traffic[@]}" --seconds 1 --rate 1000 --size 500
sleep 1.2  # two samples of the agent
"${show[@]}" interface "$intf" | grep -E 'Input|Output|Last clearing'
echo "-- the absolute counters (--raw), which monitoring sees, went on:"
"${show[@]}" --raw interface "$intf" | grep -E 'Input|Output'

if $root; then
   step "the configured MTU changes to 9000"
   sed -i "s/mtu=65000/mtu=9000/" "$work/intf.conf"
   for _ in $(seq 50); do
      ip -n "$ns" link show lo | grep -q "mtu 9000" && break
      sleep 0.1
   done
   echo "the kernel now says: $(ip -n "$ns" link show lo | head -1)"
   "${show[@]}" interface "$intf"
fi
if $gnmi; then
   step "intf-gnmid serves the model to gNMI collectors (OpenConfig paths)"
   "$bin/intf-gnmid" --listen 127.0.0.1:0 --socket "$work/agent.sock" --config-socket "$work/config.sock" \
      --shm-prefix "$prefix" 2>"$work/gnmid.log" &
   pids+=($!)
   address=""
   for _ in $(seq 50); do
      address=$(sed -n 's/.*serving gNMI on \([^ ]*\).*/\1/p' "$work/gnmid.log")
      [ -n "$address" ] && break
      sleep 0.1
   done
   cat "$work/gnmid.log"
   # A second of traffic, so that the sample shows counters moving.
   "$bin/intf-traffic" "${traffic[@]}" --seconds 2 --rate 2000 --size 500 &
   pids+=($!)
   if $root; then
      INTF_NODE_MODULES=build/plain/node-gnmi/node_modules INTF_GNMI_PROTO=apps/intf-gnmid/gnmi.proto \
         node tools/gnmi_demo.js "$address" "$intf" "$ns"
   else
      INTF_NODE_MODULES=build/plain/node-gnmi/node_modules INTF_GNMI_PROTO=apps/intf-gnmid/gnmi.proto \
         node tools/gnmi_demo.js "$address" "$intf"
   fi
else
   step "intf-gnmid is left out: it needs gRPC and protobuf (Debian) and node with npm for the collector"
fi
step "done: stopping the agents and removing what the demonstration made"
