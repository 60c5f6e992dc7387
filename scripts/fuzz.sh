#!/usr/bin/env bash
# Runs every fuzzer of a build for a given time, two at a time, then prints per fuzzer its
# executions, corpus size and crashes. Usage: fuzz.sh <build-dir> <seconds>
# Each fuzzer starts from its seeds (fuzz/corpus/<name>) and the corpus its earlier runs grew
# (<build-dir>/fuzz/corpus/<name>), and goes on after a crash (fork mode), keeping the input
# in <build-dir>/fuzz/artifacts/<name>/. Fails when any fuzzer crashed.
set -euo pipefail
build=$(cd "$1" && pwd)
seconds=$2
source=$(cd "$(dirname "$0")/.." && pwd)
logs=$build/fuzz/logs
mkdir -p "$logs"

fuzzers=()
for file in "$source"/fuzz/*Fuzzer.cpp; do
  name=$(basename "$file" .cpp)
  [ -x "$build/fuzz/$name" ] && fuzzers+=("$name")
done
[ ${#fuzzers[@]} -gt 0 ] || { echo "no fuzzers in $build/fuzz (a clang build with RESTCLIENT_FUZZ=ON)" >&2; exit 1; }

run_one() {
  local name=$1 dictionary=()
  [ -f "$source/fuzz/$name.dict" ] && dictionary=(-dict="$source/fuzz/$name.dict")
  mkdir -p "$build/fuzz/corpus/$name" "$build/fuzz/artifacts/$name"
  "$build/fuzz/$name" -fork=1 -ignore_crashes=1 -ignore_timeouts=1 -ignore_ooms=1 -max_total_time="$seconds" \
    "${dictionary[@]}" -artifact_prefix="$build/fuzz/artifacts/$name/" \
    "$build/fuzz/corpus/$name" "$source/fuzz/corpus/$name" >"$logs/$name.log" 2>&1 || true
}

echo "Fuzzing ${#fuzzers[@]} targets for $seconds s each, two at a time; logs in $logs"
running=0
for name in "${fuzzers[@]}"; do
  if [ $running -ge 2 ]; then
    wait -n || true
    running=$((running - 1))
  fi
  run_one "$name" &
  running=$((running + 1))
done
wait

# libFuzzer's fork mode reports "#<executions>: cov: .. corp: <units> .. oom/timeout/crash: a/b/c".
failed=0
printf '%-16s %12s %8s %8s  %s\n' fuzzer executions corpus crashes "(oom/timeout/crash)"
for name in "${fuzzers[@]}"; do
  status=$(grep -a '^#[0-9]*: cov:' "$logs/$name.log" | tail -n 1 || true)
  if [ -z "$status" ]; then
    printf '%-16s %12s %8s %8s  %s\n' "$name" - - - "no status: see $logs/$name.log"
    failed=1
    continue
  fi
  executions=$(sed 's/^#\([0-9]*\):.*/\1/' <<<"$status")
  corpus=$(sed 's/.* corp: \([0-9]*\).*/\1/' <<<"$status")
  counts=$(sed 's|.* oom/timeout/crash: \([0-9]*/[0-9]*/[0-9]*\).*|\1|' <<<"$status")
  IFS=/ read -r ooms timeouts crashed <<<"$counts"
  crashes=$((ooms + timeouts + crashed))
  printf '%-16s %12s %8s %8s  %s\n' "$name" "$executions" "$corpus" "$crashes" "($counts)"
  [ "$crashes" -eq 0 ] || failed=1
done
[ $failed -eq 0 ] || echo "Inputs that crashed: $build/fuzz/artifacts/<fuzzer>/"
exit $failed
