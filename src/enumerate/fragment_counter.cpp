// One search per compound over every length, with canonical forms grown bond
// by bond along the search path (see fragment_memo.h and fragment_counter.h).
#include "enumerate/fragment_counter.h"

#include <algorithm>
#include <bit>

#include "canon/canon.h"
#include "common/common.h"
#include "enumerate/enumerate.h"

namespace {

// Positions are kept in bytes inside the growth steps; larger fragments are
// always labelled from their own graph.
constexpr int MAX_GROWN_VERTICES = INLINE_MOVES;
// Bound the memo's memory whatever the input: past these, lookups go on but
// nothing new is remembered.
constexpr std::size_t MAX_STEPS = std::size_t{1} << 25;
constexpr std::size_t MAX_LABELLED_BYTES = std::size_t{1} << 28;

std::uint64_t mix(std::uint64_t x) {
  x ^= x >> 33;
  x *= 0xff51afd7ed558ccdull;
  x ^= x >> 33;
  x *= 0xc4ceb9fe1a85ec53ull;
  return x ^ (x >> 33);
}

std::size_t step_home(std::uint32_t key, std::size_t mask) {
  return static_cast<std::size_t>((key * 0x9E3779B1u) >> 7) & mask;
}

void place_step(StepIndex& index, std::uint64_t packed) {
  const std::size_t mask = index.bucket.size() - 1;
  std::size_t b = step_home(static_cast<std::uint32_t>(packed >> 32), mask);
  while (index.bucket[b] != 0) b = (b + 1) & mask;
  index.bucket[b] = packed;
}

}  // namespace

FragmentCounter::FragmentCounter(int lmin, int lmax, int opt) : lmin_(lmin), lmax_(lmax), opt_(opt) {
  create_occupancy(numbers_.occupancy);
}

int FragmentCounter::find_or_add_form(Graph& g, bool stable) {
  FragmentMemo& m = memo_;
  if (m.form_bucket.empty()) m.form_bucket.assign(1 << 12, -1);
  std::size_t mask = m.form_bucket.size() - 1;
  std::size_t b = mix(g.key) & mask;
  while (m.form_bucket[b] != -1) {
    if (compare_graphs(m.forms[m.form_bucket[b]].graph, g) == 0) return m.form_bucket[b];
    b = (b + 1) & mask;
  }
  const int f = static_cast<int>(m.forms.size());
  bool branching = false;
  for (int i = 0; i < g.vs && !branching; ++i) branching = g.v[i + 1] - g.v[i] > 2;
  m.forms.push_back(FragmentForm{g, stable});
  m.steps_from.emplace_back();
  m.branching.push_back(branching);
  m.last.emplace_back();
  numbers_.slot.push_back(-1);
  numbers_.id.push_back(-1);
  numbers_.support.push_back(0);
  m.form_bucket[b] = f;
  if (2 * m.forms.size() > m.form_bucket.size()) {
    m.form_bucket.assign(2 * m.form_bucket.size(), -1);
    mask = m.form_bucket.size() - 1;
    for (int k = 0; k <= f; ++k) {
      std::size_t c = mix(m.forms[k].graph.key) & mask;
      while (m.form_bucket[c] != -1) c = (c + 1) & mask;
      m.form_bucket[c] = k;
    }
  }
  return f;
}

int FragmentCounter::find_step(int form, std::uint32_t key) const {
  const StepIndex& index = memo_.steps_from[form];
  if (index.bucket.empty()) return -1;
  const std::size_t mask = index.bucket.size() - 1;
  for (std::size_t b = step_home(key, mask);; b = (b + 1) & mask) {
    const std::uint64_t packed = index.bucket[b];
    if (packed == 0) return -1;
    if (static_cast<std::uint32_t>(packed >> 32) == key) return static_cast<int>(packed & 0xffffffffu) - 1;
  }
}

int FragmentCounter::add_growth_step(int grown, const std::uint8_t* moves, int nmoves) {
  if (memo_.step.size() >= MAX_STEPS) return -1;
  TAVRIX_CHECK(nmoves <= INLINE_MOVES + 1);
  GrowthStep s;
  s.form = grown;
  std::copy(moves, moves + nmoves, s.moves);
  memo_.step.push_back(s);
  return static_cast<int>(memo_.step.size()) - 1;
}

void FragmentCounter::add_step(int form, std::uint32_t key, int grown, const std::uint8_t* moves, int nmoves) {
  const int s = add_growth_step(grown, moves, nmoves);
  if (s < 0) return;
  StepIndex& index = memo_.steps_from[form];
  if (2 * (index.used + 1) > static_cast<int>(index.bucket.size())) {
    std::vector<std::uint64_t> old;
    old.swap(index.bucket);
    index.bucket.assign(old.empty() ? 8 : 2 * old.size(), 0);
    for (std::uint64_t packed : old)
      if (packed != 0) place_step(index, packed);
  }
  place_step(index, static_cast<std::uint64_t>(key) << 32 | static_cast<std::uint32_t>(s + 1));
  ++index.used;
}

void FragmentCounter::count_compound(const Graph& compound, int compid, std::vector<Occurrence>& entries) {
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
    if ((memo_.branching[f] != 0) != (opt_ == 2)) return;
  } else if (opt_ != 1) {
    fatal_error("Option not valid\n");
  }
  ++fragments_;
  std::vector<Occurrence>& list = by_length_[n];
  FormCount& last = memo_.last[f];
  if (last.compound == compid_) {
    ++list[last.position].count;
  } else {
    last.compound = compid_;
    last.position = static_cast<int>(list.size());
    list.push_back(Occurrence{f, 1});
  }
}

// The form (and, when stable, the canonical row) of the set of n bonds whose
// last bond (a, b) with the given label has just joined it.
void FragmentCounter::grow(int n, int a, int b, int label) {
  const Graph& g = *g_;
  int* child = row(n);
  // The rows of the largest sets are never read: nothing grows from them.
  const bool need_row = n < maxdepth_;
  if (n == 1) {
    // A first bond: its graph is fixed by the labels, lower atom first.
    const bool fits = g.vl[a] >= 0 && g.vl[a] < (1 << 16) && g.vl[b] >= 0 && g.vl[b] < (1 << 16) && label >= 0 &&
                      label < (1 << 16);
    const std::uint64_t key = static_cast<std::uint64_t>(g.vl[a]) << 32 | static_cast<std::uint64_t>(g.vl[b]) << 16 |
                              static_cast<std::uint64_t>(label);
    if (fits) {
      if (auto it = memo_.first_bonds.find(key); it != memo_.first_bonds.end()) {
        const GrowthStep& s = memo_.step[it->second];
        form_[1] = s.form;
        grown_[1] = 1;
        child[s.moves[0]] = a;
        child[1 - s.moves[0]] = b;
        return;
      }
    }
    label_exactly(1, !fits);
    if (fits && grown_[1]) {
      const std::uint8_t pos_a = child[0] == a ? 0 : 1;
      const int s = add_growth_step(form_[1], &pos_a, 1);
      if (s >= 0) memo_.first_bonds.emplace(key, s);
    }
    return;
  }
  const bool a_inside = marked_[a] != 0;
  const int inside = a_inside ? a : b, outside = a_inside ? b : a;
  const int* parent = row(n - 1);
  std::uint32_t key = 0;
  bool fits = grown_[n - 1] && n + 1 <= MAX_GROWN_VERTICES && g.vl[outside] >= 0 && g.vl[outside] < (1 << 16) &&
              label >= 0 && label < (1 << 8);
  if (fits) {
    int pos = 0;
    while (parent[pos] != inside) ++pos;
    key = static_cast<std::uint32_t>(pos) << 24 | static_cast<std::uint32_t>(label) << 16 |
          static_cast<std::uint32_t>(g.vl[outside]);
    const int found = find_step(form_[n - 1], key);
    if (found >= 0) {
      const GrowthStep& s = memo_.step[found];
      if (s.form >= 0) {
        form_[n] = s.form;
        grown_[n] = 1;
        if (need_row) {
          for (int k = 0; k < n; ++k) child[s.moves[1 + k]] = parent[k];
          child[s.moves[0]] = outside;
        }
        return;
      }
      fits = false;  // known not to be stable: label the set itself
    }
  }
  // A new step is remembered as a step; only sets off the grown path, or
  // with forms that are not stable, are remembered by their whole graph.
  label_exactly(n, !fits);
  if (!fits) return;
  std::uint8_t mv[MAX_GROWN_VERTICES + 1];
  if (grown_[n]) {
    for (int j = 0; j <= n; ++j) {
      if (child[j] == outside) mv[0] = static_cast<std::uint8_t>(j);
      for (int k = 0; k < n; ++k)
        if (child[j] == parent[k]) mv[1 + k] = static_cast<std::uint8_t>(j);
    }
    add_step(form_[n - 1], key, form_[n], mv, n + 1);
  } else {
    add_step(form_[n - 1], key, -1, mv, 0);
  }
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
  if (memo_.labelled_bytes + bytes_.size() > MAX_LABELLED_BYTES) return;
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
  form_[n] = find_or_add_form(fragment_, stable);
  grown_[n] = stable;
  if (stable)
    for (int k = 0; k < fragment_.vs; ++k) child[k] = vertices_[fragment_.vid[k]];
}

std::vector<int> FragmentCounter::number_length(FragmentTable& table, int threshold) {
  std::vector<std::pair<int, int>> placed;  // (slot, form)
  const int n = static_cast<int>(table.csr.size());
  for (int c = 0; c < n; ++c) {
    std::vector<Occurrence>& list = table.csr[c];
    int p = table.csrcount[c].offset;
    const int size = table.csrcount[c].size;
    for (; p < size; ++p) {
      const int f = list[p].id;
      if (memo_.forms[f].graph.vs != threshold + 1) break;
      // A compound lists a form at most once per length: every entry is a
      // first occurrence in its compound.
      if (numbers_.id[f] < 0) {
        numbers_.slot[f] = claim_slot(numbers_.occupancy, memo_.forms[f].graph.key);
        numbers_.id[f] = ++table.total;
        numbers_.support[f] = 1;
        placed.emplace_back(numbers_.slot[f], f);
      } else {
        ++numbers_.support[f];
      }
      list[p].id = numbers_.id[f];
    }
    table.csrcount[c].offset = p;
  }
  std::sort(placed.begin(), placed.end());
  std::vector<int> forms;
  forms.reserve(placed.size());
  for (const auto& [slot, f] : placed) forms.push_back(f);
  return forms;
}
