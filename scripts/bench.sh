#!/usr/bin/env bash
# Runs the benchmarks of a build directory: bench_ts (comp's short-connection
# server path in both wait styles against a minimal baseline relay, about 3.5
# minutes with its defaults), bench_fw (the forwarder pair, about 1.5 minutes;
# BENCH_FW_ARGS passes it flags), bench_syn (the polled synchronous modes
# against baseline peers) and bench_micro (the per-message routines) when
# built.
# `make bench` calls it. Extra arguments go to bench_ts, e.g.
#   scripts/bench.sh build --seconds 2 --rounds 3
# BENCH_MICRO_ARGS passes arguments to bench_micro (Google Benchmark flags),
# BENCH_STATION_ARGS to bench_station (the station link, about 1.5 minutes),
# BENCH_PAS_ARGS to bench_pas (the multi-client server: round trips and ten
# thousand connections, about 5 minutes with its defaults), BENCH_PC_ARGS to
# bench_pc (the persistent client, about 2.5 minutes).
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
echo "== bench_ts: comp SysTCPTS in both wait styles against the baseline relay"
"$ts" --comp "$build/comp" "$@" || status=$?
# The mode benchmarks, each when it was built, with its own arguments.
run_bench() {  # name, title, extra-args
  local bin="$build/bench/$1"
  [ -x "$bin" ] || return 0
  echo
  echo "== $1: $2"
  # shellcheck disable=SC2086
  "$bin" --comp "$build/comp" $3 || status=$?
}
run_bench bench_fw "comp's forwarder pair against a baseline relay pair and one TS hop" "${BENCH_FW_ARGS:-}"
run_bench bench_station "comp SysTCPVANTREL against the baseline station relay" "${BENCH_STATION_ARGS:-}"
run_bench bench_pas "comp SysTCPPAS, round trips and ten thousand connections" "${BENCH_PAS_ARGS:-}"
# The polled synchronous modes (about 2 minutes: PCSYN waits 25 s at start,
# once per wait style).
run_bench bench_syn "comp SysTCPPCSYN and SysTCPPASSYN against baseline peers" "${BENCH_SYN_ARGS:-}"
run_bench bench_pc "comp SysTCPPC against the persistent-client baseline relay" "${BENCH_PC_ARGS:-}"
exit $status
