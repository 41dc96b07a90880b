#!/bin/sh
# usage: sanitize-build.sh address|thread [TARGET...]
# Configures and builds a sanitizer tree (default: every target in it):
#   address: build-asan, clang, AddressSanitizer and UBSan, with the libFuzzer targets, so that
#            the sanitizer run and the fuzzing run share one build;
#   thread:  build-tsan, GCC, ThreadSanitizer.
# The talvoro tool and the benchmarks are left out: their tests run in the main suite only. -O1
# with line tables only keeps the build short; reports still name files and lines.
set -eu
cd "$(dirname "$0")/.."
kind=${1:-}
[ $# -gt 0 ] && shift
case "$kind" in
    address)
        dir=build-asan
        export CC=clang CXX=clang++
        option=-DTALVORO_ASAN=ON
        fuzz=-DTALVORO_FUZZ=ON
        flags="-O1 -gline-tables-only"
        ;;
    thread)
        dir=build-tsan
        option=-DTALVORO_TSAN=ON
        fuzz=-DTALVORO_FUZZ=OFF
        flags="-O1 -g1"
        ;;
    *) echo "usage: $0 address|thread [TARGET...]" >&2; exit 2 ;;
esac
./scripts/install-deps.sh
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTALVORO_WERROR=ON "$option" "$fuzz" \
    "-DCMAKE_C_FLAGS_RELWITHDEBINFO=$flags" "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=$flags" \
    -DTALVORO_BUILD_TOOLS=OFF -DTALVORO_BUILD_BENCH=OFF > /dev/null
if [ $# -eq 0 ]; then
    cmake --build "$dir" -j"$(nproc)"
else
    cmake --build "$dir" -j"$(nproc)" --target "$@"
fi
