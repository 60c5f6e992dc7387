#!/bin/sh
# Runs every benchmark of a build and prints their figures. Usage: bench.sh <build-dir>
set -eu
build=${1:-build}
for bench in "$build"/bench/*_bench; do
  [ -x "$bench" ] || continue
  echo "== $(basename "$bench")"
  "$bench"
  echo
done
