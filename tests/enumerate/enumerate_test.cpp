// The plain subtree search the counting is compared against, against a
// brute force over bond subsets. Its order of emission, which decides the
// ids, is checked by the comparison of the counting with the plain run and
// by the golden runs.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>

#include "reference/reference.h"
#include "support/graphs.h"

namespace {

using Bonds = std::vector<std::pair<int, int>>;  // 1-based
using Sets = std::vector<Bonds>;

Graph make_graph(int vs, const Bonds& bonds) {
  std::vector<testsupport::Bond> b;
  for (const auto& [u, w] : bonds) b.push_back({u - 1, w - 1, 0});
  return testsupport::make_graph(std::vector<int>(vs, 0), b);
}

Sets emitted(const Graph& g, int threshold) {
  Sets out;
  plain_subtrees(g, threshold, [&](const EdgeSet& s) { out.emplace_back(s.edge.begin(), s.edge.begin() + s.size); });
  return out;
}

// Every connected acyclic subset of `threshold` bonds, as sorted bond lists.
std::set<Bonds> brute_force(int vs, const Bonds& bonds, int threshold) {
  std::set<Bonds> found;
  const int m = static_cast<int>(bonds.size());
  for (std::uint32_t mask = 0; mask < (1u << m); ++mask) {
    if (std::popcount(mask) != threshold) continue;
    std::vector<int> parent(vs);
    for (int i = 0; i < vs; ++i) parent[i] = i;
    auto find = [&](int x) { while (parent[x] != x) x = parent[x] = parent[parent[x]]; return x; };
    bool acyclic = true;
    std::set<int> vertices;
    Bonds chosen;
    for (int b = 0; b < m; ++b) {
      if (!(mask >> b & 1)) continue;
      int x = find(bonds[b].first - 1), y = find(bonds[b].second - 1);
      if (x == y) acyclic = false;
      parent[x] = y;
      vertices.insert(bonds[b].first);
      vertices.insert(bonds[b].second);
      chosen.push_back(std::minmax(bonds[b].first, bonds[b].second));
    }
    // A forest with one more vertex than bonds is a single tree.
    if (acyclic && static_cast<int>(vertices.size()) == threshold + 1) {
      std::sort(chosen.begin(), chosen.end());
      found.insert(chosen);
    }
  }
  return found;
}

// Random graphs: rings, fused rings, branches and several components.
Bonds random_bonds(std::mt19937& rng, int vs, int m) {
  std::set<std::pair<int, int>> bonds;
  for (int v = 2; v <= vs; ++v)  // a spanning forest first, so most graphs hang together
    if (rng() % 5 != 0) bonds.insert({static_cast<int>(rng() % (v - 1)) + 1, v});
  int guard = 0;
  while (static_cast<int>(bonds.size()) < m && ++guard < 1000) {
    int a = rng() % vs + 1, b = rng() % vs + 1;
    if (a != b) bonds.insert(std::minmax(a, b));
  }
  Bonds out(bonds.begin(), bonds.end());
  for (std::size_t i = out.size() - 1; i > 0; --i) std::swap(out[i], out[rng() % (i + 1)]);
  return out;
}

TEST(plain_subtrees, emit_each_connected_acyclic_set_once_on_random_graphs) {
  const std::uint32_t seed = 20261123;
  std::mt19937 rng(seed);
  for (int round = 0; round < 300; ++round) {
    const int vs = 2 + rng() % 10;
    const int m = std::min<int>(vs * (vs - 1) / 2, 1 + rng() % 12);
    const Bonds bonds = random_bonds(rng, vs, m);
    const Graph g = make_graph(vs, bonds);
    for (int t = 1; t <= static_cast<int>(bonds.size()) + 1; ++t) {
      Sets got = emitted(g, t);
      std::set<Bonds> as_sets;
      for (Bonds b : got) {
        std::sort(b.begin(), b.end());
        as_sets.insert(b);
      }
      ASSERT_EQ(as_sets.size(), got.size()) << "a set emitted twice, round " << round;
      ASSERT_EQ(as_sets, brute_force(vs, bonds, t)) << "seed " << seed << " round " << round << " t " << t;
    }
  }
}

}  // namespace
