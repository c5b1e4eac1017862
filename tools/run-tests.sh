#!/usr/bin/env bash
# Builds and runs every test: SSE4.1 release (plus static analysis, the leak
# check under valgrind, the installed-package check and one short run of every
# benchmark), the scalar vector layer, address and undefined-behaviour
# sanitizers, thread sanitizer, AArch64 NEON under qemu, the conservative
# build on the three vector backends (on scalar and AArch64 only the rasteriser
# and engine suites, which it changes), and each fuzz target for
# ZELK_FUZZ_SECONDS (default 60). Pass names to run a subset, e.g.
# tools/run-tests.sh release fuzz.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh
start=$SECONDS

# Formatting is part of the tests: a diff against .clang-format fails the run.
# The version is pinned: clang-format's output differs between releases.
git ls-files '*.h' '*.cpp' '*.c' | xargs clang-format-14 --dry-run -Werror

# Static analysis of the library with the checks in .clang-tidy.
tidy() {
  local t0=$SECONDS
  if ! git ls-files 'api/*.cpp' 'engine/*.cpp' 'common/*.cpp' 'util/*.cpp' |
    xargs -P"$jobs" -n4 clang-tidy-14 -p build/release --quiet 2>/dev/null; then
    echo "clang-tidy: findings above"
    return 1
  fi
  echo "clang-tidy: clean ($((SECONDS - t0)) s)"
}

# Every benchmark once for a few iterations: a benchmark whose built-in
# correctness check fails reports an error but exits 0, so read its JSON.
bench_smoke() {
  local out=build/release/bench-smoke.json
  build/release/bench/zelk_bench --benchmark_min_time=0.001 --benchmark_out="$out" \
    --benchmark_out_format=json >/dev/null
  if grep -q '"error_occurred": true' "$out"; then
    grep -B3 -A1 '"error_occurred": true' "$out"
    echo "benchmark correctness check failed"
    return 1
  fi
  echo "benchmarks: $(grep -c '"run_name"' "$out") runs, no errors"
}

# Tests that skipped themselves (GTEST_SKIP), each with its reason, from the
# log of the last ctest run in a build directory.
report_skips() {
  local log=build/$1/Testing/Temporary/LastTest.log skips
  skips=$(awk '/: Skipped$/ { getline reason }
               /^\[  SKIPPED \] [^ ]+ \(/ { print "  " $4 ": " reason }' "$log" | sort -u)
  [ -z "$skips" ] && return
  echo "!!! $1: $(wc -l <<<"$skips") tests SKIPPED:"
  echo "$skips"
}

presets=("$@")
[ ${#presets[@]} -eq 0 ] && presets=(release scalar asan tsan aarch64 conservative conservative-scalar conservative-aarch64 fuzz)
jobs=$(nproc)
for preset in "${presets[@]}"; do
  echo "=== $preset ==="
  if [ "$preset" = fuzz ]; then
    tools/run-fuzz.sh "${ZELK_FUZZ_SECONDS:-60}"
    continue
  fi
  t0=$SECONDS
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j"$jobs"
  echo "build $preset: $((SECONDS - t0)) s"
  t0=$SECONDS
  ctest --preset "$preset" -j"$jobs"
  echo "tests $preset: $((SECONDS - t0)) s"
  report_skips "$preset"
  if [ "$preset" = release ]; then
    tidy
    bench_smoke
  fi
done
echo "all done in $((SECONDS - start)) s"
