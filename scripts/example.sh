#!/usr/bin/env bash
# Builds Tavrix and runs it on the bundled example file, in a scratch folder.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/deps.sh"
cmake -S "$root" -B "$root/build/release" -DCMAKE_BUILD_TYPE=Release -DTAVRIX_TESTS=OFF >/dev/null
cmake --build "$root/build/release" --target Tavrix -j"$(nproc)"
work=$(mktemp -d)
cp "$root/tests/data/example/example.sdf" "$work/"
cd "$work"
status=0
"$root/build/release/Tavrix" -lmax 3 example.sdf || status=$?
echo "exit status: $status (1 after a complete run)"
echo "--- example.out"
cat example.out
echo "--- example_frag.sdf (first 20 lines)"
head -n 20 example_frag.sdf
echo "outputs kept in $work"
