// Descriptor spaces that carry over to other compounds.
//
// A structure file written by a run lists one record per descriptor, in
// descriptor order; it is all a later program needs to find the same
// descriptors in new compounds. Each record is the fragment's canonical form
// as labelling wrote it, with its labels as strings: label numbers are
// positions in one file's own byte-ordered label set, so the same fragment
// has other numbers in another file, while the strings carry over. And since
// labelling orders vertices by comparing labels, and every file numbers its
// labels in byte order, a fragment of another file comes out of labelling in
// the very arrangement the record shows: matching the arrays, with labels
// translated, finds exactly the occurrences the run that wrote the record
// counted for it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "count/count.h"
#include "enumerate/fragment_counter.h"
#include "input/input.h"

// One descriptor's fragment as its record shows it, its labels numbered by
// byte order among the space's labels (as a file numbers its own).
struct SpaceFragment {
  int vs = 0;           // atoms
  int es = 0;           // adjacency entries, two per bond
  std::vector<int> v;   // vs + 1 offsets into e
  std::vector<int> e;   // far end of each entry, ascending per atom
  std::vector<int> vl;  // atom label of each atom: index into DescriptorSpace::atom_labels
  std::vector<int> el;  // bond label of each entry: index into DescriptorSpace::bond_labels
};

struct DescriptorSpace {
  std::string name;                        // the structure file, for messages
  bool mol2 = false;                       // the records are Mol2 records
  std::vector<SpaceFragment> fragments;    // fragments[d - 1] is descriptor d
  std::vector<std::string> atom_labels;    // every atom label of the records, in byte order
  std::vector<std::string> bond_labels;    // every bond label ("-", "=", "#", "~", "*"), in byte order
  std::string text;                        // the records as read (kept only when asked for)
  std::vector<std::pair<std::size_t, std::size_t>> spans;  // (start, length) of each record in text
  int shortest = 0, longest = 0;           // bonds of the shortest and longest fragment; 0 for none
  // (descriptor, its fragment as labelling arranges it) for the records
  // written in another arrangement, which only records made by hand are.
  std::vector<std::pair<int, SpaceFragment>> rearranged;
};

// Reads the records of a structure file from text (name names it in
// messages). Anything but records as a run writes them ends with a message
// naming the file, the record and the fault: a record cut short, a bond to a
// missing atom, a record that is not a tree, the same fragment twice. An empty
// text is an empty space. keep_text keeps the records' text in the space;
// the records are checked on up to `threads` threads.
DescriptorSpace read_space(const std::string& name, std::string text, bool keep_text, int threads = 1);

// The same from a file; a missing or unreadable file is refused too.
DescriptorSpace read_space_file(const std::string& path, bool keep_text, int threads = 1);

// The text of descriptor d's record (1-based), when the space kept it.
std::string_view record_text(const DescriptorSpace& space, int d);

struct ApplySummary {
  long long compounds = 0;
  long long occurrences_matched = 0;  // fragment occurrences counted for a descriptor
  long long distinct_found = 0;       // distinct fragments of the searched lengths in the compounds
  long long distinct_outside = 0;     // of those, the ones no descriptor stands for
  long long descriptors_found = 0;    // descriptors met in at least one compound
};

// Finds a space's descriptors in compounds read with one label dictionary,
// one compound after the other (only the fragments met so far are kept).
// A matcher is for one thread; several may share the space and dictionary.
class SpaceMatcher {
 public:
  SpaceMatcher(const DescriptorSpace& space, const LabelDictionary& dict);
  // The compound's descriptors, searching the lengths from the shortest to
  // the longest fragment of the space. compid numbers the compounds, each
  // once.
  void match(const Graph& compound, int compid, DescriptorPairs& pairs);
  const ApplySummary& summary() const { return summary_; }
  // The summary of matchers that shared out one input between them, as one
  // matcher over all of it would give it: a fragment or descriptor that
  // several met counts once.
  static ApplySummary combined_summary(const std::vector<const SpaceMatcher*>& matchers);

 private:
  int lookup(int form);

  const DescriptorSpace& space_;
  std::vector<int> atom_index_, bond_index_;  // space label -> input label, -1 for none
  // (form hash, d) for descriptor d as written, (form hash, -k) for entry
  // k - 1 of space_.rearranged; sorted by hash.
  std::vector<std::pair<std::uint64_t, int>> candidates_;
  std::vector<std::int32_t> slots_;  // open addressing over candidates_ by hash; -1 for none
  FragmentCounter counter_;
  std::vector<int> match_;   // per counted form: descriptor, 0 for none, -1 not looked up yet
  std::vector<char> found_;  // per descriptor: met in some compound
  std::vector<FormCount> entries_;
  ApplySummary summary_;
};

// Every compound of the input, on up to `threads` threads, each with a
// matcher of its own over batches of compounds; row(c, pairs) is called on
// the calling thread for compound c, in input order, so what a caller
// writes does not depend on the threads. A failure (Failure, or an
// exhausted heap) is thrown on the calling thread after every worker has
// stopped, the first in input order; so is one thrown by row.
void apply_space(const DescriptorSpace& space, const CompoundInput& input, int threads,
                 const std::function<void(int, const DescriptorPairs&)>& row, ApplySummary& summary);
