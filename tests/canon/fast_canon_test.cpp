// The short route to the canonical form against the plain labelling, on many
// random fragments: both must write the same v, e, el, vl, key, ncell and
// vcell, and the short route must decline exactly the graphs it cannot take.
#include <gtest/gtest.h>

#include "support/graphs.h"

#include <random>
#include <tuple>
#include <vector>

#include "canon/canon.h"
#include "graph/graph.h"

namespace {

using namespace testsupport;

auto written_fields(const Graph& g) { return std::tie(g.v, g.e, g.el, g.vl, g.key, g.ncell, g.vcell); }

// Labels g both ways; returns whether the short route took it.
bool same_both_ways(const Graph& g) {
  Graph plain = g, fast = g;
  canonical_label(plain);
  const bool taken = canonical_label_fast(fast);
  if (!taken) {
    // Declined: the graph must be untouched, and the caller labels it plainly.
    EXPECT_TRUE(written_fields(fast) == written_fields(g));
    canonical_label(fast);
  }
  EXPECT_TRUE(written_fields(fast) == written_fields(plain));
  EXPECT_EQ(compare_graphs(fast, plain), 0);
  return taken;
}

}  // namespace

TEST(canonical_label_fast, agrees_with_the_plain_labelling_on_random_trees) {
  std::mt19937 rng(20240611);
  int taken = 0, declined = 0;
  for (int round = 0; round < 20000; ++round) {
    const int n = 1 + draw(rng, 12);
    const Graph g = renumbered(random_shape(rng, n, 1 + draw(rng, 3), 1 + draw(rng, 2), 2 + draw(rng, 5)), rng);
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
      EXPECT_EQ(same_both_ways(renumbered(star(leaves), rng)), leaves < SEARCH_CELL_LIMIT) << leaves << " leaves";
    }
    // 3 + 3 equal neighbours: one cell of six, declined.
    EXPECT_FALSE(same_both_ways(renumbered(twin_centres(3, 1), rng)));
    EXPECT_FALSE(same_both_ways(renumbered(twin_centres(3, 6), rng)));
  }
}

TEST(canonical_label_fast, a_chain_of_four_equal_atoms_takes_the_search) {
  // Refinement leaves two cells of two; the greatest code puts the end bonded
  // to position 0 at position 2.
  std::mt19937 rng(3);
  const Shape chain{{1, 1, 1, 1}, {{0, 1, 0}, {1, 2, 0}, {2, 3, 0}}};
  for (int round = 0; round < 20; ++round) EXPECT_TRUE(same_both_ways(renumbered(chain, rng)));
}
