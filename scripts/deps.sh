#!/usr/bin/env bash
# Installs what building and testing comp needs on a fresh Debian machine.
# Does nothing when everything is present; needs root (or sudo) otherwise.
set -euo pipefail

need=()
command -v cmake >/dev/null || need+=(cmake)
command -v ninja >/dev/null || need+=(ninja-build)
command -v g++ >/dev/null || need+=(g++)
[ -f /usr/include/gtest/gtest.h ] || need+=(libgtest-dev)
[ -f /usr/include/benchmark/benchmark.h ] || need+=(libbenchmark-dev)
# Whole-process tests run long time-outs on a clock sped up by libfaketime.
[ -f /usr/bin/faketime ] || need+=(faketime)
if [ "${COMP_WANT_FUZZ:-0}" = 1 ]; then
  command -v clang++ >/dev/null || need+=(clang)
  ls /usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a >/dev/null 2>&1 || need+=(libclang-rt-dev)
fi
[ ${#need[@]} -eq 0 ] && exit 0

echo "installing: ${need[*]}"
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO=sudo
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq "${need[@]}" >/dev/null
