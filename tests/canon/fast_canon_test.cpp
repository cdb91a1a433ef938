// The short route to the canonical form against the plain labelling, on many
// random fragments: both must write the same v, e, el, vl, key, ncell and
// vcell, and the short route must decline exactly the graphs it cannot take.
#include <gtest/gtest.h>

#include "support/graphs.h"

#include <random>
#include <vector>

#include "canon/canon.h"
#include "graph/graph.h"

namespace {

using testsupport::Bond;
using testsupport::make_graph;

// A random tree on n vertices whose numbering is shuffled, with labels drawn
// from small alphabets so that equal cells are common.
Graph random_tree(std::mt19937& rng, int n, int vlabels, int elabels, int max_degree) {
  std::vector<int> name(n);
  for (int k = 0; k < n; ++k) name[k] = k;
  std::shuffle(name.begin(), name.end(), rng);
  std::vector<int> labels(n), degree(n, 0);
  for (int& l : labels) l = static_cast<int>(rng() % vlabels);
  std::vector<Bond> bonds;
  for (int k = 1; k < n; ++k) {
    int parent = static_cast<int>(rng() % k);
    for (int tries = 0; degree[parent] >= max_degree && tries < 20; ++tries) parent = static_cast<int>(rng() % k);
    ++degree[parent];
    ++degree[k];
    bonds.push_back({name[parent], name[k], static_cast<int>(rng() % elabels)});
  }
  std::vector<int> named(n);
  for (int k = 0; k < n; ++k) named[name[k]] = labels[k];
  return make_graph(named, bonds);
}

// A centre with `leaves` equal leaves, numbered in a shuffled order.
Graph star(std::mt19937& rng, int leaves) {
  std::vector<int> name(leaves + 1);
  for (int k = 0; k <= leaves; ++k) name[k] = k;
  std::shuffle(name.begin(), name.end(), rng);
  std::vector<int> labels(leaves + 1, 1);
  labels[name[0]] = 6;
  std::vector<Bond> bonds;
  for (int k = 1; k <= leaves; ++k) bonds.push_back({name[0], name[k], 0});
  return make_graph(labels, bonds);
}

// Two bonded centres with three equal neighbours each.
Graph two_centres(std::mt19937& rng, int neighbour_label) {
  std::vector<int> name(8);
  for (int k = 0; k < 8; ++k) name[k] = k;
  std::shuffle(name.begin(), name.end(), rng);
  std::vector<int> labels(8, neighbour_label);
  labels[name[0]] = labels[name[1]] = 6;
  std::vector<Bond> bonds{{name[0], name[1], 0}};
  for (int k = 2; k < 5; ++k) bonds.push_back({name[0], name[k], 0});
  for (int k = 5; k < 8; ++k) bonds.push_back({name[1], name[k], 0});
  return make_graph(labels, bonds);
}

// Labels g both ways; returns whether the short route took it.
bool same_both_ways(const Graph& g) {
  Graph plain = g, fast = g;
  canonical_label(plain);
  const bool taken = canonical_label_fast(fast);
  if (!taken) {
    // Declined: the graph must be untouched, and the caller labels it plainly.
    EXPECT_EQ(fast.v, g.v);
    EXPECT_EQ(fast.e, g.e);
    EXPECT_EQ(fast.el, g.el);
    EXPECT_EQ(fast.vl, g.vl);
    canonical_label(fast);
  }
  EXPECT_EQ(fast.v, plain.v);
  EXPECT_EQ(fast.e, plain.e);
  EXPECT_EQ(fast.el, plain.el);
  EXPECT_EQ(fast.vl, plain.vl);
  EXPECT_EQ(fast.key, plain.key);
  EXPECT_EQ(fast.ncell, plain.ncell);
  EXPECT_EQ(fast.vcell, plain.vcell);
  EXPECT_EQ(compare_graphs(fast, plain), 0);
  return taken;
}

}  // namespace

TEST(canonical_label_fast, agrees_with_the_plain_labelling_on_random_trees) {
  std::mt19937 rng(20240611);
  int taken = 0, declined = 0;
  for (int round = 0; round < 20000; ++round) {
    const int n = 1 + static_cast<int>(rng() % 12);
    const int vlabels = 1 + static_cast<int>(rng() % 3);
    const int elabels = 1 + static_cast<int>(rng() % 2);
    const int max_degree = 2 + static_cast<int>(rng() % 5);
    const Graph g = random_tree(rng, n, vlabels, elabels, max_degree);
    (same_both_ways(g) ? taken : declined) += 1;
    if (HasFailure()) {
      ADD_FAILURE() << "round " << round << ", " << n << " vertices";
      return;
    }
  }
  // Both routes must have been exercised.
  EXPECT_GT(taken, 1000);
  EXPECT_GT(declined, 10);
}

TEST(canonical_label_fast, stars_and_twin_centres_with_large_equal_cells) {
  std::mt19937 rng(7);
  for (int round = 0; round < 50; ++round) {
    for (int leaves = 1; leaves <= 7; ++leaves) {
      // Five or more equal leaves make a cell the short route must decline.
      EXPECT_EQ(same_both_ways(star(rng, leaves)), leaves < SEARCH_CELL_LIMIT) << leaves << " leaves";
    }
    // 3 + 3 equal neighbours: one cell of six, declined.
    EXPECT_FALSE(same_both_ways(two_centres(rng, 1)));
    EXPECT_FALSE(same_both_ways(two_centres(rng, 6)));
  }
}

TEST(canonical_label_fast, a_chain_of_four_equal_atoms_takes_the_search) {
  // Refinement leaves two cells of two; the greatest code puts the end bonded
  // to position 0 at position 2.
  std::mt19937 rng(3);
  for (int round = 0; round < 20; ++round) {
    std::vector<int> name{0, 1, 2, 3};
    std::shuffle(name.begin(), name.end(), rng);
    const Graph g = make_graph({1, 1, 1, 1}, {{name[0], name[1], 0}, {name[1], name[2], 0}, {name[2], name[3], 0}});
    EXPECT_TRUE(same_both_ways(g));
  }
}
