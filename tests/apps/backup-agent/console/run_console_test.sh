#!/usr/bin/env bash
# Runs the console's browser test (console_test.mjs). Exits with 77, which CTest
# counts as skipped, when Node.js or Debian's chromium is not installed. The
# test's one npm dependency, playwright-core at the version package-lock.json
# pins, is installed with `npm ci` into NPM_DIR (in the build tree), again only
# when the lock file changed.
#   run_console_test.sh --npm-dir=DIR [the test's own --name=value arguments]
set -euo pipefail
case "$0" in */*) here="$(cd "${0%/*}" && pwd)" ;; *) here="$PWD" ;; esac

npm_dir=""
for arg in "$@"; do
  case "$arg" in --npm-dir=*) npm_dir="${arg#--npm-dir=}" ;; esac
done
[ -n "$npm_dir" ] || { echo "run_console_test.sh: --npm-dir=DIR is required" >&2; exit 64; }

if ! command -v node >/dev/null 2>&1; then
  echo "skipped: Node.js (node) is not installed"
  exit 77
fi
if [ ! -x /usr/bin/chromium ]; then
  echo "skipped: Debian's chromium (/usr/bin/chromium) is not installed"
  exit 77
fi

mkdir -p "$npm_dir"
if ! cmp -s "$here/package-lock.json" "$npm_dir/installed.lock" || [ ! -d "$npm_dir/node_modules/playwright-core" ]; then
  command -v npm >/dev/null 2>&1 || { echo "npm is needed to install playwright-core" >&2; exit 1; }
  cp "$here/package.json" "$here/package-lock.json" "$npm_dir/"
  (cd "$npm_dir" && npm ci --ignore-scripts --no-audit --no-fund --loglevel=error)
  cp "$here/package-lock.json" "$npm_dir/installed.lock"
fi

exec node "$here/console_test.mjs" "$@"
