// Colour refinement: orders the vertices by numbering-independent properties
// and splits them into cells until the cells stop multiplying.
#include <cstdint>
#include <utility>

#include "canon/canon_internal.h"
#include "common/common.h"

namespace {

// The tie rule decides where equal elements end up, and that order is the
// starting arrangement of both searches, so it must stay exactly this: the
// element kept for slot s is replaced only by a strictly smaller one, and an
// array already in order is left untouched.
template <class T, class Less>
void selection_sort(T* items, int n, Less less) {
  for (int s = 0; s < n; ++s) {
    int kept = s;
    for (int t = s + 1; t < n; ++t)
      if (less(items[t], items[kept])) kept = t;
    if (kept != s) std::swap(items[s], items[kept]);
  }
}

// Fills m.key from the current cells (see CanonState::packed). A vertex
// alone with its p is told from every other by p, so the rest of its key is
// never read and its neighbour pairs are left out.
void fill_keys(CanonState& m) {
  const int n = m.vs, cell_shift = m.cell_shift, pair_bits = m.pair_bits;
  const CanonVertex* vtx = m.vtx.data();
  std::uint64_t* keys = m.key.data();
  int members[64] = {};  // packed keys need vs <= 64, so p < 64
  for (int v = 0; v < n; ++v) ++members[vtx[v].p];
  unsigned pairs[64];  // a key holds at most 64 pairs of one bit
  for (int v = 0; v < n; ++v) {
    const CanonVertex& x = vtx[v];
    if (members[x.p] == 1) {
      keys[v] = static_cast<std::uint64_t>(x.p) << cell_shift;
      continue;
    }
    const NeighbourRef* nb = x.neighbours.data();
    for (int s = 0; s < x.d; ++s) {
      const unsigned pair = static_cast<unsigned>(nb[s].pair + vtx[nb[s].vertex].p);
      int q = s;
      for (; q > 0 && pairs[q - 1] > pair; --q) pairs[q] = pairs[q - 1];
      pairs[q] = pair;
    }
    std::uint64_t key = static_cast<std::uint64_t>(x.p) << cell_shift | m.key_fixed[v];
    int shift = m.first_pair_shift;
    for (int s = 0; s < x.d; ++s, shift -= pair_bits) key |= static_cast<std::uint64_t>(pairs[s]) << shift;
    keys[v] = key;
  }
}

// sort_vertices on packed keys. Keys order vertices exactly as
// compare_vertices does, so the selection sort makes the same moves.
void sort_by_keys(CanonState& m) {
  fill_keys(m);
  const std::uint64_t* key = m.key.data();
  int* perm = m.perm.data();
  const int n = m.vs;
  // The selection sort leaves slot s alone when nothing after it is smaller,
  // and then the next slot sees the same array: every slot before the first
  // one with something smaller behind it keeps its vertex. Finding that slot
  // takes one sweep from the back; often (always in the last pass of a
  // refinement) there is none.
  int first = n;
  std::uint64_t smallest = key[perm[n - 1]];
  for (int s = n - 2; s >= 0; --s) {
    const std::uint64_t here = key[perm[s]];
    if (here > smallest) first = s;
    else smallest = here;
  }
  if (first < n) selection_sort(perm + first, n - first, [key](int a, int b) { return key[a] < key[b]; });
  for (int k = 0; k < n; ++k) m.perm_inv[perm[k]] = k;
}

// One refinement pass after the sort: cell indices into P and the new
// bounds. Each vertex is compared with the first vertex of its run, and
// neighbours' cells are read from `p`, which changes only after the pass.
template <class Same>
void number_cells(CanonState& m, Same same) {
  // Locals, so that the stores below cannot be taken to change them.
  const int n = m.vs;
  const int* perm = m.perm.data();
  CanonVertex* vtx = m.vtx.data();
  int* newpart = m.newpart.data();
  CanonVertex* leader = &vtx[perm[0]];
  int cell = 0;
  leader->P = 0;
  newpart[0] = 0;
  for (int k = 1; k < n; ++k) {
    CanonVertex& x = vtx[perm[k]];
    if (!same(*leader, x)) {
      newpart[++cell] = k;
      leader = &x;
    }
    x.P = cell;
  }
  m.newparts = cell + 1;
  newpart[cell + 1] = n;
}

}  // namespace

int compare_neighbour_lists(const CanonState& m, const CanonVertex& x, const CanonVertex& y) {
  TAVRIX_CHECK(x.d == y.d);
  for (int s = 0; s < x.d; ++s) {
    const NeighbourRef& a = x.neighbours[s];
    const NeighbourRef& b = y.neighbours[s];
    if (a.code != b.code) return a.code - b.code;
    const int pa = m.vtx[a.vertex].p, pb = m.vtx[b.vertex].p;
    if (pa != pb) return pa - pb;
  }
  return 0;
}

int compare_vertices(const CanonState& m, const CanonVertex& a, const CanonVertex& b) {
  if (a.p != b.p) return a.p - b.p;
  if (a.d != b.d) return b.d - a.d;  // more bonds first
  if (a.l != b.l) return a.l - b.l;
  return compare_neighbour_lists(m, a, b);
}

void sort_vertices(CanonState& m) {
  if (m.packed) {
    sort_by_keys(m);
    return;
  }
  for (int k = 0; k < m.vs; ++k) {
    CanonVertex& x = m.vtx[k];
    selection_sort(x.neighbours.data(), x.d, [&m](const NeighbourRef& a, const NeighbourRef& b) {
      if (a.code != b.code) return a.code < b.code;
      return m.vtx[a.vertex].p < m.vtx[b.vertex].p;
    });
  }
  selection_sort(m.perm.data(), m.vs,
                 [&m](int a, int b) { return compare_vertices(m, m.vtx[a], m.vtx[b]) < 0; });
  for (int k = 0; k < m.vs; ++k) m.perm_inv[m.perm[k]] = k;
}

void refine(CanonState& m) {
  // Passes go on while they add cells; the first one always runs.
  int previous = 0;
  while (m.parts > previous) {
    sort_vertices(m);
    if (m.packed) {
      const std::uint64_t* key = m.key.data();
      number_cells(m, [key](const CanonVertex& a, const CanonVertex& b) { return key[a.r] == key[b.r]; });
    } else {
      number_cells(m, [&m](const CanonVertex& a, const CanonVertex& b) { return compare_vertices(m, a, b) == 0; });
    }
    previous = m.parts;
    const int parts = m.parts = m.newparts;
    for (int c = 0; c <= parts; ++c) m.part[c] = m.newpart[c];
    bool settled = true;
    CanonVertex* vtx = m.vtx.data();
    for (int k = 0, n = m.vs; k < n; ++k) {
      settled &= vtx[k].p == vtx[k].P;
      vtx[k].p = vtx[k].P;
    }
    // A pass that gave every vertex back its p is a fixed point: the next one
    // would see the same cells, sort nothing and find the same cells again,
    // which ends the loop. Stopping here leaves every field as that pass would.
    if (settled) break;
  }
}
