#!/bin/sh
# usage: install_test.sh BUILD_DIR tree|package VCAM_LAUNCHER
# `import talvoro` where users get it: `tree` installs the build into a temporary prefix,
# `package` unpacks the Debian packages libtalvoro-sdk1 and python3-talvoro (built with CPack)
# into a temporary root. Either way the interpreter then looks for packages as it does for that
# prefix (nothing of the build tree on its path) and takes a frame from a virtual camera.
set -eu
build=$1
kind=$2
launcher=$3
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
fail() { echo "FAIL: $*"; exit 1; }

if [ "$kind" = tree ]; then
    prefix=$tmp/prefix
    cmake --install "$build" --prefix "$prefix" > "$tmp/install.log" ||
        { cat "$tmp/install.log"; fail "cmake --install"; }
else
    (cd "$tmp" && cpack --config "$build/CPackConfig.cmake" -G DEB -B "$tmp/out" \
        -D "CPACK_COMPONENTS_ALL=library;python") > "$tmp/cpack.log" 2>&1 ||
        { cat "$tmp/cpack.log"; fail "cpack -G DEB"; }
    for package in libtalvoro-sdk1 python3-talvoro; do
        deb=$(ls "$tmp/out/$package"_*.deb 2> /dev/null | head -n 1)
        [ -n "$deb" ] || { ls "$tmp/out"; fail "no package $package"; }
        dpkg-deb -x "$deb" "$tmp/root"
    done
    dpkg-deb -f "$(ls "$tmp/out"/python3-talvoro_*.deb)" Depends | grep -q 'libtalvoro-sdk1 (=' ||
        fail "python3-talvoro does not depend on its library"
    prefix=$tmp/root/usr
fi

cd "$tmp"
env -u PYTHONPATH -u LD_LIBRARY_PATH "$launcher" run --camera serial=INST-1 -- /usr/bin/python3 -c '
import site, sys
prefix = sys.argv[1]
for directory in site.getsitepackages([prefix]):
    site.addsitedir(directory)
import talvoro
assert talvoro.__file__.startswith(prefix), talvoro.__file__
with talvoro.open() as cam:
    frame = cam.wait_frame()
    assert frame.depth is not None and cam.serial == "INST-1"
# The library the module found through its run path is the installed one.
libraries = [line.split()[-1] for line in open("/proc/self/maps") if "libTalvoroSDK.so" in line]
assert libraries and all(path.startswith(prefix) for path in libraries), libraries
print("imported", talvoro.__file__)
' "$prefix" > "$tmp/run.log" 2>&1 || { cat "$tmp/run.log"; fail "import talvoro from the $kind"; }
echo "OK: talvoro imports from the $kind and streams: $(tail -n 1 "$tmp/run.log")"
