// Canonical labelling: properties over random labelled trees checked against
// a brute force, and the short route against the labelling. The exact forms
// written (the greatest code the permutation search finds, every tie rule)
// are pinned by labelling_reference_test.cpp and the golden runs.
#include <gtest/gtest.h>

#include "support/graphs.h"

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "canon/canon.h"
#include "canon/canon_internal.h"
#include "graph/graph.h"
#include "reference/reference.h"
#include "table/table.h"

namespace {

using namespace testsupport;

Graph labelled(Graph g) {
  canonical_label(g);
  return g;
}

// The order refinement alone leaves, on a record of its own.
int largest_refined_cell(const Graph& g) {
  Labelling m;
  load(m, g);
  refine(m);
  return largest_cell(m);
}

constexpr std::uint32_t kSeed = 20240611;

Shape random_tree(std::mt19937& rng, int max_vertices, int vertex_labels, int bond_labels) {
  return random_shape(rng, 1 + draw(rng, max_vertices), vertex_labels, bond_labels, max_vertices);
}

// Greatest (labels, adjacency) encoding over all vertex orders: equal exactly
// for isomorphic labelled graphs.
std::vector<int> brute_form(const Graph& g) {
  std::vector<int> order(g.vs), best;
  for (int k = 0; k < g.vs; ++k) order[k] = k;
  do {
    std::vector<int> enc;
    for (int k = 0; k < g.vs; ++k) enc.push_back(g.vl[order[k]]);
    for (int a = 0; a < g.vs; ++a)
      for (int b = 0; b < g.vs; ++b) {
        int c = 0;
        for (int j = g.v[order[a]]; j < g.v[order[a] + 1]; ++j)
          if (g.e[j] == order[b]) c = g.el[j] + 1;
        enc.push_back(c);
      }
    if (enc > best) best = enc;
  } while (std::next_permutation(order.begin(), order.end()));
  return best;
}

}  // namespace

// Different forms for different graphs whatever the search; one form per
// class wherever the permutation search decides (its greatest code does not
// depend on the numbering).
TEST(canonical_label, small_trees_share_a_form_exactly_when_isomorphic) {
  std::mt19937 rng(kSeed + 1);
  struct Item {
    Graph form;
    std::vector<int> brute;
    bool permutation_path;
  };
  std::vector<Item> items;
  for (int k = 0; k < 400; ++k) {
    const Graph g = renumbered(random_tree(rng, 7, 2, 2), rng);
    items.push_back({labelled(g), brute_form(g), largest_refined_cell(g) < SEARCH_CELL_LIMIT});
  }
  int isomorphic_pairs = 0;
  for (std::size_t a = 0; a < items.size(); ++a)
    for (std::size_t b = a + 1; b < items.size(); ++b) {
      const bool iso = items[a].brute == items[b].brute;
      const bool same = same_form(items[a].form, items[b].form);
      isomorphic_pairs += iso;
      if (!iso) {
        EXPECT_FALSE(same) << "seed " << kSeed + 1 << " items " << a << ", " << b;
      } else if (items[a].permutation_path) {
        EXPECT_TRUE(same) << "seed " << kSeed + 1 << " items " << a << ", " << b;
      }
    }
  EXPECT_GT(isomorphic_pairs, 50);
}

namespace {

// The short route of the counter reads a SmallGraph; its order must give the
// form canonical_label writes, and it must decline exactly where a cell of
// SEARCH_CELL_LIMIT or more stays, leaving the graph as it was.
void expect_short_route_agrees(const Graph& g) {
  Graph plain = g, fast = g;
  canonical_label(plain);
  const bool small_cells = largest_refined_cell(g) < SEARCH_CELL_LIMIT;
  ASSERT_EQ(canonical_label_fast(fast), small_cells);
  EXPECT_TRUE(same_form(fast, small_cells ? plain : g));
  EXPECT_EQ(fast.vcell, small_cells ? plain.vcell : g.vcell);
  SmallGraph sg;
  sg.n = g.vs;
  for (int u = 0; u < g.vs; ++u) {
    sg.label[u] = g.vl[u];
    sg.deg[u] = g.v[u + 1] - g.v[u];
    for (int w = 0; w < g.vs; ++w) sg.adj[u][w] = 0;
    // Neighbour lists in any order.
    for (int j = g.v[u + 1] - 1; j >= g.v[u]; --j) {
      sg.nb[u][g.v[u + 1] - 1 - j] = g.e[j];
      sg.adj[u][g.e[j]] = g.el[j] + 1;
    }
  }
  int order[SMALL_GRAPH_VERTICES];
  ASSERT_EQ(canonical_order_fast(sg, order), small_cells);
  if (!small_cells) return;
  std::vector<int> position(g.vs);
  for (int k = 0; k < g.vs; ++k) position[order[k]] = k;
  std::vector<Bond> bonds;
  for (int u = 0; u < g.vs; ++u)
    for (int j = g.v[u]; j < g.v[u + 1]; ++j)
      if (g.e[j] > u) bonds.push_back({position[u], position[g.e[j]], g.el[j]});
  std::vector<int> labels(g.vs);
  for (int k = 0; k < g.vs; ++k) labels[k] = g.vl[order[k]];
  Graph read_in_order = make_graph(labels, bonds);
  read_in_order.key = compute_key(read_in_order);
  EXPECT_TRUE(same_form(read_in_order, plain));
}

}  // namespace

TEST(canonical_label_fast, agrees_with_the_labelling_and_declines_large_cells) {
  std::mt19937 rng(20240611);
  for (int round = 0; round < 3000 && !HasFailure(); ++round) {
    const int n = 1 + draw(rng, 12);
    expect_short_route_agrees(
        renumbered(random_shape(rng, n, 1 + draw(rng, 3), 1 + draw(rng, 2), 2 + draw(rng, 5)), rng));
    if (HasFailure()) ADD_FAILURE() << "round " << round;
  }
  for (int leaves = 1; leaves <= 7; ++leaves) expect_short_route_agrees(renumbered(star(leaves), rng));
  expect_short_route_agrees(renumbered(twin_centres(3, 1), rng));
}
