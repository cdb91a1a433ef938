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

// One distinct canonical form met in the run.
struct FragmentForm {
  Graph graph;              // the canonical form, as labelling wrote it
  bool stable = false;      // the same form for every numbering of the fragment
  bool branching = false;   // some atom carries three or more of its bonds
  int slot = -1;            // table slot during the length of its size
  int slot_threshold = -1;  // the length `slot` was found in
};

// A fragment graph labelled before: its form and, for a stable form, where
// (offset into FragmentMemo::orders) the fragment vertex at each canonical
// position is listed; -1 otherwise.
struct LabelledGraph {
  int form = -1;
  int order = -1;
};

// Fragments of up to this many atoms keep their moves inside the step.
constexpr int INLINE_MOVES = 19;

struct GrowthStep {
  std::uint64_t key = 0;  // 0 marks an empty bucket
  std::int32_t form = 0;
  std::uint8_t moves[INLINE_MOVES + 1] = {};
};

struct FragmentMemo {
  std::vector<FragmentForm> forms;

  // Forms by canonical graph: open addressing on the form's key, -1 empty.
  std::vector<int> form_bucket;

  // Growth steps: (form, position, bond label, new atom label), or for a
  // first bond (lower atom label, higher atom label, bond label), to the
  // grown form (-1: not stable, label the set itself) and its moves: the new
  // atom's position, then the grown form's position of every position of the
  // smaller form. One record per bucket, so a lookup touches one cache line.
  std::vector<GrowthStep> step;
  std::size_t steps = 0;

  // The fragment vertex at each canonical position of labelled graphs.
  std::vector<std::uint8_t> orders;

  // Fragment graphs (vs, vl, e, el as bytes) already labelled.
  std::unordered_map<std::string, LabelledGraph> labelled;
};
