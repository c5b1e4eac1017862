#!/usr/bin/env bash
# Builds and runs every test: SSE4.1 release (plus static analysis, the leak
# check under valgrind, the installed-package check and one short run of every
# benchmark), the scalar vector layer, address and undefined-behaviour
# sanitizers, thread sanitizer, AArch64 NEON under qemu, the conservative
# build on the three vector backends (on scalar and AArch64 only the tests
# labelled rasteriser and engine, which it changes), and each fuzz target for
# ZELK_FUZZ_SECONDS (default 30, which keeps the whole run under half an hour on 2 cores). Pass names to run a subset, e.g.
# tools/run-tests.sh release fuzz.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh
start=$SECONDS

# Formatting is part of the tests: a diff against .clang-format fails the run.
tools/format.sh --check

# Static analysis of the library with the checks in .clang-tidy. Its findings
# and errors are printed, each file's apart so that parallel runs do not
# interleave, without the "N warnings generated." that every file prints
# (warnings from headers outside the library, which it does not show).
tidy() {
  local t0=$SECONDS out=build/release/clang-tidy status=0
  rm -rf "$out" && mkdir -p "$out"
  git ls-files 'api/*.cpp' 'engine/*.cpp' 'common/*.cpp' 'util/*.cpp' |
    xargs -P"$jobs" -I{} sh -c 'clang-tidy-14 -p build/release --quiet "$1" >"$2/$(echo "$1" | tr / _).log" 2>&1' \
      tidy {} "$out" || status=$?
  cat "$out"/*.log | grep -Ev '^[0-9]+ warnings? generated\.$' || true
  if [ "$status" -ne 0 ]; then
    echo "clang-tidy: findings above"
    return 1
  fi
  echo "clang-tidy: clean ($((SECONDS - t0)) s)"
}

# Configures, builds and tests a preset in one go (its workflow preset); shows
# the build and test steps with the time each took, not the configure's
# progress.
workflow() {
  local preset=$1 step=configure t0=$SECONDS line
  while IFS= read -r line; do
    case $line in
      "Executing workflow step "*" build preset "*) step=build t0=$SECONDS && continue ;;
      "Executing workflow step "*" test preset "*)
        echo "build $preset: $((SECONDS - t0)) s"
        step=test t0=$SECONDS && continue ;;
    esac
    [ "$step" = configure ] || printf '%s\n' "$line"
  done < <(cmake --workflow --preset "$preset")
  wait $! || return 1
  echo "tests $preset: $((SECONDS - t0)) s"
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
export CMAKE_BUILD_PARALLEL_LEVEL=$jobs CTEST_PARALLEL_LEVEL=$jobs
for preset in "${presets[@]}"; do
  echo "=== $preset ==="
  if [ "$preset" = fuzz ]; then
    tools/run-fuzz.sh "${ZELK_FUZZ_SECONDS:-30}"
    continue
  fi
  workflow "$preset"
  report_skips "$preset"
  if [ "$preset" = release ]; then
    tidy
    bench_smoke
  fi
done
echo "all done in $((SECONDS - start)) s"
