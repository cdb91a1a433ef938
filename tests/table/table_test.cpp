// The fragment key and the slots it claims.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "graph/graph.h"
#include "support/graphs.h"
#include "table/table.h"

using testsupport::make_graph;

TEST(compute_key, matches_the_known_vectors_and_wraps_at_the_table_size) {
  const Graph a = make_graph({0, 0}, {{0, 1, 1}});
  EXPECT_EQ(compute_key(a), 3746995630u);
  EXPECT_EQ(home_slot(compute_key(a)), 1595630);
  const Graph b = make_graph({0, 1, 0}, {{0, 1, 1}, {1, 2, 1}});
  EXPECT_EQ(compute_key(b), 330189595u);
  EXPECT_EQ(home_slot(compute_key(b)), 789595);
  // Vertex label 200: its low byte 0xc8 adds -56; read unsigned it would
  // give 2175701738.
  EXPECT_EQ(compute_key(make_graph({200}, {})), 1667863054u);
  EXPECT_EQ(home_slot(HASHTBL_SIZE), 0);
  EXPECT_EQ(home_slot(HASHTBL_SIZE + 5), 5);
}

TEST(slot_occupancy, a_full_table_ends_the_run_with_its_message) {
  SlotOccupancy taken;
  create_occupancy(taken);
  for (int k = 0; k < HASHTBL_SIZE; ++k) ASSERT_EQ(claim_slot(taken, static_cast<std::uint32_t>(k)), k);
  EXPECT_EXIT(claim_slot(taken, 12345), testing::ExitedWithCode(1), "");
}
