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
//
// A counter searches one compound at a time; what it learns about forms
// across compounds lies in its StepMemo (step_memo.h), and in the step
// tables (step_tables.h) and the FormStore (form_store.h) it may share with
// counters on other threads.
#pragma once

#include <memory>
#include <vector>

#include "canon/canon.h"
#include "enumerate/form_store.h"
#include "enumerate/step_memo.h"
#include "enumerate/step_tables.h"
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
  // Growth steps go to `steps`, which counters of the same store may share;
  // without it the counter keeps tables of its own. memo_limit bounds the
  // bytes of what the counter keeps of its own (0: the memo's own bounds);
  // once it is reached nothing new is remembered and memo_full() says so.
  FragmentCounter(int lmin, int lmax, int opt, FormStore* store = nullptr, std::size_t memo_limit = 0,
                  StepTables* steps = nullptr);

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
  // What the counter keeps of its own refused something for want of room:
  // a caller that bounds memory has it forget (shared step tables are the
  // caller's to forget).
  bool memo_full() const { return memo_.full() || (own_steps_ && own_steps_->full()); }
  // Forgets every labelled graph, and every step of tables of its own.
  void forget() {
    memo_.forget();
    if (own_steps_) own_steps_->forget();
  }

 private:
  void visit(int n);
  void include(int n, int s);
  void count_leaves(int n, const std::uint64_t* candidates);
  void grow(int n, int a, int b, int label);
  void record(int n);
  bool label_grown(int n, int pos, int outside, int label, std::uint8_t* moves);
  void label_set(int n);
  void recall_or_label_set(int n);
  void label_fragment(int n);
  int find_or_add_form(const GraphView& g);
  void reach_form(int f);
  // The compound atom at each canonical position of the set of n bonds.
  int* canonical_atoms(int n) { return &canonical_atoms_[static_cast<std::size_t>(n) * max_atoms_]; }

  int lmin_, lmax_, opt_;
  std::unique_ptr<FormStore> own_store_;
  FormStore* store_;
  FormStore::Claim claim_;  // this counter's own space for the forms it adds
  std::unique_ptr<StepTables> own_steps_;
  StepTables* steps_;
  StepMemo memo_;
  long long fragments_ = 0;
  int longest_ = 0;

  // Per form, apart so that the check made for every set counted reads 4
  // bytes: the compound the form was last counted in, and the position of its
  // entry in that compound's list of the form's length.
  std::vector<int> last_compound_;
  std::vector<int> last_position_;

  // The compound being searched.
  const Graph* compound_ = nullptr;
  int compid_ = 0;
  int first_ = 1;     // shortest length counted
  int maxdepth_ = 0;  // longest length searched
  SlotTable slots_;
  std::vector<std::uint64_t> all_;       // every slot
  std::vector<std::uint64_t> frontier_;  // per size: bonds with one end in the set
  std::vector<std::uint64_t> excluded_;  // bonds decided against on this path
  std::vector<std::uint64_t> saved_;     // per size: excluded_ when its set was reached
  std::vector<char> marked_;             // atoms of the set
  EdgeSet set_;                          // bonds of the set in order of choice
  std::vector<int> form_;                // per size: form of the set on the path
  // Per size: the set's form is stable, and its row of canonical_atoms_ is
  // filled (but for the longest sets, from which nothing grows).
  std::vector<char> stable_;
  // Per size, a row of max_atoms_: the compound atom (0-based) at each
  // canonical position of the set.
  std::vector<int> canonical_atoms_;
  int max_atoms_ = 0;  // atoms of the largest set searched
  std::vector<std::vector<FormCount>> by_length_;

  // Scratch of labelling.
  SmallGraph small_;
  Graph canonical_;
  Graph fragment_;
  std::vector<int> vertices_;
  std::vector<int> key_;
  std::string bytes_;
};
