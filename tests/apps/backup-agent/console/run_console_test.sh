#!/usr/bin/env bash
# Runs the console's browser test (console_test.mjs). Exits with 77, which CTest
# counts as skipped, when Node.js or Debian's chromium is not installed. The
# test's one npm dependency, playwright-core at the version package-lock.json
# pins, is fetched from the npm registry into NPM_DIR (in the build tree), its
# tarball checked against the lock file's sha512 integrity, again only when the
# lock file changed. A dependency-free package needs no npm: Debian's npm would
# pull in some three hundred packages for this one download.
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
  # The version, tarball and integrity the lock file pins ("sha512-" and base64).
  read -r version integrity < <(node -e '
    const lock = require(process.argv[1]).packages["node_modules/playwright-core"];
    console.log(lock.version, lock.integrity);' "$here/package-lock.json")
  tarball="$npm_dir/playwright-core-$version.tgz"
  curl -fsS --retry 3 -o "$tarball" "https://registry.npmjs.org/playwright-core/-/playwright-core-$version.tgz"
  actual="$(node -e '
    const data = require("fs").readFileSync(process.argv[1]);
    console.log("sha512-" + require("crypto").createHash("sha512").update(data).digest("base64"));' "$tarball")"
  if [ "$actual" != "$integrity" ]; then
    echo "playwright-core $version: the downloaded tarball does not match the lock file's integrity" >&2
    exit 1
  fi
  rm -rf "$npm_dir/node_modules/playwright-core"
  mkdir -p "$npm_dir/node_modules/playwright-core"
  tar -xzf "$tarball" -C "$npm_dir/node_modules/playwright-core" --strip-components=1
  cp "$here/package.json" "$here/package-lock.json" "$npm_dir/"
  cp "$here/package-lock.json" "$npm_dir/installed.lock"
fi

exec node "$here/console_test.mjs" "$@"
