#!/usr/bin/env bash
# Builds comp, compkit and the soak driver, then runs the example platform
# under steady traffic on every route and a chaos part for a while, writing
# the report (markdown) to REPORT. The driver stops only the processes it
# started and removes every IPC object of its keys, also on Ctrl-C.
#   scripts/soak.sh [--seconds N] [--report REPORT] [--build DIR] [other soak options]
set -euo pipefail

src=$(cd "$(dirname "$0")/.." && pwd)
build="$src/build"
args=()
while [ $# -gt 0 ]; do
  case "$1" in
    --build) build=$2; shift 2 ;;
    *) args+=("$1"); shift ;;
  esac
done

cmake -S "$src" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j 2 --target soak comp compkit

# 64 KiB queue messages: raised here when root (the driver skips otherwise).
if [ "$(id -u)" -eq 0 ]; then
  [ "$(cat /proc/sys/kernel/msgmax)" -ge 65540 ] || echo 65540 > /proc/sys/kernel/msgmax || true
  [ "$(cat /proc/sys/kernel/msgmnb)" -ge 1048576 ] || echo 1048576 > /proc/sys/kernel/msgmnb || true
fi

exec "$build/bench/soak" --examples "$src/examples" "${args[@]}"
