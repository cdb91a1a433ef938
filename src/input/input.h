// Compound input: reads an SD or Mol2 file in two passes into one compound
// graph per record, the label dictionary and the compound names.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "common/common.h"
#include "graph/graph.h"
#include "settings/settings.h"

struct InputFile;
struct DictionaryScan;
struct SdGraphPass;
struct Mol2GraphPass;

// The compounds of an input one at a time, as the graph pass reads them, so
// that a run holds one compound per worker rather than all of them.
struct CompoundStream {
  CompoundStream();
  ~CompoundStream();
  CompoundStream(const CompoundStream&) = delete;
  CompoundStream& operator=(const CompoundStream&) = delete;

  RunSettings settings;
  LabelDictionary dictionary;  // complete before the first compound
  int compounds = 0;           // records, as the dictionary pass counted them
  std::unique_ptr<InputFile> input;
  std::unique_ptr<DictionaryScan> scan;
  SdGraphPass* sd = nullptr;
  Mol2GraphPass* mol2 = nullptr;
};

// Runs the dictionary pass (writes infile + ".dict", prints
// "total compounds = %d", then refuses a line over the tokeniser's limit
// that only the graph pass would read) and the dictionary load, and leaves
// the graph pass ready for next_compound.
//
// The dictionary file is written and read back under an advisory lock on the
// input file, so that runs on the same input at the same time each read back
// the dictionary they wrote; it is never written or read through a symbolic
// link. The input must be a regular file, and one that changes between or
// during the passes is refused as such.
void open_compounds(const RunSettings& settings, CompoundStream& stream);

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
void open_compounds_in_memory(const RunSettings& settings, const InputSource& source, CompoundStream& stream);

// The next compound of the graph pass into g and its name; false after the
// last (having checked that the file did not change meanwhile).
bool next_compound(CompoundStream& stream, Graph& g, std::string& name);

// Removes infile + ".dict" under the same lock, so that a run finishing never
// takes away the dictionary another run has written but not read back yet.
void remove_dictionary_file(const std::string& infile);

// Every compound at once, for callers that want them all.
struct CompoundInput {
  std::vector<Graph> compounds;             // compid order = input order
  std::vector<std::string> compound_names;  // one per compound
  LabelDictionary dictionary;
};

// open_compounds and every compound.
CompoundInput read_compounds(const RunSettings& settings);
CompoundInput read_compounds_in_memory(const RunSettings& settings, const InputSource& source);
