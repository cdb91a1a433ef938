#!/usr/bin/env bash
# Builds Tavrix and its tests and runs the whole suite three ways: the release
# build; the fuzz targets (clang-14, libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer) for a short run each from the committed seeds;
# and the whole suite again built with -fsanitize=address,undefined.
# FUZZ_SECONDS sets the length of each fuzz run (default 40; 0 skips them).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
# The Python package and its tests: the module's build needs, and what its
# tests and examples import.
bash "$root/scripts/deps.sh" clang-14 libclang-rt-14-dev pybind11-dev python3-dev python3-numpy python3-scipy \
  python3-sklearn python3-rdkit rdkit-data python3-dask python3-distributed
jobs=$(nproc)
fuzz_seconds=${FUZZ_SECONDS:-40}

echo "=== release build and tests"
cmake -S "$root" -B "$root/build/test" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$root/build/test" -j"$jobs"
ctest --test-dir "$root/build/test" -j"$jobs" --output-on-failure

if [ "$fuzz_seconds" -gt 0 ]; then
  echo "=== fuzz targets, ${fuzz_seconds}s each"
  CC=clang-14 CXX=clang++-14 cmake -S "$root/fuzz" -B "$root/build/fuzz" >/dev/null
  cmake --build "$root/build/fuzz" -j"$jobs"
  # Two at a time, each into a fresh corpus; a finding fails the run and
  # leaves the input in build/fuzz/findings/.
  corpora=$(mktemp -d)
  trap 'rm -rf "$corpora"' EXIT
  failed=0
  for pair in "sd_reader mol2_reader" "dictionary whole_run"; do
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

echo "=== the whole suite with AddressSanitizer and UndefinedBehaviorSanitizer"
cmake -S "$root" -B "$root/build/test-sanitize" -DCMAKE_BUILD_TYPE=Debug -DTAVRIX_SANITIZE=ON >/dev/null
cmake --build "$root/build/test-sanitize" -j"$jobs"
# The Debian package check is left to the release run: a sanitized program
# rightly depends on the sanitizer runtimes, and no one packages it.
ctest --test-dir "$root/build/test-sanitize" -j"$jobs" --output-on-failure \
  -E '^install\.debian_package_holds_both_programs_and_their_pages$'
