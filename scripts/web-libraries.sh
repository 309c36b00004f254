#!/bin/sh
# Installs the operator page's libraries exactly as locked (npm ci, again only
# when the lock file changed) and copies the files the page loads into
# web/lib, from where make run and make install take them with the page.
set -eu
top="$(cd "$(dirname "$0")/.." && pwd)"
cd "$top/web-libraries"
if ! cmp -s package-lock.json node_modules/.zel-installed-lock 2>/dev/null; then
  npm ci --no-audit --no-fund
  cp package-lock.json node_modules/.zel-installed-lock
fi
mkdir -p "$top/web/lib"
cp node_modules/uplot/dist/uPlot.iife.min.js node_modules/uplot/dist/uPlot.min.css node_modules/uplot/LICENSE "$top/web/lib/"
