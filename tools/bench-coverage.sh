#!/usr/bin/env bash
# Measures the conservative build beside the default one: builds the
# benchmark in the release and conservative presets and runs the rasteriser
# benchmarks of both, alternating, in one invocation. Arguments are passed to
# both benchmark runs (e.g. --benchmark_repetitions=5).
set -euo pipefail
cd "$(dirname "$0")/.."
filter='BM_(MaskedOcclusionCulling_(renderTriangles|query)|Rasterizer_(rasterize|query))/(320/192|640/360)'
for preset in release conservative; do
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" --target zelk_bench -j2 >/dev/null
done
for round in 1 2; do
  for preset in release conservative; do
    echo "=== $preset, round $round ==="
    "build/$preset/bench/zelk_bench" --benchmark_filter="$filter" --benchmark_counters_tabular=true "$@"
  done
done
