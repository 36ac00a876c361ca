#!/usr/bin/env bash
# Installs what the build and the tests need on a fresh Debian machine:
# Debian packages that are missing, then the pinned npm packages.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(
  build-essential cmake ninja-build pkg-config
  libcurl4-openssl-dev libssl-dev openssl libsqlite3-dev liburiparser-dev libzip-dev zlib1g-dev nlohmann-json3-dev
  libgtest-dev libgmock-dev libbenchmark-dev libnghttp2-dev
  sqlite3 zip valgrind clang libclang-rt-14-dev curl
  chromium  # the main job and its end-to-end test load pages in it
)
missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' ||
    missing+=("$package")
done
# Node.js may come from Debian or from a vendor package that bundles npm.
command -v node >/dev/null || missing+=(nodejs)
command -v npm >/dev/null || missing+=(npm)
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

if [ ! -d node_modules/node-api-headers ] || [ ! -d node_modules/playwright-core ] ||
   [ package-lock.json -nt node_modules/.package-lock.json ]; then
  npm ci --no-audit --no-fund
fi
