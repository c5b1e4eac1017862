#!/usr/bin/env bash
# Builds the release library and runs the demo host on its built-in scene.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh demo
cmake --preset release -B build/demo -DZELK_BUILD_TESTS=OFF -DZELK_BUILD_BENCH=OFF >/dev/null
cmake --build build/demo --target zelk_host -j"$(nproc)"
./build/demo/tools/zelk_host "$@"
