#!/usr/bin/env bash
# Runs every fuzzing target of the build folder $1 for $2 seconds each, from its seed
# inputs (kept read-only) and the corpus it grew in earlier runs, and prints per target
# the inputs executed and the coverage reached. Fails when a target found a crash, a leak
# or a timeout: the input that did it is kept in $1/fuzz-artifacts/.
set -euo pipefail
build=$1
seconds=$2
mkdir -p "$build/fuzz-corpus" "$build/fuzz-artifacts" "$build/fuzz-logs"
failed=0
printf '%-24s %12s %10s %10s  %s\n' target executions coverage features result
while read -r target seeds; do
  corpus="$build/fuzz-corpus/$target"
  log="$build/fuzz-logs/$target.log"
  mkdir -p "$corpus"
  status=0
  "$build/bin/$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$build/fuzz-artifacts/$target-" \
    "$corpus" "$seeds" > "$log" 2>&1 || status=$?
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  coverage=$(grep -o 'cov: [0-9]*' "$log" | tail -1 | cut -d' ' -f2)
  features=$(grep -o 'ft: [0-9]*' "$log" | tail -1 | cut -d' ' -f2)
  result=ok
  if [ "$status" -ne 0 ]; then
    result="FOUND A FAULT (exit $status), see $log"
    failed=1
  fi
  printf '%-24s %12s %10s %10s  %s\n' "$target" "${executions:-?}" "${coverage:-?}" \
    "${features:-?}" "$result"
done < "$build/fuzzers.txt"
exit $failed
