// Structure records of the descriptor fragments. A fragment has no
// coordinates; only atoms, bonds and their labels carry information.
#include <cstring>

#include "output/output.h"

namespace {

// Calls write_bond(lower, higher, label) for every bond from its
// lower-numbered atom, in adjacency order, after checking that both
// directions of the bond carry the same label.
template <class WriteBond>
void for_each_bond(const Graph& g, WriteBond write_bond) {
  for (int i = 0; i < g.vs; ++i) {
    for (int j = g.v[i]; j < g.v[i + 1]; ++j) {
      const int u = g.e[j];
      int r = g.v[u];
      while (r < g.v[u + 1] && g.e[r] != i) ++r;
      TAVRIX_CHECK(r < g.v[u + 1]);
      if (g.el[j] != g.el[r]) fatal_error("problem with the graph\n");
      if (i < u) write_bond(i, u, g.el[j]);
    }
  }
}

}  // namespace

void write_sd_fragment(const HashEntry& slot, const Graph& g, const LabelDictionary& dict, std::FILE* out) {
  std::fprintf(out, "%d\n", slot.id);
  std::fputs("  QZ                2D\n\n", out);
  std::fprintf(out, "%3d%3d%3d%3d%3d%3d%3d%3d%3d%3d%3d\n", g.vs, g.es / 2, 0, 0, 0, 0, 0, 0, 0, 0, 0);
  for (int i = 0; i < g.vs; ++i) {
    const std::string& label = array_item(dict.vertex_labels, g.vl[i]);
    std::fputs("    0.0000    0.0000    0.0000 ", out);
    // The symbol fills a field of three columns.
    const char* pad = label.size() == 1 ? "  " : label.size() == 2 ? " " : "";
    std::fprintf(out, "%s%s", label.c_str(), pad);
    std::fputs(" 0  0  0  0  0  0  0\n", out);
  }
  for_each_bond(g, [&](int a, int b, int el) {
    const std::string& label = array_item(dict.edge_labels, el);
    std::fprintf(out, "%3d%3d", a + 1, b + 1);
    if (label == "-") std::fprintf(out, "%3d", 1);
    else if (label == "=") std::fprintf(out, "%3d", 2);
    else if (label == "#") std::fprintf(out, "%3d", 3);
    else if (label == "~") std::fprintf(out, "%3d", 4);
    std::fputs("  0  0  0  0\n", out);
  });
  std::fputs("M  END\n$$$$\n", out);
}

void write_mol2_fragment(const HashEntry& slot, const Graph& g, const LabelDictionary& dict, std::FILE* out) {
  std::fputs("@<TRIPOS>MOLECULE\n", out);
  std::fprintf(out, "%d\n", slot.id);
  std::fprintf(out, "%3d%3d%3d%3d%3d\n", g.vs, g.es / 2, 0, 0, 0);
  std::fputs("SMALL\nQZ FRAGMENT\n\n\n", out);
  std::fputs("@<TRIPOS>ATOM\n", out);
  for (int i = 0; i < g.vs; ++i) {
    const std::string& type = array_item(dict.vertex_labels, g.vl[i]);
    // The atom name is the element: the type up to its first '.'.
    const std::string name = type.substr(0, type.find('.'));
    std::fprintf(out, "\t%4d %s\t0.0000\t0.0000\t0.0000 %s\t0  UNK\t0.000\n", i + 1, name.c_str(), type.c_str());
  }
  std::fputs("@<TRIPOS>BOND\n", out);
  int number = 0;
  for_each_bond(g, [&](int a, int b, int el) {
    const std::string& label = array_item(dict.edge_labels, el);
    std::fprintf(out, "\t%3d\t%3d\t%3d", ++number, a + 1, b + 1);
    if (label == "-") std::fprintf(out, "%3d", 1);
    else if (label == "=") std::fprintf(out, "%3d", 2);
    else if (label == "#") std::fprintf(out, "%3d", 3);
    else if (label == "~") std::fputs(" ar", out);
    else if (label == "*") std::fputs(" am", out);
    std::fputs("\n", out);
  });
  std::fputs("\n", out);
}
