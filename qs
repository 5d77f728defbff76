#!/usr/bin/env bash
# Everyday entry point: ./qs setup | build | test | check | demo | bench | faults | arm
#   ./qs test [--sanitize|--tsan]  build and run every test (unit, emulator
#                            conformance, end to end); --sanitize uses an
#                            ASan+UBSan build, --tsan a ThreadSanitizer build
#   ./qs check               Python lint and C++ formatting only (also part of test)
#   ./qs demo                a real sync against the local emulator, shown step by step
#   ./qs faults [loops|fuzz|power] the long form of the fault loops (every fault
#                            point, 200 kills), of the fuzzers (a million inputs
#                            each) and of the power cuts (1,000 crash states)
#   ./qs arm [e2e [ARGS]]    cross build for armhf (build-armhf) and run the unit tests
#                            under qemu-arm; "e2e" runs the end-to-end tests (pytest
#                            ARGS) with the armhf worker. Exit status 3: no armhf packages
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
cd "$here"
PY=/usr/bin/python3   # Debian's interpreter: it has pytest and the Dropbox SDK
# End-to-end tests at once: each has its own device root and emulator, and
# they spend their time waiting on timeouts and child processes, not on the
# cores, so more of them than cores run side by side.
E2E_WORKERS=${QS_E2E_WORKERS:-4}

build() {  # build DIR [cmake args...]
  local dir=$1; shift
  cmake -S "$here" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j"$(nproc)"
}

# Habits the tree keeps: Python that pyflakes passes (every Python file under
# tools, tests and bench, scripts without the .py included) and C++ exactly as
# clang-format writes it. Prints the offending files; status 1 if any.
check_habits() {
  local status=0 python=() cxx=() f
  while IFS= read -r f; do
    if [[ "$f" == *.py ]] || { [ -f "$f" ] && head -n 1 "$f" | grep -q '^#!.*python'; }; then
      python+=("$f")
    fi
  done < <(git ls-files --cached --others --exclude-standard tools tests bench)
  pyflakes3 "${python[@]}" || { echo "lint: pyflakes3 found the errors above"; status=1; }
  while IFS= read -r f; do cxx+=("$f"); done < <(git ls-files '*.cpp' '*.cc' '*.h' '*.hpp')
  local unformatted
  unformatted=$( (clang-format --dry-run -Werror "${cxx[@]}" 2>&1 || true) |
    sed -n 's/^\([^: ]*\):[0-9]*:[0-9]*: error: code should be clang-formatted.*/\1/p' | sort -u)
  if [ -n "$unformatted" ]; then
    echo "format: clang-format would change these files:"
    echo "$unformatted" | sed 's/^/  /'
    status=1
  fi
  return $status
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
  QS_BUILD_DIR="$dir" "$PY" -m pytest -q -p no:cacheprovider -n "$E2E_WORKERS" tests/e2e "$@" ||
    status=1
  QS_BUILD_DIR="$dir" "$PY" -m pytest -q -rs -p no:cacheprovider tests/power || status=1
  return $status
}

# Figures of the long fault loops: cases tried, runs to converge, edits lost.
long_loops() {
  build build
  QS_FAULTS=long QS_BUILD_DIR="$here/build" "$PY" -m pytest -q -s -p no:cacheprovider \
    tests/e2e/test_fault_loops.py 2>&1 | grep -E '^FAULTS|passed|failed|Error'
}

# At least 1,000 power-cut states; the last line sums them up.
long_power() {
  build build
  local status=0
  QS_FAULTS=long QS_BUILD_DIR="$here/build" "$PY" -m pytest -q -s -p no:cacheprovider \
    tests/power >build/power.log 2>&1 || status=1
  grep -E '^[a-z_]+/|^  [a-z_]+: |Error' build/power.log || true
  grep '^crash states:' build/power.log | tail -1
  return $status
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

arm() {  # arm [e2e [pytest args...]]
  local dir=$here/build-armhf sysroot=$here/build-armhf/sysroot status=0
  mkdir -p "$dir"
  # Only the outcome is shown; apt's own words go to the log.
  bash scripts/setup.sh arm >"$dir/setup.log" 2>&1 && bash scripts/arm-sysroot.sh "$sysroot" ||
    status=$?
  if [ $status -eq 3 ]; then
    echo "armhf: skipped, the cross compilers or Debian's armhf packages cannot be had here" \
      "(logs: build-armhf/setup.log, build-armhf/sysroot.apt/log)"
    return 3
  fi
  [ $status -eq 0 ] || return $status
  # Release: no debug information to compile, and the sizes are the shipped ones.
  build "$dir" -DCMAKE_TOOLCHAIN_FILE="$here/cmake/armhf-toolchain.cmake" \
    -DQS_ARMHF_SYSROOT="$sysroot" -DQS_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=Release
  if [ "${1:-}" = e2e ]; then
    shift
    # The host's emulator, the armhf programs under qemu.
    QS_BUILD_DIR="$dir" QS_RUN_PREFIX="qemu-arm -L $sysroot" \
      "$PY" -m pytest -q -p no:cacheprovider -n "$E2E_WORKERS" tests/e2e "$@" || status=1
  else
    ctest --test-dir "$dir" --output-on-failure -j"$(nproc)" --timeout 600 || status=1
  fi
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
      # No thread-leak reports: the downloader's last thread is not joined at
      # exit, by design (see tests/tsan.supp).
      TSAN_OPTIONS="suppressions=$here/tests/tsan.supp halt_on_error=1 second_deadlock_stack=1 report_thread_leaks=0" \
        QS_CTEST_EXCLUDE=_fuzz QS_SKIP_EMULATOR_TESTS=1 \
        run_tests build-tsan --deselect tests/e2e/test_fault_loops.py
    else
      build build
      status=0
      check_habits || status=1
      run_tests build || status=1
      exit $status
    fi ;;
  demo)
    bash scripts/setup.sh
    build build
    QS_BUILD_DIR="$here/build" "$PY" tools/demo.py "$@" ;;
  bench)
    bash scripts/setup.sh
    build build-release -DCMAKE_BUILD_TYPE=Release
    for b in build-release/store_bench build-release/digest_bench build-release/scan_bench; do [ -x "$b" ] && "$b"; done
    for b in bench/*_bench.py; do QS_BUILD_DIR="$here/build-release" "$PY" "$b"; done ;;
  faults)
    bash scripts/setup.sh
    case "${1:-all}" in
      loops) long_loops ;;
      fuzz) long_fuzz ;;
      power) long_power ;;
      *) long_loops; long_fuzz; long_power ;;
    esac ;;
  check) bash scripts/setup.sh; check_habits ;;
  arm) arm "$@" ;;
  *) sed -n '2,13p' "$0"; exit 2 ;;
esac
