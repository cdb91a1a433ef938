// Subtree enumeration of one compound, with canonical forms grown bond by
// bond along the search path (see fragment_memo.h).
#include "enumerate/tree_freq.h"

#include "canon/canon.h"
#include "enumerate/enumerate.h"

void build_slot_table(const Graph& g, SlotTable& t) {
  t.slot.clear();
  t.label.clear();
  for (int i = 0; i < g.vs; ++i) {
    TAVRIX_CHECK(g.vid[i] == i);
    // Adjacency is sorted by target, so taking the higher ends of each vertex
    // in stored order numbers the bonds by lower, then higher vertex.
    for (int j = g.v[i]; j < g.v[i + 1]; ++j) {
      if (g.e[j] > i) {
        t.slot.emplace_back(i + 1, g.e[j] + 1);
        t.label.push_back(g.el[j]);
      }
    }
  }
  t.words = static_cast<int>((t.slot.size() + 63) / 64);
  t.incident.assign(static_cast<std::size_t>(g.vs) * t.words, 0);
  for (std::size_t s = 0; s < t.slot.size(); ++s) {
    for (int end : {t.slot[s].first - 1, t.slot[s].second - 1})
      t.incident[static_cast<std::size_t>(end) * t.words + s / 64] |= std::uint64_t{1} << (s % 64);
  }
}

namespace {

// Positions are kept in bytes inside the growth steps; larger fragments are
// always labelled from their own graph.
constexpr int MAX_GROWN_VERTICES = INLINE_MOVES;
// Bounds the memo's memory whatever the input: past this, lookups go on but
// nothing new is remembered.
constexpr std::size_t MAX_STEPS = std::size_t{1} << 25;

std::uint64_t mix(std::uint64_t x) {
  x ^= x >> 33;
  x *= 0xff51afd7ed558ccdull;
  x ^= x >> 33;
  x *= 0xc4ceb9fe1a85ec53ull;
  return x ^ (x >> 33);
}

void grow_buckets(std::vector<int>& bucket, std::size_t size) { bucket.assign(size, -1); }

// The form holding canonical graph g, added when new.
int find_or_add_form(FragmentMemo& m, Graph& g, bool stable) {
  if (m.form_bucket.empty()) grow_buckets(m.form_bucket, 1 << 12);
  std::size_t mask = m.form_bucket.size() - 1;
  std::size_t b = mix(g.key) & mask;
  while (m.form_bucket[b] != -1) {
    if (compare_graphs(m.forms[m.form_bucket[b]].graph, g) == 0) return m.form_bucket[b];
    b = (b + 1) & mask;
  }
  const int f = static_cast<int>(m.forms.size());
  FragmentForm form;
  form.graph = g;
  form.stable = stable;
  for (int i = 0; i < g.vs && !form.branching; ++i) form.branching = g.v[i + 1] - g.v[i] > 2;
  m.forms.push_back(std::move(form));
  m.form_bucket[b] = f;
  if (2 * m.forms.size() > m.form_bucket.size()) {
    grow_buckets(m.form_bucket, 2 * m.form_bucket.size());
    mask = m.form_bucket.size() - 1;
    for (int k = 0; k <= f; ++k) {
      std::size_t c = mix(m.forms[k].graph.key) & mask;
      while (m.form_bucket[c] != -1) c = (c + 1) & mask;
      m.form_bucket[c] = k;
    }
  }
  return f;
}

// Bucket of the step key: its own, or the empty one where it would go.
std::size_t step_bucket(const FragmentMemo& m, std::uint64_t key) {
  const std::size_t mask = m.step.size() - 1;
  std::size_t b = mix(key) & mask;
  while (m.step[b].key != 0 && m.step[b].key != key) b = (b + 1) & mask;
  return b;
}

void add_step(FragmentMemo& m, std::uint64_t key, int form, const std::uint8_t* moves, int nmoves) {
  if (m.steps >= MAX_STEPS) return;
  TAVRIX_CHECK(nmoves <= INLINE_MOVES + 1);
  if (2 * (m.steps + 1) > m.step.size()) {
    std::vector<GrowthStep> old;
    old.swap(m.step);
    m.step.assign(old.empty() ? 1 << 14 : 2 * old.size(), GrowthStep{});
    for (const GrowthStep& s : old)
      if (s.key != 0) m.step[step_bucket(m, s.key)] = s;
  }
  GrowthStep& s = m.step[step_bucket(m, key)];
  s.key = key;
  s.form = form;
  std::copy(moves, moves + nmoves, s.moves);
  ++m.steps;
}

// Visits the search path: keeps, for the set of each size, its form and the
// compound atom at each canonical position, and counts complete sets.
class FormGrower {
 public:
  FormGrower(const Graph& compound, int compid, FragmentContext& ctx)
      : g_(compound), compid_(compid), ctx_(ctx), m_(ctx.forms), width_(ctx.threshold + 1),
        form_(width_, -1), grown_(width_, 0), at_(static_cast<std::size_t>(width_) * width_, 0) {}

  void grow(const EdgeSet& set, const std::vector<char>& marked) {
    const int n = set.size;  // bonds now in the set; its atoms are n + 1
    const int a = set.edge[n - 1].first - 1, b = set.edge[n - 1].second - 1;
    const int label = bond_label_of(set, n - 1);
    int* child = row(n);
    if (n == 1) {
      // A first bond: its graph is fixed by the labels, lower atom first.
      const std::uint64_t key = (std::uint64_t{1} << 63) | static_cast<std::uint64_t>(g_.vl[a]) << 32 |
                                static_cast<std::uint64_t>(g_.vl[b]) << 16 | static_cast<std::uint64_t>(label);
      const bool fits = g_.vl[a] < (1 << 16) && g_.vl[b] < (1 << 16) && label < (1 << 16) && label >= 0;
      if (fits && lookup(key, n)) {
        const std::uint8_t* mv = found_->moves;
        child[mv[0]] = a;
        child[1 - mv[0]] = b;
        return;
      }
      label_exactly(set, !fits);
      if (fits && grown_[n]) {
        const std::uint8_t pos_a = child[0] == a ? 0 : 1;
        add_step(m_, key, form_[n], &pos_a, 1);
      }
      return;
    }
    const bool a_inside = marked[a] != 0;
    const int inside = a_inside ? a : b, outside = a_inside ? b : a;
    const int* parent = row(n - 1);
    std::uint64_t key = 0;
    bool fits = grown_[n - 1] && n + 1 <= MAX_GROWN_VERTICES && form_[n - 1] < (1 << 30) &&
                g_.vl[outside] < (1 << 16) && label >= 0 && label < (1 << 8);
    if (fits) {
      int pos = 0;
      while (parent[pos] != inside) ++pos;
      key = static_cast<std::uint64_t>(form_[n - 1] + 1) << 32 | static_cast<std::uint64_t>(pos) << 24 |
            static_cast<std::uint64_t>(label) << 16 | static_cast<std::uint64_t>(g_.vl[outside]);
      if (lookup(key, n)) {
        const std::uint8_t* mv = found_->moves;
        for (int k = 0; k < n; ++k) child[mv[1 + k]] = parent[k];
        child[mv[0]] = outside;
        return;
      }
      if (found_unstable_) fits = false;  // known not to be stable: label the set itself
    }
    // A new step is remembered as a step; only sets off the grown path, or
    // with forms that are not stable, are remembered by their whole graph.
    label_exactly(set, !fits);
    if (fits) {
      std::uint8_t mv[MAX_GROWN_VERTICES + 1];
      if (grown_[n]) {
        for (int j = 0; j <= n; ++j) {
          if (child[j] == outside) mv[0] = static_cast<std::uint8_t>(j);
          for (int k = 0; k < n; ++k)
            if (child[j] == parent[k]) mv[1 + k] = static_cast<std::uint8_t>(j);
        }
        add_step(m_, key, form_[n], mv, n + 1);
      } else {
        add_step(m_, key, -1, mv, 0);
      }
    }
  }

  void emit(const EdgeSet& set) {
    FragmentForm& f = m_.forms[form_[set.size]];
    if (ctx_.opt == 2 || ctx_.opt == 3) {
      if (f.branching != (ctx_.opt == 2)) return;
    } else if (ctx_.opt != 1) {
      fatal_error("Option not valid\n");
    }
    FragmentTable& table = *ctx_.table;
    if (f.slot_threshold == ctx_.threshold && table.hashg[f.slot].g >= 0) {
      count_in_slot(table, f.slot, compid_);
    } else {
      f.slot = insert_fragment_slot(table, f.graph, compid_);
      f.slot_threshold = ctx_.threshold;
    }
  }

 private:
  int* row(int n) { return &at_[static_cast<std::size_t>(n) * width_]; }

  int bond_label_of(const EdgeSet& set, int i) const { return bond_label(set, i, g_); }

  // Looks the step up; on a hit with a stable result sets the set's form.
  bool lookup(std::uint64_t key, int n) {
    found_unstable_ = false;
    if (m_.step.empty()) return false;
    const GrowthStep& s = m_.step[step_bucket(m_, key)];
    if (s.key != key) return false;
    if (s.form < 0) {
      found_unstable_ = true;
      return false;
    }
    form_[n] = s.form;
    grown_[n] = 1;
    found_ = &s;
    return true;
  }

  // The form of the set from its own fragment graph: looked up by that graph
  // (labelling is a pure function of it), else labelled.
  void label_exactly(const EdgeSet& set, bool remember) {
    const int n = set.size;
    fill_fragment_graph(set, g_, fragment_, vertices_);
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
    if (auto it = m_.labelled.find(bytes_); it != m_.labelled.end()) {
      form_[n] = it->second.form;
      grown_[n] = it->second.order >= 0;
      if (grown_[n])
        for (int k = 0; k < fragment_.vs; ++k) child[k] = vertices_[m_.orders[it->second.order + k]];
      return;
    }
    label_graph(n, child);
    int order = -1;
    if (grown_[n]) {
      order = static_cast<int>(m_.orders.size());
      for (int k = 0; k < fragment_.vs; ++k) m_.orders.push_back(static_cast<std::uint8_t>(fragment_.vid[k]));
    }
    if (m_.labelled.size() < MAX_STEPS) m_.labelled.emplace(bytes_, LabelledGraph{form_[n], order});
  }

  // Labels the fragment graph built for the set of n bonds and sets its form.
  void label_graph(int n, int* child) {
    const bool stable = fragment_.vs <= MAX_GROWN_VERTICES && canonical_label_fast(fragment_);
    if (!stable) canonical_label(fragment_);
    form_[n] = find_or_add_form(m_, fragment_, stable);
    grown_[n] = stable;
    if (stable)
      for (int k = 0; k < fragment_.vs; ++k) child[k] = vertices_[fragment_.vid[k]];
  }

  const Graph& g_;
  int compid_;
  FragmentContext& ctx_;
  FragmentMemo& m_;
  int width_;
  std::vector<int> form_;    // form of the set of each size on the path
  std::vector<char> grown_;  // its form is stable and its row of `at_` is valid
  std::vector<int> at_;      // per size: compound atom (0-based) at each canonical position
  const GrowthStep* found_ = nullptr;
  bool found_unstable_ = false;
  Graph fragment_;
  std::vector<int> vertices_;
  std::vector<int> key_;
  std::string bytes_;
};

// The fragments of one compound, each built and labelled on its own.
struct PlainEmitter {
  const Graph& compound;
  int compid;
  FragmentContext& ctx;
  void grow(const EdgeSet&, const std::vector<char>&) {}
  void emit(const EdgeSet& s) { emit_fragment(s, compound, compid, ctx); }
};

}  // namespace

void enumerate_fragments(const Graph& compound, int compid, FragmentContext& ctx) {
  SlotTable t;
  build_slot_table(compound, t);
  if (ctx.threshold < 1 || ctx.threshold > static_cast<int>(t.slot.size())) return;
  if (ctx.memo) {
    FormGrower grower(compound, compid, ctx);
    search_subtrees(t, compound.vs, ctx.threshold, grower);
  } else {
    PlainEmitter plain{compound, compid, ctx};
    search_subtrees(t, compound.vs, ctx.threshold, plain);
  }
}
