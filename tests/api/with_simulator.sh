#!/usr/bin/env bash
# Runs a test program while oltb-sim serves on ADDRESS: starts the simulator, waits (at most 10 s) for its readiness
# line, runs the program and ends the simulator whatever happened. Usage: with_simulator.sh SIMULATOR ADDRESS PROGRAM...
set -u
simulator="$1" address="$2"
shift 2
log=$(mktemp)
"$simulator" --address "$address" >"$log" 2>&1 &
pid=$!
trap 'kill "$pid" 2>/dev/null; wait "$pid" 2>/dev/null; rm -f "$log"' EXIT
for _ in $(seq 100); do
  grep -q "oltb-sim listening on $address:9495" "$log" && break
  sleep 0.1
done
grep -q "oltb-sim listening" "$log" || { echo "oltb-sim did not start on $address:"; cat "$log"; exit 2; }
"$@"
