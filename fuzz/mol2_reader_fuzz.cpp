// Fuzz target: the Mol2 reader's three passes on one input file. Whatever the
// bytes, the reader either refuses the input through the orderly exit or
// returns compound graphs that pass check_compound.
#include <cstdint>

#include "fuzz_support.h"
#include "input/input.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzsupport::silence_stdout();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  RunSettings s;
  s.infile = fuzzsupport::write_input("in.mol2", data, size);
  s.mol2input = true;
  // -NoAtmLabels and -NoBndLabels change which lines are refused; let the size
  // pick them, so that the public files as seeds run every way as they are mutated.
  s.NoAtmLabels = size % 4 >= 2;
  s.NoBndLabels = size % 2 == 1;
  try {
    CompoundInput input = read_compounds(s);
    FUZZ_REQUIRE(input.compound_names.size() == input.compounds.size());
    for (const Graph& g : input.compounds) fuzzsupport::check_compound(g, input.dictionary);
  } catch (const ProcessExit& e) {
    FUZZ_REQUIRE(e.status == 1);
  }
  return 0;
}
