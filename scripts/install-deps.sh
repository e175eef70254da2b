#!/bin/bash
# Installs what building and testing need on a Debian 12 machine (as root).
set -euo pipefail
packages=(
  cmake make g++ gcc pkg-config file
  googletest libgtest-dev
  g++-mipsel-linux-gnu qemu-user
  python3 python3-pytest
  libmicrohttpd-dev
  wget gzip util-linux coreutils findutils
  valgrind
  fio strace
  clang-14 libclang-rt-14-dev
  chromium
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
# Node may come from elsewhere than Debian's packages; only its absence counts.
command -v npm > /dev/null || missing+=(nodejs npm)
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
# The browser test drives Chromium with playwright-core from the npm registry.
if [[ ! -d tests/browser/node_modules/playwright-core ]]; then
  (cd tests/browser && npm ci --no-audit --no-fund --loglevel=error) || echo "npm ci failed: the browser test will be skipped" >&2
fi
