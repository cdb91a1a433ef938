// From a bond set to its fragment graph.
#include <algorithm>
#include <cstdint>

#include "common/common.h"
#include "enumerate/enumerate.h"

namespace {

// The edge label of bond i of the set in the compound.
int bond_label(const EdgeSet& s, int i, const Graph& compound) {
  const int a = s.edge[i].first - 1, b = s.edge[i].second - 1;
  const int low = std::min(a, b), high = std::max(a, b);
  TAVRIX_CHECK(low >= 0 && high < compound.vs && compound.vid[low] == low);
  for (int j = compound.v[low]; j < compound.v[low + 1]; ++j)
    if (compound.e[j] == high) return compound.el[j];
  internal_error("bond of the set is in the compound", __FILE_NAME__, __LINE__);
}

// Grow-only scratch, one per thread: fragments arrive by the million and are tiny.
thread_local std::vector<EdgeTriple> fragment_triples;

}  // namespace

void fill_fragment_graph(const EdgeSet& s, const Graph& compound, Graph& f, std::vector<int>& vertices) {
  TAVRIX_CHECK(s.size >= 1);
  vertices.clear();
  for (int i = 0; i < s.size; ++i) {
    TAVRIX_CHECK(s.edge[i].first >= 1 && s.edge[i].first <= compound.vs);
    TAVRIX_CHECK(s.edge[i].second >= 1 && s.edge[i].second <= compound.vs);
    vertices.push_back(s.edge[i].first - 1);
    vertices.push_back(s.edge[i].second - 1);
  }
  // Fragment vertices are numbered in ascending compound order.
  std::sort(vertices.begin(), vertices.end());
  vertices.erase(std::unique(vertices.begin(), vertices.end()), vertices.end());
  auto map = [&](int x) {
    return static_cast<int>(std::lower_bound(vertices.begin(), vertices.end(), x) - vertices.begin());
  };
  f.vs = static_cast<int>(vertices.size());
  f.es = 2 * s.size;
  f.ncell = 0;
  f.key = 0;
  f.vid.resize(f.vs);
  f.vl.resize(f.vs);
  f.vcell.assign(f.vs, 0);
  for (int k = 0; k < f.vs; ++k) {
    f.vid[k] = k;
    f.vl[k] = compound.vl[vertices[k]];
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
