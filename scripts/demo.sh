#!/bin/sh
# The main job against the local cloud emulator, over HTTPS with a client certificate: upload a
# file through the library's uploader (token, Locator, Account, store, PUT), find it again with a
# resource search, fetch its download URL, download it and compare the bytes. The emulator is
# stopped at the end, also when a step fails. Nothing outside this machine is needed.
# Usage: demo.sh <build-dir>
set -eu
build=${1:-build}
work=$(mktemp -d)
emulator_pid=
cleanup() {
  if [ -n "$emulator_pid" ]; then
    kill "$emulator_pid" 2>/dev/null || true
    wait "$emulator_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

"$build/tools/restclient-emulator" --make-certs --require-client-cert --data-dir "$work/cloud" \
  --write-settings "$work/controller.conf" >"$work/emulator.out" 2>&1 &
emulator_pid=$!
base=
for _ in $(seq 100); do
  base=$(sed -n 's/^listening on //p' "$work/emulator.out")
  [ -n "$base" ] && [ -s "$work/controller.conf" ] && break
  sleep 0.1
done
[ -n "$base" ] || { echo "the emulator did not start:" >&2; cat "$work/emulator.out" >&2; exit 1; }
echo "cloud emulator at $base (HTTPS, client certificate required)"
export TAVIX_CONTROLLER_CONFIG="$work/controller.conf"
restclient() { "$build/tools/restclient" "$@"; }

name="reading-$(date +%Y%m%d-%H%M%S).bin"
head -c 3000000 /dev/urandom >"$work/$name"

echo "== upload $name through the library's uploader"
restclient upload "$work/$name" --type log --meta origin=demo | tee "$work/upload.out"

echo "== find it with a resource search"
restclient resources search --type log --project "$name" | tee "$work/search.out"
link=$(awk -v name="$name" '$1 == name { print $5 }' "$work/search.out")
[ -n "$link" ] || { echo "the search did not find $name" >&2; exit 1; }

echo "== fetch its download URL and download it"
url=$(restclient download-url "$link" | sed -n 's/^url: //p')
restclient download "$url" "$work/downloaded.bin"
cmp "$work/$name" "$work/downloaded.bin"

sent=$(wc -c <"$work/$name")
echo "== summary"
echo "uploaded $sent bytes through the library's uploader, found them by search, downloaded and compared: identical"
sed -n 's/^mediaLocation: /media location: /p' "$work/upload.out"
echo "demo finished"
