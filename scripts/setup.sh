#!/usr/bin/env bash
# Installs every Debian package the build and the tests need, then builds into
# build/ (or the folder given as $1, with any further CMake arguments after it).
# Everything is built unless targets are named first, each after --target:
#   bash scripts/setup.sh --target backup-agent --target backupd build
set -euo pipefail
cd "$(dirname "$0")/.."

targets=()
while [ $# -gt 0 ] && [ "$1" = "--target" ]; do
  [ $# -ge 2 ] || { echo "setup.sh: --target takes a target name" >&2; exit 64; }
  targets+=("$2")
  shift 2
done

PACKAGES=(
  build-essential cmake ninja-build ccache clang-format pkg-config git curl ca-certificates zstd
  libace-dev libyajl-dev nlohmann-json3-dev libboost-dev
  libcurl4-openssl-dev libcpp-httplib-dev libpugixml-dev libexpat1-dev
  libsqlite3-dev libzstd-dev libssl-dev libgtest-dev libgmock-dev
  libpq-dev postgresql
  chromium
)
# The console's browser test also needs Node.js (a Node.js installed from elsewhere
# will do); it fetches its one npm package itself, without npm.
command -v node >/dev/null 2>&1 || PACKAGES+=(nodejs)

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  $SUDO apt-get update
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y --no-install-recommends "${missing[@]}"
fi

build_dir="${1:-build}"
shift || true
cmake -S . -B "$build_dir" -G Ninja "$@"
if [ ${#targets[@]} -gt 0 ]; then
  cmake --build "$build_dir" -j"$(nproc)" --target "${targets[@]}"
else
  cmake --build "$build_dir" -j"$(nproc)"
fi
