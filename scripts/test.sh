#!/usr/bin/env bash
# Builds Tavrix and its tests and runs the suite four ways: the release
# build, every test; the fuzz targets (clang-14, libFuzzer, AddressSanitizer
# and UndefinedBehaviorSanitizer) for a short run each from the committed
# seeds; the tests that run the core on compound data again, built with
# -fsanitize=address,undefined (the command line, the progress line, the
# manual's examples, the small containers, the matrix tool and the
# installation gain little from a second pass); and the runs on several
# threads built with -fsanitize=thread. About a quarter of an hour on two
# busy cores. FUZZ_SECONDS sets the length of each fuzz run: default 10;
# FUZZ_SECONDS=300 for a long search, 0 to skip the fuzz targets.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
# The Python package and its tests: the module's build needs, and what its
# tests and examples import.
bash "$root/scripts/deps.sh" clang-14 libclang-rt-14-dev python3 pybind11-dev python3-dev python3-numpy python3-scipy \
  python3-sklearn python3-rdkit rdkit-data python3-dask python3-distributed
jobs=$(nproc)
fuzz_seconds=${FUZZ_SECONDS:-10}

echo "=== release build and tests (${SECONDS}s so far)"
cmake -S "$root" -B "$root/build/test" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$root/build/test" -j"$jobs"
ctest --test-dir "$root/build/test" -j"$jobs" --output-on-failure

if [ "$fuzz_seconds" -gt 0 ]; then
  echo "=== fuzz targets, ${fuzz_seconds}s each (${SECONDS}s so far)"
  CC=clang-14 CXX=clang++-14 cmake -S "$root/fuzz" -B "$root/build/fuzz" >/dev/null
  cmake --build "$root/build/fuzz" -j"$jobs"
  # Two at a time, each into a fresh corpus; a finding fails the run and
  # leaves the input in build/fuzz/findings/.
  corpora=$(mktemp -d)
  trap 'rm -rf "$corpora"' EXIT
  failed=0
  for pair in "reader whole_run"; do
    pids=()
    for target in $pair; do
      "$root/fuzz/run.sh" "$root/build/fuzz" "$target" "$fuzz_seconds" "$corpora/$target" \
        >"$corpora/$target.log" 2>&1 &
      pids+=($!)
    done
    set -- $pair
    for pid in "${pids[@]}"; do
      if wait "$pid"; then
        echo "fuzz $1: $(grep -a 'stat::number_of_executed_units' "$corpora/$1.log" | awk '{print $2}') inputs, no finding"
      else
        echo "fuzz $1: FINDING"
        tail -n 60 "$corpora/$1.log"
        failed=1
      fi
      shift
    done
  done
  [ "$failed" -eq 0 ] || exit 1
fi

echo "=== the core's tests with AddressSanitizer and UndefinedBehaviorSanitizer (${SECONDS}s so far)"
cmake -S "$root" -B "$root/build/test-sanitize" -DCMAKE_BUILD_TYPE=Debug -DTAVRIX_SANITIZE=ON >/dev/null
cmake --build "$root/build/test-sanitize" -j"$jobs" --target \
  test_input test_enumerate test_canon test_table test_output test_golden \
  test_count test_apply
# The test programs left unbuilt (command line, progress line, the manual's
# examples, installation) show up as *_NOT_BUILT tests and are left out.
ctest --test-dir "$root/build/test-sanitize" -j"$jobs" --output-on-failure -E '_NOT_BUILT$'

echo "=== the runs on several threads with ThreadSanitizer (${SECONDS}s so far)"
cmake -S "$root" -B "$root/build/test-threads" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTAVRIX_THREAD_SANITIZE=ON >/dev/null
cmake --build "$root/build/test-threads" -j"$jobs" --target test_count test_golden test_apply
# A race reported in a run makes it end with ThreadSanitizer's own status,
# which fails the test that made it.
TSAN_OPTIONS="halt_on_error=1" ctest --test-dir "$root/build/test-threads" -j"$jobs" --output-on-failure \
  -R '^(threads|public_files/golden_run|apply)\.'
echo "=== all passed in ${SECONDS}s"
