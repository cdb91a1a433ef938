// From a bond set to a labelled fragment counted in the table.
#include <algorithm>
#include <cstdint>

#include "canon/canon.h"
#include "common/common.h"
#include "enumerate/enumerate.h"

int bond_label(const EdgeSet& s, int i, const Graph& compound) {
  const int a = s.edge[i].first - 1, b = s.edge[i].second - 1;
  const int low = std::min(a, b), high = std::max(a, b);
  TAVRIX_CHECK(low >= 0 && high < compound.vs && compound.vid[low] == low);
  for (int j = compound.v[low]; j < compound.v[low + 1]; ++j)
    if (compound.e[j] == high) return compound.el[j];
  internal_error("bond of the set is in the compound", __FILE_NAME__, __LINE__);
}

namespace {
// Grow-only scratch: fragments arrive by the million and are tiny.
std::vector<int> fragment_vertices;
std::vector<EdgeTriple> fragment_triples;
Graph fragment;
}  // namespace

static void fill_fragment_graph(const EdgeSet& s, const Graph& compound, Graph& f) {
  TAVRIX_CHECK(s.size >= 1);
  fragment_vertices.clear();
  for (int i = 0; i < s.size; ++i) {
    TAVRIX_CHECK(s.edge[i].first >= 1 && s.edge[i].first <= compound.vs);
    TAVRIX_CHECK(s.edge[i].second >= 1 && s.edge[i].second <= compound.vs);
    fragment_vertices.push_back(s.edge[i].first - 1);
    fragment_vertices.push_back(s.edge[i].second - 1);
  }
  // Fragment vertices are numbered in ascending compound order.
  std::sort(fragment_vertices.begin(), fragment_vertices.end());
  fragment_vertices.erase(std::unique(fragment_vertices.begin(), fragment_vertices.end()), fragment_vertices.end());
  auto map = [&](int x) {
    return static_cast<int>(std::lower_bound(fragment_vertices.begin(), fragment_vertices.end(), x) -
                            fragment_vertices.begin());
  };
  f.vs = static_cast<int>(fragment_vertices.size());
  f.es = 2 * s.size;
  f.ncell = 0;
  f.key = 0;
  f.vid.resize(f.vs);
  f.vl.resize(f.vs);
  f.vcell.assign(f.vs, 0);
  for (int k = 0; k < f.vs; ++k) {
    f.vid[k] = k;
    f.vl[k] = compound.vl[fragment_vertices[k]];
  }
  fragment_triples.clear();
  for (int i = 0; i < s.size; ++i) {
    const int l = bond_label(s, i, compound);
    const int u = map(s.edge[i].first - 1), v = map(s.edge[i].second - 1);
    fragment_triples.push_back({u, v, l});
    fragment_triples.push_back({v, u, l});
  }
  build_adjacency(fragment_triples, f);
}

Graph build_fragment_graph(const EdgeSet& s, const Graph& compound) {
  Graph f;
  fill_fragment_graph(s, compound, f);
  return f;
}

int emit_fragment_plain(const EdgeSet& s, const Graph& compound, int compid, FragmentContext& ctx) {
  fill_fragment_graph(s, compound, fragment);
  if (ctx.opt == 2 || ctx.opt == 3) {
    bool branching = false;
    for (int i = 0; i < fragment.vs && !branching; ++i) branching = fragment.v[i + 1] - fragment.v[i] > 2;
    if (branching != (ctx.opt == 2)) return -1;
  } else if (ctx.opt != 1) {
    fatal_error("Option not valid\n");
  }
  if (!canonical_label_fast(fragment)) canonical_label(fragment);
  return insert_fragment_slot(*ctx.table, fragment, compid);
}

void emit_fragment(const EdgeSet& s, const Graph& compound, int compid, FragmentContext& ctx) {
  FragmentCache& cache = ctx.cache;
  if (!ctx.memo || !make_fragment_key(cache, s, compound)) {
    emit_fragment_plain(s, compound, compid, ctx);
    return;
  }
  FragmentTable& table = *ctx.table;
  std::uint64_t hash = 0;
  const int entry = find_cached(cache, hash);
  if (entry >= 0) {
    const int slot = cache.slot[entry];
    if (slot < 0) return;  // dropped by the type filter, as before
    // The slot still holds the copy it held when the entry was made.
    if (table.hashg[slot].g == cache.stored[entry] && table.hashg[slot].g >= 0) {
      count_in_slot(table, slot, compid);
      return;
    }
    emit_fragment_plain(s, compound, compid, ctx);
    return;
  }
  const int slot = emit_fragment_plain(s, compound, compid, ctx);
  add_cached(cache, hash, slot, slot < 0 ? -1 : table.hashg[slot].g);
}
