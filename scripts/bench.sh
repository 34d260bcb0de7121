#!/usr/bin/env bash
# Runs the benchmarks of a build directory: bench_ts (comp's short-connection
# server path against a minimal baseline relay, about 2.5 minutes with its
# defaults), bench_fw (the forwarder pair, about 1.5 minutes; BENCH_FW_ARGS
# passes it flags), bench_pc (the persistent client, about 2.5 minutes;
# BENCH_PC_ARGS) and bench_micro (the per-message routines) when built.
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
fw="$build/bench/bench_fw"
if [ -x "$fw" ]; then
  echo
  echo "== bench_fw: comp's forwarder pair against a baseline relay pair and one TS hop"
  # shellcheck disable=SC2086
  "$fw" --comp "$build/comp" ${BENCH_FW_ARGS:-} || status=$?
fi
if [ -x "$build/bench/bench_pc" ]; then
  echo
  echo "== bench_pc: comp SysTCPPC against the persistent-client baseline relay"
  # shellcheck disable=SC2086
  "$build/bench/bench_pc" --comp "$build/comp" ${BENCH_PC_ARGS:-} || status=$?
fi
exit $status
