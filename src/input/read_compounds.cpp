// The compound input entry: the three passes of the chosen reader, with the
// label dictionary loaded between the allocation and the graph pass.
#include "input/input.h"

#include "input/input_internal.h"

CompoundInput read_compounds(const RunSettings& settings, FragmentTable& table) {
  // Opened first, so a missing input is refused before any file is written.
  FilePtr stream = open_file(settings.infile, "r");
  const std::string dict_name = settings.infile + ".dict";
  const bool mol2 = settings.mol2input;

  DictionaryScan scan = mol2 ? scan_mol2_labels(settings, dict_name) : scan_sd_labels(settings, dict_name);
  const int n = scan.compounds;
  CompoundInput input;
  input.compounds = mol2 ? allocate_mol2_graphs(settings, n) : allocate_sd_graphs(settings, n);
  input.compound_names.assign(n, std::string());
  create_occurrence_lists(table, n);
  input.dictionary = load_label_dictionary(dict_name);

  int read = 0;
  if (mol2)
    read_mol2_graphs(settings, std::move(stream), input.compounds, input.compound_names, input.dictionary, scan, read);
  else
    read_sd_graphs(settings, std::move(stream), input.compounds, input.compound_names, input.dictionary, scan, read);
  TAVRIX_CHECK(read == n);
  return input;
}
