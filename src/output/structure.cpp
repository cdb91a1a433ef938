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

thread_local std::string record;  // grow-only: one record at a time (per thread)

void put(std::string& out, std::string_view text) { out.append(text); }

// The bytes of printf's "%<width>d".
void put_int(std::string& out, int value, int width) {
  char digits[16];
  const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  const int n = static_cast<int>(end - digits);
  if (n < width) out.append(width - n, ' ');
  out.append(digits, n);
}

// The bytes of printf's "%3d" for 0..999, the common case of atom numbers
// and bond types.
void put_int3(std::string& out, int value) {
  if (value < 0 || value > 999) {
    put_int(out, value, 3);
    return;
  }
  char field[3] = {' ', ' ', static_cast<char>('0' + value % 10)};
  if (value >= 10) field[1] = static_cast<char>('0' + value / 10 % 10);
  if (value >= 100) field[0] = static_cast<char>('0' + value / 100);
  out.append(field, 3);
}

// The atom line of each label, made at its first use: most records repeat a
// handful of labels. An entry remembers its label, so a later dictionary with
// other labels at the same numbers gets fresh lines.
struct AtomLine {
  std::string label;
  std::string line;
};
thread_local std::vector<AtomLine> sd_atom_lines;

const std::string& sd_atom_line(const LabelDictionary& dict, int label_index) {
  const std::string& label = array_item(dict.vertex_labels, label_index);
  if (static_cast<std::size_t>(label_index) >= sd_atom_lines.size()) sd_atom_lines.resize(label_index + 1);
  AtomLine& entry = sd_atom_lines[label_index];
  if (entry.line.empty() || entry.label != label) {
    entry.label = label;
    // The symbol fills a field of three columns.
    entry.line = "    0.0000    0.0000    0.0000 " + label + (label.size() == 1 ? "  " : label.size() == 2 ? " " : "") +
                 " 0  0  0  0  0  0  0\n";
  }
  return entry.line;
}

// Calls write_bond(lower, higher, label) for every bond from its
// lower-numbered atom, in adjacency order, after checking that both
// directions of the bond carry the same label; false on a mismatch.
template <class WriteBond>
bool for_each_bond(const GraphView& g, WriteBond write_bond) {
  for (int i = 0; i < g.vs; ++i) {
    for (int j = g.v[i]; j < g.v[i + 1]; ++j) {
      const int u = g.e[j];
      int r = g.v[u];
      while (r < g.v[u + 1] && g.e[r] != i) ++r;
      TAVRIX_CHECK(r < g.v[u + 1]);
      if (g.el[j] != g.el[r]) return false;
      if (i < u) write_bond(i, u, g.el[j]);
    }
  }
  return true;
}

// SD bond type of a bond label, 0 for a label outside the table.
int sd_bond_type(const std::string& label) {
  if (label == "-") return 1;
  if (label == "=") return 2;
  if (label == "#") return 3;
  if (label == "~") return 4;
  return 0;
}

}  // namespace

bool format_sd_fragment(int id, const GraphView& g, const LabelDictionary& dict, std::string& out) {
  put_int(out, id, 0);
  put(out, "\n  QZ                2D\n\n");
  put_int(out, g.vs, 3);
  put_int(out, g.es / 2, 3);
  put(out, "  0  0  0  0  0  0  0  0  0\n");
  for (int i = 0; i < g.vs; ++i) put(out, sd_atom_line(dict, g.vl[i]));
  const bool fine = for_each_bond(g, [&](int a, int b, int el) {
    put_int3(out, a + 1);
    put_int3(out, b + 1);
    const int type = sd_bond_type(array_item(dict.edge_labels, el));
    if (type != 0) put_int3(out, type);
    put(out, "  0  0  0  0\n");
  });
  if (!fine) return false;
  put(out, "M  END\n$$$$\n");
  return true;
}

bool format_mol2_fragment(int id, const GraphView& g, const LabelDictionary& dict, std::string& out) {
  put(out, "@<TRIPOS>MOLECULE\n");
  put_int(out, id, 0);
  put(out, "\n");
  put_int(out, g.vs, 3);
  put_int(out, g.es / 2, 3);
  put(out, "  0  0  0\nSMALL\nQZ FRAGMENT\n\n\n@<TRIPOS>ATOM\n");
  for (int i = 0; i < g.vs; ++i) {
    const std::string& type = array_item(dict.vertex_labels, g.vl[i]);
    put(out, "\t");
    put_int(out, i + 1, 4);
    put(out, " ");
    // The atom name is the element: the type up to its first '.'.
    put(out, std::string_view(type).substr(0, type.find('.')));
    put(out, "\t0.0000\t0.0000\t0.0000 ");
    put(out, type);
    put(out, "\t0  UNK\t0.000\n");
  }
  put(out, "@<TRIPOS>BOND\n");
  int number = 0;
  const bool fine = for_each_bond(g, [&](int a, int b, int el) {
    put(out, "\t");
    put_int(out, ++number, 3);
    put(out, "\t");
    put_int(out, a + 1, 3);
    put(out, "\t");
    put_int(out, b + 1, 3);
    const std::string& label = array_item(dict.edge_labels, el);
    if (label == "~") put(out, " ar");
    else if (label == "*") put(out, " am");
    else if (const int type = sd_bond_type(label); type != 0) put_int(out, type, 3);
    put(out, "\n");
  });
  if (!fine) return false;
  put(out, "\n");
  return true;
}

void write_sd_fragment(int id, const GraphView& g, const LabelDictionary& dict, std::FILE* out) {
  record.clear();
  const bool fine = format_sd_fragment(id, g, dict, record);
  std::fwrite(record.data(), 1, record.size(), out);
  if (!fine) fatal_error("problem with the graph\n");
}

void write_mol2_fragment(int id, const GraphView& g, const LabelDictionary& dict, std::FILE* out) {
  record.clear();
  const bool fine = format_mol2_fragment(id, g, dict, record);
  std::fwrite(record.data(), 1, record.size(), out);
  if (!fine) fatal_error("problem with the graph\n");
}
