// Fuzz target: the SD reader's three passes on one input file. Whatever the
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
  s.infile = fuzzsupport::write_input("in.sdf", data, size);
  s.mol2input = false;
  // -NoBndLabels changes which bond lines are refused; let the size pick it,
  // so that the public files as seeds run both ways as they are mutated.
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
