// The counter's memo of growth steps, first bonds and labelled graphs.
#include "enumerate/step_memo.h"

#include <algorithm>
#include <bit>

#include "common/common.h"

namespace {

// Bound the memo's memory whatever the input: past these (or the caller's
// smaller bound), lookups go on but nothing new is remembered.
constexpr std::size_t MAX_LABELLED_BYTES = std::size_t{1} << 28;
constexpr std::size_t MAX_POOL = std::size_t{1} << 23;  // step buckets

// Room for the steps of a thousand compounds or so, which spares the first
// copies of doubling. Unused room still counts against an address-space
// limit (ulimit -v), so it stays small: larger sets pay a handful of
// doublings, which the benchmark does not notice.
constexpr std::size_t FIRST_POOL = std::size_t{1} << 16;

// Buckets of a form's first step table; each table after it is twice as
// large.
constexpr std::uint32_t FIRST_TABLE = 4;

}  // namespace

void labelled_graph_key(const Graph& fragment, std::vector<int>& scratch, std::string& key) {
  scratch.clear();
  scratch.push_back(fragment.vs);
  scratch.insert(scratch.end(), fragment.vl.begin(), fragment.vl.end());
  scratch.insert(scratch.end(), fragment.e.begin(), fragment.e.end());
  scratch.insert(scratch.end(), fragment.el.begin(), fragment.el.end());
  key.assign(reinterpret_cast<const char*>(scratch.data()), scratch.size() * sizeof(int));
}

StepMemo::StepMemo(std::size_t byte_limit) : max_pool_(MAX_POOL), max_labelled_bytes_(MAX_LABELLED_BYTES) {
  // Half the bound for the step pool, whose last doubling holds the old and
  // the new copy at once; a power of two times the first reservation, so
  // that the pool's room stops exactly at its bound.
  if (byte_limit > 0) {
    std::size_t pool = FIRST_POOL;
    while (2 * pool * sizeof(StepBucket) <= byte_limit / 2 && 2 * pool <= MAX_POOL) pool *= 2;
    max_pool_ = pool;
    max_labelled_bytes_ = std::min(MAX_LABELLED_BYTES, byte_limit / 4);
  }
  pool_.reserve(FIRST_POOL);
}

void StepMemo::reach(std::size_t forms) {
  if (forms <= tables_.size()) return;
  // tables_ last: its size says how far both reach, should one fail.
  steps_used_.resize(forms, 0);
  tables_.resize(forms);
}

void StepMemo::add_step(int form, std::uint32_t key, int grown, const std::uint8_t* moves, int nmoves) {
  TAVRIX_CHECK(nmoves <= MAX_GROWN_VERTICES);
  StepTable& table = tables_[form];
  // Tables stay at most three quarters full.
  std::uint32_t& used = steps_used_[form];
  if (table.start < 0 || 4 * (used + 1) > 3 * (table.mask + 1)) {
    const std::uint32_t size = table.start < 0 ? FIRST_TABLE : 2 * (table.mask + 1);
    const int size_class = std::countr_zero(size);
    if (static_cast<int>(free_tables_.size()) <= size_class) free_tables_.resize(size_class + 1);
    std::size_t start;
    if (!free_tables_[size_class].empty()) {
      start = free_tables_[size_class].back();
      free_tables_[size_class].pop_back();
    } else {
      if (pool_.size() + size > max_pool_) {
        full_ = true;
        return;
      }
      start = pool_.size();
      pool_.resize(start + size);
    }
    if (table.start >= 0) {
      for (std::uint32_t k = 0; k <= table.mask; ++k) {
        StepBucket& moved = pool_[table.start + k];
        if (moved.key == 0) continue;
        std::size_t b = step_home(moved.key, size - 1);
        while (pool_[start + b].key != 0) b = (b + 1) & (size - 1);
        pool_[start + b] = moved;
        moved = StepBucket{};
      }
      free_tables_[std::countr_zero(table.mask + 1)].push_back(static_cast<std::uint32_t>(table.start));
    }
    table.start = static_cast<std::int32_t>(start);
    table.mask = size - 1;
  }
  key |= STEP_USED;
  std::size_t b = step_home(key, table.mask);
  while (pool_[table.start + b].key != 0) b = (b + 1) & table.mask;
  StepBucket& bucket = pool_[table.start + b];
  bucket.key = key;
  bucket.form = grown;
  if (nmoves <= INLINE_MOVES) {
    std::copy(moves, moves + nmoves, bucket.moves);
  } else {
    const auto at = static_cast<std::uint32_t>(long_moves_.size());
    long_moves_.insert(long_moves_.end(), moves, moves + nmoves);
    std::memcpy(bucket.moves, &at, sizeof at);
  }
  ++used;
}

void StepMemo::add_first_bond(std::uint64_t key, int form, int lower_position) {
  StepBucket s;
  s.form = form;
  s.moves[0] = static_cast<std::uint8_t>(lower_position);
  first_bonds_.emplace(key, s);
}

void StepMemo::remember_labelled(const std::string& key, int form, const int* order, int vertices) {
  if (labelled_bytes_ + key.size() > max_labelled_bytes_) {
    full_ = true;
    return;
  }
  int at = -1;
  if (order != nullptr) {
    at = static_cast<int>(orders_.size());
    for (int k = 0; k < vertices; ++k) orders_.push_back(static_cast<std::uint8_t>(order[k]));
  }
  labelled_bytes_ += key.size() + vertices;
  labelled_.emplace(key, LabelledGraph{form, at});
}

void StepMemo::forget() {
  std::fill(tables_.begin(), tables_.end(), StepTable{});
  std::fill(steps_used_.begin(), steps_used_.end(), 0);
  pool_.clear();
  for (auto& tables : free_tables_) tables.clear();
  long_moves_.clear();
  first_bonds_.clear();
  orders_.clear();
  labelled_.clear();
  labelled_bytes_ = 0;
  full_ = false;
}
