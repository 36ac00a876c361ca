#!/usr/bin/env bash
# The main job: installs what is missing, builds, and runs the demo site
# through Velora and directly. Options go to demo/main.js (--http, --runs N, ...).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default
node demo/main.js "$@"
