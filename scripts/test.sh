#!/usr/bin/env bash
# Builds with the given preset (default: "default") and runs every suite:
# the GoogleTest suites through ctest, then the node:test suites.
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-default}"

bash scripts/setup.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
ctest --preset "$preset" -j2

build_dir=build
[ "$preset" = default ] || build_dir="build-$preset"
node_env=()
case "$preset" in
  # Leaks are checked in the script suites too; allocation stacks stay shallow
  # so that the suppressions of Node's own memory match only Node's.
  asan) node_env=(LD_PRELOAD="$(g++ -print-file-name=libasan.so):$(g++ -print-file-name=libubsan.so)"
                  ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:malloc_context_size=4"
                  LSAN_OPTIONS="suppressions=$PWD/tests/js/lsan-node.supp"
                  UBSAN_OPTIONS="halt_on_error=1") ;;
  tsan) node_env=(LD_PRELOAD="$(g++ -print-file-name=libtsan.so)"
                  TSAN_OPTIONS="halt_on_error=1:suppressions=$PWD/tests/js/tsan-node.supp") ;;
esac
env "${node_env[@]}" VELORA_BUILD_DIR="$build_dir" node --test tests/js/
