// Structure records and the descriptor file: the cases the golden runs miss.
#include <gtest/gtest.h>

#include "output/output.h"
#include "support/graphs.h"
#include "support/process.h"

namespace {

using namespace testsupport;

LabelDictionary dictionary(const std::vector<std::string>& bonds, const std::vector<std::string>& atoms) {
  LabelDictionary d = new_label_dictionary();
  for (const std::string& b : bonds) add_edge_label(b, d);
  for (const std::string& a : atoms) add_vertex_label(a, d);
  return d;
}

// A centre with leaves 1, 2, ... joined by bonds of the given labels.
Graph star(const std::vector<int>& vl, const std::vector<int>& bond_labels) {
  std::vector<testsupport::Bond> bonds;
  for (std::size_t i = 0; i < bond_labels.size(); ++i) bonds.push_back({0, static_cast<int>(i) + 1, bond_labels[i]});
  return testsupport::make_graph(vl, bonds);
}

template <class Write>
std::string written(Write write) {
  std::FILE* f = std::tmpfile();
  write(f);
  std::rewind(f);
  std::string s;
  char buf[4096];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) s.append(buf, n);
  std::fclose(f);
  return s;
}

// The golden runs compare whole structure files of both formats byte for
// byte, aromatic and amide Mol2 bonds included; what follows is what they
// never write: three-letter symbols and SD bond types 3 and 4 side by side.
TEST(write_sd_fragment, pads_labels_to_three_columns_and_writes_bond_types) {
  const LabelDictionary d = dictionary({"-", "=", "#", "~"}, {"Cl", "C", "Uuo"});
  const Graph g = star({1, 0, 2, 1}, {0, 2, 3});  // "#", "=", "~"
  const std::string rec = written([&](std::FILE* f) { write_sd_fragment(3, g, d, f); });
  EXPECT_NE(rec.find("0.0000 C   0"), std::string::npos);
  EXPECT_NE(rec.find("0.0000 Cl  0"), std::string::npos);
  EXPECT_NE(rec.find("0.0000 Uuo 0"), std::string::npos);
  EXPECT_NE(rec.find("  1  2  3  0  0  0  0\n  1  3  2  0  0  0  0\n  1  4  4  0  0  0  0\nM  END"),
            std::string::npos);
}

TEST(write_sd_fragment, bond_labels_that_disagree_end_the_run) {
  const LabelDictionary d = dictionary({"-", "=", "#", "~"}, {"C"});
  Graph g = star({0, 0}, {1});
  g.el[1] = 2;
  std::FILE* f = std::tmpfile();
  EXPECT_EXIT_WITH_OUTPUT(write_sd_fragment(1, g, d, f), 1, "problem with the graph\n$");
  std::fclose(f);
}

}  // namespace
