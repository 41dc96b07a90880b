#!/bin/sh
# usage: install_test.sh BUILD_DIR CONSUMER_SOURCE_DIR
# Installs the build into a temporary prefix as a user would, then checks the installed tree:
# the installed programs run and find the installed library without help, the files land where
# udev, man, bash completion and the compiler look for them, and the consumer program builds
# against it with pkg-config and with find_package(TalvoroSDK), in C++17 and in C++20.
set -eu
build=$1
src=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix
fail() { echo "FAIL: $*"; exit 1; }

cmake --install "$build" --prefix "$prefix" > "$tmp/install.log"
libdir=$(dirname "$(find "$prefix" -name 'libTalvoroSDK.so.1' | head -n 1)")
[ -n "$libdir" ] || fail "libTalvoroSDK.so.1 not installed"

# The installed programs, with nothing pointing at the library (a build without the virtual
# camera has none).
tools=no
[ -x "$prefix/bin/talvoro" ] && tools=yes
if [ $tools = yes ]; then
(unset LD_LIBRARY_PATH; "$prefix/bin/talvoro" --help > "$tmp/help.out") ||
    fail "the installed talvoro does not start"
(unset LD_LIBRARY_PATH; cd "$tmp" &&
    "$prefix/bin/talvoro-vcam" run --camera serial=INSTALLED-1 -- "$prefix/bin/talvoro" list) \
    > "$tmp/list.out" 2>&1 || { cat "$tmp/list.out"; fail "the installed tools do not list a virtual camera"; }
grep -q "INSTALLED-1" "$tmp/list.out" || { cat "$tmp/list.out"; fail "the camera is not listed"; }

for file in include/TalvoroSDK/talvoro_vcam.h share/man/man1/talvoro.1 \
            share/man/man1/talvoro-vcam.1 share/bash-completion/completions/talvoro \
            share/doc/talvoro-tools/user-guide.md share/doc/talvoro-tools/vcam.md; do
    [ -f "$prefix/$file" ] || fail "$file is not installed"
done
[ ! -e "$prefix/include/talvoro_vcam.h" ] || fail "talvoro_vcam.h lies loose in include/"
fi
for file in lib/udev/rules.d/60-talvoro.rules include/TalvoroSDK.h \
            share/doc/libtalvoro-sdk1/copyright; do
    [ -f "$prefix/$file" ] || fail "$file is not installed"
done

# The man pages render without a warning and carry every command of the help.
if [ $tools = yes ] && command -v groff > /dev/null; then
    for page in talvoro talvoro-vcam; do
        groff -man -Tutf8 -ww -z "$prefix/share/man/man1/$page.1" 2> "$tmp/groff.log"
        [ ! -s "$tmp/groff.log" ] || { cat "$tmp/groff.log"; fail "$page.1 renders with warnings"; }
    done
    groff -man -Tascii -P-cbou "$prefix/share/man/man1/talvoro.1" > "$tmp/man.txt" 2> /dev/null
    for command in $(sed -n '/^commands:/,/^$/s/^  \([a-z]*\) .*/\1/p' "$tmp/help.out"); do
        grep -q "talvoro $command" "$tmp/man.txt" || fail "talvoro.1 lacks the command $command"
    done
fi

export LD_LIBRARY_PATH="$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
export PKG_CONFIG_PATH="$libdir/pkgconfig"
pkg-config --cflags talvoro-sdk | grep -q -- '-std=' && fail "talvoro-sdk.pc imposes a C++ standard"
for std in 17 20; do
    # pkg-config
    c++ -std=c++$std -DCONSUMER_STANDARD=$std -o "$tmp/consumer-pc" "$src/consumer.cpp" \
        $(pkg-config --cflags --libs talvoro-sdk) || fail "the C++$std pkg-config consumer does not build"
    (cd "$tmp" && ./consumer-pc) > "$tmp/out-pc"
    grep -qx "consumer: ok" "$tmp/out-pc" || { cat "$tmp/out-pc"; fail "pkg-config consumer, C++$std"; }

    # find_package
    cmake -S "$src" -B "$tmp/consumer-build-$std" -DCMAKE_PREFIX_PATH="$prefix" \
        -DCMAKE_CXX_STANDARD=$std > "$tmp/cmake.log" || { cat "$tmp/cmake.log"; fail "find_package, C++$std"; }
    cmake --build "$tmp/consumer-build-$std" > "$tmp/build.log" ||
        { cat "$tmp/build.log"; fail "the C++$std find_package consumer does not build"; }
    (cd "$tmp" && "./consumer-build-$std/consumer") > "$tmp/out-cmake"
    grep -qx "consumer: ok" "$tmp/out-cmake" || { cat "$tmp/out-cmake"; fail "find_package consumer, C++$std"; }
done
echo "OK: installed tree complete; its programs run; C++17 and C++20 consumers build with pkg-config and find_package"
