#!/usr/bin/env bash
# Runs the fuzz targets of the clang build (build/fuzz, preset "fuzz"). Usage: fuzz/run.sh SECONDS runs every target
# for SECONDS (default 60); fuzz/run.sh TARGET=SECONDS ... runs the targets named, each for its own time. New inputs
# go to build/fuzz/corpus/<target>, seeded from fuzz/corpus/<target> (copy an input there to keep it); a failing input
# is saved as build/fuzz/artifacts/<target>-crash-... and ends the run with exit code 1. Prints executions and time
# per target.
set -euo pipefail
cd "$(dirname "$0")/.."
all="trace_stream_fuzzer response_frame_fuzzer config_payload_fuzzer analysis_fuzzer capture_csv_fuzzer capture_h5_fuzzer
     job_file_fuzzer replay_fuzzer sim_command_fuzzer"
runs=()
if [ $# -le 1 ] && [[ "${1:-60}" =~ ^[0-9]+$ ]]; then
  for target in $all; do runs+=("$target=${1:-60}"); done
else
  runs=("$@")
fi
mkdir -p build/fuzz/artifacts
for run in "${runs[@]}"; do
  target="${run%%=*}"
  limit="${run#*=}"
  if [ ! -x "build/fuzz/fuzz/$target" ]; then
    echo "fuzz: $target: not built (it needs the tools, and HDF5 for the .h5 reader)"
    continue
  fi
  # HDF5 asks for absurd amounts of memory on some damaged files (malloc refuses them, as it does outside the
  # sanitizer) and loses a few bytes on its failure paths; leaks are checked where the corpus is replayed.
  extra=()
  [ "$target" = capture_h5_fuzzer ] && extra=(-malloc_limit_mb=1000000000 -detect_leaks=0)
  mkdir -p "build/fuzz/corpus/$target"
  log="build/fuzz/$target.log"
  started=$(date +%s)
  if ! "build/fuzz/fuzz/$target" -max_total_time="$limit" -max_len=4096 -timeout=10 -print_final_stats=1 \
       "${extra[@]}" -artifact_prefix="build/fuzz/artifacts/$target-" "build/fuzz/corpus/$target" \
       "fuzz/corpus/$target" >"$log" 2>&1; then
    tail -n 40 "$log"
    echo "fuzz: $target failed; input in build/fuzz/artifacts/, log in $log"
    exit 1
  fi
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  coverage=$(grep -o 'cov: [0-9]*' "$log" | tail -n 1)
  echo "fuzz: $target: $executions executions in $(( $(date +%s) - started )) s, $coverage, no failure"
done
