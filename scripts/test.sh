#!/usr/bin/env bash
# Builds Tavrix and its tests and runs the whole suite.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/deps.sh"
jobs=$(nproc)
cmake -S "$root" -B "$root/build/test" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$root/build/test" -j"$jobs"
ctest --test-dir "$root/build/test" -j"$jobs" --output-on-failure
