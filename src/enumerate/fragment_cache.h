// A memo of where each fragment graph of the current length ended up.
//
// The fragment graph of a bond set depends only on the labels of its atoms in
// ascending compound order and on its bonds between those renumbered atoms;
// its canonical form, the type filter's verdict and the slot the table finds
// for it depend only on that graph while one length runs (a stored copy keeps
// its slot until the length's copies are released). Fragments repeat across
// compounds by the million, so the second and later occurrences of the same
// graph skip building, labelling and probing and go straight to the slot.
#pragma once

#include <cstdint>
#include <vector>

#include "graph/graph.h"

struct FragmentTable;

struct FragmentCache {
  // What the entries are valid for; any change empties the memo.
  const FragmentTable* table = nullptr;
  int generation = -1;
  int threshold = -1;
  int opt = -1;

  // Keys of all entries, back to back; entry k starts at start[k].
  std::vector<std::uint32_t> words;
  std::vector<int> start;   // entries + 1 offsets into words
  std::vector<int> slot;    // table slot, or -1 when the type filter drops the fragment
  std::vector<int> stored;  // the slot's stored-copy index when the entry was made

  // Open addressing over the entries: high hash bits and entry index, -1 empty.
  std::vector<std::uint32_t> check;
  std::vector<int> bucket;
  std::uint64_t mask = 0;

  // Scratch of one lookup.
  std::vector<std::uint32_t> key;
  std::vector<int> vertices;
  std::vector<int> vmap;  // compound vertex -> fragment vertex, valid for the set's vertices only
};

// Empties the memo unless it was filled for this table, its current copies,
// threshold and fragment type.
void prepare_cache(FragmentCache& cache, const FragmentTable& table, int threshold, int opt);

// The pre-labelling key of the bond set, in cache.key. False when the set
// falls outside what the key can hold (over 255 atoms, labels outside
// 0..65535, a bond missing from the compound): such sets take the plain path.
bool make_fragment_key(FragmentCache& cache, const EdgeSet& s, const Graph& compound);

// Entry index of cache.key, or -1; `hash` is filled for a following add.
int find_cached(const FragmentCache& cache, std::uint64_t& hash);

// Stores cache.key with its result; returns the entry index, or -1 when the
// memo is full for this length.
int add_cached(FragmentCache& cache, std::uint64_t hash, int slot, int stored);
