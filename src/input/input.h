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
//
// The dictionary file is written and read back under an advisory lock on the
// input file, so that runs on the same input at the same time each read back
// the dictionary they wrote; it is never written or read through a symbolic
// link. The input must be a regular file, and one that changes between or
// during the passes is refused as such.
CompoundInput read_compounds(const RunSettings& settings, FragmentTable& table);

// Removes infile + ".dict" under the same lock, so that a run finishing never
// takes away the dictionary another run has written but not read back yet.
void remove_dictionary_file(const std::string& infile);

// Where the compounds come from when no file is named on a command line: a
// file by its name, or bytes held in memory (name then only names it in
// messages).
struct InputSource {
  std::string name;
  const std::string* text = nullptr;
};

// The same passes, read from source with settings' format and label switches
// (settings.infile is not used), the dictionary built in memory exactly as it
// would be loaded back from its file; prints nothing and writes no file.
CompoundInput read_compounds_in_memory(const RunSettings& settings, const InputSource& source);
