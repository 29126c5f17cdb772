#!/usr/bin/env bash
# The suite under load, as CI and a second developer on the same machine
# run it: ./test.sh RUNS times in a row (default 20) while another copy of
# the suite (the built test binaries, plain and sanitised in turn) runs
# beside it the whole time. Stops at the first failing run; every run's
# output is kept, and the last line gives the count.
#
#    tools/stress-tests.sh [runs]
set -euo pipefail
cd "$(dirname "$0")/.."
runs=${1:-20}
if ! [[ $runs =~ ^[1-9][0-9]*$ ]]; then
   echo "usage: $0 [runs]" >&2
   exit 2
fi
logs=$(mktemp -d /tmp/intf-stress-XXXXXX)
echo "logs in $logs"

# Both builds first, so that the copy beside has its binaries.
if ! ./test.sh >"$logs/prepare.log" 2>&1; then
   echo "./test.sh failed before the runs began: $logs/prepare.log" >&2
   exit 1
fi

# The copy beside: in a session of its own, so that it ends with all its
# children.
setsid bash -c '
   n=0
   while :; do
      for bin in build/plain/tests/intf_tests build/asan/tests/intf_tests; do
         n=$((n + 1))
         ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
            "$bin" >"$1/beside-$n.log" 2>&1 || echo "$1/beside-$n.log" >>"$1/beside-failed"
         echo "$n" >"$1/beside-count"
      done
   done' beside "$logs" &
beside=$!
trap 'kill -- -"$beside" 2>/dev/null || true; wait "$beside" 2>/dev/null || true' EXIT

passed=0
for ((i = 1; i <= runs; i++)); do
   if ./test.sh >"$logs/run-$i.log" 2>&1; then
      passed=$i
      echo "run $i of $runs passed"
   else
      echo "run $i of $runs FAILED: $logs/run-$i.log" >&2
      break
   fi
done
kill -- -"$beside" 2>/dev/null || true
wait "$beside" 2>/dev/null || true
trap - EXIT
besideRuns=$(cat "$logs/beside-count" 2>/dev/null || echo 0)
besideFailed=0
if [[ -f $logs/beside-failed ]]; then
   besideFailed=$(wc -l <"$logs/beside-failed")
   echo "copies beside that failed:" >&2
   cat "$logs/beside-failed" >&2
fi
echo "./test.sh passed $passed of $runs runs in a row; the suite beside it ran $besideRuns times, $besideFailed failed"
((passed == runs && besideFailed == 0))
