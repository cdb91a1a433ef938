// Test support: small labelled graphs written out by hand.
#pragma once

#include <vector>

#include "graph/graph.h"

namespace testsupport {

struct Bond {
  int u, w, label;  // 0-based ends and the edge label
};

// A fragment-like graph: identity vid, a vcell array, adjacency from the bonds.
inline Graph make_graph(const std::vector<int>& labels, const std::vector<Bond>& bonds) {
  Graph g;
  g.vs = static_cast<int>(labels.size());
  g.es = 2 * static_cast<int>(bonds.size());
  g.vl = labels;
  g.vid.resize(g.vs);
  for (int k = 0; k < g.vs; ++k) g.vid[k] = k;
  g.vcell.assign(g.vs, 0);
  std::vector<EdgeTriple> triples;
  for (const Bond& b : bonds) {
    triples.push_back({b.u, b.w, b.label});
    triples.push_back({b.w, b.u, b.label});
  }
  build_adjacency(triples, g);
  return g;
}

}  // namespace testsupport
