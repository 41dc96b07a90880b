#!/bin/sh
# Builds everything and runs the whole test suite. Ends with ctest's summary.
set -eu
cd "$(dirname "$0")/.."
./scripts/build.sh build
ctest --test-dir build --output-on-failure -j"$(nproc)"
