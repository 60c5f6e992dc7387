#!/bin/sh
# Runs every benchmark of a build and prints their figures. Usage: bench.sh <build-dir>
# UPLOAD_BENCH_SIZES sets the upload benchmark's file sizes (default 1M,100M,1G; it writes and
# sends a 1 GB file, which takes a while).
set -eu
build=${1:-build}
for bench in "$build"/bench/*_bench; do
  [ -x "$bench" ] || continue
  echo "== $(basename "$bench")"
  case $(basename "$bench") in
    upload_bench) "$bench" "${UPLOAD_BENCH_SIZES:-1M,100M,1G}" ;;
    *) "$bench" ;;
  esac
  echo
done
