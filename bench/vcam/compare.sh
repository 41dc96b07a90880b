#!/bin/sh
# usage: compare.sh BENCH_BINARY PRELOAD
# Runs the pass-through benchmark without the preload, then with it (as under the launcher, but
# without umockdev, whose own wrappers would dominate), so that the two columns can be compared.
set -eu
bench=$1
preload=$2
args="--benchmark_repetitions=5 --benchmark_report_aggregates_only=true"
echo "== without the preload"
# shellcheck disable=SC2086
"$bench" $args
echo "== with $preload"
# shellcheck disable=SC2086
LD_PRELOAD="$preload" "$bench" $args
