#!/usr/bin/env bash
# Builds and runs every test: SSE4.1 release, the scalar vector layer, address
# and undefined-behaviour sanitizers, thread sanitizer, and AArch64 NEON under
# qemu; then the exact-coverage build on the three vector backends (on scalar
# and AArch64 only the rasteriser and engine suites, which it changes). Pass preset names to run a subset, e.g. tools/run-tests.sh release.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh

# Formatting is part of the tests: a diff against .clang-format fails the run.
git ls-files '*.h' '*.cpp' '*.c' | xargs clang-format --dry-run -Werror

presets=("$@")
[ ${#presets[@]} -eq 0 ] && presets=(release scalar asan tsan aarch64 exact exact-scalar exact-aarch64)
jobs=$(nproc)
for preset in "${presets[@]}"; do
  echo "=== $preset ==="
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j"$jobs"
  ctest --preset "$preset" -j"$jobs"
done
