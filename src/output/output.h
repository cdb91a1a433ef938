// Output: the structure records of the descriptor fragments and the
// descriptor file with one count vector per compound.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "common/common.h"
#include "count/count.h"
#include "graph/graph.h"
#include "table/table.h"

// One SD record (or Mol2 record) for the fragment g stored in slot.
void write_sd_fragment(const HashEntry& slot, const GraphView& g, const LabelDictionary& dict, std::FILE* stream);
void write_mol2_fragment(const HashEntry& slot, const GraphView& g, const LabelDictionary& dict, std::FILE* stream);
inline void write_sd_fragment(const HashEntry& slot, const Graph& g, const LabelDictionary& dict, std::FILE* stream) {
  write_sd_fragment(slot, view_of(g), dict, stream);
}
inline void write_mol2_fragment(const HashEntry& slot, const Graph& g, const LabelDictionary& dict, std::FILE* stream) {
  write_mol2_fragment(slot, view_of(g), dict, stream);
}

// Writes outfstem + ".out": one line per compound with its descriptor numbers
// (idmap of each occurrence id, -1 for none) and counts.
void write_descriptor_file(const std::string& outfstem, const FragmentTable& table, const std::vector<int>& idmap,
                           const std::vector<std::string>& compound_names);

// Writes outfstem + ".out" from the counted compounds: one line per compound
// with its descriptor numbers and counts.
void write_descriptor_rows(const std::string& outfstem, CountedRun& run, const Numbering& numbering);
