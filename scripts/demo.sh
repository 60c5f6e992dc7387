#!/bin/sh
# The end-to-end job against the local cloud emulator, over HTTPS with a CA of its own:
# discover the Storage service through the Locator and Account services, ask the Storage
# service for an upload URL for a file, send the file there, and list what it now holds.
# Usage: demo.sh <build-dir>
set -eu
build=${1:-build}
work=$(mktemp -d)
emulator_pid=
cleanup() {
  [ -n "$emulator_pid" ] && kill "$emulator_pid" 2>/dev/null && wait "$emulator_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

sh scripts/make-test-certs.sh "$work/certs" >/dev/null
printf 'ca_file = %s\n' "$work/certs/ca.pem" >"$work/controller.conf"
export TAVIX_CONTROLLER_CONFIG="$work/controller.conf"
token=demo-token

"$build/tools/restclient-emulator" --port 0 --data-dir "$work/data" --token "$token" \
  --cert "$work/certs/server.pem" --key "$work/certs/server-key.pem" >"$work/emulator.out" 2>&1 &
emulator_pid=$!
base=
for _ in $(seq 100); do
  base=$(sed -n 's/^listening on //p' "$work/emulator.out")
  [ -n "$base" ] && break
  sleep 0.1
done
[ -n "$base" ] || { echo "the emulator did not start:" >&2; cat "$work/emulator.out" >&2; exit 1; }
echo "cloud emulator at $base"

cli() { "$build/tools/restclient-cli" --token "$token" "$@"; }

echo "== discover the Storage service"
cli discover "$base/locator/rest" | tee "$work/discover.out"
storage=$(sed -n 's/^storage: //p' "$work/discover.out")

echo "== ask for an upload URL"
head -c 262144 /dev/urandom >"$work/reading.bin"
cli store "$storage" "$work/reading.bin" --type log --meta origin=demo | tee "$work/store.out"
upload=$(sed -n 's/^url: //p' "$work/store.out")

echo "== send the file"
curl -sS --fail --cacert "$work/certs/ca.pem" -T "$work/reading.bin" -H "Content-Type: binary/octet-stream" \
  -o /dev/null -w "PUT answered %{http_code}: %{size_upload} bytes sent\n" "$upload"

echo "== what the Storage service holds"
cli resources "$storage"
echo "demo finished"
