// One search per compound over every length, with canonical forms grown bond
// by bond along the search path (see fragment_memo.h and fragment_counter.h).
#include "enumerate/fragment_counter.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "canon/canon.h"
#include "common/common.h"
#include "enumerate/enumerate.h"

namespace {

// Bound the memo's memory whatever the input: past these (or the caller's
// smaller bound), lookups go on but nothing new is remembered.
constexpr std::size_t MAX_LABELLED_BYTES = std::size_t{1} << 28;

// Past this many buckets the pool takes no more steps.
constexpr std::size_t MAX_POOL = std::size_t{1} << 23;

// A step's labels fit its key: 8 bits of bond label, 16 of atom label.
bool step_labels_fit(int bond_label, int atom_label) {
  return bond_label >= 0 && bond_label < (1 << 8) && atom_label >= 0 && atom_label < (1 << 16);
}

// The key of the step that joins an atom labelled atom_label by a bond
// labelled bond_label to the smaller form's position pos.
std::uint32_t step_key(int pos, int bond_label, int atom_label) {
  return static_cast<std::uint32_t>(pos) << 24 | static_cast<std::uint32_t>(bond_label) << 16 |
         static_cast<std::uint32_t>(atom_label);
}

// The canonical position of a compound atom in a set's row.
int position_in(const int* row, int atom) {
  int pos = 0;
  while (row[pos] != atom) ++pos;
  return pos;
}

// Every bit of the key reaches the low bits the small tables use.
std::size_t step_home(std::uint32_t key, std::uint32_t mask) {
  std::uint32_t h = (key ^ (key >> 16)) * 0x45d9f3bu;
  h ^= h >> 16;
  return h & mask;
}

}  // namespace

FragmentCounter::FragmentCounter(int lmin, int lmax, int opt, FormStore* store, std::size_t memo_limit)
    : lmin_(lmin), lmax_(lmax), opt_(opt), store_(store), max_pool_(MAX_POOL),
      max_labelled_bytes_(MAX_LABELLED_BYTES) {
  // Half the bound for the step pool, whose last doubling holds the old and
  // the new copy at once; a power of two times the first reservation, so
  // that the pool's room stops exactly at its bound.
  if (memo_limit > 0) {
    std::size_t pool = std::size_t{1} << 16;
    while (2 * pool * sizeof(StepBucket) <= memo_limit / 2 && 2 * pool <= MAX_POOL) pool *= 2;
    max_pool_ = pool;
    max_labelled_bytes_ = std::min(MAX_LABELLED_BYTES, memo_limit / 4);
  }
  if (store_ == nullptr) {
    own_store_ = std::make_unique<FormStore>();
    store_ = own_store_.get();
  }
  // Room for the steps of a thousand compounds or so, which spares the first
  // copies of doubling. Unused room still counts against an address-space
  // limit (ulimit -v), so it stays small: larger sets pay a handful of
  // doublings, which the benchmark does not notice.
  memo_.pool.reserve(std::size_t{1} << 16);
}

void FragmentCounter::forget() {
  FragmentMemo& m = memo_;
  std::fill(m.hot.begin(), m.hot.end(), FormHot{});
  std::fill(m.steps_used.begin(), m.steps_used.end(), 0);
  m.pool.clear();
  for (auto& tables : m.free_tables) tables.clear();
  m.long_moves.clear();
  m.first_bonds.clear();
  m.orders.clear();
  m.labelled.clear();
  m.labelled_bytes = 0;
  memo_full_ = false;
}

// The per-form arrays reach form f: the store numbers forms for every
// counter sharing it, so this counter meets indices in no particular order.
void FragmentCounter::know(int f) {
  FragmentMemo& m = memo_;
  if (f < static_cast<int>(m.hot.size())) return;
  // Room for the forms the store has now and a quarter more: the store
  // grows with every counter's forms, this counter meets most of them.
  const std::size_t size =
      std::max<std::size_t>(static_cast<std::size_t>(f) + 1, static_cast<std::size_t>(store_->size()) * 5 / 4 + 1024);
  // hot last: its size says how far all four reach, should one fail.
  m.steps_used.resize(size, 0);
  m.last_compound.resize(size, -1);
  m.last_position.resize(size, 0);
  m.hot.resize(size);
}

int FragmentCounter::find_or_add_form(const GraphView& g) {
  const int f = store_->find_or_add(g);
  know(f);
  return f;
}

const StepBucket* FragmentCounter::find_step(int form, std::uint32_t key) const {
  const FormHot& hot = memo_.hot[form];
  if (hot.steps < 0) return nullptr;
  key |= STEP_USED;
  const StepBucket* table = &memo_.pool[hot.steps];
  for (std::size_t b = step_home(key, hot.mask);; b = (b + 1) & hot.mask) {
    if (table[b].key == key) return &table[b];
    if (table[b].key == 0) return nullptr;
  }
}

const std::uint8_t* FragmentCounter::moves_of(const StepBucket& s, int atoms) const {
  if (atoms <= INLINE_MOVES) return s.moves;
  std::uint32_t at;
  std::memcpy(&at, s.moves, sizeof at);
  return &memo_.long_moves[at];
}

void FragmentCounter::add_step(int form, std::uint32_t key, int grown, const std::uint8_t* moves, int nmoves) {
  TAVRIX_CHECK(nmoves <= MAX_GROWN_VERTICES);
  FragmentMemo& m = memo_;
  FormHot& hot = m.hot[form];
  // Tables stay at most three quarters full.
  std::uint32_t& used = m.steps_used[form];
  if (hot.steps < 0 || 4 * (used + 1) > 3 * (hot.mask + 1)) {
    const std::uint32_t size = hot.steps < 0 ? 4 : 2 * (hot.mask + 1);
    const int size_class = std::countr_zero(size);
    if (static_cast<int>(m.free_tables.size()) <= size_class) m.free_tables.resize(size_class + 1);
    std::size_t start;
    if (!m.free_tables[size_class].empty()) {
      start = m.free_tables[size_class].back();
      m.free_tables[size_class].pop_back();
    } else {
      if (m.pool.size() + size > max_pool_) {
        memo_full_ = true;
        return;
      }
      start = m.pool.size();
      m.pool.resize(start + size);
    }
    if (hot.steps >= 0) {
      for (std::uint32_t k = 0; k <= hot.mask; ++k) {
        StepBucket& moved = m.pool[hot.steps + k];
        if (moved.key == 0) continue;
        std::size_t b = step_home(moved.key, size - 1);
        while (m.pool[start + b].key != 0) b = (b + 1) & (size - 1);
        m.pool[start + b] = moved;
        moved = StepBucket{};
      }
      m.free_tables[std::countr_zero(hot.mask + 1)].push_back(static_cast<std::uint32_t>(hot.steps));
    }
    hot.steps = static_cast<std::int32_t>(start);
    hot.mask = size - 1;
  }
  key |= STEP_USED;
  std::size_t b = step_home(key, hot.mask);
  while (m.pool[hot.steps + b].key != 0) b = (b + 1) & hot.mask;
  StepBucket& bucket = m.pool[hot.steps + b];
  bucket.key = key;
  bucket.form = grown;
  if (nmoves <= INLINE_MOVES) {
    std::copy(moves, moves + nmoves, bucket.moves);
  } else {
    const auto at = static_cast<std::uint32_t>(m.long_moves.size());
    m.long_moves.insert(m.long_moves.end(), moves, moves + nmoves);
    std::memcpy(bucket.moves, &at, sizeof at);
  }
  ++used;
}

void FragmentCounter::count_compound(const Graph& compound, int compid, std::vector<FormCount>& entries) {
  g_ = &compound;
  compid_ = compid;
  build_slot_table(compound, t_);
  const long long bonds = static_cast<long long>(t_.slot.size());
  first_ = std::max(lmin_, 1);
  maxdepth_ = static_cast<int>(std::min<long long>(lmax_, bonds));
  if (maxdepth_ < first_) return;
  const int words = t_.words;
  all_.assign(words, ~std::uint64_t{0});
  if (bonds % 64 != 0) all_[words - 1] = (std::uint64_t{1} << (bonds % 64)) - 1;
  frontier_.assign(static_cast<std::size_t>(maxdepth_ + 1) * words, 0);
  saved_.assign(static_cast<std::size_t>(maxdepth_ + 1) * words, 0);
  excluded_.assign(words, 0);
  marked_.assign(compound.vs, 0);
  set_.edge.resize(maxdepth_);
  set_.size = 0;
  width_ = maxdepth_ + 1;
  form_.assign(width_, -1);
  grown_.assign(width_, 0);
  at_.assign(static_cast<std::size_t>(width_) * width_, 0);
  if (static_cast<int>(by_length_.size()) <= maxdepth_) by_length_.resize(maxdepth_ + 1);
  for (int k = first_; k <= maxdepth_; ++k) by_length_[k].clear();
  visit(0);
  for (int k = first_; k <= maxdepth_; ++k) entries.insert(entries.end(), by_length_[k].begin(), by_length_[k].end());
}

// The sets that grow from the set of n bonds now on the path: each candidate
// bond in ascending slot order is included (and searched below), then
// excluded for the rest of this set's candidates and everything below them,
// as the include/exclude search decides it.
void FragmentCounter::visit(int n) {
  const int words = t_.words;
  std::uint64_t* saved = &saved_[static_cast<std::size_t>(n) * words];
  std::copy(excluded_.begin(), excluded_.end(), saved);
  const std::uint64_t* candidates = n == 0 ? all_.data() : &frontier_[static_cast<std::size_t>(n) * words];
  if (n + 1 == maxdepth_ && n >= 1 && grown_[n] && n + 2 <= MAX_GROWN_VERTICES) {
    count_leaves(n, candidates);
    return;
  }
  for (;;) {
    int s = -1;
    for (int w = 0; w < words; ++w) {
      const std::uint64_t live = candidates[w] & ~excluded_[w];
      if (live != 0) {
        s = w * 64 + std::countr_zero(live);
        break;
      }
    }
    if (s < 0) break;
    include(n, s);
    excluded_[s / 64] |= std::uint64_t{1} << (s % 64);
  }
  std::copy(saved, saved + words, excluded_.begin());
}

// The sets one bond larger than this one are the longest searched: nothing
// grows from them, so deciding them in turn is just looking each one's step
// up and counting it (no row, no frontier, no exclusion seen by anyone).
void FragmentCounter::count_leaves(int n, const std::uint64_t* candidates) {
  const int* parent = row(n);
  const int* vl = g_->vl.data();
  const bool counted = n + 1 >= first_;
  for (int w = 0; w < t_.words; ++w) {
    for (std::uint64_t live = candidates[w] & ~excluded_[w]; live != 0; live &= live - 1) {
      const int s = w * 64 + std::countr_zero(live);
      const int a = t_.slot[s].first - 1, b = t_.slot[s].second - 1;
      const int inside = marked_[a] ? a : b, outside = marked_[a] ? b : a;
      const int label = t_.label[s];
      const StepBucket* step = nullptr;
      if (step_labels_fit(label, vl[outside]))
        step = find_step(form_[n], step_key(position_in(parent, inside), label, vl[outside]));
      if (step != nullptr && step->form >= 0) {
        form_[n + 1] = step->form;
        if (counted) record(n + 1);
      } else {
        include(n, s);
      }
    }
  }
}

void FragmentCounter::include(int n, int s) {
  const auto [a1, b1] = t_.slot[s];
  const int a = a1 - 1, b = b1 - 1;
  set_.edge[n] = {a1, b1};
  set_.size = n + 1;
  grow(n + 1, a, b, t_.label[s]);
  if (n + 1 >= first_) record(n + 1);
  if (n + 1 == maxdepth_) return;
  const int words = t_.words;
  std::uint64_t* next = &frontier_[static_cast<std::size_t>(n + 1) * words];
  const std::uint64_t* cur = &frontier_[static_cast<std::size_t>(n) * words];
  for (int w = 0; w < words; ++w) next[w] = n == 0 ? 0 : cur[w];
  int added[2];
  int nadded = 0;
  for (int x : {a, b}) {
    if (!marked_[x]) {
      marked_[x] = 1;
      added[nadded++] = x;
      const std::uint64_t* inc = &t_.incident[static_cast<std::size_t>(x) * words];
      for (int w = 0; w < words; ++w) next[w] ^= inc[w];
    }
  }
  visit(n + 1);
  for (int i = 0; i < nadded; ++i) marked_[added[i]] = 0;
}

void FragmentCounter::record(int n) {
  const int f = form_[n];
  if (opt_ == 2 || opt_ == 3) {
    if (store_->stored(f).branching != (opt_ == 2)) return;
  } else if (opt_ != 1) {
    fatal_error("Option not valid\n");
  }
  ++fragments_;
  longest_ = std::max(longest_, n);
  std::vector<FormCount>& list = by_length_[n];
  if (memo_.last_compound[f] == compid_) {
    ++list[memo_.last_position[f]].count;
  } else {
    memo_.last_compound[f] = compid_;
    memo_.last_position[f] = static_cast<int>(list.size());
    list.push_back(FormCount{f, 1});
  }
}

// The form (and, when stable, the canonical row) of the set of n bonds whose
// last bond (a, b) with the given label has just joined it.
void FragmentCounter::grow(int n, int a, int b, int label) {
  const Graph& g = *g_;
  int* child = row(n);
  if (n == 1) {
    // A first bond: its graph is fixed by the labels, lower atom first.
    const bool fits = g.vl[a] >= 0 && g.vl[a] < (1 << 16) && g.vl[b] >= 0 && g.vl[b] < (1 << 16) && label >= 0 &&
                      label < (1 << 16);
    const std::uint64_t key = static_cast<std::uint64_t>(g.vl[a]) << 32 | static_cast<std::uint64_t>(g.vl[b]) << 16 |
                              static_cast<std::uint64_t>(label);
    if (fits) {
      if (auto it = memo_.first_bonds.find(key); it != memo_.first_bonds.end()) {
        const StepBucket& s = it->second;
        form_[1] = s.form;
        grown_[1] = 1;
        child[s.moves[0]] = a;
        child[1 - s.moves[0]] = b;
        return;
      }
    }
    label_exactly(1, !fits);
    if (fits && grown_[1]) {
      StepBucket s;
      s.form = form_[1];
      s.moves[0] = child[0] == a ? 0 : 1;
      memo_.first_bonds.emplace(key, s);
    }
    return;
  }
  const bool a_inside = marked_[a] != 0;
  const int inside = a_inside ? a : b, outside = a_inside ? b : a;
  const int* parent = row(n - 1);
  const bool fits = grown_[n - 1] && n + 1 <= MAX_GROWN_VERTICES && step_labels_fit(label, g.vl[outside]);
  if (!fits) {
    // Off the grown path: remembered by the whole fragment graph.
    label_exactly(n, true);
    return;
  }
  const int pos = position_in(parent, inside);
  const std::uint32_t key = step_key(pos, label, g.vl[outside]);
  if (const StepBucket* s = find_step(form_[n - 1], key)) {
    if (s->form >= 0) {
      form_[n] = s->form;
      grown_[n] = 1;
      // The rows of the largest sets are never read: nothing grows from them.
      if (n < maxdepth_) {
        const std::uint8_t* moves = moves_of(*s, n + 1);
        for (int k = 0; k < n; ++k) child[moves[1 + k]] = parent[k];
        child[moves[0]] = outside;
      }
      return;
    }
    label_exactly(n, true);  // known not to be stable: label the set itself
    return;
  }
  std::uint8_t moves[MAX_GROWN_VERTICES + 1];
  if (label_grown(n, pos, outside, label, moves)) {
    add_step(form_[n - 1], key, form_[n], moves, n + 1);
  } else {
    label_exactly(n, true);
    add_step(form_[n - 1], key, -1, moves, 0);
  }
}

// A new step from a stable form: the grown set's graph is the smaller form
// with the new atom joined at its position, read in the smaller form's
// canonical numbering. A stable result does not depend on that numbering,
// so it is the form of the set; false when the result is not stable.
bool FragmentCounter::label_grown(int n, int pos, int outside, int label, std::uint8_t* moves) {
  const GraphView parent_form = form(form_[n - 1]);
  SmallGraph& sg = small_;
  sg.n = n + 1;
  for (int u = 0; u <= n; ++u) std::fill(sg.adj[u], sg.adj[u] + n + 1, 0);
  for (int u = 0; u < n; ++u) {
    sg.label[u] = parent_form.vl[u];
    const int first = parent_form.v[u];
    sg.deg[u] = parent_form.v[u + 1] - first;
    for (int j = 0; j < sg.deg[u]; ++j) {
      const int w = parent_form.e[first + j];
      sg.nb[u][j] = w;
      sg.adj[u][w] = parent_form.el[first + j] + 1;
    }
  }
  sg.label[n] = g_->vl[outside];
  sg.adj[pos][n] = sg.adj[n][pos] = label + 1;
  sg.nb[pos][sg.deg[pos]++] = n;
  sg.deg[n] = 1;
  sg.nb[n][0] = pos;
  int order[SMALL_GRAPH_VERTICES];
  if (!canonical_order_fast(sg, order)) return false;

  // The canonical arrays, written as labelling writes them: each position's
  // neighbours by ascending position.
  int position[SMALL_GRAPH_VERTICES];
  for (int k = 0; k <= n; ++k) position[order[k]] = k;
  Graph& c = canonical_;
  c.vs = n + 1;
  c.es = 2 * n;
  c.vl.resize(c.vs);
  c.v.resize(c.vs + 1);
  c.e.resize(c.es);
  c.el.resize(c.es);
  int entries = 0;
  c.v[0] = 0;
  for (int a = 0; a <= n; ++a) {
    const int u = order[a];
    c.vl[a] = sg.label[u];
    const int start = entries;
    for (int j = 0; j < sg.deg[u]; ++j) {
      const int b = position[sg.nb[u][j]];
      int q = entries++;
      for (; q > start && c.e[q - 1] > b; --q) c.e[q] = c.e[q - 1];
      c.e[q] = b;
    }
    for (int q = start; q < entries; ++q) c.el[q] = sg.adj[u][order[c.e[q]]] - 1;
    c.v[a + 1] = entries;
  }
  TAVRIX_CHECK(entries == c.es);
  form_[n] = find_or_add_form(view_of(c));
  grown_[n] = 1;
  const int* parent = row(n - 1);
  int* child = row(n);
  for (int k = 0; k <= n; ++k) {
    if (order[k] == n) {
      child[k] = outside;
      moves[0] = static_cast<std::uint8_t>(k);
    } else {
      child[k] = parent[order[k]];
      moves[1 + order[k]] = static_cast<std::uint8_t>(k);
    }
  }
  return true;
}

// The form of the set of n bonds from its own fragment graph: looked up by
// that graph (labelling is a pure function of it), else labelled.
void FragmentCounter::label_exactly(int n, bool remember) {
  fill_fragment_graph(set_, *g_, fragment_, vertices_);
  int* child = row(n);
  if (!remember) {
    label_graph(n, child);
    return;
  }
  key_.clear();
  key_.push_back(fragment_.vs);
  key_.insert(key_.end(), fragment_.vl.begin(), fragment_.vl.end());
  key_.insert(key_.end(), fragment_.e.begin(), fragment_.e.end());
  key_.insert(key_.end(), fragment_.el.begin(), fragment_.el.end());
  bytes_.assign(reinterpret_cast<const char*>(key_.data()), key_.size() * sizeof(int));
  if (auto it = memo_.labelled.find(bytes_); it != memo_.labelled.end()) {
    form_[n] = it->second.form;
    grown_[n] = it->second.order >= 0;
    if (grown_[n])
      for (int k = 0; k < fragment_.vs; ++k) child[k] = vertices_[memo_.orders[it->second.order + k]];
    return;
  }
  label_graph(n, child);
  if (memo_.labelled_bytes + bytes_.size() > max_labelled_bytes_) {
    memo_full_ = true;
    return;
  }
  int order = -1;
  if (grown_[n]) {
    order = static_cast<int>(memo_.orders.size());
    for (int k = 0; k < fragment_.vs; ++k) memo_.orders.push_back(static_cast<std::uint8_t>(fragment_.vid[k]));
  }
  memo_.labelled_bytes += bytes_.size() + fragment_.vs;
  memo_.labelled.emplace(bytes_, LabelledGraph{form_[n], order});
}

// Labels the fragment graph built for the set of n bonds and sets its form.
void FragmentCounter::label_graph(int n, int* child) {
  const bool stable = fragment_.vs <= MAX_GROWN_VERTICES && canonical_label_fast(fragment_);
  if (!stable) canonical_label(fragment_);
  form_[n] = find_or_add_form(view_of(fragment_));
  grown_[n] = stable;
  if (stable)
    for (int k = 0; k < fragment_.vs; ++k) child[k] = vertices_[fragment_.vid[k]];
}
