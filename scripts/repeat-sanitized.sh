#!/usr/bin/env bash
# Runs the sanitizer build's tests N times in a row (default 30), in parallel as CI
# does, and stops at the first failing run: the way to show that a change did not
# make the suite flaky. Usage: bash scripts/repeat-sanitized.sh [N] [ctest args...]
set -euo pipefail
cd "$(dirname "$0")/.."
runs="${1:-30}"
shift || true
[ -d build-asan ] || bash scripts/setup.sh build-asan -DEXO_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug -DEXO_BENCH=OFF
source scripts/sanitizer-env.sh
for i in $(seq 1 "$runs"); do
  if ! ctest --test-dir build-asan -j"$(nproc)" --output-on-failure "$@" >"build-asan/repeat-$i.log" 2>&1; then
    echo "run $i of $runs failed; see build-asan/repeat-$i.log"
    tail -30 "build-asan/repeat-$i.log"
    exit 1
  fi
  echo "run $i of $runs: $(grep -E 'tests passed' "build-asan/repeat-$i.log")"
done
echo "all $runs runs passed"
