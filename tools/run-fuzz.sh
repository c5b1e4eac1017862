#!/usr/bin/env bash
# Builds the libFuzzer targets (preset fuzz, clang) and runs each one for a
# bounded time on a corpus seeded from the tests' scenes. Any crash, sanitizer
# report, leak or hang fails the run; the input that caused it is left in
# build/fuzz/findings/<target>/ (replay: build/fuzz/tests/fuzz/<target> <file>).
# A hang is an input that takes over 30 s: the sanitizers slow the mesh
# reduction of the largest meshes (65,535 indices, 1 s in release) tenfold.
#   tools/run-fuzz.sh                  every target, 60 s each
#   tools/run-fuzz.sh 3600 EngineFuzz  one target for an hour
# The corpus grows in build/fuzz/corpus/<target>/ and is reused by later runs.
# Resident memory is capped at ZELK_FUZZ_RSS_MB (2048). EngineFuzz creeps up
# by 55 to 60 MB a minute over an hour-long run (faster in its first minutes;
# 3.6 GB at the end): the address sanitizer's own bookkeeping (30,000
# engine lifetimes stay at 3.5 MB in a release build, and grow by about 1 MB
# per thousand once its quarantine is full under the sanitizer), so runs of
# EngineFuzz past a quarter of an hour need more.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
shift || true
cmake --preset fuzz >/dev/null
t0=$SECONDS
cmake --build --preset fuzz -j"$(nproc)"
echo "build fuzz: $((SECONDS - t0)) s"

bin=build/fuzz/tests/fuzz
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  mapfile -t targets <"$bin/targets.txt"
fi
seeds=build/fuzz/seeds
rm -rf "$seeds"
"$bin/zelk_fuzz_seeds" "$seeds"

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
symbolizer=/usr/lib/llvm-14/bin/llvm-symbolizer
[ -x "$symbolizer" ] && export ASAN_SYMBOLIZER_PATH=$symbolizer
failed=()
for target in "${targets[@]}"; do
  corpus=build/fuzz/corpus/$target findings=build/fuzz/findings/$target
  mkdir -p "$corpus" "$findings"
  log=build/fuzz/$target.log
  echo "=== fuzz $target (${seconds} s) ==="
  if ! "$bin/$target" -max_total_time="$seconds" -timeout=30 -rss_limit_mb="${ZELK_FUZZ_RSS_MB:-2048}" -print_final_stats=1 \
      -artifact_prefix="$findings/" "$corpus" "$seeds/$target" >"$log" 2>&1; then
    tail -n 60 "$log"
    echo "fuzz $target: FINDING (log $log, input in $findings/)"
    failed+=("$target")
    continue
  fi
  sed -n 's/^stat::number_of_executed_units: *\([0-9]*\)/'"$target"': \1 executions/p' "$log"
done
[ ${#failed[@]} -eq 0 ] || { echo "fuzz findings in: ${failed[*]}"; exit 1; }
