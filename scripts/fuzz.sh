#!/bin/sh
# usage: fuzz.sh SECONDS [TARGET...]
# Builds the libFuzzer targets with clang in build-fuzz and runs each (default: every fuzz_*
# target) for SECONDS, as the ctest tests fuzz.<name>. Corpora are kept in
# build-fuzz/corpus/<target>; a finding fails the run.
set -eu
cd "$(dirname "$0")/.."
seconds=${1:?usage: fuzz.sh SECONDS [TARGET...]}
shift
CC=clang CXX=clang++ ./scripts/build.sh build-fuzz -DTALVORO_FUZZ=ON -DTALVORO_BUILD_BENCH=OFF \
    -DTALVORO_BUILD_TESTS=ON -DTALVORO_FUZZ_SECONDS="$seconds"
names=""
for t in "$@"; do
    names="${names:+$names|}${t#fuzz_}"
done
ctest --test-dir build-fuzz --no-tests=error --output-on-failure -j"$(nproc)" --no-label-summary -L '^fuzz$' \
    ${names:+-R "^fuzz\\.($names)\$"}
