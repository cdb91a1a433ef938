// One search per compound over every length, with canonical forms grown bond
// by bond along the search path (see step_memo.h and fragment_counter.h).
#include "enumerate/fragment_counter.h"

#include <algorithm>
#include <bit>

#include "canon/canon.h"
#include "common/common.h"
#include "enumerate/enumerate.h"

namespace {

// The bound of a counter's own step tables when the caller sets none.
constexpr std::size_t OWN_STEP_BYTES = std::size_t{1} << 27;

// The canonical position of a compound atom in a set's row.
int position_in(const int* row, int atom) {
  int pos = 0;
  while (row[pos] != atom) ++pos;
  return pos;
}

}  // namespace

FragmentCounter::FragmentCounter(int lmin, int lmax, int opt, FormStore* store, std::size_t memo_limit,
                                 StepTables* steps)
    : lmin_(lmin), lmax_(lmax), opt_(opt), store_(store), steps_(steps),
      memo_(memo_limit > 0 ? std::max<std::size_t>(memo_limit / 4, 1) : 0) {
  if (store_ == nullptr) {
    own_store_ = std::make_unique<FormStore>();
    store_ = own_store_.get();
  }
  if (steps_ == nullptr) {
    // Tables left behind when a form's table doubles stay until forgotten:
    // half the bound holds the tables in use.
    own_steps_ = std::make_unique<StepTables>(memo_limit > 0 ? memo_limit / 2 : OWN_STEP_BYTES);
    steps_ = own_steps_.get();
  }
}

// The per-form arrays reach form f: the store numbers forms for every
// counter sharing it, so this counter meets indices in no particular order.
void FragmentCounter::reach_form(int f) {
  if (f < static_cast<int>(last_compound_.size())) return;
  // Room for the forms the store has now, a quarter more and a thousand
  // besides: the store grows with every counter's forms, this counter meets
  // most of them.
  const std::size_t size =
      std::max<std::size_t>(static_cast<std::size_t>(f) + 1, static_cast<std::size_t>(store_->size()) * 5 / 4 + 1024);
  // last_compound_ last: its size says how far all the arrays reach, should
  // one fail.
  last_position_.resize(size, 0);
  last_compound_.resize(size, -1);
}

int FragmentCounter::find_or_add_form(const GraphView& g) {
  const int f = store_->find_or_add(g, claim_);
  reach_form(f);
  return f;
}

void FragmentCounter::count_compound(const Graph& compound, int compid, std::vector<FormCount>& entries) {
  compound_ = &compound;
  compid_ = compid;
  build_slot_table(compound, slots_);
  const long long bonds = static_cast<long long>(slots_.slot.size());
  first_ = std::max(lmin_, 1);
  maxdepth_ = static_cast<int>(std::min<long long>(lmax_, bonds));
  if (maxdepth_ < first_) return;
  const int words = slots_.words;
  all_.assign(words, ~std::uint64_t{0});
  if (bonds % 64 != 0) all_[words - 1] = (std::uint64_t{1} << (bonds % 64)) - 1;
  frontier_.assign(static_cast<std::size_t>(maxdepth_ + 1) * words, 0);
  saved_.assign(static_cast<std::size_t>(maxdepth_ + 1) * words, 0);
  excluded_.assign(words, 0);
  marked_.assign(compound.vs, 0);
  set_.edge.resize(maxdepth_);
  set_.size = 0;
  max_atoms_ = maxdepth_ + 1;
  form_.assign(max_atoms_, -1);
  stable_.assign(max_atoms_, 0);
  canonical_atoms_.assign(static_cast<std::size_t>(max_atoms_) * max_atoms_, 0);
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
  const int words = slots_.words;
  std::uint64_t* saved = &saved_[static_cast<std::size_t>(n) * words];
  std::copy(excluded_.begin(), excluded_.end(), saved);
  const std::uint64_t* candidates = n == 0 ? all_.data() : &frontier_[static_cast<std::size_t>(n) * words];
  if (n + 1 == maxdepth_ && n >= 1 && stable_[n] && n + 2 <= MAX_GROWN_VERTICES) {
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
  const int* parent = canonical_atoms(n);
  const int* vl = compound_->vl.data();
  const bool counted = n + 1 >= first_;
  for (int w = 0; w < slots_.words; ++w) {
    for (std::uint64_t live = candidates[w] & ~excluded_[w]; live != 0; live &= live - 1) {
      const int s = w * 64 + std::countr_zero(live);
      const int a = slots_.slot[s].first - 1, b = slots_.slot[s].second - 1;
      const int inside = marked_[a] ? a : b, outside = marked_[a] ? b : a;
      const int label = slots_.label[s];
      const StepBucket* step = nullptr;
      if (step_labels_fit(label, vl[outside]))
        step = steps_->find(form_[n], step_key(position_in(parent, inside), label, vl[outside]));
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
  const auto [a1, b1] = slots_.slot[s];
  const int a = a1 - 1, b = b1 - 1;
  set_.edge[n] = {a1, b1};
  set_.size = n + 1;
  grow(n + 1, a, b, slots_.label[s]);
  if (n + 1 >= first_) record(n + 1);
  if (n + 1 == maxdepth_) return;
  const int words = slots_.words;
  std::uint64_t* next = &frontier_[static_cast<std::size_t>(n + 1) * words];
  const std::uint64_t* cur = &frontier_[static_cast<std::size_t>(n) * words];
  for (int w = 0; w < words; ++w) next[w] = n == 0 ? 0 : cur[w];
  int added[2];
  int nadded = 0;
  for (int x : {a, b}) {
    if (!marked_[x]) {
      marked_[x] = 1;
      added[nadded++] = x;
      const std::uint64_t* inc = &slots_.incident[static_cast<std::size_t>(x) * words];
      for (int w = 0; w < words; ++w) next[w] ^= inc[w];
    }
  }
  visit(n + 1);
  for (int i = 0; i < nadded; ++i) marked_[added[i]] = 0;
}

void FragmentCounter::record(int n) {
  const int f = form_[n];
  // A step another counter added may lead to a form new to this one.
  reach_form(f);
  if (opt_ == 2 || opt_ == 3) {
    if (store_->stored(f).branching != (opt_ == 2)) return;
  } else if (opt_ != 1) {
    fatal_error("Option not valid\n");
  }
  ++fragments_;
  longest_ = std::max(longest_, n);
  std::vector<FormCount>& list = by_length_[n];
  if (last_compound_[f] == compid_) {
    ++list[last_position_[f]].count;
  } else {
    last_compound_[f] = compid_;
    last_position_[f] = static_cast<int>(list.size());
    list.push_back(FormCount{f, 1});
  }
}

// The form (and, when stable, the canonical row) of the set of n bonds whose
// last bond (a, b) with the given label has just joined it.
void FragmentCounter::grow(int n, int a, int b, int label) {
  const Graph& g = *compound_;
  int* child = canonical_atoms(n);
  if (n == 1) {
    // A first bond: its graph is fixed by the labels, lower-numbered atom
    // (a) first.
    if (!first_bond_labels_fit(g.vl[a], g.vl[b], label)) {
      recall_or_label_set(1);
      return;
    }
    const std::uint64_t key = first_bond_key(g.vl[a], g.vl[b], label);
    if (const FirstBond* s = memo_.find_first_bond(key)) {
      form_[1] = s->form;
      stable_[1] = 1;
      child[s->lower_position] = a;
      child[1 - s->lower_position] = b;
      return;
    }
    label_set(1);
    if (stable_[1]) memo_.add_first_bond(key, form_[1], child[0] == a ? 0 : 1);
    return;
  }
  const bool a_inside = marked_[a] != 0;
  const int inside = a_inside ? a : b, outside = a_inside ? b : a;
  const int* parent = canonical_atoms(n - 1);
  if (!stable_[n - 1] || n + 1 > MAX_GROWN_VERTICES || !step_labels_fit(label, g.vl[outside])) {
    // Off the grown path: remembered by the whole fragment graph.
    recall_or_label_set(n);
    return;
  }
  const int pos = position_in(parent, inside);
  const std::uint32_t key = step_key(pos, label, g.vl[outside]);
  const StepBucket* s = steps_->find(form_[n - 1], key);
  if (s == nullptr) {
    std::uint8_t moves[MAX_GROWN_VERTICES + 1];
    const bool stable = label_grown(n, pos, outside, label, moves);
    if (!stable) recall_or_label_set(n);
    steps_->add(form_[n - 1], key, stable ? form_[n] : -1, moves, stable ? n + 1 : 0);
    return;
  }
  const int grown = s->form;
  if (grown < 0) {
    recall_or_label_set(n);  // known not to be stable: label the set itself
    return;
  }
  form_[n] = grown;
  stable_[n] = 1;
  // The rows of the largest sets are never read: nothing grows from them.
  if (n < maxdepth_) {
    const std::uint8_t* moves = s->moves_of(n + 1);
    for (int k = 0; k < n; ++k) child[moves[1 + k]] = parent[k];
    child[moves[0]] = outside;
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
  sg.label[n] = compound_->vl[outside];
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
  stable_[n] = 1;
  const int* parent = canonical_atoms(n - 1);
  int* child = canonical_atoms(n);
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

// The form of the set of n bonds from its own fragment graph, labelled.
void FragmentCounter::label_set(int n) {
  fill_fragment_graph(set_, *compound_, fragment_, vertices_);
  label_fragment(n);
}

// The form of the set of n bonds from its own fragment graph: looked up
// among the graphs labelled before (labelling is a pure function of the
// graph), else labelled and remembered.
void FragmentCounter::recall_or_label_set(int n) {
  fill_fragment_graph(set_, *compound_, fragment_, vertices_);
  labelled_graph_key(fragment_, key_, bytes_);
  if (const LabelledGraph* known = memo_.find_labelled(bytes_)) {
    form_[n] = known->form;
    stable_[n] = known->order >= 0;
    if (stable_[n]) {
      const std::uint8_t* order = memo_.order_of(*known);
      int* child = canonical_atoms(n);
      for (int k = 0; k < fragment_.vs; ++k) child[k] = vertices_[order[k]];
    }
    return;
  }
  label_fragment(n);
  memo_.remember_labelled(bytes_, form_[n], stable_[n] ? fragment_.vid.data() : nullptr, fragment_.vs);
}

// Labels fragment_, the graph of the set of n bonds, and sets the set's form
// and, when stable, its row.
void FragmentCounter::label_fragment(int n) {
  const bool stable = fragment_.vs <= MAX_GROWN_VERTICES && canonical_label_fast(fragment_);
  if (!stable) canonical_label(fragment_);
  form_[n] = find_or_add_form(view_of(fragment_));
  stable_[n] = stable;
  if (stable) {
    int* child = canonical_atoms(n);
    for (int k = 0; k < fragment_.vs; ++k) child[k] = vertices_[fragment_.vid[k]];
  }
}
