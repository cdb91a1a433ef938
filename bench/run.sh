#!/bin/bash
# One-command benchmark: builds Tavrix (Release) in build-bench, runs it on the
# shipped inputs and prints wall time (median of 5), peak resident memory,
# fragments per second and, when perf is available, where the time goes;
# then one thread beside the default threads on nci5k, tavrix-apply with the
# space of the nci5k run on nci5k beside that run (default threads, then one
# thread), and RDKit's count
# fingerprint of the same compounds and the ratio. LARGE=FILE adds runs on a
# large set (one made by make_large.py, for instance) with one thread and the
# default threads: time and peak memory.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(dirname "$here")
# /usr/bin/time (Debian: time) measures the peak memory.
bash "$root/scripts/deps.sh" time
build=${TAVRIX_BENCH_BUILD:-$root/build-bench}
runs=${RUNS:-5}
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DTAVRIX_TESTS=OFF > /dev/null
cmake --build "$build" --target Tavrix tavrix-apply -j 2 > /dev/null
bin=$build/Tavrix
apply=$build/tavrix-apply
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
xz -dc "$here/data/nci5k.sdf.xz" > "$work/nci5k.sdf"
xz -dc "$here/data/nci200.mol2.xz" > "$work/nci200.mol2"

median() { sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }

# Sets (fragments enumerated) of one run: the occurrence counts of the descriptor file.
count_fragments() { awk -F, '{for (i = 4; i <= NF; i += 2) s += $i} END {print s + 0}' "$1"; }

# Maps a profile symbol to the stage it belongs to. The search counts every
# length of a compound in one go; "labelling" is the lookup of each set's
# canonical form (growth steps) plus the labelling of steps not seen before,
# "fragment graph" the building of those steps' graphs.
stage_of() {
  case "$1" in
    *format_sd_fragment*|*format_mol2_fragment*|*sd_atom_line*) echo writing ;;
    *read_line*|*next_line*|*InputLines*|*tokenize*|*sd_*|*mol2_*|*_IO_getc*|*fgets*|*label_dictionary*|*read_compounds*|*field_digits*|*memchr*|*skip_to_record_end*|*atom_symbol*|*first_token_is*|*label_index*|*field_value*|*find_vertex_by_id*|*_copy_to_iter*) echo reading ;;
    *FragmentCounter::visit*|*FragmentCounter::include*|*count_leaves*|*count_compound*|*FragmentCounter::record*|*build_slot_table*) echo enumeration ;;
    *label_grown*|*fill_fragment_graph*|*build_adjacency*|*bond_label*|*label_set*|*labelled_graph_key*|*remember_labelled*) echo "fragment graph" ;;
    *FragmentCounter::grow*|*find_step*|*add_step*|*FormStore::find*|*StepTables*|*form_hash*|*same_form*|*FragmentCounter::form*|*canonical_*|*Labelling*|*refine*|*packed_pass*|*row_pass*|*compare_rows*|*permutation*|*individual*|*compute_key*|*place_cell*|*search*|*_Hashtable*|*memcmp*) echo labelling ;;
    *number_length*|*claim_slot*|*introsort*|*insertion_sort*|*issue_descriptors*) echo table ;;
    *count_all*|*merge_batch*|*spill_append*|*put_number*) echo merging ;;
    *pthread_mutex*|*lll_lock*|*futex*|*TaskQueue*) echo "locks, wake-ups" ;;
    *write_*|*RecordChunk*|*RowChunk*|*next_row*|*next_number*|*append_line*|*format_*|*put_int*|*to_chars*|*sd_atom_line*|*fwrite*|*_IO_*|*mpage_*|*ext4*|*folio*|*filemap*|*copy_from_iter*|*vfs_write*|*generic_perform_write*) echo writing ;;
    *page_fault*|*clear_page*|*alloc_pages*|*mm_fault*|*anonymous_page*|*malloc*|*free*|*memmove*|*memset*|*_int_*|*unlink_chunk*|*memcg*|*kmem_cache*) echo memory ;;
    *) echo other ;;
  esac
}

bench() {  # name input args...
  local name=$1 input=$2; shift 2
  local dir=$work/$name; mkdir -p "$dir"; cp "$work/$input" "$dir/"
  local times=() rss=()
  for ((i = 0; i < runs; ++i)); do
    (cd "$dir" && /usr/bin/time -f "%e %M" -o time.txt "$bin" "$@" "$input" > stdout.txt) || true
    read -r t m < <(tail -n 1 "$dir/time.txt"); times+=("$t"); rss+=("$m")
  done
  local t m frags
  t=$(printf '%s\n' "${times[@]}" | median)
  m=$(printf '%s\n' "${rss[@]}" | sort -n | tail -1)
  frags=$(count_fragments "$dir/${input%.*}.out")
  printf '%-22s %6.2f s  %5d MB  %9d fragments  %6.2f M fragments/s\n' "$name" "$t" $((m / 1024)) "$frags" \
    "$(awk -v f="$frags" -v t="$t" 'BEGIN {print (t > 0 ? f / t / 1e6 : 0)}')"
  if command -v perf > /dev/null && perf record -q -o "$dir/perf.data" -- sh -c "cd '$dir' && '$bin' $* $input > /dev/null; true" 2> /dev/null; then
    perf report -i "$dir/perf.data" --no-children --stdio --sort symbol 2> /dev/null |
      awk '/^ +[0-9.]+%/ {p = $1; sub("%", "", p); $1 = ""; $2 = ""; print p "\t" $0}' |
      while IFS=$'\t' read -r p sym; do printf '%s\t%s\n' "$(stage_of "$sym")" "$p"; done |
      awk -F'\t' '{s[$1] += $2} END {for (k in s) printf "%.1f\t%s\n", s[k], k}' | sort -rn |
      awk -F'\t' '{printf "    %-15s %5.1f%%\n", $2, $1}'
  fi
  echo "$t" > "$work/$name.time"
}

echo "Tavrix, -lmax 7, median of $runs runs:"
bench "nci5k.sdf -ds QZ" nci5k.sdf -lmax 7 -ds QZ
bench "nci5k.sdf -ds TF" nci5k.sdf -lmax 7 -ds TF
bench "nci5k.sdf -ds PF" nci5k.sdf -lmax 7 -ds PF
bench "nci200 (Mol2)" nci200.mol2 -lmax 7
tavrix=$(cat "$work/nci5k.sdf -ds QZ.time")

# One thread beside the default threads, turn about, so that both meet the
# same machine; the files must come out the same.
side_by_side() {  # dir input args...
  local dir=$1 input=$2; shift 2
  local t1=() m1=() tn=() mn=() t m
  for ((i = 0; i < runs; ++i)); do
    (cd "$dir" && TAVRIX_THREADS=1 /usr/bin/time -f "%e %M" -o one.txt "$bin" -ofile one "$@" "$input" > /dev/null) || true
    (cd "$dir" && /usr/bin/time -f "%e %M" -o all.txt "$bin" -ofile all "$@" "$input" > /dev/null) || true
    read -r t m < <(tail -n 1 "$dir/one.txt"); t1+=("$t"); m1+=("$m")
    read -r t m < <(tail -n 1 "$dir/all.txt"); tn+=("$t"); mn+=("$m")
  done
  cmp -s "$dir/one.out" "$dir/all.out" && cmp -s "$dir/one_frag.sdf" "$dir/all_frag.sdf" ||
    echo "  the runs on one and on every thread differ"
  local a b
  a=$(printf '%s\n' "${t1[@]}" | median); b=$(printf '%s\n' "${tn[@]}" | median)
  printf '  %-22s %7.2f s  %5d MB\n' "1 thread" "$a" $(($(printf '%s\n' "${m1[@]}" | sort -n | tail -1) / 1024))
  printf '  %-22s %7.2f s  %5d MB\n' "$threads threads" "$b" $(($(printf '%s\n' "${mn[@]}" | sort -n | tail -1) / 1024))
  awk -v a="$a" -v b="$b" 'BEGIN {printf "  default / one thread = %.2f\n", (a > 0 ? b / a : 0)}'
  rm -f "$dir"/one* "$dir"/all*
}
threads=$(nproc)
echo "nci5k.sdf -lmax 7, one thread and the default ($threads), turn about, median of $runs runs:"
dir=$work/threads; mkdir -p "$dir"; cp "$work/nci5k.sdf" "$dir/"
side_by_side "$dir" nci5k.sdf -lmax 7

# What the processors themselves allow: the one-thread run held to each
# processor in turn. Processors of a virtual machine may differ in speed
# (their host cores shared with other work); all of them together, work
# shared perfectly, would take 1 / (sum over processors of 1 / time).
if command -v taskset > /dev/null; then
  echo "nci5k.sdf -lmax 7, one thread held to each processor, median of $runs runs:"
  sum=0
  # The processors this shell may run on, "0-3,6" as "0 1 2 3 6".
  for cpu in $(taskset -pc $$ | sed 's/.*: //' | tr ',' '\n' |
    awk -F- '{for (c = $1; c <= ($2 == "" ? $1 : $2); ++c) print c}'); do
    ts=()
    for ((i = 0; i < runs; ++i)); do
      (cd "$dir" && TAVRIX_THREADS=1 /usr/bin/time -f "%e" -o pinned.txt taskset -c "$cpu" "$bin" -ofile pinned \
        -lmax 7 nci5k.sdf > /dev/null) || true
      ts+=("$(tail -n 1 "$dir/pinned.txt")")
    done
    t=$(printf '%s\n' "${ts[@]}" | median)
    printf '  processor %-3s %7.2f s\n' "$cpu" "$t"
    sum=$(awk -v s="$sum" -v t="$t" 'BEGIN {print s + (t > 0 ? 1 / t : 0)}')
  done
  awk -v s="$sum" 'BEGIN {if (s > 0) printf "  every processor, work shared perfectly: %.2f s\n", 1 / s}'
  rm -f "$dir"/pinned*
fi
if [ -n "${LARGE:-}" ]; then
  echo "$(basename "$LARGE") -lmax 7, one thread and the default ($threads), median of $runs runs:"
  dir=$work/large; mkdir -p "$dir"; ln -s "$(realpath "$LARGE")" "$dir/$(basename "$LARGE")"
  side_by_side "$dir" "$(basename "$LARGE")" -lmax 7
fi

# tavrix-apply with the structure file of the nci5k run (-lmax 7), applied to
# nci5k itself, beside that run, turn about; the descriptor file must come
# out the same. Both with the threads they take by default, then both on one
# thread.
dir=$work/apply; mkdir -p "$dir"; cp "$work/nci5k.sdf" "$dir/"
(cd "$dir" && "$bin" -lmax 7 nci5k.sdf > /dev/null) || true
echo "Applying the nci5k space ($(grep -c '^\$\$\$\$$' "$dir/nci5k_frag.sdf") descriptors) to nci5k, median of $runs runs:"
for one in "" 1; do
  run_t=() run_m=() apply_t=() apply_m=()
  for ((i = 0; i < runs; ++i)); do
    (cd "$dir" && env ${one:+TAVRIX_THREADS=1} /usr/bin/time -f "%e %M" -o run.txt \
      "$bin" -lmax 7 -ofile run nci5k.sdf > /dev/null) || true
    (cd "$dir" && env ${one:+TAVRIX_THREADS=1} /usr/bin/time -f "%e %M" -o apply.txt \
      "$apply" -ofile applied nci5k_frag.sdf nci5k.sdf > /dev/null)
    read -r t m < <(tail -n 1 "$dir/run.txt"); run_t+=("$t"); run_m+=("$m")
    read -r t m < <(tail -n 1 "$dir/apply.txt"); apply_t+=("$t"); apply_m+=("$m")
  done
  cmp -s "$dir/applied.out" "$dir/nci5k.out" || echo "tavrix-apply: applied.out differs from the run's nci5k.out"
  if [ -n "$one" ]; then echo "  one thread:"; else echo "  the default threads ($threads):"; fi
  printf '    %-20s %6.2f s  %5d MB\n' "Tavrix -lmax 7" "$(printf '%s\n' "${run_t[@]}" | median)" \
    $(($(printf '%s\n' "${run_m[@]}" | sort -n | tail -1) / 1024))
  printf '    %-20s %6.2f s  %5d MB\n' "tavrix-apply" "$(printf '%s\n' "${apply_t[@]}" | median)" \
    $(($(printf '%s\n' "${apply_m[@]}" | sort -n | tail -1) / 1024))
done
if /usr/bin/python3 -c "import rdkit" 2> /dev/null; then
  read -r rdkit nmols < <(/usr/bin/python3 "$here/rdkit_count.py" "$work/nci5k.sdf" "$runs")
  echo "RDKit count fingerprint, maxPath 7, $nmols molecules (parsing not timed): $rdkit s"
  awk -v a="$tavrix" -v b="$rdkit" 'BEGIN {printf "Tavrix / RDKit = %.3f\n", a / b}'
else
  echo "RDKit (python3-rdkit for /usr/bin/python3) not installed: no comparison"
fi
