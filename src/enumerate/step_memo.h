// What the counter remembers about fragments across compounds and lengths.
//
// Refinement orders the cells of a fragment by properties that do not depend
// on how its vertices are numbered, and when every cell has fewer than
// SEARCH_CELL_LIMIT vertices the search takes the greatest code over all
// orders the cells allow: the canonical form is then the same for every
// numbering of the fragment ("stable" forms below). So once the canonical
// form of a fragment and the canonical position of each of its atoms are
// known, the form of the fragment grown by one bond is fixed by that form, the
// position of the atom the bond starts from and the labels of the bond and the
// new atom: a growth step. The search keeps, for every set on its path, its
// form and the compound atom at each canonical position, and looks the grown
// set's step up (in the step tables, step_tables.h, keyed as below) instead
// of building and labelling the set.
//
// A first bond's form is fixed by the labels of its atoms and bond, and is
// remembered by them. Sets off the grown path (grown from a form that is not
// stable, of more than MAX_GROWN_VERTICES atoms, or with labels too large for
// a key) are remembered by their whole fragment graph, labelling being a pure
// function of it; so are sets whose step leads to a form that is not stable
// (a cell of five or more equal vertices, decided by a search whose result
// may depend on the numbering): such forms always come from the exact
// fragment graph. Those two a counter remembers here, for itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "graph/graph.h"

// Sets of up to this many atoms grow along the search path; positions are
// kept in bytes, and a step key holds the position in its bits 24 to 30.
constexpr int MAX_GROWN_VERTICES = 19;

// A step key: the smaller form's position, then the bond label, then the new
// atom's label, with STEP_USED set in the tables.
constexpr int STEP_ATOM_LABEL_BITS = 16;
constexpr int STEP_BOND_LABEL_BITS = 8;
constexpr int STEP_POSITION_SHIFT = STEP_ATOM_LABEL_BITS + STEP_BOND_LABEL_BITS;
constexpr std::uint32_t STEP_USED = 0x80000000u;

// The labels fit a step key.
inline bool step_labels_fit(int bond_label, int atom_label) {
  return bond_label >= 0 && bond_label < (1 << STEP_BOND_LABEL_BITS) && atom_label >= 0 &&
         atom_label < (1 << STEP_ATOM_LABEL_BITS);
}

// The key of the step that joins an atom labelled atom_label by a bond
// labelled bond_label to the smaller form's position pos.
inline std::uint32_t step_key(int pos, int bond_label, int atom_label) {
  return static_cast<std::uint32_t>(pos) << STEP_POSITION_SHIFT |
         static_cast<std::uint32_t>(bond_label) << STEP_ATOM_LABEL_BITS | static_cast<std::uint32_t>(atom_label);
}

// A first bond's key: the labels of its lower-numbered atom, its
// higher-numbered atom and the bond, in this many bits each.
constexpr int FIRST_BOND_LABEL_BITS = 16;

// The labels fit a first bond's key.
inline bool first_bond_labels_fit(int lower_atom_label, int higher_atom_label, int bond_label) {
  constexpr int limit = 1 << FIRST_BOND_LABEL_BITS;
  return lower_atom_label >= 0 && lower_atom_label < limit && higher_atom_label >= 0 && higher_atom_label < limit &&
         bond_label >= 0 && bond_label < limit;
}

inline std::uint64_t first_bond_key(int lower_atom_label, int higher_atom_label, int bond_label) {
  return static_cast<std::uint64_t>(lower_atom_label) << (2 * FIRST_BOND_LABEL_BITS) |
         static_cast<std::uint64_t>(higher_atom_label) << FIRST_BOND_LABEL_BITS |
         static_cast<std::uint64_t>(bond_label);
}

// The home bucket of a step key in a table of mask + 1 buckets: every bit of
// the key reaches the low bits the small tables use.
inline std::size_t step_home(std::uint32_t key, std::uint32_t mask) {
  std::uint32_t h = (key ^ (key >> 16)) * 0x45d9f3bu;
  h ^= h >> 16;
  return h & mask;
}

// A first bond's form, and the position of its lower-numbered atom.
struct FirstBond {
  int form = -1;
  int lower_position = 0;
};

// A fragment graph labelled before: its form and, for a stable form, where
// the fragment vertex at each canonical position is listed (-1 otherwise).
struct LabelledGraph {
  int form = -1;
  int order = -1;
};

// The bytes a fragment graph is remembered by (vs, vl, e, el).
void labelled_graph_key(const Graph& fragment, std::vector<int>& scratch, std::string& key);

// What one counter remembers besides growth steps, which lie in step
// tables that counters may share (step_tables.h). Past its bound the memo
// still answers lookups but remembers nothing new, and says it is full.
class StepMemo {
 public:
  // byte_limit bounds the bytes of the memo (0: the memo's own bounds).
  explicit StepMemo(std::size_t byte_limit);

  // The step of the first bond known by first_bond_key, or null.
  const FirstBond* find_first_bond(std::uint64_t key) const {
    const auto it = first_bonds_.find(key);
    return it == first_bonds_.end() ? nullptr : &it->second;
  }
  // A first bond of stable form `form`, its lower-numbered atom at position
  // lower_position.
  void add_first_bond(std::uint64_t key, int form, int lower_position);

  // The fragment graph known by labelled_graph_key, or null.
  const LabelledGraph* find_labelled(const std::string& key) const {
    const auto it = labelled_.find(key);
    return it == labelled_.end() ? nullptr : &it->second;
  }
  // The fragment vertex at each canonical position of a stable labelled graph.
  const std::uint8_t* order_of(const LabelledGraph& g) const { return &orders_[g.order]; }
  // Remembers the fragment graph known by key: its form and, for a stable
  // form, the fragment vertex at each of its `vertices` canonical positions
  // (null otherwise).
  void remember_labelled(const std::string& key, int form, const int* order, int vertices);

  // The memo refused to remember something for want of room.
  bool full() const { return full_; }
  // Forgets every first bond and labelled graph.
  void forget();

 private:
  std::unordered_map<std::uint64_t, FirstBond> first_bonds_;

  // Fragment graphs already labelled, by labelled_graph_key, and the
  // canonical orders of the stable ones.
  std::unordered_map<std::string, LabelledGraph> labelled_;
  std::vector<std::uint8_t> orders_;
  std::size_t labelled_bytes_ = 0;

  std::size_t max_labelled_bytes_;
  bool full_ = false;
};
