// The command line and the run settings every later stage reads.
#pragma once

#include <string>

struct RunSettings {
  std::string option = "QZ";  // fragment type code as typed: QZ, TF or PF
  int opt = 1;                // 1 = QZ (all acyclic), 2 = TF (trees), 3 = PF (paths)
  int lmin = 1;               // smallest fragment length in bonds
  int lmax = 7;               // largest fragment length in bonds
  int fmin = 1;               // smallest support that makes a descriptor
  std::string infile;         // input file name exactly as typed
  std::string outfstem;       // stem of the output file names
  bool NoAtmLabels = false;   // Mol2: basic atom types only
  bool NoBndLabels = false;   // every bond gets the same label
  bool mol2input = false;     // input read as Mol2, records written as Mol2
};

// Option word codes: 1 -ds, 2 -lmin, 3 -lmax, 4 -fmin, 5 -ofile, 6 -help,
// 7 -NoAtmLabels, 8 -NoBndLabels, 0 anything else (exact, case-sensitive).
int classify_option(const char* word);

void print_usage();

// Fills the settings and echoes them, or ends the process with the usage
// text and status 0 (status 1 for an input name without '.').
RunSettings parse_arguments(int argc, char** argv);
