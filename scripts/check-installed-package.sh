#!/bin/sh
# Installs the build into a scratch prefix, then builds a consumer against it through the CMake
# package (finding jsoncpp before and after it) and through pkg-config.
# Usage: check-installed-package.sh <build-dir> <consumer-dir>
set -eu
build=$1
consumer=$2
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT

cmake --install "$build" --prefix "$prefix" >/dev/null
lib=$(ls "$prefix"/lib*/librestclient.so.* "$prefix"/lib/*/librestclient.so.* 2>/dev/null | head -n 1)
soname=$(objdump -p "$lib" | awk '/SONAME/ {print $2}')
case "$soname" in
  librestclient.so.[0-9]*) echo "SONAME $soname" ;;
  *) echo "no SONAME on $lib" >&2; exit 1 ;;
esac

for jsoncpp_first in OFF ON; do
  cmake -S "$consumer" -B "$prefix/consumer-$jsoncpp_first" -DCMAKE_PREFIX_PATH="$prefix" \
    -DJSONCPP_FIRST=$jsoncpp_first >/dev/null
  cmake --build "$prefix/consumer-$jsoncpp_first" >/dev/null
  LD_LIBRARY_PATH=$(dirname "$lib") "$prefix/consumer-$jsoncpp_first/consumer"
done

pcdir=$(dirname "$(find "$prefix" -name restclient.pc | head -n 1)")
# shellcheck disable=SC2046
c++ -std=c++17 "$consumer/main.cpp" -o "$prefix/consumer-pc" $(PKG_CONFIG_PATH=$pcdir pkg-config --cflags --libs restclient)
LD_LIBRARY_PATH=$(dirname "$lib") "$prefix/consumer-pc"
