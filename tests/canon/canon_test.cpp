// Canonical labelling: the worked examples, the search steps, and properties
// over random labelled trees checked against a brute force.
#include <gtest/gtest.h>

#include "support/graphs.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <random>
#include <vector>

#include "canon/canon.h"
#include "canon/canon_internal.h"
#include "graph/graph.h"
#include "table/table.h"

namespace {

using namespace testsupport;

Graph labelled(Graph g) {
  canonical_label(g);
  return g;
}

bool same_form(const Graph& a, const Graph& b) {
  return a.vs == b.vs && a.es == b.es && a.v == b.v && a.e == b.e && a.el == b.el && a.vl == b.vl &&
         a.key == b.key;
}

// The order refinement alone leaves, on a record of its own.
std::vector<int> refined_order(const Graph& g, int* largest = nullptr) {
  Labelling m;
  load(m, g);
  refine(m);
  if (largest) *largest = largest_cell(m);
  return std::vector<int>(m.perm.begin(), m.perm.begin() + m.n);
}

bool bonded(const Graph& g, int a, int b) {
  for (int j = g.v[a]; j < g.v[a + 1]; ++j)
    if (g.e[j] == b) return true;
  return false;
}

Graph star_at(int leaves, int centre) {
  std::vector<Bond> bonds;
  for (int k = 0; k <= leaves; ++k)
    if (k != centre) bonds.push_back({centre, k, 0});
  return make_graph(std::vector<int>(leaves + 1, 3), bonds);
}

// The result must be the input with its vertices reordered as vid says.
void expect_relabelling_of(const Graph& input, const Graph& g) {
  std::vector<int> seen(input.vs, 0);
  for (int k = 0; k < g.vs; ++k) {
    ASSERT_EQ(seen[g.vid[k]]++, 0);
    EXPECT_EQ(g.vl[k], input.vl[g.vid[k]]);
    for (int j = g.v[k]; j < g.v[k + 1]; ++j) {
      const int a = g.vid[k], b = g.vid[g.e[j]];
      bool found = false;
      for (int i = input.v[a]; i < input.v[a + 1]; ++i) found |= input.e[i] == b && input.el[i] == g.el[j];
      EXPECT_TRUE(found);
    }
  }
  EXPECT_EQ(g.es, input.es);
  EXPECT_EQ(g.key, compute_key(g));
}

}  // namespace

TEST(CanonExamples, WorkedExamplesGiveTheirOrderCodeAndCells) {
  struct Example {
    const char* what;
    Graph input;
    std::vector<int> vid;  // empty: several orders give the form
    std::vector<int> e;    // empty: not pinned
    int ncell;
    std::vector<int> vcell;
  };
  const Example examples[] = {
      {"two bonded vertices: the lower label first", make_graph({5, 2}, {{0, 1, 0}}), {1, 0}, {1, 0}, 2, {0, 1}},
      {"one vertex stays as it is", make_graph({7}, {}), {0}, {}, 1, {0}},
      // Code rows [1], [1, 0], [0, 1, 0]: the end bonded to position 0 goes to position 2.
      {"four-chain", make_graph({4, 4, 4, 4}, {{0, 1, 0}, {1, 2, 0}, {2, 3, 0}}), {}, {1, 2, 0, 3, 0, 1}, 2,
       {0, 0, 1, 1}},
      {"four-chain, ends swapped", make_graph({4, 4, 4, 4}, {{3, 0, 0}, {0, 2, 0}, {2, 1, 0}}), {},
       {1, 2, 0, 3, 0, 1}, 2, {0, 0, 1, 1}},
      // The tie rule moves the centre to the front by exchanging it with
      // vertex 0, so the leaves stand as 1, 0, 3, 4: refinement's order kept.
      {"star of four leaves", star_at(4, 2), {2, 1, 0, 3, 4}, {}, 2, {}},
      // Five equal leaves take the individualization search, which keeps the
      // refinement order; ncell is the leaf's discrete partition, vcell the
      // cells of refinement.
      {"star of five leaves", star_at(5, 2), {2, 1, 0, 3, 4, 5}, {}, 6, {0, 1, 1, 1, 1, 1}},
  };
  for (const Example& x : examples) {
    SCOPED_TRACE(x.what);
    const Graph g = labelled(x.input);
    expect_relabelling_of(x.input, g);
    EXPECT_TRUE(x.vid.empty() || g.vid == x.vid) << testing::PrintToString(g.vid);
    EXPECT_TRUE(x.e.empty() || g.e == x.e) << testing::PrintToString(g.e);
    EXPECT_EQ(g.ncell, x.ncell);
    EXPECT_TRUE(x.vcell.empty() || g.vcell == x.vcell) << testing::PrintToString(g.vcell);
  }
}

TEST(CanonExamples, TwoCentresPutTheIndividualizedCentreAndItsNeighboursFirst) {
  // Centres 5 and 2, scrambled among their neighbours.
  const Graph input = make_graph(std::vector<int>(8, 1), {{5, 2, 0}, {5, 0, 0}, {5, 7, 0}, {5, 3, 0},
                                                          {2, 1, 0}, {2, 4, 0}, {2, 6, 0}});
  const std::vector<int> order = refined_order(input);
  ASSERT_EQ(std::min(order[0], order[1]), 2);
  ASSERT_EQ(std::max(order[0], order[1]), 5);
  const Graph g = labelled(input);
  EXPECT_EQ(g.vid[0], order[0]);
  EXPECT_EQ(g.vid[1], order[1]);
  for (int k = 2; k < 5; ++k) EXPECT_TRUE(bonded(input, g.vid[0], g.vid[k])) << k;
  for (int k = 5; k < 8; ++k) EXPECT_TRUE(bonded(input, g.vid[1], g.vid[k])) << k;
  EXPECT_EQ(g.ncell, 8);
  EXPECT_EQ(g.vcell, (std::vector<int>{0, 0, 1, 1, 1, 1, 1, 1}));
}

TEST(CanonExamples, BondLabelsDecideWhetherTwoChainsAreTheSameFragment) {
  const Graph a = labelled(make_graph({1, 1, 2}, {{0, 1, 0}, {1, 2, 1}}));
  const Graph b = labelled(make_graph({1, 1, 2}, {{0, 1, 1}, {1, 2, 0}}));
  EXPECT_NE(compare_graphs(a, b), 0);
  const Graph c = labelled(make_graph({2, 1, 2}, {{0, 1, 0}, {1, 2, 1}}));
  const Graph d = labelled(make_graph({2, 1, 2}, {{0, 1, 1}, {1, 2, 0}}));
  EXPECT_EQ(compare_graphs(c, d), 0);
}

TEST(CanonSteps, RefinementSplitsChainsByTheirNeighboursCells) {
  // Three-chain: the middle alone in the first cell, the ends together.
  // Four-chain with one odd end: first {middles}, {end 1}, {end 2}; the
  // second pass tells the middles apart by their neighbours' cells.
  struct Case {
    Graph input;
    int parts;
    std::vector<int> perm, p;  // p: each vertex's cell, by where it starts
  };
  const Case cases[] = {
      {make_graph({1, 1, 1}, {{0, 1, 0}, {1, 2, 0}}), 2, {1}, {1, 0, 1}},
      {make_graph({1, 1, 1, 2}, {{0, 1, 0}, {1, 2, 0}, {2, 3, 0}}), 4, {1, 2, 0, 3}, {2, 0, 1, 3}},
  };
  for (const Case& c : cases) {
    Labelling m;
    load(m, c.input);
    refine(m);
    EXPECT_EQ(m.parts, c.parts);
    EXPECT_EQ(std::vector<int>(m.perm.begin(), m.perm.begin() + c.perm.size()), c.perm);
    for (int k = 0; k < c.input.vs; ++k) EXPECT_EQ(m.p[k], c.p[k]) << k;
  }
}

// ---- Random trees -----------------------------------------------------------

namespace {

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

TEST(CanonProperties, RenumberedTreesGetOneFormWheneverThePermutationSearchSuffices) {
  std::mt19937 rng(kSeed);
  int checked = 0;
  for (int round = 0; round < 400; ++round) {
    const Shape t = random_tree(rng, 8, 3, 2);
    const Graph first = renumbered(t, rng);
    int largest = 0;
    refined_order(first, &largest);
    const Graph form = labelled(first);
    expect_relabelling_of(first, form);
    if (largest >= SEARCH_CELL_LIMIT) continue;
    ++checked;
    for (int again = 0; again < 5; ++again) {
      const Graph other = renumbered(t, rng);
      const Graph g = labelled(other);
      expect_relabelling_of(other, g);
      ASSERT_TRUE(same_form(form, g)) << "seed " << kSeed << " round " << round;
    }
  }
  EXPECT_GT(checked, 300);
}

TEST(CanonProperties, SmallTreesShareAFormExactlyWhenIsomorphic) {
  std::mt19937 rng(kSeed + 1);
  struct Item {
    Graph form;
    std::vector<int> brute;
    bool permutation_path;
  };
  std::vector<Item> items;
  for (int k = 0; k < 250; ++k) {
    const Graph g = renumbered(random_tree(rng, 6, 2, 2), rng);
    int largest = 0;
    refined_order(g, &largest);
    items.push_back({labelled(g), brute_form(g), largest < SEARCH_CELL_LIMIT});
  }
  int isomorphic_pairs = 0;
  for (std::size_t a = 0; a < items.size(); ++a)
    for (std::size_t b = a + 1; b < items.size(); ++b) {
      const bool iso = items[a].brute == items[b].brute;
      const bool same = compare_graphs(items[a].form, items[b].form) == 0;
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

// Lower triangle, row by row, of the code matrix in the order given.
std::vector<int> code_in_order(const Graph& g, const std::vector<int>& order) {
  std::vector<int> code;
  for (int i = 1; i < g.vs; ++i)
    for (int j = 0; j < i; ++j) {
      int c = 0;
      for (int k = g.v[order[i]]; k < g.v[order[i] + 1]; ++k)
        if (g.e[k] == order[j]) c = g.el[k] + 1;
      code.push_back(c);
    }
  return code;
}

// Greatest code over every order that keeps each vertex within its cell.
std::vector<int> greatest_code_within_cells(const Graph& g, std::vector<int> order, const std::vector<int>& part,
                                            int cell) {
  if (cell + 1 >= static_cast<int>(part.size())) return code_in_order(g, order);
  std::sort(order.begin() + part[cell], order.begin() + part[cell + 1]);
  std::vector<int> best;
  do {
    best = std::max(best, greatest_code_within_cells(g, order, part, cell + 1));
  } while (std::next_permutation(order.begin() + part[cell], order.begin() + part[cell + 1]));
  return best;
}

}  // namespace

TEST(CanonProperties, ThePermutationSearchFindsTheGreatestCodeWithinTheCells) {
  std::mt19937 rng(kSeed + 2);
  for (int round = 0; round < 300; ++round) {
    const Graph g = renumbered(random_tree(rng, 8, 2, 2), rng);
    Labelling m;
    load(m, g);
    refine(m);
    std::vector<int> part(m.part.begin(), m.part.begin() + m.parts + 1);
    if (largest_cell(m) >= SEARCH_CELL_LIMIT) continue;
    const std::vector<int> order(m.perm.begin(), m.perm.begin() + g.vs);
    const Graph form = labelled(g);
    std::vector<int> identity(g.vs);
    for (int k = 0; k < g.vs; ++k) identity[k] = k;
    ASSERT_EQ(code_in_order(form, identity), greatest_code_within_cells(g, order, part, 0))
        << "seed " << kSeed + 2 << " round " << round;
  }
}

// ---- The short route ----------------------------------------------------------

namespace {

// The short route of the counter reads a SmallGraph; its order must give the
// form canonical_label writes, and it must decline exactly where a cell of
// SEARCH_CELL_LIMIT or more stays, leaving the graph as it was.
void expect_short_route_agrees(const Graph& g) {
  Graph plain = g, fast = g;
  canonical_label(plain);
  int largest = 0;
  refined_order(g, &largest);
  const bool small_cells = largest < SEARCH_CELL_LIMIT;
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

TEST(CanonShortRoute, AgreesWithTheLabellingAndDeclinesLargeCells) {
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
