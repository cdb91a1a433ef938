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

struct FragmentTable {
  std::vector<HashEntry> hashg;               // HASHTBL_SIZE slots
  std::vector<Graph> stored;                  // copies of the current length's fragments
  int threshold = 0;                          // current fragment length (run-wide)
  int total = 0;                              // distinct fragments so far; the last id issued
  std::vector<std::vector<Occurrence>> csr;   // per compound
  std::vector<OccurrenceCount> csrcount;      // per compound
};

// Every slot empty.
void create_table(FragmentTable& table);

// n empty lists with room for 100 entries each.
void create_occurrence_lists(FragmentTable& table, int n);

// Hash of a canonically labelled graph over e, v, el, vl as little-endian
// bytes, each byte taken as signed.
std::uint32_t compute_key(const Graph& g);

inline int home_slot(std::uint32_t key) { return static_cast<int>(key % HASHTBL_SIZE); }

// Records one occurrence of the labelled fragment in compound compid, storing
// a copy first when the fragment is new. Ends the run when the table is full.
void insert_fragment(FragmentTable& table, const Graph& g, int compid);

// Position of id among the current length's entries of compid, or -1.
int find_occurrence(const FragmentTable& table, int compid, int id);

// One more occurrence of id in compound compid.
void add_occurrence(FragmentTable& table, int compid, int id);
