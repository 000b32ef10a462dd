#!/bin/bash
# Installs playwright-core (pinned in tests/web/package-lock.json; no browser
# download) into a folder of the build tree, then runs the browser case of
# e2e_web.sh. Skipped (77) when npm cannot install it (no registry).
# usage: run_browser.sh BUILD_SUBDIR SCREENSHOTS TARNLIFT ROUTERSIM MKPKG
set -u
here=$(cd "$(dirname "$0")" && pwd)
dir=$1 shots=$2
shift 2
mkdir -p "$dir"
cp "$here/package.json" "$here/package-lock.json" "$here/console_test.mjs" "$dir/"
if ! cmp -s "$here/package-lock.json" "$dir/node_modules/.installed-lock" 2> /dev/null; then
  (cd "$dir" && PLAYWRIGHT_SKIP_BROWSER_DOWNLOAD=1 timeout 300 npm ci --no-audit --no-fund > npm.log 2>&1) ||
    { cat "$dir/npm.log"; echo "SKIP: npm ci failed"; exit 77; }
  cp "$here/package-lock.json" "$dir/node_modules/.installed-lock"
fi
BROWSER_DIR=$dir SCREENSHOTS=$shots exec bash "$here/e2e_web.sh" browser "$@"
