#!/bin/sh
# usage: package_test.sh BUILD_DIR VERSION
# Builds the Debian packages with CPack, checks each one's contents and dependencies with
# dpkg-deb, then unpacks all of them into a throw-away root and runs the packaged tools there.
set -eu
build=$1
version=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
fail() { echo "FAIL: $*"; exit 1; }

(cd "$tmp" && cpack --config "$build/CPackConfig.cmake" -G DEB -B "$tmp/out") > "$tmp/cpack.log" 2>&1 ||
    { cat "$tmp/cpack.log"; fail "cpack -G DEB"; }
deb() { ls "$tmp/out/$1"_*.deb 2> /dev/null | head -n 1; }

# contains PACKAGE PATH...: the package holds these files (paths below /usr).
contains() {
    package=$1
    shift
    dpkg-deb -c "$(deb "$package")" | awk '{print $6}' | sed 's|^\./usr/||' > "$tmp/$package.list"
    for path in "$@"; do
        grep -qx "$path" "$tmp/$package.list" || fail "$package lacks /usr/$path"
    done
}
# depends PACKAGE PATTERN...: its Depends field matches every pattern (grep -E).
depends() {
    package=$1
    shift
    field=$(dpkg-deb -f "$(deb "$package")" Depends)
    for pattern in "$@"; do
        echo "$field" | tr ',' '\n' | grep -Eq "^ ?($pattern)\$" ||
            fail "$package: Depends '$field' lacks '$pattern'"
    done
}

for package in libtalvoro-sdk1 libtalvoro-sdk-dev talvoro-tools; do
    [ -n "$(deb $package)" ] || { ls "$tmp/out"; fail "no package $package"; }
    [ "$(dpkg-deb -f "$(deb $package)" Version)" = "$version" ] || fail "$package: version"
done

contains libtalvoro-sdk1 "lib/udev/rules.d/60-talvoro.rules" "share/doc/libtalvoro-sdk1/copyright"
grep -q '/libTalvoroSDK\.so\.1$' "$tmp/libtalvoro-sdk1.list" || fail "libtalvoro-sdk1 lacks the library"
! grep -q 'include/' "$tmp/libtalvoro-sdk1.list" || fail "libtalvoro-sdk1 carries headers"
depends libtalvoro-sdk1 'libudev1( .*)?' 'libopencv-core[0-9a-z.]+( .*)?' \
    'libopencv-calib3d[0-9a-z.]+( .*)?' 'libstdc\+\+6( .*)?'
dpkg-deb -e "$(deb libtalvoro-sdk1)" "$tmp/control"
grep -q '^libTalvoroSDK 1 libtalvoro-sdk1 (>= ' "$tmp/control/shlibs" ||
    fail "libtalvoro-sdk1 has no shlibs entry for libTalvoroSDK.so.1"
grep -q '^ *ldconfig$' "$tmp/control/postinst" && grep -q 'udevadm trigger' "$tmp/control/postinst" ||
    fail "libtalvoro-sdk1's postinst does not run ldconfig and apply the udev rule"

contains libtalvoro-sdk-dev include/TalvoroSDK.h include/TalvoroSDK/talvoro_vcam.h \
    share/doc/libtalvoro-sdk-dev/examples/minimal/main.cpp
[ ! -f "$build/tools/talvoro/publish/idl/sensor_msgs.h" ] || contains libtalvoro-sdk-dev share/talvoro/idl/sensor_msgs.idl
for file in libTalvoroSDK.so pkgconfig/talvoro-sdk.pc cmake/TalvoroSDK/TalvoroSDKConfig.cmake; do
    grep -q "/$file\$" "$tmp/libtalvoro-sdk-dev.list" || fail "libtalvoro-sdk-dev lacks $file"
done
depends libtalvoro-sdk-dev "libtalvoro-sdk1 \\(= $version\\)"

contains talvoro-tools bin/talvoro bin/talvoro-vcam share/man/man1/talvoro.1 \
    share/man/man1/talvoro-vcam.1 share/bash-completion/completions/talvoro \
    share/doc/talvoro-tools/vcam.md share/doc/talvoro-tools/user-guide.md
grep -q '/talvoro-vcam/libtalvoro-vcam-preload\.so$' "$tmp/talvoro-tools.list" ||
    fail "talvoro-tools lacks the preload library"
depends talvoro-tools "libtalvoro-sdk1 \\(= $version\\)" umockdev 'libumockdev0( .*)?' \
    'libopencv-imgcodecs[0-9a-z.]+( .*)?'

# Unpacked together, the packaged tools run on a virtual camera.
for package in libtalvoro-sdk1 libtalvoro-sdk-dev talvoro-tools; do
    dpkg-deb -x "$(deb $package)" "$tmp/root"
done
(cd "$tmp" && XDG_CACHE_HOME="$tmp/cache" "$tmp/root/usr/bin/talvoro-vcam" run --camera serial=PKG-1 -- \
    "$tmp/root/usr/bin/talvoro" list) > "$tmp/list.out" 2>&1 ||
    { cat "$tmp/list.out"; fail "the packaged tools do not run"; }
grep -q PKG-1 "$tmp/list.out" || { cat "$tmp/list.out"; fail "the packaged tools do not list the camera"; }
echo "OK: libtalvoro-sdk1, libtalvoro-sdk-dev and talvoro-tools $version: contents and Depends as" \
    "expected; the unpacked tools run"
