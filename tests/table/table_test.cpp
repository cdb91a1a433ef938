// Fragment table: the hash key, probing, support counting and occurrence lists.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "graph/graph.h"
#include "support/graphs.h"
#include "table/table.h"

namespace {

using testsupport::make_graph;

// A one-bond fragment told apart by its first label, with a key chosen by the
// test (insertion reads only the key and compares graphs).
Graph bond_with_key(int label, std::uint32_t key) {
  Graph g = make_graph({label, 9}, {{0, 1, 0}});
  g.key = key;
  return g;
}

// The table is large: one is kept for the suite and emptied before each test.
class FragmentTableTest : public ::testing::Test {
 protected:
  void SetUp() override {
    create_table(shared_);
    shared_.total = 0;
    shared_.threshold = 1;
    create_occurrence_lists(shared_, 3);
  }
  FragmentTable& t = shared_;
  static inline FragmentTable shared_;
};

}  // namespace

TEST(FragmentKey, MatchesTheKnownVectorsAndWrapsAtTheTableSize) {
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

// Repeats within a compound count occurrences; support counts compounds.
TEST_F(FragmentTableTest, FirstInsertionIssuesIdOneAndRepeatsCountSupportOncePerCompound) {
  const Graph g = bond_with_key(1, 77);
  insert_fragment(t, g, 0);
  const HashEntry& slot = t.hashg[77];
  EXPECT_EQ(slot.occupied, 1);
  EXPECT_EQ(slot.id, 1);
  EXPECT_EQ(slot.support, 1);
  ASSERT_EQ(slot.g, 0);
  EXPECT_EQ(compare_graphs(t.stored[0], g), 0);
  EXPECT_EQ(t.csr[0][0].id, 1);
  insert_fragment(t, g, 0);
  EXPECT_EQ(slot.support, 1);
  EXPECT_EQ(t.csr[0][0].count, 2);
  EXPECT_EQ(t.csrcount[0].size, 1);
  insert_fragment(t, g, 2);
  EXPECT_EQ(slot.support, 2);
  EXPECT_EQ(t.csr[2][0].id, 1);
  EXPECT_EQ(t.csr[2][0].count, 1);
  EXPECT_EQ(t.total, 1);
  EXPECT_EQ(t.stored.size(), 1u);
}

TEST_F(FragmentTableTest, CollidingFragmentsProbeOnAndWrapPastTheLastSlot) {
  const std::uint32_t last = HASHTBL_SIZE - 1;
  insert_fragment(t, bond_with_key(1, last), 0);
  insert_fragment(t, bond_with_key(2, last), 0);
  insert_fragment(t, bond_with_key(3, last + HASHTBL_SIZE), 1);
  EXPECT_EQ(t.hashg[last].id, 1);
  EXPECT_EQ(t.hashg[0].id, 2);
  EXPECT_EQ(t.hashg[1].id, 3);
  // Found again along the same probe path.
  insert_fragment(t, bond_with_key(3, last + HASHTBL_SIZE), 0);
  EXPECT_EQ(t.hashg[1].support, 2);
  EXPECT_EQ(t.total, 3);
}

TEST_F(FragmentTableTest, AFinishedSlotOfAnEarlierLengthIsPassedOver) {
  insert_fragment(t, bond_with_key(1, 500), 0);
  // What the run does after a length: graphs released, offsets moved on.
  t.hashg[500].g = -1;
  t.stored.clear();
  t.csrcount[0].offset = t.csrcount[0].size;
  t.threshold = 2;

  Graph chain = make_graph({1, 9, 1}, {{0, 1, 0}, {1, 2, 0}});
  chain.key = 500;
  insert_fragment(t, chain, 0);
  EXPECT_EQ(t.hashg[500].id, 1);
  EXPECT_EQ(t.hashg[501].id, 2);
  EXPECT_EQ(t.hashg[501].support, 1);
  EXPECT_EQ(t.csrcount[0].size, 2);
  EXPECT_EQ(t.csr[0][1].id, 2);
}

TEST_F(FragmentTableTest, AFullTableEndsTheRun) {
  for (HashEntry& slot : t.hashg) slot.occupied = 1;
  EXPECT_EXIT(insert_fragment(t, bond_with_key(1, 3), 0), ::testing::ExitedWithCode(1), "");
}

TEST_F(FragmentTableTest, TheHundredAndFirstFragmentDoublesTheListKeepingItsEntries) {
  for (int k = 0; k < 101; ++k) insert_fragment(t, bond_with_key(k, 1000 + k), 1);
  EXPECT_EQ(t.csrcount[1].size, 101);
  EXPECT_EQ(t.csrcount[1].capacity, 200);
  ASSERT_GE(t.csr[1].size(), 101u);
  for (int k = 0; k < 101; ++k) {
    EXPECT_EQ(t.csr[1][k].id, k + 1);
    EXPECT_EQ(t.csr[1][k].count, 1);
  }
}

TEST_F(FragmentTableTest, OccurrencesOfEarlierLengthsAreNotSearched) {
  add_occurrence(t, 0, 4);
  EXPECT_EQ(find_occurrence(t, 0, 4), 0);
  t.csrcount[0].offset = 1;
  EXPECT_EQ(find_occurrence(t, 0, 4), -1);
  add_occurrence(t, 0, 4);
  EXPECT_EQ(t.csrcount[0].size, 2);
  EXPECT_EQ(find_occurrence(t, 0, 4), 1);
}

TEST(slot_occupancy, claims_the_slots_probing_from_the_home_slot_would_find) {
  SlotOccupancy taken;
  create_occupancy(taken);
  EXPECT_EQ(claim_slot(taken, 5), 5);
  EXPECT_EQ(claim_slot(taken, HASHTBL_SIZE + 5), 6);  // same home, next free
  EXPECT_EQ(claim_slot(taken, 4), 4);
  EXPECT_EQ(claim_slot(taken, 4), 7);  // passes 5 and 6
  // Across a word boundary, and wrapping from the last slot to the first.
  for (int k = 0; k < 70; ++k) EXPECT_EQ(claim_slot(taken, 100), 100 + k);
  EXPECT_EQ(claim_slot(taken, HASHTBL_SIZE - 1), HASHTBL_SIZE - 1);
  EXPECT_EQ(claim_slot(taken, HASHTBL_SIZE - 1), 0);
  EXPECT_EQ(claim_slot(taken, HASHTBL_SIZE - 1), 1);
  EXPECT_EQ(taken.used, 77);
}

TEST(slot_occupancy, a_full_table_ends_the_run_with_its_message) {
  SlotOccupancy taken;
  create_occupancy(taken);
  for (int k = 0; k < HASHTBL_SIZE; ++k) ASSERT_EQ(claim_slot(taken, static_cast<std::uint32_t>(k)), k);
  EXPECT_EXIT(claim_slot(taken, 12345), testing::ExitedWithCode(1), "");
}
