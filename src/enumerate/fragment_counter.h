// Counting the fragments of a run compound by compound, every length at once.
//
// The search with a larger threshold walks exactly the include/exclude tree
// of a smaller one, only going further below the sets that reach the smaller
// size; so its sets of each size come in the order the smaller search emits
// them. One search per compound, down to the longest length asked for, thus
// yields every length's fragments in the order the length-by-length run
// meets them: for each compound and length, its distinct forms in order of
// first occurrence with their counts. Numbering a length afterwards, compound
// by compound in that order (src/count), issues ids, support and slots
// exactly as inserting every fragment into the table one by one does.
#pragma once

#include <memory>
#include <vector>

#include "canon/canon.h"
#include "enumerate/form_store.h"
#include "enumerate/fragment_memo.h"
#include "enumerate/tree_freq.h"
#include "graph/graph.h"
#include "table/table.h"

// A form met in a compound and the number of its occurrences there.
struct FormCount {
  int form = 0;  // index in the counter's form store
  int count = 0;
};

class FragmentCounter {
 public:
  // Lengths lmin..lmax (lengths below 1 hold nothing); opt is the fragment
  // type code: 1 every fragment, 2 those with an atom of three or more of
  // their bonds, 3 the others. Forms go to `store`, which counters on other
  // threads may share; without one the counter keeps a store of its own.
  // memo_limit bounds the bytes of the memo (0: the counter's own bounds);
  // once it is reached nothing new is remembered and memo_full() says so.
  FragmentCounter(int lmin, int lmax, int opt, FormStore* store = nullptr, std::size_t memo_limit = 0);

  // Appends the compound's entries for every length from lmin to lmax, in
  // ascending length, each length's distinct forms in order of first
  // occurrence in the compound, as (form index, count).
  void count_compound(const Graph& compound, int compid, std::vector<FormCount>& entries);

  // The canonical form f.
  GraphView form(int f) const { return store_->view(f); }
  // Fragments found (occurrences counted) so far, for progress reports.
  long long fragments() const { return fragments_; }
  // The longest length with a fragment counted so far (0 for none).
  int longest() const { return longest_; }
  const FormStore& store() const { return *store_; }
  // The memo refused to remember something for want of room: a caller that
  // bounds memory has it forget.
  bool memo_full() const { return memo_full_; }
  // Forgets every step and labelled graph, keeping the room they took: a
  // fresh memo in the same memory, so that memory does not fragment across
  // generations of memos.
  void forget();
 private:
  void visit(int n);
  void include(int n, int s);
  void count_leaves(int n, const std::uint64_t* candidates);
  void grow(int n, int a, int b, int label);
  void record(int n);
  const StepBucket* find_step(int form, std::uint32_t key) const;
  const std::uint8_t* moves_of(const StepBucket& s, int atoms) const;
  void add_step(int form, std::uint32_t key, int grown, const std::uint8_t* moves, int nmoves);
  bool label_grown(int n, int pos, int outside, int label, std::uint8_t* moves);
  void label_exactly(int n, bool remember);
  void label_graph(int n, int* child);
  int find_or_add_form(const GraphView& g);
  void know(int f);
  int* row(int n) { return &at_[static_cast<std::size_t>(n) * width_]; }

  int lmin_, lmax_, opt_;
  std::unique_ptr<FormStore> own_store_;
  FormStore* store_;
  FragmentMemo memo_;
  std::size_t max_pool_;            // step buckets
  std::size_t max_labelled_bytes_;
  bool memo_full_ = false;
  long long fragments_ = 0;
  int longest_ = 0;

  // The compound being searched.
  const Graph* g_ = nullptr;
  int compid_ = 0;
  int first_ = 1;     // shortest length counted
  int maxdepth_ = 0;  // longest length searched
  SlotTable t_;
  std::vector<std::uint64_t> all_;       // every slot
  std::vector<std::uint64_t> frontier_;  // per size: bonds with one end in the set
  std::vector<std::uint64_t> excluded_;  // bonds decided against on this path
  std::vector<std::uint64_t> saved_;     // per size: excluded_ when its set was reached
  std::vector<char> marked_;             // atoms of the set
  EdgeSet set_;                          // bonds of the set in order of choice
  int width_ = 0;
  std::vector<int> form_;    // form of the set of each size on the path
  std::vector<char> grown_;  // its form is stable and its row of at_ is valid
  std::vector<int> at_;      // per size: compound atom (0-based) at each canonical position
  std::vector<std::vector<FormCount>> by_length_;

  // Scratch of labelling.
  SmallGraph small_;
  Graph canonical_;
  Graph fragment_;
  std::vector<int> vertices_;
  std::vector<int> key_;
  std::string bytes_;
};
