#!/usr/bin/env bash
# The main job: starts the simulated trace buffer server on a loopback address, acquires one run of its marking
# job (the events between label 1, job start, and label 2, job end) with the oltb tool: head 0 positions
# (commanded and actual), gate, laser power and labels, written once to out/demo.csv and out/demo.vcd (with its
# view out/demo.gtkw), then prints the summary and makes the report page out/demo.html of the capture. The simulator
# is stopped whatever happens; every wait is bounded.
# Expects the programs built (make demo builds them first). Settings: BUILD_DIR, DEMO_ADDRESS, DEMO_OUT.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
build=${BUILD_DIR:-build/release}
address=${DEMO_ADDRESS:-127.0.0.8}
out=${DEMO_OUT:-out}
simulator=$build/tools/oltb-sim/oltb-sim
tool=$build/tools/oltb/oltb
signals=Head0TxX,Head0TxY,Head0RxX,Head0RxY,Gate,LaserPower16,Label
readiness="oltb-sim listening on $address:9495"

for program in "$simulator" "$tool"; do
  [ -x "$program" ] || { echo "demo: $program is missing; run make demo" >&2; exit 1; }
done

work=$(mktemp -d)
simulator_pid=""

cleanup() {
  if [ -n "$simulator_pid" ] && kill -0 "$simulator_pid" 2>/dev/null; then
    kill -TERM "$simulator_pid" 2>/dev/null || true
    for _ in $(seq 50); do  # up to 5 s for a clean end, then no more asking
      kill -0 "$simulator_pid" 2>/dev/null || break
      sleep 0.1
    done
    kill -KILL "$simulator_pid" 2>/dev/null || true
    wait "$simulator_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

echo "demo: starting the simulator on $address"
"$simulator" --address "$address" >"$work/simulator.out" 2>"$work/simulator.err" &
simulator_pid=$!
for _ in $(seq 100); do  # up to 10 s for the readiness line
  grep -qF "$readiness" "$work/simulator.out" && break
  if ! kill -0 "$simulator_pid" 2>/dev/null; then
    echo "demo: the simulator ended at once:" >&2
    cat "$work/simulator.err" >&2
    exit 1
  fi
  sleep 0.1
done
if ! grep -qF "$readiness" "$work/simulator.out"; then
  echo "demo: the simulator did not report readiness within 10 s" >&2
  exit 1
fi

mkdir -p "$out"
echo "demo: acquiring the job between labels 1 and 2 ($signals)"
# --timeout: longest silence of the server; --max-wait: the job lasts about 0.6 s, so 30 s means something is wrong.
"$tool" acquire "$address" --start 1 --end 2 --signals "$signals" --timeout 5 --max-wait 30 \
  -o "$out/demo.csv" -o "$out/demo.vcd"

echo
echo "demo: first rows of $out/demo.csv"
head -n 6 "$out/demo.csv"
echo
echo "demo: the report page of the capture"
"$tool" report "$out/demo.csv" -o "$out/demo.html"
echo
ls -l "$out/demo.csv" "$out/demo.vcd" "$out/demo.html" | awk '{ printf "demo: %-40s %12s bytes\n", $NF, $5 }'
echo "demo: open the waveforms with  gtkwave $out/demo.gtkw  (its view of $out/demo.vcd; or the .vcd in Surfer)"
echo "demo: open the report in a browser: $out/demo.html"
echo "demo: a simulator for your own commands: make sim (on 127.0.0.9; make sim-stop ends it)"
