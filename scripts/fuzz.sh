#!/bin/sh
# usage: fuzz.sh SECONDS [TARGET...]
# Builds the libFuzzer targets in the AddressSanitizer tree (build-asan, which
# scripts/sanitize.sh address shares) and runs each (default: every fuzz_* target) for SECONDS,
# as the ctest tests fuzz.<name>. Corpora are kept in build-asan/corpus/<target>; a finding fails
# the run and leaves its input in build-asan/fuzz_<target>-*.
set -eu
cd "$(dirname "$0")/.."
seconds=${1:?usage: fuzz.sh SECONDS [TARGET...]}
shift
./scripts/sanitize-build.sh address fuzzers
cmake -DTALVORO_FUZZ_SECONDS="$seconds" build-asan > /dev/null
names=""
for t in "$@"; do
    names="${names:+$names|}${t#fuzz_}"
done
ctest --test-dir build-asan --no-tests=error --output-on-failure -j"$(nproc)" --no-label-summary \
    -L '^fuzz$' ${names:+-R "^fuzz\\.($names)\$"}
