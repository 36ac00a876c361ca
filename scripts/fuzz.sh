#!/usr/bin/env bash
# Builds the fuzz targets (clang, libFuzzer, ASan + UBSan) and runs each for a
# bounded time from its seed corpus; new inputs go to a scratch copy, so the
# repository's corpus stays as it is. Usage: scripts/fuzz.sh [seconds per target]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-30}"

bash scripts/setup.sh
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
total=0
for target in url_codec manifest remote_config hilog zip_archive; do
  mkdir -p "$scratch/$target"
  cp fuzz/corpus/"$target"/* "$scratch/$target"/
  log="$scratch/$target.log"
  if ! VELORA_HILOG=/dev/null VELORA_DATA_DIR="$scratch/data" \
      ASAN_OPTIONS="detect_leaks=1:abort_on_error=1" \
      ./build-fuzz/fuzz/"$target"_fuzzer -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
      -print_final_stats=1 "$scratch/$target" >"$log" 2>&1; then
    tail -n 60 "$log"
    echo "fuzz: $target failed"
    exit 1
  fi
  runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || echo 0)
  echo "fuzz: $target ran $runs inputs in ${seconds}s without a fault"
  total=$((total + runs))
done
echo "fuzz: $total inputs in all"
