// The labelling against the forms its first, literal implementation wrote
// for 3026 graphs (tests/data/canon/forms.txt.xz): random trees and graphs,
// molecule-like trees with hydrogens, stars of 5-8 equal leaves, twin
// centres, all-hydrogen chains, and trees too wide for packed refinement
// keys, each in a random numbering. Where a cell of five or more equal
// vertices remains, the form depends on the order refinement leaves and on
// every tie rule, so a change to one decision shows on some of these.
//
// Each line: n, the n vertex labels, m, then m bonds (u w label); after
// "|", what labelling writes: key, ncell, then v, e, el, vl and vcell.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "canon/canon.h"
#include "support/graphs.h"
#include "support/process.h"

namespace {

std::vector<int> read_ints(std::istringstream& in, int count) {
  std::vector<int> values(count);
  for (int& x : values) in >> x;
  return values;
}

std::string form_text(const Graph& g) {
  std::ostringstream out;
  out << "key " << g.key << " ncell " << g.ncell;
  const char* names[] = {"v", "e", "el", "vl", "vcell"};
  const std::vector<int>* arrays[] = {&g.v, &g.e, &g.el, &g.vl, &g.vcell};
  for (int a = 0; a < 5; ++a) {
    out << "\n  " << names[a] << ':';
    for (int x : *arrays[a]) out << ' ' << x;
  }
  return out.str();
}

}  // namespace

TEST(labelling_reference, every_graph_gets_the_form_first_written_for_it) {
  std::istringstream lines(testsupport::unxz(std::string(TAVRIX_TEST_DATA) + "/canon/forms.txt.xz"));
  int graphs = 0, differ = 0;
  for (std::string line; std::getline(lines, line); ++graphs) {
    std::istringstream in(line);
    int n = 0, m = 0;
    in >> n;
    const std::vector<int> labels = read_ints(in, n);
    in >> m;
    std::vector<testsupport::Bond> bonds(m);
    for (auto& b : bonds) in >> b.u >> b.w >> b.label;
    std::string bar;
    in >> bar;
    ASSERT_EQ(bar, "|") << "line " << graphs + 1;
    Graph expected;
    expected.vs = n;
    expected.es = 2 * m;
    in >> expected.key >> expected.ncell;
    expected.v = read_ints(in, n + 1);
    expected.e = read_ints(in, 2 * m);
    expected.el = read_ints(in, 2 * m);
    expected.vl = read_ints(in, n);
    expected.vcell = read_ints(in, n);
    ASSERT_TRUE(in) << "line " << graphs + 1;
    Graph got = testsupport::make_graph(labels, bonds);
    canonical_label(got);
    const std::string want = form_text(expected), have = form_text(got);
    if (want != have && ++differ <= 5)
      ADD_FAILURE() << "graph on line " << graphs + 1 << ": " << line.substr(0, line.find('|'))
                    << "\nexpected " << want << "\ngot      " << have;
  }
  EXPECT_EQ(graphs, 3026);
  EXPECT_EQ(differ, 0) << "graphs whose form differs";
}
