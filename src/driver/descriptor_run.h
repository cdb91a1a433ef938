// The counting and numbering of a run, apart from where its results go: the
// command-line program writes them to its files, the Python module keeps
// them in memory.
#pragma once

#include <cstdio>
#include <vector>

#include "input/input.h"
#include "settings/settings.h"
#include "table/table.h"

struct DescriptorRun {
  FragmentTable table;     // per compound: (fragment id, count) in occurrence order
  std::vector<int> idmap;  // fragment id -> descriptor number, -1 for none
  int descriptors = 0;     // descriptors issued (k)
};

struct RunOutputs {
  bool announce = false;            // the per-length lines and the total on standard output
  bool progress = false;            // the progress line on standard error, when it is a terminal
  std::FILE* structure = nullptr;   // each descriptor's record, in descriptor order, when set
};

// Counts every compound's fragments of the lengths asked for, then numbers
// each length: ids, support, and descriptor numbers for the fragments whose
// support reaches fmin. run.table's occurrence lists are created here unless
// the input already did.
void run_descriptors(const RunSettings& settings, const CompoundInput& input, const RunOutputs& outputs,
                     DescriptorRun& run);
