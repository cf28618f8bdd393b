#!/usr/bin/env bash
# Checks that every C++ source is laid out as .clang-format says (Debian 12's
# clang-format); with --fix, rewrites the ones that are not.
set -euo pipefail
cd "$(dirname "$0")/.."

mapfile -t files < <(find vq_graph tools tests fuzz bench examples -path tests/data -prune -o \
                       -type f \( -name '*.h' -o -name '*.cpp' \) -print | sort)
if [ "${1:-}" = "--fix" ]; then
  clang-format -i "${files[@]}"
  exit 0
fi
clang-format --dry-run --Werror "${files[@]}"
echo "format: ${#files[@]} files as .clang-format says"
