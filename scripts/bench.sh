#!/bin/sh
# usage: bench.sh [--quick] [--rounds=N] [--seconds=S] [GOOGLE_BENCHMARK_OPTIONS...]
#        bench.sh --end-to-end [--seconds=S]
# Builds the benchmarks optimised (RelWithDebInfo) in build-bench and runs them.
# Default: the frame processor's stages, each beside its floor, a straightforward loop or the
# OpenCV calls it replaces, and whole frames, candidates timed call by call in turn; it ends with
# every candidate's median and minimum over the rounds and every target as measured / target /
# met. Compare the ratios of one run, not absolute times across runs (the machine may be busy).
# --end-to-end: two virtual cameras streaming with frame callbacks and all processing on, as an
# application sees them (GetNextFrame + GetFrames): frames lost, CPU share, RSS, percentiles of
# the time per frame and of capture-to-processed-frame latency (S seconds per pass, default 10).
set -eu
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTALVORO_WERROR=ON \
    -DTALVORO_BUILD_BENCH=ON > /dev/null
if [ "${1:-}" = --end-to-end ]; then
    shift
    cmake --build build-bench -j"$(nproc)" --target talvoro-vcam talvoro-vcam-preload \
        end_to_end_bench
    exec build-bench/vcam/talvoro-vcam run --cameras 2 -- \
        build-bench/bench/endtoend/end_to_end_bench "$@"
fi
cmake --build build-bench -j"$(nproc)" --target frame_bench
exec build-bench/bench/frame/frame_bench "$@"
