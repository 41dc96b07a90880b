#!/bin/sh
# usage: install_test.sh BUILD_DIR CONSUMER_SOURCE_DIR
# Installs the build into a temporary prefix, then builds and runs the consumer program against
# it twice: with pkg-config and with find_package(TalvoroSDK).
set -eu
build=$1
src=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix

cmake --install "$build" --prefix "$prefix" > "$tmp/install.log"
libdir=$(dirname "$(find "$prefix" -name 'libTalvoroSDK.so.1' | head -n 1)")
[ -n "$libdir" ] || { echo "FAIL: libTalvoroSDK.so.1 not installed"; exit 1; }
export LD_LIBRARY_PATH="$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"

# pkg-config
export PKG_CONFIG_PATH="$libdir/pkgconfig"
c++ -o "$tmp/consumer-pc" "$src/consumer.cpp" $(pkg-config --cflags --libs talvoro-sdk)
(cd "$tmp" && ./consumer-pc) > "$tmp/out-pc"
grep -qx "consumer: ok" "$tmp/out-pc" || { cat "$tmp/out-pc"; echo "FAIL: pkg-config consumer"; exit 1; }

# find_package
cmake -S "$src" -B "$tmp/consumer-build" -DCMAKE_PREFIX_PATH="$prefix" > "$tmp/cmake.log"
cmake --build "$tmp/consumer-build" > "$tmp/build.log"
(cd "$tmp" && ./consumer-build/consumer) > "$tmp/out-cmake"
grep -qx "consumer: ok" "$tmp/out-cmake" || { cat "$tmp/out-cmake"; echo "FAIL: find_package consumer"; exit 1; }
echo "OK: installed to a prefix; pkg-config and find_package consumers build and run"
