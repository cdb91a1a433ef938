// Compound input: reads an SD or Mol2 file in three passes into one compound
// graph per record, the label dictionary and the compound names.
#pragma once

#include <string>
#include <vector>

#include "common/common.h"
#include "graph/graph.h"
#include "settings/settings.h"
#include "table/table.h"

struct CompoundInput {
  std::vector<Graph> compounds;             // compid order = input order
  std::vector<std::string> compound_names;  // one per compound
  LabelDictionary dictionary;               // loaded from infile + ".dict"
};

// Runs the dictionary pass (writes infile + ".dict", prints
// "total compounds = %d"), the allocation pass, the dictionary load and the
// graph pass; creates the occurrence lists of the table for n compounds.
CompoundInput read_compounds(const RunSettings& settings, FragmentTable& table);
