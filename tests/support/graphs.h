// Test support: small labelled graphs written out by hand, and the random
// shapes the labelling suites renumber, drawn from the caller's std::mt19937.
#pragma once

#include <algorithm>
#include <random>
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

inline int draw(std::mt19937& rng, int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); }

// A graph given as labels and bonds, renumbered at random on every use.
struct Shape {
  std::vector<int> labels;
  std::vector<Bond> bonds;
};

inline Graph renumbered(const Shape& s, std::mt19937& rng) {
  std::vector<int> to(s.labels.size());
  for (std::size_t k = 0; k < to.size(); ++k) to[k] = static_cast<int>(k);
  std::shuffle(to.begin(), to.end(), rng);
  std::vector<int> labels(to.size());
  for (std::size_t k = 0; k < to.size(); ++k) labels[to[k]] = s.labels[k];
  std::vector<Bond> bonds;
  for (const Bond& b : s.bonds) bonds.push_back({to[b.u], to[b.w], b.label});
  return make_graph(labels, bonds);
}

// Random tree, degrees capped, labels from small alphabets so equal cells
// are common.
inline Shape random_shape(std::mt19937& rng, int n, int vlabels, int elabels, int max_degree) {
  Shape s;
  std::vector<int> degree(n, 0);
  for (int k = 0; k < n; ++k) s.labels.push_back(draw(rng, vlabels));
  for (int k = 1; k < n; ++k) {
    int parent = draw(rng, k);
    for (int tries = 0; degree[parent] >= max_degree && tries < 20; ++tries) parent = draw(rng, k);
    s.bonds.push_back({parent, k, draw(rng, elabels)});
    ++degree[parent];
    ++degree[k];
  }
  return s;
}

// A centre (label 6) with `leaves` equal leaves (label 1).
inline Shape star(int leaves) {
  Shape s{std::vector<int>(leaves + 1, 1), {}};
  s.labels[0] = 6;
  for (int k = 1; k <= leaves; ++k) s.bonds.push_back({0, k, 0});
  return s;
}

// Two bonded centres with `leaves` equal leaves each.
inline Shape twin_centres(int leaves, int leaf_label) {
  Shape s{{6, 6}, {{0, 1, 0}}};
  for (int c = 0; c < 2; ++c)
    for (int j = 0; j < leaves; ++j) {
      s.labels.push_back(leaf_label);
      s.bonds.push_back({c, static_cast<int>(s.labels.size()) - 1, 0});
    }
  return s;
}

}  // namespace testsupport
