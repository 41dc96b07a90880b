#!/bin/sh
# usage: bench.sh [GOOGLE_BENCHMARK_OPTIONS...]
# Builds the frame processor's benchmarks optimised (RelWithDebInfo) in build-bench and runs
# them: each stage beside its floor or baseline, the whole pipelines, then the ratios and each
# pipeline's share of the 33.3 ms frame interval. Compare the ratios of one run, not absolute
# times across runs (the machine may be busy). Default: three repetitions, medians.
set -eu
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTALVORO_WERROR=ON \
    -DTALVORO_BUILD_BENCH=ON > /dev/null
cmake --build build-bench -j"$(nproc)" --target frame_bench
[ $# -gt 0 ] || set -- --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
exec build-bench/bench/frame/frame_bench "$@"
