#!/bin/sh
# usage: fuzz.sh SECONDS [TARGET...]
# Builds the libFuzzer targets with clang in build-fuzz and runs each (default: every fuzz_*
# target) for SECONDS. Corpora are kept in build-fuzz/corpus/<target>; a finding fails the run.
set -eu
cd "$(dirname "$0")/.."
seconds=${1:?usage: fuzz.sh SECONDS [TARGET...]}
shift
CC=clang CXX=clang++ ./scripts/build.sh build-fuzz -DTALVORO_FUZZ=ON -DTALVORO_BUILD_BENCH=OFF \
    -DTALVORO_BUILD_TESTS=ON
targets="$*"
[ -n "$targets" ] || targets=$(find build-fuzz -type f -perm -u+x -name 'fuzz_*' -printf '%f\n' | sort)
[ -n "$targets" ] || { echo "no fuzz targets"; exit 1; }
for t in $targets; do
    bin=$(find build-fuzz -type f -name "$t" | head -n 1)
    mkdir -p "build-fuzz/corpus/$t"
    seeds=""
    [ -d "tests/fuzz-seeds/$t" ] && seeds="tests/fuzz-seeds/$t"
    echo "== $t for ${seconds}s"
    "$bin" -max_total_time="$seconds" -print_final_stats=1 -artifact_prefix="build-fuzz/$t-" \
        "build-fuzz/corpus/$t" $seeds
done
