// Building the labelled graph record.
#include "graph/graph.h"

#include <algorithm>

#include "common/common.h"

void build_adjacency(std::span<EdgeTriple> triples, Graph& g) {
  TAVRIX_CHECK(static_cast<int>(triples.size()) == g.es);
  std::sort(triples.begin(), triples.end(), [](const EdgeTriple& a, const EdgeTriple& b) {
    if (a.u != b.u) return a.u < b.u;
    if (a.v != b.v) return a.v < b.v;
    return a.label < b.label;
  });
  for (int i = 0; i + 1 < g.es; ++i) {
    if (triples[i].u == triples[i + 1].u && triples[i].v == triples[i + 1].v)
      fatal_error(format_text("duplicated edges %d %d, %d %d\n", triples[i].u, triples[i + 1].u,
                              triples[i].v, triples[i + 1].v));
  }
  g.e.resize(g.es);
  g.el.resize(g.es);
  g.v.assign(g.vs + 1, 0);
  for (int j = 0; j < g.es; ++j) {
    g.e[j] = triples[j].v;
    g.el[j] = triples[j].label;
    ++g.v[triples[j].u];
  }
  // Counts to offsets: running sums shifted one place to the right.
  for (int i = 1; i < g.vs; ++i) g.v[i] += g.v[i - 1];
  for (int i = g.vs - 1; i >= 1; --i) g.v[i] = g.v[i - 1];
  g.v[0] = 0;
  g.v[g.vs] = g.es;
}

int find_vertex_by_id(int id, const Graph& g) {
  for (int i = 0; i < g.vs; ++i)
    if (g.vid[i] == id) return i;
  fatal_error(format_text("graph lookup vid : can't find a vid in a graph %d\n", id));
}
