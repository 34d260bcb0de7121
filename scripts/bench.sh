#!/usr/bin/env bash
# Runs the benchmarks of a build directory: bench_ts (comp's short-connection
# server path against a minimal baseline relay, about 2.5 minutes with its
# defaults), bench_syn (the polled synchronous modes against baseline peers)
# and bench_micro (the per-message routines) when it was built.
# `make bench` calls it. Extra arguments go to bench_ts, e.g.
#   scripts/bench.sh build --seconds 2 --rounds 3
# BENCH_MICRO_ARGS passes arguments to bench_micro (Google Benchmark flags).
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

# The polled synchronous modes (about 2 minutes: PCSYN waits 25 s at start,
# once per wait style). BENCH_SYN_ARGS passes arguments to bench_syn.
syn="$build/bench/bench_syn"
if [ -x "$syn" ]; then
  echo
  echo "== bench_syn: comp SysTCPPCSYN and SysTCPPASSYN against baseline peers"
  # shellcheck disable=SC2086
  "$syn" --comp "$build/comp" ${BENCH_SYN_ARGS:-} || status=$?
fi
exit $status
