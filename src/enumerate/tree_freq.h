// The subtree search behind enumerate_fragments, kept in a header so tests
// can watch the emitted bond sets directly.
//
// The search decides the bonds one at a time: include the lowest qualifying
// bond (depth first), then exclude it. Contracting the chosen bonds into one
// vertex, as a working edge list would, makes exactly the bonds with both ends
// in the fragment into self-loops; so a bond is live when it has not been
// excluded on this path and does not have both ends in the fragment, and it
// qualifies when the fragment is empty or it has exactly one end inside. That
// is tracked with bit masks over the bond slots: the XOR of the incident masks
// of the fragment's vertices is precisely the set of bonds with one end in it.
#pragma once

#include <bit>
#include <cstdint>
#include <vector>

#include "common/common.h"
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

// The visitor's emit(set) sees every complete set, in the search order.
template <class Visitor>
class SubtreeSearch {
 public:
  SubtreeSearch(const SlotTable& t, int vs, int threshold, Visitor& visitor)
      : t_(t), threshold_(threshold), visitor_(visitor), marked_(vs, 0),
        frontier_(static_cast<std::size_t>(threshold + 1) * t.words, 0), excluded_(t.words, 0) {
    set_.edge.resize(threshold);
  }

  void run() { extend(0); }

 private:
  // Lowest live slot that qualifies, or -1. `depth` is the set's size.
  int select(int depth) const {
    const std::uint64_t* f = &frontier_[static_cast<std::size_t>(depth) * t_.words];
    const int nslots = static_cast<int>(t_.slot.size());
    for (int w = 0; w < t_.words; ++w) {
      std::uint64_t live = depth == 0 ? ~std::uint64_t{0} : f[w];
      live &= ~excluded_[w];
      if (live != 0) {
        int s = w * 64 + std::countr_zero(live);
        return s < nslots ? s : -1;
      }
    }
    return -1;
  }

  void extend(int depth) {
    const int s = select(depth);
    if (s < 0) return;
    const auto [a, b] = t_.slot[s];
    // Include branch: the set grows by s, its new vertices join the fragment.
    set_.edge[depth] = {a, b};
    set_.size = depth + 1;
    if (depth + 1 < threshold_) {
      std::uint64_t* next = &frontier_[static_cast<std::size_t>(depth + 1) * t_.words];
      const std::uint64_t* cur = &frontier_[static_cast<std::size_t>(depth) * t_.words];
      for (int w = 0; w < t_.words; ++w) next[w] = depth == 0 ? 0 : cur[w];
      int added[2];
      int nadded = 0;
      for (int x : {a - 1, b - 1}) {
        if (!marked_[x]) {
          marked_[x] = 1;
          added[nadded++] = x;
          const std::uint64_t* inc = &t_.incident[static_cast<std::size_t>(x) * t_.words];
          for (int w = 0; w < t_.words; ++w) next[w] ^= inc[w];
        }
      }
      extend(depth + 1);
      for (int i = 0; i < nadded; ++i) marked_[added[i]] = 0;
    } else {
      visitor_.emit(set_);
    }
    // Exclude branch: s is gone for the rest of this path.
    excluded_[s / 64] |= std::uint64_t{1} << (s % 64);
    extend(depth);
    excluded_[s / 64] &= ~(std::uint64_t{1} << (s % 64));
  }

  const SlotTable& t_;
  int threshold_;
  Visitor& visitor_;
  EdgeSet set_;
  std::vector<char> marked_;             // fragment vertices (0-based)
  std::vector<std::uint64_t> frontier_;  // per depth: bonds with one end in the fragment
  std::vector<std::uint64_t> excluded_;  // bonds decided against on this path
};

// Runs the search over a built slot table; nothing to do when the compound
// has fewer bonds than the threshold.
template <class Visitor>
void search_subtrees(const SlotTable& t, int vs, int threshold, Visitor& visitor) {
  if (threshold < 1 || threshold > static_cast<int>(t.slot.size())) return;
  SubtreeSearch<Visitor> search(t, vs, threshold, visitor);
  search.run();
}

// Calls emit(const EdgeSet&) for every connected acyclic set of `threshold`
// bonds of g, each once, in the search order.
template <class Emit>
void enumerate_subtrees(const Graph& g, int threshold, Emit&& emit) {
  struct Adapter {
    Emit& f;
    void emit(const EdgeSet& s) { f(s); }
  };
  SlotTable t;
  build_slot_table(g, t);
  Adapter visitor{emit};
  search_subtrees(t, g.vs, threshold, visitor);
}
