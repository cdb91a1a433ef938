// Fuzz target: the reader's three passes on one input file, Mol2 when the
// bytes hold a "@<TRIPOS>MOLECULE" line and SD otherwise, so either kind of
// seed keeps its reader as it is mutated. Whatever the bytes, the reader
// either refuses the input through the orderly exit or returns compound
// graphs that pass check_compound.
#include <cstdint>
#include <string_view>

#include "fuzz_support.h"
#include "input/input.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzsupport::silence_stdout();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  RunSettings s;
  s.mol2input = text.find("@<TRIPOS>MOLECULE") != std::string_view::npos;
  s.infile = fuzzsupport::write_input(s.mol2input ? "in.mol2" : "in.sdf", data, size);
  // The label switches change which lines are refused; the size picks them,
  // so that the public files as seeds run every way as they are mutated.
  s.NoBndLabels = size % 2 == 1;
  s.NoAtmLabels = s.mol2input && size % 4 >= 2;
  try {
    CompoundInput input = read_compounds(s);
    FUZZ_REQUIRE(input.compound_names.size() == input.compounds.size());
    for (const Graph& g : input.compounds) fuzzsupport::check_compound(g, input.dictionary);
  } catch (const ProcessExit& e) {
    FUZZ_REQUIRE(e.status == 1);
  }
  return 0;
}
