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

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "count/count.h"
#include "enumerate/form_slots.h"
#include "enumerate/form_store.h"
#include "enumerate/fragment_counter.h"
#include "input/input.h"

// A space holds its records' numbers in two bytes each: a run writes
// fragments of at most a thousand atoms and a thousand labels, and a record
// by hand of more than 65535 atoms, or a space of more than 65535 labels of
// a kind, is refused.
using SpaceValue = std::uint16_t;
constexpr int MAX_SPACE_VALUE = 65535;

// One descriptor's fragment as its record shows it, its labels numbered by
// byte order among the space's labels (as a file numbers its own). The
// numbers belong to the space.
struct SpaceFragment {
  int vs = 0;                        // atoms
  int bonds = 0;                     // bonds
  const SpaceValue* vl = nullptr;    // atom label of each atom: index into DescriptorSpace::atom_labels
  // Each bond as (atom a, atom b, bond label) with a < b, ordered by a then
  // b; the label is an index into DescriptorSpace::bond_labels.
  const SpaceValue* bond = nullptr;
};

// The fragment whose numbers begin at `values`, laid out as the space lays
// them out (a record, or a record rearranged).
SpaceFragment fragment_at(const SpaceValue* values);

// An entry of the space's index: a fragment by the hash of its numbers (with
// the space's label numbers).
struct SpaceSlot {
  std::uint32_t tag = 0;  // the top half of the hash
  // 0 for an empty slot (the index's memory starts zeroed), else 1 + k for
  // records[k] when k is below the records, rearranged[k - records] above.
  std::uint32_t entry = 0;
};

// Memory for a space's large arrays, mapped on its own: touching new memory
// a small page at a time is a large part of reading a space. Either in the
// largest pages the system offers (for memory touched all over, sizes below
// one such page being allocated instead), or reserved and made ready a range
// at a time, in one request for all its pages, as it is filled. Memory reads
// as zeros until written.
class SpaceMemory {
 public:
  enum class Pages { large, by_range };
  explicit SpaceMemory(std::size_t bytes, Pages pages = Pages::large);
  // Pages::by_range: makes bytes from .. to ready to be written.
  void make_ready(std::size_t from, std::size_t to);
  ~SpaceMemory();
  SpaceMemory(SpaceMemory&& other) noexcept;
  SpaceMemory& operator=(SpaceMemory&& other) noexcept;
  SpaceMemory(const SpaceMemory&) = delete;
  SpaceMemory& operator=(const SpaceMemory&) = delete;

  void* data() const { return data_; }
  std::size_t size() const { return size_; }

 private:
  void release();
  void* data_ = nullptr;
  std::size_t size_ = 0;
  void* mapping_ = nullptr;  // the mapping data_ lies in; none when allocated
  std::size_t mapped_ = 0;
};

// Read once, then only read: any number of threads may match against it.
// The fragments' arrays lie in blocks that never move, so the space may be
// moved but not copied.
struct DescriptorSpace {
  DescriptorSpace() = default;
  DescriptorSpace(DescriptorSpace&&) = default;
  DescriptorSpace& operator=(DescriptorSpace&&) = default;
  DescriptorSpace(const DescriptorSpace&) = delete;
  DescriptorSpace& operator=(const DescriptorSpace&) = delete;

  std::string name;                        // the structure file, for messages
  bool mol2 = false;                       // the records are Mol2 records
  std::vector<std::string> atom_labels;    // every atom label of the records, in byte order
  std::vector<std::string> bond_labels;    // every bond label ("-", "=", "#", "~", "*"), in byte order
  std::string text;                        // the records as read (kept only when asked for)
  std::vector<std::pair<std::size_t, std::size_t>> spans;  // (start, length) of each record in text
  int shortest = 0, longest = 0;           // bonds of the shortest and longest fragment; 0 for none

  // Descriptors in the space.
  int size() const { return static_cast<int>(records.size()); }
  // Descriptor d's fragment (1-based), in the arrangement of its record.
  SpaceFragment fragment(int d) const;

  // Each record's numbers: vs, the bonds, the atom labels, then each bond
  // (a, b, label).
  std::vector<const SpaceValue*> records;
  // Labelling's arrangement of the records written in another, which only
  // records made by hand are: (descriptor, numbers laid out as in records).
  std::vector<std::pair<int, const SpaceValue*>> rearranged;
  std::vector<SpaceMemory> blocks;  // where the numbers lie
  // Open addressing by the hash over every record as written and every
  // rearranged one: slot_count slots, a power of two.
  SpaceMemory slot_memory{0};
  std::size_t slot_count = 0;
  const SpaceSlot* slots() const { return static_cast<const SpaceSlot*>(slot_memory.data()); }
};

// Reads the records of a structure file from text (name names it in
// messages). Anything but records as a run writes them ends with a message
// naming the file, the record and the fault: a record cut short, a bond to a
// missing atom, a record that is not a tree, the same fragment twice. An empty
// text is an empty space. keep_text keeps the records' text in the space;
// the records are read on up to `threads` threads, a part of the text at a
// time (chunk_bytes, for tests that make many parts of a small file; 0 for
// the usual size), and a fault is the first in the text whatever the parts.
DescriptorSpace read_space(const std::string& name, std::string text, bool keep_text, int threads = 1,
                           std::size_t chunk_bytes = 0);

// The same from a file, never held whole in memory; a missing or unreadable
// file is refused too.
DescriptorSpace read_space_file(const std::string& path, bool keep_text, int threads = 1, std::size_t chunk_bytes = 0);

// The text of descriptor d's record (1-based), when the space kept it.
std::string_view record_text(const DescriptorSpace& space, int d);

struct ApplySummary {
  long long compounds = 0;
  long long occurrences_matched = 0;  // fragment occurrences counted for a descriptor
  long long distinct_found = 0;       // distinct fragments of the searched lengths in the compounds
  long long distinct_outside = 0;     // of those, the ones no descriptor stands for
  long long descriptors_found = 0;    // descriptors met in at least one compound
};

// What the forms of one store stand for in one space, shared by the
// matchers that count into that store: each form is looked up once, by
// whichever matcher meets it first, and each descriptor found is counted
// once. Entries live in chunks made as forms arrive and never move, so
// matchers on several threads read and fill it at once.
class SpaceLookups {
 public:
  explicit SpaceLookups(int descriptors);
  SpaceLookups(const SpaceLookups&) = delete;
  SpaceLookups& operator=(const SpaceLookups&) = delete;

  static constexpr int UNKNOWN = -1;
  // The descriptor form f stands for, 0 for none, UNKNOWN before a lookup.
  int get(int f) const {
    const std::atomic<int>* slot = forms_.find(f);
    return slot == nullptr ? UNKNOWN : slot->load(std::memory_order_relaxed);
  }
  // Keeps what form f stands for; true for the first to keep it.
  bool set(int f, int d);
  // Marks descriptor d found; true for the first to mark it.
  bool find(int d);

 private:
  FormSlots<int> forms_{UNKNOWN};
  std::unique_ptr<std::atomic<std::uint8_t>[]> found_;  // per descriptor, 1-based
};

// Finds a space's descriptors in compounds read with one label dictionary,
// one compound after the other. A matcher is for one thread; several may
// share the space, the dictionary, the store of the forms they count (which
// numbers every form once for all of them) and the lookups of those forms.
class SpaceMatcher {
 public:
  // memo_limit bounds the memory of the matcher's counter, which forgets
  // and starts afresh once it is full (the forms stay in the store); 0 for
  // the counter's own bound. Matchers on several threads may share their
  // growth steps through `steps` (whose owner forgets them when full).
  SpaceMatcher(const DescriptorSpace& space, const LabelDictionary& dict, FormStore& store, SpaceLookups& lookups,
               std::size_t memo_limit = 0, StepTables* steps = nullptr);
  // The descriptors of the n compounds, into pairs[0 .. n - 1], searching
  // the lengths from the shortest to the longest fragment of the space. The
  // compounds are numbered first, first + 1, ..., each number used once.
  void match(const Graph* compounds, int n, int first, DescriptorPairs* pairs);
  // What this matcher found first: the summaries of matchers that share
  // lookups add up to the summary of all they matched.
  const ApplySummary& summary() const { return summary_; }

 private:
  // The hash of a counted form with its labels in the space's numbers;
  // outside when one of them is no label of the space.
  std::uint64_t input_hash(int form, bool& outside);
  // The descriptor the form with that hash stands for, 0 for none.
  int lookup(int form, std::uint64_t hash);
  // The numbers of an entry of the space's index.
  const SpaceValue* form_of(std::uint32_t entry) const;

  const DescriptorSpace& space_;
  std::vector<int> atom_index_, bond_index_;  // input label -> space label, -1 for none
  FormStore& store_;
  SpaceLookups& lookups_;
  std::size_t memo_limit_;
  StepTables* steps_;
  std::unique_ptr<FragmentCounter> counter_;
  std::vector<FormCount> entries_;     // scratch: the compounds' entries, one after the other
  std::vector<std::size_t> ends_;      // scratch: where each compound's entries end
  // Per form of the store, what this matcher knows it stands for (as
  // SpaceLookups has it, read without going through shared memory again).
  std::vector<int> known_;
  static constexpr int UNKNOWN = SpaceLookups::UNKNOWN, QUEUED = -2;
  std::vector<int> labels_;  // scratch: a form's labels in the space's numbers
  std::vector<std::pair<int, std::uint64_t>> pending_;  // scratch: (form, hash) to look up
  ApplySummary summary_;
};

// Where compounds come from: the next one into g and name; false after the
// last. Failures it raises reach the caller of apply_space in input order.
using CompoundSource = std::function<bool(Graph& g, std::string& name)>;

// Every compound of the source, read on the calling thread and matched on up
// to `threads` threads (no more than batches of `compounds`, when that is
// known, else 0), each with a matcher of its own, over batches of
// compounds; row(c, name, pairs) is called on the calling thread for compound
// c, in input order, so what a caller writes does not depend on the threads.
// A failure (Failure, or an exhausted heap) is thrown on the calling thread
// after every worker has stopped, the first in input order; so is one thrown
// by row or by the source (after the rows of the compounds before it).
void apply_space(const DescriptorSpace& space, const LabelDictionary& dict, const CompoundSource& next, int compounds,
                 int threads, const std::function<void(int, const std::string&, const DescriptorPairs&)>& row,
                 ApplySummary& summary);

// The same over compounds held in memory.
void apply_space(const DescriptorSpace& space, const CompoundInput& input, int threads,
                 const std::function<void(int, const DescriptorPairs&)>& row, ApplySummary& summary);
