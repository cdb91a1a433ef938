// The fragment table: one slot per distinct fragment of the run, found by the
// hash of its canonical form with linear probing, and the per-compound lists
// of the fragments found in each compound with their counts.
#pragma once

#include <cstdint>
#include <vector>

#include "graph/graph.h"

constexpr int HASHTBL_SIZE = 6100000;

struct HashEntry {
  int occupied = 0;  // 1 once a fragment was stored; never reset
  int support = 0;   // distinct compounds holding the fragment
  int id = -1;       // 1-based, in order of first insertion over the run
  int g = -1;        // index of the stored copy in FragmentTable::stored, -1 for none
};

struct Occurrence {
  int id = 0;
  int count = 0;
};

struct OccurrenceCount {
  int size = 0;      // entries in use
  int capacity = 0;  // entries allocated
  int offset = 0;    // first entry of the current length
};

// Where a stored fragment was last counted: the compound and the position of
// its entry in that compound's list. Compounds are enumerated one after the
// other within a length, so "last counted in this compound" is exactly "already
// in this compound's entries of this length", without scanning them.
struct LastOccurrence {
  int compid = -1;
  int position = -1;
};

struct FragmentTable {
  std::vector<HashEntry> hashg;               // HASHTBL_SIZE slots
  std::vector<Graph> stored;                  // copies of the current length's fragments
  std::vector<int> stored_slot;               // slot of each stored copy, parallel to stored
  std::vector<LastOccurrence> last;           // per stored copy, parallel to stored
  int threshold = 0;                          // current fragment length (run-wide)
  int total = 0;                              // distinct fragments so far; the last id issued
  std::vector<std::vector<Occurrence>> csr;   // per compound
  std::vector<OccurrenceCount> csrcount;      // per compound
};

// Every slot empty.
void create_table(FragmentTable& table);

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

// n empty lists with room for 100 entries each.
void create_occurrence_lists(FragmentTable& table, int n);

// Hash of a canonically labelled graph over e, v, el, vl as little-endian
// bytes, each byte taken as signed.
std::uint32_t compute_key(const GraphView& g);
inline std::uint32_t compute_key(const Graph& g) { return compute_key(view_of(g)); }

inline int home_slot(std::uint32_t key) { return static_cast<int>(key % HASHTBL_SIZE); }

// Records one occurrence of the labelled fragment in compound compid, storing
// a copy first when the fragment is new. Ends the run when the table is full.
void insert_fragment(FragmentTable& table, const Graph& g, int compid);

// The same as insert_fragment; returns the slot that holds the fragment.
int insert_fragment_slot(FragmentTable& table, const Graph& g, int compid);

// Records one more occurrence in compound compid of the fragment stored in
// slot (a slot holding a copy of this length): exactly what insert_fragment
// does once it has found the fragment there. Occurrences of current fragments
// must all be recorded through insert_fragment or this function.
void count_in_slot(FragmentTable& table, int slot, int compid);

// Ascending slots of the copies stored this length (the slots a scan of the
// whole table would visit), then every copy released.
std::vector<int> current_slots(const FragmentTable& table);
void release_stored(FragmentTable& table);

// Position of id among the current length's entries of compid, or -1.
int find_occurrence(const FragmentTable& table, int compid, int id);

// One more occurrence of id in compound compid.
void add_occurrence(FragmentTable& table, int compid, int id);

// A new entry (id, 1) at the end of compound compid's list, doubling its
// capacity when full; for an id known not to be among this length's entries.
void append_occurrence(FragmentTable& table, int compid, int id);
