#!/usr/bin/env bash
# Starts oltb-sim in the background (scripts/sim.sh start ADDRESS) or stops the one started so (scripts/sim.sh stop).
# Its output goes to build/sim.log; build/sim.pid holds its process number and address. A simulator counts as
# running only if that process is still this build's oltb-sim and answers on its address: a pid file left behind
# (a reboot, a killed simulator whose number went to another process) is cleared, not trusted. Settings: BUILD_DIR.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${BUILD_DIR:-build/release}
simulator=$build/tools/oltb-sim/oltb-sim
pidfile=build/sim.pid

# The process number of the simulator started here, if it still runs as oltb-sim and accepts a connection.
running() {
  [ -f "$pidfile" ] || return 1
  local pid address
  read -r pid address <"$pidfile" || true
  [ -n "${pid:-}" ] && [ -n "${address:-}" ] || return 1
  local program
  program=$(readlink "/proc/$pid/exe" 2>/dev/null) || return 1
  [ "${program% (deleted)}" = "$(readlink -f "$simulator")" ] || return 1  # also after a rebuild replaced the file
  timeout 2 bash -c "exec 3<>/dev/tcp/$address/9495" 2>/dev/null || return 1
  echo "$pid"
}

case "${1:-}" in
start)
  address=${2:-127.0.0.9}
  if pid=$(running); then
    echo "sim: oltb-sim already runs (pid $pid, $(cut -d' ' -f2 "$pidfile")); make sim-stop ends it"
    exit 0
  fi
  rm -f "$pidfile"
  : >build/sim.log
  nohup "$simulator" --address "$address" >build/sim.log 2>&1 &
  pid=$!
  echo "$pid $address" >"$pidfile"
  for _ in $(seq 100); do  # up to 10 s for the readiness line
    grep -q "listening on" build/sim.log && break
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.1
  done
  if ! grep -q "listening on" build/sim.log; then
    echo "sim: oltb-sim did not start:" >&2
    cat build/sim.log >&2
    kill "$pid" 2>/dev/null || true
    rm -f "$pidfile"
    exit 1
  fi
  echo "sim: $(head -n 1 build/sim.log) (pid $pid, log build/sim.log); make sim-stop ends it"
  ;;
stop)
  if pid=$(running); then
    kill "$pid"
    for _ in $(seq 50); do  # up to 5 s until it has let go of its address
      kill -0 "$pid" 2>/dev/null || break
      sleep 0.1
    done
    echo "sim: stopped oltb-sim (pid $pid)"
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
