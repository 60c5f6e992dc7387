#!/bin/sh
# The cloud the examples run against (a CTest fixture): a fresh restclient-emulator over HTTPS with a
# client certificate on a free loopback port, its controller settings in DIR/controller.conf with
# an upload-queue spool beside them. It outlives this script until `stop`.
# Usage: example-cloud.sh start EMULATOR DIR | example-cloud.sh stop DIR
set -eu
stop() {
  if [ -f "$1/emulator.pid" ]; then
    kill "$(cat "$1/emulator.pid")" 2>/dev/null || true
    rm -f "$1/emulator.pid"
  fi
}
case "${1:-}" in
start)
  emulator=$2 dir=$3
  stop "$dir"
  rm -rf "$dir"
  mkdir -p "$dir"
  # Its output to a file: CTest waits for whatever holds the test's output open.
  "$emulator" --make-certs --require-client-cert --data-dir "$dir/cloud" \
    --write-settings "$dir/cloud.conf" >"$dir/emulator.out" 2>&1 </dev/null &
  echo $! >"$dir/emulator.pid"
  for _ in $(seq 100); do
    [ -s "$dir/cloud.conf" ] && break
    sleep 0.1
  done
  [ -s "$dir/cloud.conf" ] || { cat "$dir/emulator.out" >&2; stop "$dir"; exit 1; }
  { cat "$dir/cloud.conf"; echo "queue_spool = $dir/spool"; echo "queue_backoff_base = 1"; } >"$dir/controller.conf"
  sed -n 's/^listening on /examples: cloud emulator at /p' "$dir/emulator.out"
  ;;
stop) stop "$2" ;;
*) sed -n '2,6p' "$0" >&2; exit 2 ;;
esac
