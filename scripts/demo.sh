#!/bin/sh
# The main job against the local cloud emulator, over HTTPS with a client certificate: upload a
# file through the library's uploader (token, Locator, Account, store, PUT), find it again with a
# resource search, fetch its download URL, download it and compare the bytes. The emulator is
# stopped at the end, also when a step fails. Nothing outside this machine is needed.
# Usage: demo.sh <build-dir>
set -eu
build=${1:-build}
. "$(dirname "$0")/emulator.sh"
echo "cloud emulator at $base (HTTPS, client certificate required)"
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
