#!/bin/sh
# usage: sanitize.sh address|thread [CTEST_ARGS...]
# Builds the library and its tests with AddressSanitizer (and UBSan) or ThreadSanitizer in
# build-asan / build-tsan and runs the tests there. The virtual camera itself is never sanitized.
set -eu
cd "$(dirname "$0")/.."
kind=${1:-}
[ $# -gt 0 ] && shift
case "$kind" in
    address) dir=build-asan; option=-DTALVORO_ASAN=ON ;;
    thread) dir=build-tsan; option=-DTALVORO_TSAN=ON ;;
    *) echo "usage: $0 address|thread [CTEST_ARGS...]" >&2; exit 2 ;;
esac
./scripts/build.sh "$dir" "$option" -DTALVORO_BUILD_BENCH=OFF
# The preloads come before the sanitizer runtime in the library list; that is intended.
export ASAN_OPTIONS="verify_asan_link_order=0:detect_leaks=1:abort_on_error=0"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$(pwd)/scripts/tsan.supp"
# Installed consumers would need the sanitizer runtime; the normal build covers them.
ctest --test-dir "$dir" --output-on-failure -j"$(nproc)" -E '^install\.' "$@"
