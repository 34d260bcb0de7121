#!/usr/bin/env bash
# Starts the example platform of examples/ in the foreground: clients of the
# TS route 10 (127.0.0.1:47010) are answered through the TC route 20, which
# reaches a local echo server on 127.0.0.1:47020; the polled routes 50
# (PCSYN, polled by a local poll server on 127.0.0.1:47050) and 51 (PASSYN,
# on 127.0.0.1:47051) echo their data frames; clients of the TS route 32
# (127.0.0.1:47032) are answered through the persistent link of the PC route
# 30 to a second echo server on 127.0.0.1:47030; the PS route 31 shares
# 127.0.0.1:47031 between two instances. Builds nothing: `make run` builds
# first. Ctrl-C stops every process and removes the queues, semaphores,
# segments and FIFOs again.
#   scripts/run-example.sh [BUILD_DIR]
set -euo pipefail

build=$(cd "${1:-build}" && pwd)
src=$(cd "$(dirname "$0")/.." && pwd)
compkit="$build/tools/compkit"
comp="$build/comp"
for bin in "$compkit" "$comp"; do
  if [ ! -x "$bin" ]; then
    echo "run-example: $bin is missing; build first (make run does)" >&2
    exit 1
  fi
done

# A scratch run directory: etc/ (configuration), log/, fifo/, and runs/ for
# HOME (plug-ins, connection logs). The sys.cfg reader takes paths of at most
# 99 bytes, so RUNDIR may have 87 characters (FIFO paths, under 128 bytes,
# allow more).
run="$build/example-run"
if [ ${#run} -gt 87 ]; then
  run=$(mktemp -d /tmp/compkit-run.XXXXXX)
fi
if [ -f "$run/compkit.objects" ]; then
  "$compkit" down "$run" >/dev/null 2>&1 || true
fi
rm -rf "$run"
mkdir -p "$run/etc" "$run/log" "$run/fifo" "$run/runs/bin" "$run/runs/log"
cp "$src/examples/sys.cfg" "$src/examples/app.cfg" "$src/examples/tables.cfg" "$src/examples/compkit.cfg" "$run/etc/"
export RUNDIR="$run" HOME="$run" COMPKIT_COMP="$comp"
# Objects left under the example's keys by a run that was killed outright
# (no record of them survives): down removes them by the keys of sys.cfg.
"$compkit" down "$run" >/dev/null 2>&1 || true

# 64 KiB queue messages: raised here when root (compkit up says what is
# missing otherwise).
if [ "$(id -u)" -eq 0 ]; then
  [ "$(cat /proc/sys/kernel/msgmax)" -ge 65540 ] || echo 65540 > /proc/sys/kernel/msgmax || true
  [ "$(cat /proc/sys/kernel/msgmnb)" -ge 1048576 ] || echo 1048576 > /proc/sys/kernel/msgmnb || true
fi

echo_pid=""
poll_pid=""
pc_echo_pid=""
cleanup() {
  trap - EXIT INT TERM
  for pid in $echo_pid $poll_pid $pc_echo_pid; do
    kill "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  done
  if [ -f "$run/compkit.objects" ]; then
    "$compkit" down "$run" || true
  fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

"$compkit" up "$run"
"$compkit" echo-server 127.0.0.1:47020 --frame 4,0,4,0 --prefix "echo: " &
echo_pid=$!
# The server that polls the PCSYN route 50, once every 2 seconds, with one
# data frame on the way; its lines go to log/poll-server.out.
"$compkit" poll-server 127.0.0.1:47050 --interval 2000 --data "hello from the poll server" \
  >"$run/log/poll-server.out" 2>&1 &
poll_pid=$!
# The PC route's server keeps the link and sends a heartbeat (type 0602) after
# 10 s without sending.
pc_server=(echo-server 127.0.0.1:47030 --frame 4,0,4,0 --prefix "pc-echo: " --heartbeat 0602 --beat-every 10)
"$compkit" "${pc_server[@]}" &
pc_echo_pid=$!

cat <<EOT

The example platform runs in $run (logs in $run/log).
Send a message to route 10 from another terminal:

  $compkit send 127.0.0.1:47010 --frame 4,0,4,0 hello

and through the forwarder pair (routes 60 and 61) to the router's echo:

  $compkit send 127.0.0.1:47060 --frame 4,0,4,0 hello
and to route 40 (PAS: one long-lived connection, the router echoes each message):

  $compkit send 127.0.0.1:47040 --frame 4,0,4,0 --count 3 hello
Poll the PASSYN route 51 as a client (the PCSYN route 50 is polled by the
server in $run/log/poll-server.out):

  $compkit poll-client 127.0.0.1:47051 --data hello

Route 30 (PC) holds a link to the echo server on 127.0.0.1:47030 (pid
$pc_echo_pid); the router prints its N001. Send through the link via route 32:

  $compkit send 127.0.0.1:47032 --frame 4,0,4,0 hello

Stop that server (kill $pc_echo_pid): the router prints N003. Start it again
in another terminal and the link is back within the reconnect interval (5 s):

  $compkit echo-server 127.0.0.1:47030 --frame 4,0,4,0 --prefix "pc-echo: " --heartbeat 0602 --beat-every 10

Route 31 (PS) shares 127.0.0.1:47031 between its two instances. A client is
accepted by the next instance in turn; the first message it sends ends that
instance (kept as the platform has it), and nothing restarts it:

  $compkit send 127.0.0.1:47031 --frame 4,0,4,0 hello

Status: $compkit status $run
Ctrl-C stops everything.

EOT
# Ctrl-C is the normal way out. With job control the supervisor gets the
# terminal to itself, so the Ctrl-C reaches it alone (not make, not this
# script): it stops every process, takes the platform down and ends with
# status 0, and so do this script and make.
if [ -t 0 ]; then set -m; fi
"$compkit" run "$run"
