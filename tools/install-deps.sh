#!/usr/bin/env bash
# Installs the Debian packages the build needs, only those missing.
#   tools/install-deps.sh         everything tools/run-tests.sh uses: tests,
#                                 sanitizers, aarch64, benchmarks, fuzzing,
#                                 valgrind, static analysis, the package check
# The clang tools are pinned to version 14 (Debian 12): formatting and the
# analyser's findings change between releases.
#   tools/install-deps.sh demo    just what the demo needs
set -euo pipefail

# The demo host's libraries are in both lists, so that the tests' demo smoke run builds too.
packages=(cmake ninja-build g++ make pkg-config libassimp-dev libzip-dev libpng-dev libcli11-dev)
if [ "${1:-all}" = demo ]; then
  packages+=(openarena-081-maps)
else
  packages+=(git clang-format-14 clang-tidy-14 clang-14 libclang-rt-14-dev llvm-14 valgrind
             libgtest-dev libbenchmark-dev binutils g++-aarch64-linux-gnu qemu-user
             libboost-graph-dev libassimp-dev assimp-testmodels glmark2-data libmeshoptimizer-dev)
fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
echo "installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
