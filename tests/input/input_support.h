// Test support for the compound input: inputs copied into a scratch folder
// (the dictionary file is written beside them), whole-file loads with the
// standard output captured, and death tests on exact messages.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "input/input.h"
#include "reference/reference.h"
#include "support/process.h"

namespace inputtest {

// The text of a file of tests/data/input, decompressed when it ends in ".xz".
inline std::string data(const std::string& name) {
  const std::string path = std::string(TAVRIX_TEST_DATA) + "/input/" + name;
  if (name.size() > 3 && name.substr(name.size() - 3) == ".xz") return testsupport::unxz(path);
  return testsupport::read_file(path);
}

struct Scratch {
  std::string dir = testsupport::make_temp_dir();
  ~Scratch() { testsupport::remove_tree(dir); }
  std::string put(const std::string& name, const std::string& content) const {
    testsupport::write_file(dir + "/" + name, content);
    return dir + "/" + name;
  }
};

struct Flags {
  bool mol2 = false;
  bool no_atom_labels = false;
  bool no_bond_labels = false;
};

inline RunSettings settings_for(const std::string& path, Flags f) {
  RunSettings s;
  s.infile = path;
  s.mol2input = f.mol2;
  s.NoAtmLabels = f.no_atom_labels;
  s.NoBndLabels = f.no_bond_labels;
  return s;
}

struct Loaded {
  CompoundInput input;
  std::string out;  // what the passes printed
};

inline Loaded load(const std::string& path, Flags f = {}) {
  testing::internal::CaptureStdout();
  Loaded r{read_compounds(settings_for(path, f)), ""};
  r.out = testing::internal::GetCapturedStdout();
  return r;
}

inline void run_quietly(const std::string& path, Flags f) { read_compounds(settings_for(path, f)); }

// An anchored regular expression matching exactly the given text.
inline std::string exactly(const std::string& text) {
  std::string re = "^";
  for (char c : text) {
    if (std::string_view(".[]{}()*+?^$|\\").find(c) != std::string_view::npos) re += '\\';
    re += c;
  }
  return re + "$";
}

// The run over the input ends with status 1 after printing exactly `output`.
#define EXPECT_INPUT_REFUSED(path, flags, output) \
  EXPECT_EXIT_WITH_OUTPUT(inputtest::run_quietly(path, flags), 1, inputtest::exactly(output))

// Every bond once, as "i-j:label" with 0-based i < j, in adjacency order.
inline std::vector<std::string> bonds_of(const CompoundInput& in, const Graph& g) {
  std::vector<std::string> out;
  for (int i = 0; i < g.vs; ++i)
    for (int j = g.v[i]; j < g.v[i + 1]; ++j)
      if (i < g.e[j])
        out.push_back(std::to_string(i) + "-" + std::to_string(g.e[j]) + ":" +
                      in.dictionary.edge_labels.items.at(g.el[j]));
  return out;
}

}  // namespace inputtest
