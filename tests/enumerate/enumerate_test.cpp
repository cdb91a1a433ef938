// The plain subtree search the counting is compared against: its emission
// order on small cases, and a brute force over bond subsets for the sets
// themselves; the type filter.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>

#include "reference/reference.h"
#include "support/graphs.h"

namespace {

using Bonds = std::vector<std::pair<int, int>>;  // 1-based
using Sets = std::vector<Bonds>;

Graph make_graph(int vs, const Bonds& bonds, const std::vector<int>& labels = {}) {
  std::vector<testsupport::Bond> b;
  for (std::size_t k = 0; k < bonds.size(); ++k)
    b.push_back({bonds[k].first - 1, bonds[k].second - 1, labels.empty() ? 0 : labels[k]});
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

TEST(plain_subtrees, emit_in_the_include_exclude_order) {
  const Bonds path = {{1, 2}, {2, 3}, {3, 4}};
  EXPECT_EQ(emitted(make_graph(4, path), 1), (Sets{{{1, 2}}, {{2, 3}}, {{3, 4}}}));
  EXPECT_EQ(emitted(make_graph(4, path), 2), (Sets{{{1, 2}, {2, 3}}, {{2, 3}, {3, 4}}}));
  const Bonds star = {{1, 2}, {1, 3}, {1, 4}};
  EXPECT_EQ(emitted(make_graph(4, star), 2), (Sets{{{1, 2}, {1, 3}}, {{1, 2}, {1, 4}}, {{1, 3}, {1, 4}}}));
  const Bonds triangle = {{2, 3}, {1, 3}, {1, 2}};
  EXPECT_EQ(emitted(make_graph(3, triangle), 2), (Sets{{{1, 2}, {1, 3}}, {{1, 2}, {2, 3}}, {{1, 3}, {2, 3}}}));
  // Nothing for a cycle, length zero, no bonds or too few bonds.
  EXPECT_EQ(emitted(make_graph(3, triangle), 3), Sets{});
  EXPECT_EQ(emitted(make_graph(4, {{1, 2}, {2, 3}}), 0), Sets{});
  EXPECT_EQ(emitted(make_graph(3, {}), 1), Sets{});
  EXPECT_EQ(emitted(make_graph(4, {{1, 2}, {2, 3}}), 3), Sets{});
  const Bonds ring = {{1, 2}, {2, 3}, {3, 4}, {4, 1}};
  EXPECT_EQ(emitted(make_graph(4, ring), 3), (Sets{{{1, 2}, {1, 4}, {2, 3}},
                                                   {{1, 2}, {1, 4}, {3, 4}},
                                                   {{1, 2}, {2, 3}, {3, 4}},
                                                   {{1, 4}, {3, 4}, {2, 3}}}));
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

// Occurrences the plain run counts of one length and type in one compound.
int occurrences(const Graph& g, int length, int opt) {
  const PlainRun run = plain_run({g}, opt, length, length, 1);
  int n = 0;
  for (const auto& [descriptor, count] : run.rows[0]) n += count;
  return n;
}

TEST(plain_run, type_filter_keeps_trees_or_paths) {
  const Graph star = make_graph(4, {{1, 2}, {1, 3}, {1, 4}});
  const Graph chain = make_graph(4, {{1, 2}, {2, 3}, {3, 4}});
  EXPECT_EQ(occurrences(star, 3, 1), 1);
  EXPECT_EQ(occurrences(star, 3, 2), 1);
  EXPECT_EQ(occurrences(star, 3, 3), 0);
  EXPECT_EQ(occurrences(chain, 3, 1), 1);
  EXPECT_EQ(occurrences(chain, 3, 2), 0);
  EXPECT_EQ(occurrences(chain, 3, 3), 1);
  for (int t : {1, 2}) EXPECT_EQ(occurrences(star, t, 2), 0) << "trees need three bonds on one atom";
  EXPECT_EQ(occurrences(star, 2, 3), 3);
}

}  // namespace
