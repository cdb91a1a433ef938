// The labelling against digests of what its first, literal implementation
// wrote for the same graphs. The individualization search's result depends
// on the order refinement leaves and on every tie rule, so a change to the
// code that alters one decision shows up as a different vid (or code) on
// some renumbering of a graph with a large cell of equal vertices, and so as
// a different digest. Families: random trees and graphs, molecule-like trees
// with hydrogens, stars of 5-8 equal leaves, twin centres, all-hydrogen
// chains, graphs too large for the packed refinement keys, each freshly
// renumbered (std::mt19937 and libstdc++'s shuffle, so the sequence of
// graphs is fixed).
#include <gtest/gtest.h>

#include "support/graphs.h"

#include <algorithm>
#include <cstdint>
#include <random>
#include <utility>
#include <vector>

#include "canon/canon.h"
#include "canon/canon_internal.h"
#include "graph/graph.h"

namespace {

// What the literal implementation wrote, folded with fold() below.
constexpr std::uint64_t DIGEST_RANDOM = 14452134734528073910ull;
constexpr std::uint64_t DIGEST_MOLECULES = 121239900952989368ull;
constexpr std::uint64_t DIGEST_FAMILIES = 11303837243615714399ull;
constexpr std::uint64_t DIGEST_WIDE = 7559664228190630830ull;
constexpr std::uint64_t DIGEST_STEPS = 16989386350593691403ull;

using namespace testsupport;

// Heavy atoms in a random tree, each filled up with hydrogens (label 1);
// sometimes one atom carries 5 or 6 equal halogen-like leaves instead.
Shape molecule_like(std::mt19937& rng) {
  Shape s;
  const int heavy = 1 + draw(rng, 3);
  std::vector<int> free_valence;
  for (int k = 0; k < heavy; ++k) {
    s.labels.push_back(5 + draw(rng, 3));
    free_valence.push_back(4);
    if (k > 0) {
      const int parent = draw(rng, k);
      s.bonds.push_back({parent, k, draw(rng, 4) == 0 ? 1 : 0});
      --free_valence[parent];
      --free_valence[k];
    }
  }
  const int hyper = draw(rng, 3) == 0 ? draw(rng, heavy) : -1;
  for (int k = 0; k < heavy; ++k) {
    const int leaves = k == hyper ? 5 + draw(rng, 2) : std::max(0, free_valence[k] - draw(rng, 2));
    const int label = k == hyper ? 9 : 1;
    for (int j = 0; j < leaves && s.labels.size() < 12; ++j) {
      s.labels.push_back(label);
      s.bonds.push_back({k, static_cast<int>(s.labels.size()) - 1, 0});
    }
  }
  return s;
}

// `centres` atoms in a chain, each filled with hydrogens up to four bonds
// (ethane, propane).
Shape hydrogen_chain(int centres) {
  Shape s{std::vector<int>(centres, 6), {}};
  for (int k = 1; k < centres; ++k) s.bonds.push_back({k - 1, k, 0});
  for (int k = 0; k < centres; ++k) {
    const int h = 4 - (k > 0) - (k + 1 < centres);
    for (int j = 0; j < h; ++j) {
      s.labels.push_back(1);
      s.bonds.push_back({k, static_cast<int>(s.labels.size()) - 1, 0});
    }
  }
  return s;
}

// A tree of 33-40 vertices with one vertex of degree 10: too wide for the
// packed refinement keys, so the labelling takes its general comparisons.
// The hub's neighbours carry distinct labels except five equal leaves, which
// keeps a cell for the individualization search but the search small.
Shape wide_tree(std::mt19937& rng, bool five_equal) {
  const int n = 33 + draw(rng, 8);
  Shape s = random_shape(rng, n - 10, 40, 3, 3, 0);
  const int hub = draw(rng, n - 10);
  for (int j = 0; j < 10; ++j) {
    s.labels.push_back(five_equal && j < 5 ? 100 : 101 + j);
    s.bonds.push_back({hub, static_cast<int>(s.labels.size()) - 1, 0});
  }
  return s;
}

bool packed_keys(const Graph& g) {
  CanonState m;
  create_state(m, g.vs);
  load_graph(m, g);
  return m.packed;
}

int largest_cell(const Graph& g) {
  CanonState m;
  create_state(m, g.vs);
  load_graph(m, g);
  refine(m);
  int largest = 0;
  for (int c = 0; c < m.parts; ++c) largest = std::max(largest, m.part[c + 1] - m.part[c]);
  return largest;
}

void fold(std::uint64_t& digest, int value) {
  digest = (digest ^ static_cast<std::uint32_t>(value)) * 0x100000001b3ull;
}
void fold(std::uint64_t& digest, const std::vector<int>& values) {
  fold(digest, static_cast<int>(values.size()));
  for (int x : values) fold(digest, x);
}

// Labels g and folds every field the labelling writes into the digest.
void fold_labelling(std::uint64_t& digest, const Graph& g) {
  Graph got = g;
  canonical_label(got);
  for (int x : {got.vs, got.es, got.ncell, static_cast<int>(got.key)}) fold(digest, x);
  for (const std::vector<int>* a : {&got.v, &got.e, &got.el, &got.vl, &got.vid, &got.vcell}) fold(digest, *a);
}

std::vector<int> cells_of(const CanonState& m) {
  std::vector<int> fields(m.part.begin(), m.part.begin() + m.parts + 1);
  fields.push_back(m.parts);
  for (int k = 0; k < m.vs; ++k) fields.push_back(m.vtx[k].p);
  return fields;
}
std::vector<int> order_of(const CanonState& m) {
  std::vector<int> fields(m.perm.begin(), m.perm.begin() + m.vs);
  fields.insert(fields.end(), m.perm_inv.begin(), m.perm_inv.begin() + m.vs);
  return fields;
}

// Every field of the working record that refinement and the search read.
std::vector<int> search_fields(const CanonState& m) {
  std::vector<int> fields = order_of(m);
  const std::vector<int> cells = cells_of(m);
  fields.insert(fields.end(), cells.begin(), cells.end());
  fields.insert(fields.end(), m.newpart.begin(), m.newpart.begin() + m.newparts + 1);
  fields.push_back(m.newparts);
  for (int k = 0; k < m.vs; ++k) fields.push_back(m.vtx[k].P);
  return fields;
}

}  // namespace

TEST(LabellingReference, RandomTreesAndGraphsRenumbered) {
  std::mt19937 rng(20250611);
  std::uint64_t digest = 0;
  for (int round = 0; round < 2500; ++round) {
    const int n = 1 + draw(rng, 12);
    const Shape s = random_shape(rng, n, 1 + draw(rng, 3), 1 + draw(rng, 2), 2 + draw(rng, 5),
                                 draw(rng, 4) == 0 ? draw(rng, 3) : 0);
    fold_labelling(digest, renumbered(s, rng));
  }
  EXPECT_EQ(digest, DIGEST_RANDOM);
}

TEST(LabellingReference, MoleculeLikeTreesWithLargeCellsOfHydrogens) {
  std::mt19937 rng(20250612);
  std::uint64_t digest = 0;
  int individualized = 0;
  for (int round = 0; round < 300; ++round) {
    const Graph g = renumbered(molecule_like(rng), rng);
    fold_labelling(digest, g);
    individualized += largest_cell(g) >= SEARCH_CELL_LIMIT;
  }
  EXPECT_EQ(digest, DIGEST_MOLECULES);
  EXPECT_GT(individualized, 75);
}

TEST(LabellingReference, StarsTwinCentresAndHydrogenChainsInEveryFamily) {
  std::mt19937 rng(20250613);
  std::vector<std::pair<Shape, int>> shapes;  // shape, numberings tried
  for (int leaves = 5; leaves <= 7; ++leaves) {
    shapes.push_back({star(leaves, false), leaves == 7 ? 3 : 12});
    shapes.push_back({star(leaves, true), leaves == 7 ? 2 : 12});
  }
  shapes.push_back({star(8, false), 1});
  for (int leaves = 3; leaves <= 4; ++leaves)
    for (int label : {1, 6}) shapes.push_back({twin_centres(leaves, label), leaves == 4 ? 3 : 12});
  shapes.push_back({hydrogen_chain(2), 12});
  shapes.push_back({hydrogen_chain(3), 4});
  std::uint64_t digest = 0;
  for (const auto& [shape, numberings] : shapes)
    for (int k = 0; k < numberings; ++k) fold_labelling(digest, renumbered(shape, rng));
  EXPECT_EQ(digest, DIGEST_FAMILIES);
}

TEST(LabellingReference, GraphsTooWideForPackedKeysTakeTheGeneralComparisons) {
  std::mt19937 rng(20250614);
  std::uint64_t digest = 0;
  for (int round = 0; round < 20; ++round) {
    const Graph g = renumbered(wide_tree(rng, round % 2 == 0), rng);
    EXPECT_FALSE(packed_keys(g));
    fold_labelling(digest, g);
  }
  EXPECT_EQ(digest, DIGEST_WIDE);
  // The families above fit the packed keys.
  EXPECT_TRUE(packed_keys(renumbered(star(8, true), rng)));
  EXPECT_TRUE(packed_keys(renumbered(hydrogen_chain(3), rng)));
}

// Below the whole labelling: individualizing each vertex of the first open
// cell must leave the order and cells the literal steps left, and restoring
// the level must give back every field the search reads.
TEST(LabellingReference, IndividualizingAndRestoringLeaveWhatTheLiteralStepsLeave) {
  std::mt19937 rng(20250615);
  std::uint64_t digest = 0;
  for (int round = 0; round < 600; ++round) {
    const Shape s = round % 3 == 0 ? molecule_like(rng)
                                   : random_shape(rng, 2 + draw(rng, 10), 1 + draw(rng, 2), 1 + draw(rng, 2),
                                                  2 + draw(rng, 5), draw(rng, 2));
    const Graph g = renumbered(s, rng);
    CanonState m;
    create_state(m, g.vs);
    load_graph(m, g);
    refine(m);
    fold(digest, order_of(m));
    fold(digest, cells_of(m));
    int c = 0;
    while (c < m.parts && m.part[c + 1] - m.part[c] == 1) ++c;
    if (c == m.parts) continue;
    const std::vector<int> level = search_fields(m);
    std::vector<int> storage(3 * g.vs);
    const SaveArea save{storage.data(), storage.data() + g.vs, storage.data() + 2 * g.vs};
    for (int k = m.part[c]; k < m.part[c + 1]; ++k) {
      const int v = m.perm[k];
      individualize(m, v, save);
      fold(digest, order_of(m));
      fold(digest, cells_of(m));
      restore_level(m, save);
      ASSERT_EQ(search_fields(m), level) << "round " << round << " vertex " << v;
    }
  }
  EXPECT_EQ(digest, DIGEST_STEPS);
}
