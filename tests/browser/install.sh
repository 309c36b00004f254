#!/bin/sh
# Installs the browser tests' packages (playwright-core) exactly as locked,
# again only when the lock file changed since the last install.
set -eu
cd "$(dirname "$0")"
if ! cmp -s package-lock.json node_modules/.zel-installed-lock 2>/dev/null; then
  npm ci --no-audit --no-fund
  cp package-lock.json node_modules/.zel-installed-lock
fi
