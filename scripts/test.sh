#!/usr/bin/env bash
# Builds with the given preset (default, asan, tsan or clang) and runs every
# suite: the GoogleTest suite through ctest (one process per test) and once
# more whole in one process, then the node:test suites.
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-default}"

bash scripts/setup.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"

# One set of TLS certificates for the whole run, made fresh and thrown away
# after: the test origins serve them, and the host libraries trust its root.
run_dir=$(mktemp -d)
trap 'rm -rf "$run_dir"' EXIT
node tests/origin/certs.js "$run_dir/certs" >/dev/null
export VELORA_TEST_CERTS="$run_dir/certs" VELORA_CA_FILE="$run_dir/certs/ca.pem"

ctest --preset "$preset" -j2

build_dir=build
[ "$preset" = default ] || build_dir="build-$preset"
unit_env=()
node_env=()
case "$preset" in
  # Leaks are checked in the script suites too; allocation stacks stay shallow
  # so that the suppressions of Node's own memory match only Node's.
  asan) unit_env=(ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
                  UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1")
        node_env=(LD_PRELOAD="$(g++ -print-file-name=libasan.so):$(g++ -print-file-name=libubsan.so)"
                  ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:malloc_context_size=4"
                  LSAN_OPTIONS="suppressions=$PWD/tests/js/lsan-node.supp"
                  UBSAN_OPTIONS="halt_on_error=1") ;;
  tsan) unit_env=(TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1")
        node_env=(LD_PRELOAD="$(g++ -print-file-name=libtsan.so)"
                  TSAN_OPTIONS="halt_on_error=1:suppressions=$PWD/tests/js/tsan-node.supp") ;;
esac
# Tests must not depend on running alone.
env "${unit_env[@]}" "$build_dir/tests/velora_unit_tests" --gtest_brief=1
if [ "$preset" != asan ]; then
  env "${node_env[@]}" VELORA_BUILD_DIR="$build_dir" node --test tests/js/
  exit 0
fi
# GCC 12's LeakSanitizer now and then crashes in its own tracer while it
# stops a Node process at exit ("Tracer caught signal 11" in
# ScanRangeForPointers): such a run gives no leak verdict at all. A file
# whose run failed that way runs again, whole (at most three runs in all);
# any other failure, a leak report among them, ends the suite at once.
for file in tests/js/*.test.js; do
  for attempt in 1 2 3; do
    if out=$(env "${node_env[@]}" VELORA_BUILD_DIR="$build_dir" node --test "$file" 2>&1); then
      printf '%s\n' "$out" | grep -E '^# (tests|pass|fail)' | tr '\n' ' '
      echo "$file"
      break
    fi
    printf '%s\n' "$out"
    if [ "$attempt" -lt 3 ] && grep -q 'Tracer caught signal' <<<"$out" &&
       ! grep -q 'LeakSanitizer: detected memory leaks' <<<"$out"; then
      echo "== $file: LeakSanitizer's tracer crashed; running the file again"
    else
      exit 1
    fi
  done
done
