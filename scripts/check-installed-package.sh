#!/bin/sh
# Installs the build, stripped, into a scratch prefix, then builds a consumer against it through
# the CMake package (finding jsoncpp before and after it) and through pkg-config, and has each
# upload a file to the installed emulator; then compiles every installed header on its own.
# Usage: check-installed-package.sh <build-dir> <consumer-dir>
set -eu
build=$1
consumer=$2
prefix=$(mktemp -d)
emulator_pid=
cleanup() {
  [ -n "$emulator_pid" ] && kill "$emulator_pid" 2>/dev/null && wait "$emulator_pid" 2>/dev/null
  rm -rf "$prefix"
}
trap cleanup EXIT

cmake --install "$build" --prefix "$prefix" --strip >/dev/null
cmake --install "$build" --prefix "$prefix" --component debug >/dev/null
lib=$(ls "$prefix"/lib*/librestclient.so.* "$prefix"/lib/*/librestclient.so.* 2>/dev/null | grep -v '\.debug$' | head -n 1)
soname=$(objdump -p "$lib" | awk '/SONAME/ {print $2}')
case "$soname" in
  librestclient.so.[0-9]*) echo "SONAME $soname, $(wc -c <"$lib") bytes stripped" ;;
  *) echo "no SONAME on $lib" >&2; exit 1 ;;
esac
libdir=$(dirname "$lib")
ls "$libdir/.debug/"*.debug >/dev/null

"$prefix/bin/restclient-emulator" --data-dir "$prefix/cloud" --write-settings "$prefix/controller.conf" \
  >"$prefix/emulator.out" 2>&1 &
emulator_pid=$!
for _ in $(seq 100); do
  [ -s "$prefix/controller.conf" ] && break
  sleep 0.1
done
export TAVIX_CONTROLLER_CONFIG="$prefix/controller.conf"
head -c 100000 /dev/urandom >"$prefix/file.bin"

for jsoncpp_first in OFF ON; do
  cmake -S "$consumer" -B "$prefix/consumer-$jsoncpp_first" -DCMAKE_PREFIX_PATH="$prefix" \
    -DJSONCPP_FIRST=$jsoncpp_first >/dev/null
  cmake --build "$prefix/consumer-$jsoncpp_first" >/dev/null
  LD_LIBRARY_PATH=$libdir "$prefix/consumer-$jsoncpp_first/consumer" "$prefix/file.bin"
done

# Programs that link restclient::restclient alone start without LD_LIBRARY_PATH: the library finds
# its sibling through its own run path.
for program in uploader_only rest_only; do
  cmake -S "$consumer/$program" -B "$prefix/$program" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
  cmake --build "$prefix/$program" >/dev/null
done
locator=$(sed -n 's/^locator_url = //p' "$prefix/controller.conf")
(unset LD_LIBRARY_PATH; "$prefix/uploader_only/uploader_only" "$prefix/file.bin" && "$prefix/rest_only/rest_only" "$locator")

pcdir=$(dirname "$(find "$prefix" -name restclient.pc | head -n 1)")
# shellcheck disable=SC2046
c++ -std=c++17 "$consumer/main.cpp" -o "$prefix/consumer-pc" $(PKG_CONFIG_PATH=$pcdir pkg-config --cflags --libs restclient)
LD_LIBRARY_PATH=$libdir "$prefix/consumer-pc" "$prefix/file.bin"

# Every installed header compiles on its own with the package's flags, so none can need a header
# that is not installed.
cflags=$(PKG_CONFIG_PATH=$pcdir pkg-config --cflags restclient)
headers=$(cd "$prefix/include" && find restclient tavix -name '*.h' | sort)
export cflags
# shellcheck disable=SC2016
echo "$headers" | xargs -P 2 -I{} sh -c \
  'printf "#include <%s>\n" "$1" | c++ -std=c++17 -fsyntax-only $cflags -x c++ - || { echo "installed header $1 does not compile on its own" >&2; exit 255; }' \
  sh {}
echo "$(echo "$headers" | wc -l) installed headers compile on their own"
if find "$prefix/include" -path '*/detail/*' | grep -q .; then
  echo "an internal header was installed" >&2
  exit 1
fi
# The two roots are the only ones: nothing else lands in a shared include directory.
if [ "$(ls "$prefix/include")" != "$(printf 'restclient\ntavix')" ]; then
  echo "unexpected include roots: $(ls "$prefix/include")" >&2
  exit 1
fi
