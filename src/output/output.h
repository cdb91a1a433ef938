// Output: the structure records of the descriptor fragments and the
// descriptor file with one count vector per compound.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "common/common.h"
#include "count/count.h"
#include "graph/graph.h"

// One SD record (or Mol2 record) for the fragment g, its name line the
// fragment's id, appended to out; false when the fragment's two directions of
// a bond disagree on its label, with the record up to there appended.
bool format_sd_fragment(int id, const GraphView& g, const LabelDictionary& dict, std::string& out);
bool format_mol2_fragment(int id, const GraphView& g, const LabelDictionary& dict, std::string& out);
// The same written to stream, ending the run on a disagreement.
void write_sd_fragment(int id, const GraphView& g, const LabelDictionary& dict, std::FILE* stream);
void write_mol2_fragment(int id, const GraphView& g, const LabelDictionary& dict, std::FILE* stream);
inline void write_sd_fragment(int id, const Graph& g, const LabelDictionary& dict, std::FILE* stream) {
  write_sd_fragment(id, view_of(g), dict, stream);
}
inline void write_mol2_fragment(int id, const Graph& g, const LabelDictionary& dict, std::FILE* stream) {
  write_mol2_fragment(id, view_of(g), dict, stream);
}

// The stream buffer of the output files, which receive records and lines in
// chunks of hundreds of kilobytes.
constexpr std::size_t OUTPUT_BUFFER_BYTES = std::size_t{64} << 10;

// Writes outfstem + ".out" from the counted compounds: one line per compound
// with its descriptor numbers and counts, formatted on up to `threads` threads.
void write_descriptor_rows(const std::string& outfstem, CountedRun& run, const Numbering& numbering, int threads = 1);
