#!/usr/bin/env bash
# Everyday entry point: ./qs setup | build | test | demo | bench
#   ./qs test [--sanitize]   build and run every test (unit, emulator conformance,
#                            end to end); --sanitize uses an ASan+UBSan build
#   ./qs demo                a real sync against the local emulator, shown step by step
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
cd "$here"
PY=/usr/bin/python3   # Debian's interpreter: it has pytest and the Dropbox SDK

build() {  # build DIR [cmake args...]
  local dir=$1; shift
  cmake -S "$here" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j"$(nproc)"
}

run_tests() {  # run_tests BUILD_DIR
  local dir=$1 status=0
  ctest --test-dir "$dir" --output-on-failure -j"$(nproc)" --timeout 300 || status=1
  # One run per folder: each has a conftest of its own.
  for suite in tests/emulator tests/e2e; do
    QS_BUILD_DIR="$dir" "$PY" -m pytest -q -p no:cacheprovider "$suite" || status=1
  done
  return $status
}

cmd=${1:-help}; shift || true
case "$cmd" in
  setup) bash scripts/setup.sh ;;
  build) bash scripts/setup.sh; build build ;;
  test)
    bash scripts/setup.sh
    if [ "${1:-}" = "--sanitize" ]; then
      build build-asan -DQS_SANITIZE=ON
      ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 run_tests build-asan
    else
      build build
      run_tests build
    fi ;;
  demo)
    bash scripts/setup.sh
    build build
    QS_BUILD_DIR="$here/build" "$PY" tools/demo.py "$@" ;;
  bench)
    bash scripts/setup.sh
    build build-release -DCMAKE_BUILD_TYPE=Release
    for b in build-release/store_bench build-release/digest_bench build-release/scan_bench; do [ -x "$b" ] && "$b"; done
    for b in bench/*.py; do QS_BUILD_DIR="$here/build-release" "$PY" "$b"; done ;;
  *) sed -n '2,6p' "$0"; exit 2 ;;
esac
