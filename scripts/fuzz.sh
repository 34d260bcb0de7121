#!/usr/bin/env bash
# Runs every fuzz target built under BUILD/fuzz for SECONDS each, starting
# from its seed corpus in fuzz/corpus/<target>. New inputs go to a scratch
# directory so the checked-in corpus stays as it is. fuzz/<target>.options,
# when present, holds further libFuzzer flags of that target.
set -euo pipefail
build=${1:?build directory}
seconds=${2:-20}
found=0
for t in "$build"/fuzz/fuzz_*; do
  [ -x "$t" ] || continue
  found=1
  name=$(basename "$t")
  scratch=$(mktemp -d)
  seeds="fuzz/corpus/$name"
  opts=()
  [ -f "fuzz/$name.options" ] && read -r -a opts < "fuzz/$name.options"
  echo "== $name for ${seconds}s ${opts[*]:-}"
  if [ -d "$seeds" ]; then
    "$t" -max_total_time="$seconds" -print_final_stats=0 "${opts[@]}" "$scratch" "$seeds" 2>&1 | tail -n 3
  else
    "$t" -max_total_time="$seconds" -print_final_stats=0 "${opts[@]}" "$scratch" 2>&1 | tail -n 3
  fi
  rm -rf "$scratch"
done
[ $found -eq 1 ] || { echo "no fuzz targets found in $build/fuzz"; exit 1; }
