#!/usr/bin/env bash
# Formats every C and C++ file of the project in place, or with --check fails
# on any difference from .clang-format and changes nothing. This is the one
# list of those files: the format and format-check targets and
# tools/run-tests.sh all run this script. The version is pinned (CLANG_FORMAT,
# default clang-format-14): clang-format's output differs between releases.
set -euo pipefail
cd "$(dirname "$0")/.."
format=${CLANG_FORMAT:-clang-format-14}
files() {
  find api common engine util bench tests tools -type f \( -name '*.h' -o -name '*.c' -o -name '*.cpp' \) | sort
}
case ${1:-} in
  "") files | xargs "$format" -i ;;
  --check) files | xargs "$format" --dry-run -Werror ;;
  *) echo "usage: $0 [--check]" >&2; exit 2 ;;
esac
