// The bonds of a compound as the subtree search numbers them. The search
// decides the bonds one at a time, the lowest qualifying one first: a bond
// qualifies when the set is empty or exactly one of its ends is in the set.
// With a mask of the bonds at each atom, the XOR of the masks of the set's
// atoms is precisely the set of bonds with one end in it.
#pragma once

#include <cstdint>
#include <vector>

#include "graph/graph.h"

// The bonds of a compound as slots ordered by lower, then higher vertex,
// with the mask of slots incident to each vertex.
struct SlotTable {
  int words = 0;                          // 64-bit words per mask
  std::vector<std::pair<int, int>> slot;  // 1-based (lower, higher) per bond
  std::vector<int> label;                 // edge label per bond
  std::vector<std::uint64_t> incident;    // vs masks of `words` words
};

void build_slot_table(const Graph& g, SlotTable& t);
