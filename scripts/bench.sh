#!/usr/bin/env bash
# Runs the benchmarks of a build directory: bench_ts (comp's short-connection
# server path against a minimal baseline relay, about 2.5 minutes with its
# defaults), bench_pc (the persistent client's round trip against its own
# baseline relay, about 2 minutes) and bench_micro (the per-message routines)
# when it was built. `make bench` calls it. Extra arguments go to bench_ts, e.g.
#   scripts/bench.sh build --seconds 2 --rounds 3
# BENCH_PC_ARGS passes arguments to bench_pc, BENCH_MICRO_ARGS to bench_micro
# (Google Benchmark flags).
set -euo pipefail

build=$(cd "${1:-build}" && pwd)
shift || true
ts="$build/bench/bench_ts"
micro="$build/bench/bench_micro"
if [ ! -x "$ts" ]; then
  echo "bench: $ts is missing; configure with -DCOMP_BENCH=ON and build (make bench does)" >&2
  exit 1
fi

status=0
if [ -x "$micro" ]; then
  echo "== bench_micro: the routines of the per-message path"
  # shellcheck disable=SC2086
  "$micro" --benchmark_min_time=0.2 ${BENCH_MICRO_ARGS:-} || status=$?
  echo
fi
echo "== bench_ts: comp SysTCPTS against the baseline relay"
"$ts" --comp "$build/comp" "$@" || status=$?
if [ -x "$build/bench/bench_pc" ]; then
  echo
  echo "== bench_pc: comp SysTCPPC against the persistent-client baseline relay"
  # shellcheck disable=SC2086
  "$build/bench/bench_pc" --comp "$build/comp" ${BENCH_PC_ARGS:-} || status=$?
fi
exit $status
