// The fragment table's numbering: each distinct fragment of a run takes one
// of HASHTBL_SIZE slots, the first free one from the home slot of its key,
// and a length's descriptors are listed in ascending slot order. The run
// needs only which slots are taken (SlotOccupancy); the whole table, with
// its probing over stored fragments, is the plain path in src/reference.
#pragma once

#include <cstdint>
#include <vector>

#include "graph/graph.h"

constexpr int HASHTBL_SIZE = 6100000;

// Which of the HASHTBL_SIZE slots are taken, one bit each. When the caller
// already knows which fragments are equal (the enumeration keeps one record
// per distinct canonical form), a fragment's slot is decided by the taken
// slots alone: probing from its home slot passes every taken slot, since
// none of them holds this fragment, and stops at the first free one. So the
// slot numbers come out as the full table gives them, without 6.1 million
// slot records.
struct SlotOccupancy {
  std::vector<std::uint64_t> bits;
  int used = 0;
};

void create_occupancy(SlotOccupancy& occupancy);

// Takes the first free slot from home_slot(key) on, wrapping at the end;
// ends the run with the full-table message when every slot is taken.
int claim_slot(SlotOccupancy& occupancy, std::uint32_t key);

// Hash of a canonically labelled graph over e, v, el, vl as little-endian
// bytes, each byte taken as signed.
std::uint32_t compute_key(const GraphView& g);
inline std::uint32_t compute_key(const Graph& g) { return compute_key(view_of(g)); }

inline int home_slot(std::uint32_t key) { return static_cast<int>(key % HASHTBL_SIZE); }
