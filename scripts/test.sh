#!/usr/bin/env bash
# Builds and runs the whole test suite: once in an ordinary build, then again under
# AddressSanitizer + UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs="$(nproc)"

bash scripts/setup.sh build -DEXO_WERROR=ON
bash scripts/check-format.sh
ctest --test-dir build --output-on-failure -j"$jobs"

bash scripts/setup.sh build-asan -DEXO_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug -DEXO_BENCH=OFF
source scripts/sanitizer-env.sh
ctest --test-dir build-asan --output-on-failure -j"$jobs"
