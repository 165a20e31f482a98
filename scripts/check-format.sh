#!/usr/bin/env bash
# Fails when a C++ file of ours differs from the house style in .clang-format.
# `bash scripts/check-format.sh --fix` rewrites the files instead.
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files '*.cpp' '*.h' '*.inl')
if [ "${1:-}" = "--fix" ]; then
  clang-format -i "${files[@]}"
else
  clang-format --dry-run --Werror "${files[@]}"
  echo "format: ${#files[@]} files follow .clang-format"
fi
