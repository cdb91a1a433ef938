// The graph record: adjacency building and comparison.
#include <gtest/gtest.h>

#include <random>

#include "graph/graph.h"
#include "support/process.h"

namespace {

Graph from_triples(int vs, std::vector<EdgeTriple> triples) {
  Graph g;
  g.vs = vs;
  g.es = static_cast<int>(triples.size());
  g.vid.resize(vs);
  for (int i = 0; i < vs; ++i) g.vid[i] = i;
  g.vl.assign(vs, 0);
  build_adjacency(triples, g);
  return g;
}

TEST(build_adjacency, any_triple_order_gives_the_same_arrays_and_isolated_vertices_keep_offsets) {
  std::vector<EdgeTriple> triples;
  for (auto [a, b, l] : std::vector<std::tuple<int, int, int>>{{0, 3, 1}, {3, 4, 0}, {0, 4, 2}, {4, 5, 1}})
    triples.insert(triples.end(), {{a, b, l}, {b, a, l}});
  Graph ref = from_triples(6, triples);
  EXPECT_EQ(ref.v, (std::vector<int>{0, 2, 2, 2, 4, 7, 8}));  // vertices 1 and 2 have no bonds
  EXPECT_EQ(ref.e, (std::vector<int>{3, 4, 0, 4, 0, 3, 5, 4}));  // neighbours ascending
  EXPECT_EQ(ref.el, (std::vector<int>{1, 2, 1, 0, 2, 0, 1, 1}));
  std::mt19937 rng(7);
  for (int round = 0; round < 20; ++round) {
    for (std::size_t i = triples.size() - 1; i > 0; --i) std::swap(triples[i], triples[rng() % (i + 1)]);
    Graph g = from_triples(6, triples);
    EXPECT_EQ(g.e, ref.e);
    EXPECT_EQ(g.el, ref.el);
    EXPECT_EQ(g.v, ref.v);
  }
}

TEST(build_adjacency, same_bond_twice_with_other_label_ends_the_run_and_no_bonds_is_fine) {
  EXPECT_EXIT_WITH_OUTPUT(from_triples(3, {{0, 1, 0}, {1, 0, 0}, {1, 0, 2}, {0, 1, 2}}), 1,
                          "^duplicated edges 0 0, 1 1\n$");
  EXPECT_EXIT_WITH_OUTPUT(from_triples(3, {{2, 1, 0}, {1, 2, 0}, {1, 2, 3}, {2, 1, 3}}), 1,
                          "^duplicated edges 1 1, 2 2\n$");
  EXPECT_EQ(from_triples(3, {}).v, (std::vector<int>{0, 0, 0, 0}));  // no bonds: zero offsets
}

TEST(compare_graphs, ignores_vid_vcell_ncell_but_not_labels) {
  Graph a = from_triples(3, {{0, 1, 1}, {1, 0, 1}, {1, 2, 0}, {2, 1, 0}});
  a.vcell.assign(3, 0);
  a.key = 17;
  Graph b = a;
  EXPECT_EQ(compare_graphs(a, b), 0);
  b.vid = {2, 1, 0};
  b.vcell = {0, 1, 2};
  b.ncell = 3;
  EXPECT_EQ(compare_graphs(a, b), 0);
  b.vl[2] = 4;
  EXPECT_NE(compare_graphs(a, b), 0);
  b = a;
  b.el[0] = b.el[1] = 2;
  EXPECT_NE(compare_graphs(a, b), 0);
  b = a;
  a.key = 5;
  b.key = 0xFFFFFFF0u;  // the 32-bit difference taken as signed: 5 - (-16) > 0
  EXPECT_EQ(compare_graphs(a, b), 1);
  EXPECT_EQ(compare_graphs(b, a), -1);
}

TEST(find_vertex_by_id, returns_the_first_match_or_ends_the_run) {
  Graph g;
  g.vs = 3;
  g.vid = {4, 7, 7};
  EXPECT_EQ(find_vertex_by_id(7, g), 1);
  EXPECT_EXIT_WITH_OUTPUT(find_vertex_by_id(-1, g), 1, "^graph lookup vid : can't find a vid in a graph -1\n$");
}

}  // namespace
