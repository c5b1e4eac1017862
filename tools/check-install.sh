#!/usr/bin/env bash
# Installs a build into a scratch prefix, checks what landed there (the
# versioned library with its SONAME, the header, the CMake package and
# zelk.pc), then builds the C host program against the installed package
# twice, through find_package(zelk) and through pkg-config, and runs both.
#   tools/check-install.sh <build directory>
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "$1" && pwd)
work=$build/install-check
rm -rf "$work"
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null

libdir=$(dirname "$(find "$prefix" -name zelk.pc)")/..
version=$(sed -n 's/^Version: //p' "$libdir/pkgconfig/zelk.pc")
[ -f "$prefix/include/zelk.h" ] || { echo "missing include/zelk.h"; exit 1; }
for f in libzelk.so "libzelk.so.${version%%.*}" "libzelk.so.$version" cmake/zelk/zelkConfig.cmake cmake/zelk/zelkConfigVersion.cmake \
         cmake/zelk/zelkTargets.cmake pkgconfig/zelk.pc; do
  [ -e "$libdir/$f" ] || { echo "missing $f in $libdir"; exit 1; }
done
soname=$(objdump -p "$libdir/libzelk.so.$version" | awk '/SONAME/ {print $2}')
[ "$soname" = "libzelk.so.${version%%.*}" ] || { echo "SONAME is '$soname', expected libzelk.so.${version%%.*}"; exit 1; }

# find_package(zelk) -> zelk::zelk
cmake -S "$root/tests/install" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" \
  -DZELK_HOST_SOURCE="$root/tools/zelk_host.c" >/dev/null
cmake --build "$work/cmake" >/dev/null
"$work/cmake/zelk_consumer" | grep -q "all calls succeeded"

# pkg-config
export PKG_CONFIG_PATH=$libdir/pkgconfig
[ "$(pkg-config --modversion zelk)" = "$version" ]
# shellcheck disable=SC2046
cc -std=c99 -Wall -Werror -o "$work/pkgconfig_consumer" "$root/tools/zelk_host.c" $(pkg-config --cflags --libs zelk) -lm
LD_LIBRARY_PATH=$libdir "$work/pkgconfig_consumer" | grep -q "all calls succeeded"
echo "installed package: CMake and pkg-config consumers built and ran"
