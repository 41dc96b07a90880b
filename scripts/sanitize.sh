#!/bin/sh
# usage: sanitize.sh address|thread [CTEST_ARGS...]
# Builds the library and its tests with AddressSanitizer (and UBSan) or ThreadSanitizer in
# build-asan / build-tsan (scripts/sanitize-build.sh) and runs the tests there. The virtual camera
# itself is never sanitized.
set -eu
cd "$(dirname "$0")/.."
kind=${1:-}
[ $# -gt 0 ] && shift
case "$kind" in
    address) dir=build-asan ;;
    thread) dir=build-tsan ;;
    *) echo "usage: $0 address|thread [CTEST_ARGS...]" >&2; exit 2 ;;
esac
# The sanitizers watch the library: its own tests and the tests under the virtual camera. The
# command-line tool's tests (viewer and DDS publisher included) drive the same library calls
# from child processes at the speed of the camera; they run in the main suite only, which keeps
# CI within its time budget.
./scripts/sanitize-build.sh "$kind"
# The preloads come before the sanitizer runtime in the library list; that is intended.
export ASAN_OPTIONS="verify_asan_link_order=0:detect_leaks=1:abort_on_error=0"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$(pwd)/scripts/tsan.supp"
# Installed consumers would need the sanitizer runtime; the normal build covers them. device.rate
# and device.lossless ask the library to keep up with the camera's frame rate, which the
# sanitizers' slowdown takes away; the main suite checks them. The fuzzing runs are scripts/fuzz.sh.
ctest --test-dir "$dir" --output-on-failure -j"$(nproc)" \
    -E '^(install|tools|fuzz)\.|^device\.(rate|lossless)$' "$@"
