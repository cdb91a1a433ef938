// What the enumeration remembers about fragments across compounds and lengths.
//
// Refinement orders the cells of a fragment by properties that do not depend
// on how its vertices are numbered, and when every cell has fewer than
// SEARCH_CELL_LIMIT vertices the search takes the greatest code over all
// orders the cells allow: the canonical form is then the same for every
// numbering of the fragment ("stable" forms below). So once the canonical
// form of a fragment and the canonical position of each of its atoms are
// known, the form of the fragment grown by one bond is fixed by that form, the
// position of the atom the bond starts from and the labels of the bond and the
// new atom. The search keeps, for every set on its path, its form and the
// compound atom at each canonical position, and looks the grown set up in a
// memo instead of building and labelling it. Forms that are not stable (a cell
// of five or more equal vertices, decided by a search whose result may depend
// on the numbering) are always labelled from the exact fragment graph.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "graph/graph.h"

// A fragment graph labelled before: its form and, for a stable form, where
// (offset into FragmentMemo::orders) the fragment vertex at each canonical
// position is listed; -1 otherwise.
struct LabelledGraph {
  int form = -1;
  int order = -1;
};

// Sets of up to this many atoms grow along the search path; positions are
// kept in bytes, and a step key holds the position in its bits 24 to 30.
constexpr int MAX_GROWN_VERTICES = 19;
// Grown forms of up to this many atoms keep their moves inside the bucket;
// larger ones keep them in FragmentMemo::long_moves.
constexpr int INLINE_MOVES = 8;

// One growth step out of a form, keyed by (position, bond label, new atom
// label) with STEP_USED set; a key of 0 marks an empty bucket. It leads to
// the grown form (-1: not stable, label the set itself) and its moves: the
// new atom's position, then the grown form's position of every position of
// the smaller form. 16 bytes, so four share a cache line.
constexpr std::uint32_t STEP_USED = 0x80000000u;
struct alignas(16) StepBucket {
  std::uint32_t key = 0;
  std::int32_t form = -1;
  std::uint8_t moves[INLINE_MOVES] = {};  // or the offset into long_moves
};

// Where a form's growth steps are: open addressing over buckets steps ..
// steps + mask of the pool.
struct FormHot {
  std::int32_t steps = -1;  // -1: no step out of this form yet
  std::uint32_t mask = 0;
};

// What one counter remembers. The per-form arrays are indexed by the run's
// form indices (see form_store.h) and grow as the counter meets higher ones.
struct FragmentMemo {
  std::vector<FormHot> hot;
  std::vector<std::uint32_t> steps_used;  // steps in each form's table

  // Per form, apart so that the check made for every set reads 4 bytes: the
  // compound the form was last counted in, and the position of its entry
  // in that compound's list of the form's length.
  std::vector<int> last_compound;
  std::vector<int> last_position;

  // Every form's step buckets; a form whose table fills up moves to a table
  // twice the size, and the tables it leaves are reused (free_tables, by
  // log2 of their size). A search tries every bond around one set before
  // moving on, so its lookups stay within its form's few buckets.
  std::vector<StepBucket> pool;
  std::vector<std::vector<std::uint32_t>> free_tables;
  std::vector<std::uint8_t> long_moves;

  // Steps of a first bond, keyed by (lower atom label, higher atom label,
  // bond label).
  std::unordered_map<std::uint64_t, StepBucket> first_bonds;

  // The fragment vertex at each canonical position of labelled graphs.
  std::vector<std::uint8_t> orders;

  // Fragment graphs (vs, vl, e, el as bytes) already labelled.
  std::unordered_map<std::string, LabelledGraph> labelled;
  std::size_t labelled_bytes = 0;
};
