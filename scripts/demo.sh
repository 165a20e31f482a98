#!/usr/bin/env bash
# Installs dependencies, builds, and runs the demo.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh build
