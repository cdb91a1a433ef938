// Colour refinement: each pass sorts the vertices by (cell, degree
// descending, label, their sorted (bond code, neighbour's cell) pairs) and
// numbers the cells anew.
#include <algorithm>
#include <bit>
#include <cstdint>

#include "canon/canon_internal.h"
#include "common/common.h"

namespace {

using PackedKey = unsigned __int128;
// Vertices a packed key holds cells of, and so pairs at most.
constexpr int MAX_PACKED_VERTICES = 64;

int bits_for(int largest) { return static_cast<int>(std::bit_width(static_cast<unsigned>(largest))); }

// Sorts perm by less with the tie rule of a selection sort: slot s takes a
// later vertex only when that one is strictly smaller than all before it.
// Slots before the first one with something smaller behind it keep their
// vertex, and often (always in a refinement's last pass) there is none.
template <class Less>
void sort_positions(int* perm, int n, Less less) {
  int first = n;
  int smallest = perm[n - 1];
  for (int s = n - 2; s >= 0; --s) {
    if (less(smallest, perm[s])) first = s;
    else smallest = perm[s];
  }
  for (int s = first; s < n; ++s) {
    int kept = s;
    for (int t = s + 1; t < n; ++t)
      if (less(perm[t], perm[kept])) kept = t;
    if (kept != s) std::swap(perm[s], perm[kept]);
  }
}

// Numbers the cells of the sorted order: a new cell wherever the key steps
// up. Returns whether any vertex changed cell.
template <class Less>
bool number_cells(Labelling& m, Less less) {
  const int* perm = m.perm.data();
  int* p = m.p.data();
  bool changed = p[perm[0]] != 0;
  p[perm[0]] = 0;
  m.part[0] = 0;
  int cell = 0;
  for (int k = 1; k < m.n; ++k) {
    if (less(perm[k - 1], perm[k])) m.part[++cell] = k;
    changed |= p[perm[k]] != cell;
    p[perm[k]] = cell;
  }
  m.parts = cell + 1;
  m.part[m.parts] = m.n;
  return changed;
}

// One pass on keys packed from the top: cell, max_degree - degree, label,
// then the sorted pairs (code, cell), zeros after the last. Equal degrees
// give equally many pairs, and different degrees differ above the pairs. A
// vertex alone in its cell is told from every other by the cell, so its
// pairs are left out. Key is 64 bits wide where the layout fits, which it
// does for fragments of everyday lengths, else 128.
template <class Key>
bool packed_pass(Labelling& m) {
  const int n = m.n, stride = m.stride, cell_bits = m.cell_bits, max_degree = m.max_degree;
  const int pair_bits = m.code_bits + cell_bits, label_bits = m.label_bits, degree_bits = m.degree_bits;
  const int label_shift = max_degree * pair_bits;
  const int* deg = m.deg;
  const int* label = m.label;
  const int* nb = m.nb;
  const int* adj = m.adj;
  int* p = m.p.data();
  int* perm = m.perm.data();
  Key key[MAX_PACKED_VERTICES];       // per vertex
  Key in_order[MAX_PACKED_VERTICES];  // per position
  int members[MAX_PACKED_VERTICES];   // per cell
  std::fill_n(members, n, 0);
  for (int v = 0; v < n; ++v) ++members[p[v]];
  for (int v = 0; v < n; ++v) {
    const int d = deg[v];
    Key k = ((static_cast<Key>(p[v]) << degree_bits | static_cast<Key>(max_degree - d)) << label_bits |
             static_cast<Key>(label[v])) << label_shift;
    if (members[p[v]] > 1) {
      const int* row = nb + v * stride;
      unsigned pairs[MAX_PACKED_VERTICES];
      for (int j = 0; j < d; ++j) {
        const int w = row[j];
        const unsigned pair = static_cast<unsigned>(adj[v * stride + w]) << cell_bits | static_cast<unsigned>(p[w]);
        int q = j;
        for (; q > 0 && pairs[q - 1] > pair; --q) pairs[q] = pairs[q - 1];
        pairs[q] = pair;
      }
      int shift = label_shift - pair_bits;
      for (int j = 0; j < d; ++j, shift -= pair_bits) k |= static_cast<Key>(pairs[j]) << shift;
    }
    key[v] = k;
  }
  // sort_positions and number_cells on the keys in position order, which
  // move along with perm.
  for (int s = 0; s < n; ++s) in_order[s] = key[perm[s]];
  int first = n;
  Key smallest = in_order[n - 1];
  for (int s = n - 2; s >= 0; --s) {
    if (smallest < in_order[s]) first = s;
    else smallest = in_order[s];
  }
  for (int s = first; s < n; ++s) {
    int kept = s;
    for (int t = s + 1; t < n; ++t)
      if (in_order[t] < in_order[kept]) kept = t;
    if (kept != s) {
      std::swap(in_order[s], in_order[kept]);
      std::swap(perm[s], perm[kept]);
    }
  }
  int cell = 0;
  bool changed = p[perm[0]] != 0;
  p[perm[0]] = 0;
  m.part[0] = 0;
  for (int k = 1; k < n; ++k) {
    if (in_order[k - 1] != in_order[k]) m.part[++cell] = k;
    changed |= p[perm[k]] != cell;
    p[perm[k]] = cell;
  }
  m.parts = cell + 1;
  m.part[m.parts] = n;
  return changed;
}

// The same pass on rows of ints, for graphs whose keys do not fit.
bool row_pass(Labelling& m) {
  const int n = m.n, width = 3 + 2 * m.max_degree;
  int* rows = m.row_key.data();
  for (int v = 0; v < n; ++v) {
    int* k = rows + v * width;
    k[0] = m.p[v];
    k[1] = -m.deg[v];
    k[2] = m.label[v];
    for (int j = 0; j < m.deg[v]; ++j) {
      const int w = m.nb[v * m.stride + j];
      const int code = m.code(v, w), cell = m.p[w];
      int q = 3 + 2 * j;
      for (; q > 3 && (k[q - 2] > code || (k[q - 2] == code && k[q - 1] > cell)); q -= 2) {
        k[q] = k[q - 2];
        k[q + 1] = k[q - 1];
      }
      k[q] = code;
      k[q + 1] = cell;
    }
  }
  auto less = [rows, width, &m](int a, int b) {
    const int* x = rows + a * width;
    const int* y = rows + b * width;
    return std::lexicographical_compare(x, x + 3 + 2 * m.deg[a], y, y + 3 + 2 * m.deg[b]);
  };
  sort_positions(m.perm.data(), n, less);
  return number_cells(m, less);
}

}  // namespace

void start(Labelling& m, int n) {
  TAVRIX_CHECK(n >= 1);
  m.n = n;
  if (n > m.capacity) {
    for (std::vector<int>* a : {&m.perm, &m.p, &m.best, &m.order, &m.vkey, &m.keys}) a->resize(n);
    m.part.resize(n + 1);
    m.capacity = n;
  }
  int* perm = m.perm.data();
  int* p = m.p.data();
  for (int k = 0; k < n; ++k) {
    perm[k] = k;
    p[k] = 0;
  }
  m.parts = 1;
  m.part[0] = 0;
  m.part[1] = n;
  m.best_is_leaf = false;
  // The widths of the packed keys' fields.
  int max_label = 0, max_code = 0, max_degree = 0;
  bool negative = false;
  for (int v = 0; v < n; ++v) {
    const int d = m.deg[v], l = m.label[v];
    const int* row = m.nb + v * m.stride;
    const int* codes = m.adj + v * m.stride;
    max_degree = std::max(max_degree, d);
    max_label = std::max(max_label, l);
    negative |= l < 0;
    for (int j = 0; j < d; ++j) max_code = std::max(max_code, codes[row[j]]);
  }
  m.max_degree = max_degree;
  m.cell_bits = bits_for(n - 1);
  m.degree_bits = bits_for(max_degree);
  m.label_bits = bits_for(max_label);
  m.code_bits = bits_for(max_code);
  const int width = m.cell_bits + m.degree_bits + m.label_bits + max_degree * (m.code_bits + m.cell_bits);
  m.packed = !negative && n <= MAX_PACKED_VERTICES && width <= 128;
  m.narrow = width <= 64;
  if (!m.packed && m.row_key.size() < static_cast<std::size_t>(n) * (3 + 2 * max_degree))
    m.row_key.resize(static_cast<std::size_t>(n) * (3 + 2 * max_degree));
}

void refine(Labelling& m) {
  // The first pass always runs: after individualizing, the cells are new but
  // the order is not yet sorted under them. A pass that leaves every vertex
  // in its cell, or adds no cell, or leaves every vertex alone, is the last:
  // a further one would find the order sorted and keep it.
  while (true) {
    const int before = m.parts;
    const bool changed = !m.packed ? row_pass(m) : m.narrow ? packed_pass<std::uint64_t>(m) : packed_pass<PackedKey>(m);
    if (!changed || m.parts <= before || m.parts == m.n) return;
  }
}

int largest_cell(const Labelling& m) {
  int largest = 0;
  for (int c = 0; c < m.parts; ++c) largest = std::max(largest, m.part[c + 1] - m.part[c]);
  return largest;
}
