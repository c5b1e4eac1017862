#!/usr/bin/env bash
# Builds the release library in both modes and the demo host over each, then
# runs the demo with this script's arguments (none: the built-in city, both
# modes side by side), e.g. tools/run-demo.sh --level oa_dm1 --json
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh demo
cmake --preset release -B build/demo -DZELK_BUILD_TESTS=OFF -DZELK_BUILD_BENCH=OFF >/dev/null
cmake --build build/demo --target zelk_demo zelk_demo_conservative -j2 >/dev/null
exec ./build/demo/tools/zelk-demo "$@"
