#!/bin/sh
# Runs every benchmark of a build and prints their figures. Usage: bench.sh <build-dir>
# UPLOAD_BENCH_SIZES sets the upload benchmark's file sizes (default 1M,100M,1G; it writes and
# sends a 1 GB file, which takes a while). QUEUE_BENCH_ARGS passes options to the queue benchmark
# ("--big 10M --files 50 --capped 20M" for a quick run; queue_bench --help lists them), and
# QUEUE_BENCH_RATE sets its rate cap in bytes per second (default 10M).
# Then one HTTPS request per process against a separately started emulator (so that its memory
# is not counted): peak resident size (VmHWM, lowest of 3 runs) through the library, with plain
# Beast and with libcurl; and the size of stripped copies of the two libraries.
set -eu
build=${1:-build}
echo "machine: $(nproc) cores, $(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -n 1), load $(cut -d' ' -f1-3 /proc/loadavg)"
echo
for bench in "$build"/bench/*_bench; do
  [ -x "$bench" ] || continue
  echo "== $(basename "$bench")"
  case $(basename "$bench") in
    upload_bench) "$bench" "${UPLOAD_BENCH_SIZES:-1M,100M,1G}" ;;
    # shellcheck disable=SC2086 # options, split on purpose
    queue_bench) "$bench" ${QUEUE_BENCH_ARGS:-} ;;
    *) "$bench" ;;
  esac
  echo
done

. "$(dirname "$0")/emulator.sh"
setting() { sed -n "s/^$1 = //p" "$work/controller.conf"; }
hostport=${base#https://}
host=${hostport%:*}
port=${hostport##*:}
ca=$(setting ca_file)
cert=$(setting client_cert_file)

# "<VmHWM> <RssAnon> <RssFile>" in kB of the run with the lowest VmHWM of 3; a run without a 200
# stops the script.
peak() {
  program=$1
  shift
  lowest=
  for _ in 1 2 3; do
    "$build/bench/$program" "$@" >"$work/one.out" || { echo "$program failed:" >&2; cat "$work/one.out" >&2; exit 1; }
    run=$(awk '$1 == "peak_kb" { p = $2 } $1 == "anon_kb" { a = $2 } $1 == "file_kb" { f = $2 } END { print p, a, f }' "$work/one.out")
    if [ -z "$lowest" ] || [ "${run%% *}" -lt "${lowest%% *}" ]; then lowest=$run; fi
  done
  echo "$lowest"
}
echo "== one HTTPS request per process (client certificate), kB, the run of lowest peak of 3"
library=$(peak one_request_library "$host" "$port" emulator-token)
beast=$(peak one_request_beast "$host" "$port" emulator-token "$ca" "$cert")
curl=$(peak one_request_curl "$host" "$port" emulator-token "$ca" "$cert")
printf "library %s\nbeast %s\ncurl %s\n" "$library" "$beast" "$curl" | awk '
  { peak[$1] = $2; printf "  %-8s peak (VmHWM) %6d   at exit: own (RssAnon) %6d   files (RssFile) %6d\n", $1, $2, $3, $4 }
  END { printf "  library / libcurl %.2f   library / Beast %.2f\n", peak["library"] / peak["curl"], peak["library"] / peak["beast"] }'
echo

echo "== the libraries, stripped copies"
total=0
for lib in "$build/restclient/librestclient.so" "$build/platform/libtavixplatform.so"; do
  copy="$work/$(basename "$lib")"
  strip -o "$copy" "$(readlink -f "$lib")"
  bytes=$(wc -c <"$copy")
  text=$(size -A "$copy" | awk '$1 == ".text" { print $2 }')
  total=$((total + bytes))
  awk -v n="$(basename "$lib")" -v b="$bytes" -v t="$text" 'BEGIN { printf "  %-22s %5.2f MB  (.text %.2f MB)\n", n, b / 1e6, t / 1e6 }'
done
awk -v b="$total" 'BEGIN { printf "  %-22s %5.2f MB\n", "both", b / 1e6 }'
