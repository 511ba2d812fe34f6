#!/usr/bin/env bash
# Starts oltb-sim in the background (scripts/sim.sh start ADDRESS) or stops the one started so (scripts/sim.sh stop).
# Its output goes to build/sim.log, its process number to build/sim.pid. Settings: BUILD_DIR.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${BUILD_DIR:-build/release}
pidfile=build/sim.pid
running() { [ -f "$pidfile" ] && kill -0 "$(cat "$pidfile")" 2>/dev/null; }

case "${1:-}" in
start)
  address=${2:-127.0.0.9}
  if running; then
    echo "sim: oltb-sim already runs (pid $(cat "$pidfile")); make sim-stop ends it"
    exit 0
  fi
  : >build/sim.log
  nohup "$build/tools/oltb-sim/oltb-sim" --address "$address" >build/sim.log 2>&1 &
  echo $! >"$pidfile"
  for _ in $(seq 100); do  # up to 10 s for the readiness line
    grep -q "listening on" build/sim.log && break
    running || break
    sleep 0.1
  done
  if ! grep -q "listening on" build/sim.log; then
    echo "sim: oltb-sim did not start:" >&2
    cat build/sim.log >&2
    rm -f "$pidfile"
    exit 1
  fi
  echo "sim: $(head -n 1 build/sim.log) (pid $(cat "$pidfile"), log build/sim.log); make sim-stop ends it"
  ;;
stop)
  if running; then
    kill "$(cat "$pidfile")"
    echo "sim: stopped oltb-sim (pid $(cat "$pidfile"))"
  else
    echo "sim: no simulator started by make sim is running"
  fi
  rm -f "$pidfile"
  ;;
*)
  echo "usage: scripts/sim.sh start [ADDRESS] | stop" >&2
  exit 2
  ;;
esac
