#!/usr/bin/env bash
# Runs one fuzz target for a number of seconds from its committed seeds.
#   fuzz/run.sh BUILD_DIR TARGET SECONDS [CORPUS_DIR]
# TARGET is reader or whole_run. New inputs go to
# CORPUS_DIR (default BUILD_DIR/corpus/TARGET); the seeds are only read.
# A finding is written to BUILD_DIR/findings/ and the script exits non-zero.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
target=$2
seconds=$3
corpus=${4:-$build/corpus/$target}
mkdir -p "$corpus" "$build/findings"
# Inputs above 64 KiB only slow the mutations down; the readers' limits
# (999 atoms, 1000 fields, 999-character fields) are all reachable below it.
# A whole run of -lmax 3 on an allowed compound takes well under the timeout.
# Both targets start from the same compound files.
seeds=$here/seeds/compounds
exec "$build/fuzz_$target" "$corpus" "$seeds" \
  -max_total_time="$seconds" -max_len=65536 -timeout=60 -rss_limit_mb=4096 \
  -artifact_prefix="$build/findings/$target-" -print_final_stats=1
