// Fuzz target: a whole run (-lmax 3) on one input file, outputs in a scratch
// folder. The format follows the content: Mol2 when the bytes hold a
// "@<TRIPOS>MOLECULE" line, SD otherwise, so either kind of seed keeps its
// reader as it is mutated; the size picks the fragment type and the label
// switches. A run ends with status 1 after a complete run or an orderly
// refusal; anything else (a signal, a sanitizer report, a broken internal
// check, a hang) is a finding.
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "driver/driver.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzsupport::silence_stdout();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const bool mol2 = text.find("@<TRIPOS>MOLECULE") != std::string_view::npos;
  const std::string input = fuzzsupport::write_input(mol2 ? "in.mol2" : "in.sdf", data, size);
  const std::string stem = fuzzsupport::scratch_dir() + "/out";
  static const char* const types[] = {"QZ", "TF", "PF", "QZ"};
  std::vector<std::string> args = {"Tavrix", "-lmax", "3", "-ds", types[size % 4], "-ofile", stem};
  if (size / 4 % 2 == 1) args.push_back("-NoBndLabels");
  if (mol2 && size / 8 % 2 == 1) args.push_back("-NoAtmLabels");
  args.push_back(input);
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  int status = -1;
  try {
    status = run_tavrix(static_cast<int>(args.size()), argv.data());
  } catch (const ProcessExit& e) {
    status = e.status;
  }
  FUZZ_REQUIRE(status == 1);
  return 0;
}
