#!/usr/bin/env bash
# Runs the fuzz targets of the clang build (build/fuzz, preset "fuzz"): the decoding path for SECONDS (default 60),
# the frame scan and the configuration payload, small parsers whose coverage saturates within seconds, for
# SMALL_SECONDS (default SECONDS). Usage: fuzz/run.sh [SECONDS [SMALL_SECONDS]]. New inputs go to
# build/fuzz/corpus/<target>, seeded from fuzz/corpus/<target> (copy an input there to keep it); a failing input
# is saved as build/fuzz/artifacts/<target>-crash-... and ends the run with exit code 1. Prints executions and
# time per target.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"
small_seconds="${2:-$seconds}"
mkdir -p build/fuzz/artifacts
for target in trace_stream_fuzzer response_frame_fuzzer config_payload_fuzzer; do
  [ "$target" = trace_stream_fuzzer ] && limit="$seconds" || limit="$small_seconds"
  mkdir -p "build/fuzz/corpus/$target"
  log="build/fuzz/$target.log"
  started=$(date +%s)
  if ! "build/fuzz/fuzz/$target" -max_total_time="$limit" -max_len=4096 -timeout=10 -print_final_stats=1 \
       -artifact_prefix="build/fuzz/artifacts/$target-" "build/fuzz/corpus/$target" "fuzz/corpus/$target" \
       >"$log" 2>&1; then
    tail -n 40 "$log"
    echo "fuzz: $target failed; input in build/fuzz/artifacts/, log in $log"
    exit 1
  fi
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  coverage=$(grep -o 'cov: [0-9]*' "$log" | tail -n 1)
  echo "fuzz: $target: $runs executions in $(( $(date +%s) - started )) s, $coverage, no failure"
done
