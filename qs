#!/usr/bin/env bash
# Everyday entry point: ./qs setup | build | test | demo | bench | faults
#   ./qs test [--sanitize|--tsan]  build and run every test (unit, emulator
#                            conformance, end to end); --sanitize uses an
#                            ASan+UBSan build, --tsan a ThreadSanitizer build
#   ./qs demo                a real sync against the local emulator, shown step by step
#   ./qs faults [loops|fuzz] the long form of the fault loops (every fault point,
#                            200 kills) and of the fuzzers (a million inputs each)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
cd "$here"
PY=/usr/bin/python3   # Debian's interpreter: it has pytest and the Dropbox SDK

build() {  # build DIR [cmake args...]
  local dir=$1; shift
  cmake -S "$here" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j"$(nproc)"
}

run_tests() {  # run_tests BUILD_DIR [pytest args for the end-to-end tests...]
  local dir=$1 status=0
  shift
  ctest --test-dir "$dir" --output-on-failure -j"$(nproc)" --timeout 300 \
    ${QS_CTEST_EXCLUDE:+-E "$QS_CTEST_EXCLUDE"} || status=1
  # One run per folder: each has a conftest of its own.
  if [ -z "${QS_SKIP_EMULATOR_TESTS:-}" ]; then
    QS_BUILD_DIR="$dir" "$PY" -m pytest -q -p no:cacheprovider tests/emulator || status=1
  fi
  QS_BUILD_DIR="$dir" "$PY" -m pytest -q -p no:cacheprovider tests/e2e "$@" || status=1
  return $status
}

# Figures of the long fault loops: cases tried, runs to converge, edits lost.
long_loops() {
  build build
  QS_FAULTS=long QS_BUILD_DIR="$here/build" "$PY" -m pytest -q -s -p no:cacheprovider \
    tests/e2e/test_fault_loops.py 2>&1 | grep -E '^FAULTS|passed|failed|Error'
}

# A million inputs per fuzz target under libFuzzer with ASan and UBSan.
long_fuzz() {
  CC=clang CXX=clang++ cmake -S "$here" -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DQS_FUZZ=ON -DQS_SANITIZE=ON >/dev/null
  local targets=() src
  for src in tests/fuzz/*_fuzz.cpp; do targets+=("$(basename "$src" .cpp)"); done
  cmake --build build-fuzz -j"$(nproc)" --target "${targets[@]}"
  local status=0 target name
  for target in "${targets[@]/#/build-fuzz/}"; do
    name=$(basename "$target" _fuzz)
    mkdir -p "build-fuzz/corpus/$name"
    # Writes new inputs to the build's corpus only; the seeds stay as they are.
    (cd build-fuzz && ASAN_OPTIONS=detect_leaks=0 "./$(basename "$target")" -runs=1000000 \
      -print_final_stats=1 "corpus/$name" "$here/tests/fuzz/corpus/$name" 2>&1 |
      grep -E 'stat::number_of_executed_units|ERROR|SUMMARY|crash-' | sed "s/^/$name: /") || status=1
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
    elif [ "${1:-}" = "--tsan" ]; then
      build build-tsan -DQS_TSAN=ON
      # Only what runs threads: the fuzz targets and the fault loops add no
      # thread of their own, and the emulator tests no C++ at all.
      TSAN_OPTIONS="suppressions=$here/tests/tsan.supp halt_on_error=1 second_deadlock_stack=1" \
        QS_CTEST_EXCLUDE=_fuzz QS_SKIP_EMULATOR_TESTS=1 \
        run_tests build-tsan --deselect tests/e2e/test_fault_loops.py
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
    for b in build-release/store_bench build-release/digest_bench; do [ -x "$b" ] && "$b"; done
    for b in bench/*.py; do QS_BUILD_DIR="$here/build-release" "$PY" "$b"; done ;;
  faults)
    bash scripts/setup.sh
    case "${1:-all}" in
      loops) long_loops ;;
      fuzz) long_fuzz ;;
      *) long_loops; long_fuzz ;;
    esac ;;
  *) sed -n '2,8p' "$0"; exit 2 ;;
esac
