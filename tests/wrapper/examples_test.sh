#!/bin/sh
# usage: examples_test.sh BUILD_DIR EXAMPLES_DIR TALVORO_VCAM
# Installs the build into a temporary prefix, builds the two examples against it with
# find_package(TalvoroSDK), and runs them on virtual cameras: the minimal one on one camera, the
# full one on two.
set -eu
build=$1
examples=$2
vcam=$3
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix

cmake --install "$build" --prefix "$prefix" > "$tmp/install.log"
libdir=$(dirname "$(find "$prefix" -name 'libTalvoroSDK.so.1' | head -n 1)")
[ -n "$libdir" ] || { echo "FAIL: libTalvoroSDK.so.1 not installed"; exit 1; }
export LD_LIBRARY_PATH="$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"

for example in minimal full; do
    cmake -S "$examples/$example" -B "$tmp/$example" -DCMAKE_PREFIX_PATH="$prefix" \
        > "$tmp/$example-cmake.log" || { cat "$tmp/$example-cmake.log"; exit 1; }
    cmake --build "$tmp/$example" > "$tmp/$example-build.log" ||
        { cat "$tmp/$example-build.log"; echo "FAIL: $example does not build"; exit 1; }
done

# Each runs in a directory of its own: the calibration files and the log land there.
mkdir "$tmp/run-minimal" "$tmp/run-full"
(cd "$tmp/run-minimal" && "$vcam" run --camera serial=EXAMPLE-1 -- "$tmp/minimal/talvoro-minimal" 5) \
    > "$tmp/minimal.out" 2>&1 || { cat "$tmp/minimal.out"; echo "FAIL: minimal example"; exit 1; }
cat "$tmp/minimal.out"
grep -q "^camera EXAMPLE-1 (Talvoro Depth Camera) on /dev/video" "$tmp/minimal.out" ||
    { echo "FAIL: minimal example did not list the camera"; exit 1; }
# The centre of the image sees the back wall, 2.4 m away.
[ "$(grep -c '^centre distance: 2[34][0-9][0-9] mm$' "$tmp/minimal.out")" = 5 ] ||
    { echo "FAIL: minimal example did not report five centre distances near 2.4 m"; exit 1; }

(cd "$tmp/run-full" && "$vcam" run --camera serial=EXAMPLE-A --camera serial=EXAMPLE-B -- \
    "$tmp/full/talvoro-full") > "$tmp/full.out" 2>&1 ||
    { cat "$tmp/full.out"; echo "FAIL: full example"; exit 1; }
cat "$tmp/full.out"
for serial in EXAMPLE-A EXAMPLE-B; do
    for line in "mode 0: rgb - ir 640x480 depth 640x480 colormap 640x480" \
                "mode 1: no image" \
                "mode 5: rgb 1280x720 ir 640x480 depth 640x480 colormap 640x480" \
                "mode 9: rgb 1920x1200 ir - depth - colormap -"; do
        grep -qx "$serial $line" "$tmp/full.out" ||
            { echo "FAIL: full example lacks '$serial $line'"; exit 1; }
    done
    grep -q "^$serial averages: depth [0-9]" "$tmp/full.out" ||
        { echo "FAIL: full example lacks the averages of $serial"; exit 1; }
done
grep -qx "full: ok" "$tmp/full.out" || { echo "FAIL: full example"; exit 1; }
echo "OK: examples built against the installed package and run on virtual cameras"
