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
// are common; `extra` more bonds between unbonded pairs close cycles.
inline Shape random_shape(std::mt19937& rng, int n, int vlabels, int elabels, int max_degree, int extra = 0) {
  Shape s;
  std::vector<int> degree(n, 0);
  for (int k = 0; k < n; ++k) s.labels.push_back(draw(rng, vlabels));
  std::vector<std::vector<bool>> bonded(n, std::vector<bool>(n, false));
  auto bond = [&](int a, int b) {
    s.bonds.push_back({a, b, draw(rng, elabels)});
    bonded[a][b] = bonded[b][a] = true;
    ++degree[a];
    ++degree[b];
  };
  for (int k = 1; k < n; ++k) {
    int parent = draw(rng, k);
    for (int tries = 0; degree[parent] >= max_degree && tries < 20; ++tries) parent = draw(rng, k);
    bond(parent, k);
  }
  for (int k = 0; k < extra && n > 2; ++k) {
    const int a = draw(rng, n), b = draw(rng, n);
    if (a != b && !bonded[a][b]) bond(a, b);
  }
  return s;
}

// A centre (label 6) with `leaves` equal leaves (label 1), and optionally a
// two-atom arm.
inline Shape star(int leaves, bool arm = false) {
  Shape s{std::vector<int>(leaves + 1, 1), {}};
  s.labels[0] = 6;
  for (int k = 1; k <= leaves; ++k) s.bonds.push_back({0, k, 0});
  if (arm) {
    s.labels.push_back(5);
    s.labels.push_back(1);
    s.bonds.push_back({0, leaves + 1, 0});
    s.bonds.push_back({leaves + 1, leaves + 2, 0});
  }
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
