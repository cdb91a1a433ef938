// Structure records of the descriptor fragments. A fragment has no
// coordinates; only atoms, bonds and their labels carry information.
//
// Tens of thousands of records are written per run, so each record is
// formatted into one buffer by hand (the same bytes "%3d" and friends give)
// and written with one call.
#include <charconv>
#include <cstring>

#include "output/output.h"

namespace {

std::string record;  // grow-only: one record at a time

void put(std::string_view text) { record.append(text); }

// The bytes of printf's "%<width>d".
void put_int(int value, int width) {
  char digits[16];
  const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  const int n = static_cast<int>(end - digits);
  if (n < width) record.append(width - n, ' ');
  record.append(digits, n);
}

// Calls write_bond(lower, higher, label) for every bond from its
// lower-numbered atom, in adjacency order, after checking that both
// directions of the bond carry the same label. On a mismatch the record
// written so far goes to the file before the run ends.
template <class WriteBond>
void for_each_bond(const Graph& g, std::FILE* out, WriteBond write_bond) {
  for (int i = 0; i < g.vs; ++i) {
    for (int j = g.v[i]; j < g.v[i + 1]; ++j) {
      const int u = g.e[j];
      int r = g.v[u];
      while (r < g.v[u + 1] && g.e[r] != i) ++r;
      TAVRIX_CHECK(r < g.v[u + 1]);
      if (g.el[j] != g.el[r]) {
        std::fwrite(record.data(), 1, record.size(), out);
        fatal_error("problem with the graph\n");
      }
      if (i < u) write_bond(i, u, g.el[j]);
    }
  }
}

// SD bond type of a bond label, 0 for a label outside the table.
int sd_bond_type(const std::string& label) {
  if (label == "-") return 1;
  if (label == "=") return 2;
  if (label == "#") return 3;
  if (label == "~") return 4;
  return 0;
}

void flush_record(std::FILE* out) { std::fwrite(record.data(), 1, record.size(), out); }

}  // namespace

void write_sd_fragment(const HashEntry& slot, const Graph& g, const LabelDictionary& dict, std::FILE* out) {
  record.clear();
  put_int(slot.id, 0);
  put("\n  QZ                2D\n\n");
  put_int(g.vs, 3);
  put_int(g.es / 2, 3);
  put("  0  0  0  0  0  0  0  0  0\n");
  for (int i = 0; i < g.vs; ++i) {
    const std::string& label = array_item(dict.vertex_labels, g.vl[i]);
    put("    0.0000    0.0000    0.0000 ");
    // The symbol fills a field of three columns.
    put(label);
    put(label.size() == 1 ? "  " : label.size() == 2 ? " " : "");
    put(" 0  0  0  0  0  0  0\n");
  }
  for_each_bond(g, out, [&](int a, int b, int el) {
    put_int(a + 1, 3);
    put_int(b + 1, 3);
    const int type = sd_bond_type(array_item(dict.edge_labels, el));
    if (type != 0) put_int(type, 3);
    put("  0  0  0  0\n");
  });
  put("M  END\n$$$$\n");
  flush_record(out);
}

void write_mol2_fragment(const HashEntry& slot, const Graph& g, const LabelDictionary& dict, std::FILE* out) {
  record.clear();
  put("@<TRIPOS>MOLECULE\n");
  put_int(slot.id, 0);
  put("\n");
  put_int(g.vs, 3);
  put_int(g.es / 2, 3);
  put("  0  0  0\nSMALL\nQZ FRAGMENT\n\n\n@<TRIPOS>ATOM\n");
  for (int i = 0; i < g.vs; ++i) {
    const std::string& type = array_item(dict.vertex_labels, g.vl[i]);
    put("\t");
    put_int(i + 1, 4);
    put(" ");
    // The atom name is the element: the type up to its first '.'.
    put(std::string_view(type).substr(0, type.find('.')));
    put("\t0.0000\t0.0000\t0.0000 ");
    put(type);
    put("\t0  UNK\t0.000\n");
  }
  put("@<TRIPOS>BOND\n");
  int number = 0;
  for_each_bond(g, out, [&](int a, int b, int el) {
    put("\t");
    put_int(++number, 3);
    put("\t");
    put_int(a + 1, 3);
    put("\t");
    put_int(b + 1, 3);
    const std::string& label = array_item(dict.edge_labels, el);
    if (label == "~") put(" ar");
    else if (label == "*") put(" am");
    else if (const int type = sd_bond_type(label); type != 0) put_int(type, 3);
    put("\n");
  });
  put("\n");
  flush_record(out);
}
