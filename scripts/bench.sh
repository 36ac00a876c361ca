#!/usr/bin/env bash
# Builds and runs the benchmarks; their output is README's benchmark table.
# Each prints medians over interleaved rounds, ratios against a baseline of
# the same run, and (with --callgrind) instruction counts.
#   bash scripts/bench.sh [--callgrind]
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default
echo "machine: $(nproc) cores, $(uptime | sed 's/.*load/load/')"
./build/bench/request_path_bench "$@"
./build/bench/first_chunk_bench "$@"
node bench/js_driver_bench.js
./build/bench/offline_cache_bench
./build/bench/prefetch_bench "$@"
