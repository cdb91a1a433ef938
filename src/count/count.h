// Counting a run's compounds on several threads, in memory bounded by the
// distinct fragments rather than by the compounds.
//
// The input is read one compound at a time. Workers count batches of
// compounds, each with a counter of its own (its memory of growth steps and
// labelled graphs), all adding the forms they meet to one store shared by
// the run. One merge, in input order, lists every distinct fragment by first
// occurrence over the compounds in input order, whatever thread met it first,
// and counts its support. So ids, slots and descriptor numbers come out as one
// thread counting every compound in turn gives them. Each compound's entries
// must wait until every compound is counted before their descriptor numbers
// are known: they are kept compact, and past a bound in an unlinked temporary
// file, then read back in order to write the descriptor lines.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common/common.h"
#include "enumerate/form_store.h"
#include "graph/graph.h"
#include "input/input.h"

// A compound's descriptors: (descriptor number, count) in the order a run
// lists them, ascending length first, then first occurrence in the compound.
using DescriptorPairs = std::vector<std::pair<int, int>>;

// Bytes appended one after the other and read back once, in order: in
// memory up to `limit`, then in a temporary file that no name refers to, so
// that it goes away however the process ends.
constexpr int SPILL_BLOCK_BITS = 20;
struct Spill {
  std::size_t limit = 0;
  std::string directory;          // where the file is made
  std::vector<std::unique_ptr<std::uint8_t[]>> blocks;  // in memory: 1 << SPILL_BLOCK_BITS bytes each
  FilePtr file;                   // once past the limit
  std::vector<char> file_buffer;  // the file's stream buffer, which must outlive it
  std::uint64_t size = 0;
};

struct CountOptions {
  int lmin = 1, lmax = 7, opt = 1;  // lengths and fragment type, as the run settings give them
  int threads = 1;                  // workers counting compounds
  std::size_t spill_limit = std::size_t{32} << 20;  // entry bytes held in memory
  std::size_t step_limit = std::size_t{64} << 20;   // bytes of the growth steps the workers share
  std::string spill_directory = ".";
  bool progress = false;            // the progress line on a terminal's standard error
};

// The lengths and fragment type of a run's settings; one thread, the
// default spill bound, spill in the current folder, no progress line.
CountOptions count_options(const RunSettings& settings);

struct CountedRun {
  FormStore store;                          // every form met, shared by the workers' counters
  std::vector<int> support;                 // per form: compounds holding it
  std::vector<std::vector<int>> by_length;  // per length in bonds: its forms in order of first occurrence
  Spill spill;                              // per compound: name and (form, count) entries
  // Where in the spill each merged batch of compounds begins, so that rows
  // can be read back in ranges on several threads: a few bytes per batch.
  std::vector<std::uint64_t> batch_start;
  int compounds = 0;
  long long fragments = 0;                  // occurrences counted
};

// Counts every compound of the stream. A failure of the input, or of a
// worker, is reported as the first one in input order, after every worker
// has stopped.
void count_compounds(CompoundStream& input, const CountOptions& options, CountedRun& run);

// Ids, slots and descriptor numbers of the counted forms, length by length
// from lmin to lmax, as the table gives them.
struct Numbering {
  std::vector<int> id;          // per form
  std::vector<int> descriptor;  // per form: descriptor number, 0 for none
  int total = 0;                // distinct fragments numbered
  int descriptors = 0;          // descriptors issued
};

// Numbers every length; with `announce`, prints the two lines of each length
// on standard output; writes each descriptor's record to structure when set
// (named structure_name in the message of a lost write), formatting the
// records on up to `threads` threads.
void number_forms(const CountedRun& run, const RunSettings& settings, const LabelDictionary& dict, bool announce,
                  std::FILE* structure, const std::string& structure_name, Numbering& numbering, int threads = 1);

// Reading the compounds back, in input order, with their descriptors. Several
// readers may read one run at once, each its own range of the spill.
struct RowReader {
  const CountedRun* run = nullptr;
  std::vector<std::uint8_t> buffer;
  const std::uint8_t* bytes = nullptr;  // the buffer, or the spill's block being read when in memory
  std::size_t at = 0, end = 0;
  std::uint64_t next = 0;   // spill offset of the first byte not yet at `bytes`
  std::uint64_t stop = 0;   // spill offset where this reader's range ends
};
// Every row, from the first compound.
void start_rows(const CountedRun& run, RowReader& rows);
// The rows of the merged batches first .. last - 1 (see batch_start).
void start_batch_rows(const CountedRun& run, std::size_t first, std::size_t last, RowReader& rows);
bool next_row(RowReader& rows, const Numbering& numbering, std::string& name, DescriptorPairs& pairs);

// The processors this process may run on: its CPU affinity, and a cgroup CPU
// quota where one is set. The environment plays no part.
int processors_available();

// The threads a run counts on: TAVRIX_THREADS when set (a positive whole
// number; anything else ends the run with a message), else the processors
// this process may run on (its CPU affinity, and a cgroup CPU quota where one
// is set).
int threads_to_use();

// The bytes of compound entries a run holds in memory before the rest goes to
// a temporary file: TAVRIX_SPILL_MB megabytes when set (a whole number, 0
// for none; anything else ends the run with a message), else 32 MB.
std::size_t spill_limit_to_use();
