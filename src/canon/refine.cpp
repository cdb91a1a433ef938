// Colour refinement: orders the vertices by numbering-independent properties
// and splits them into cells until the cells stop multiplying.
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
  // `parts` may describe a deeper level than the current `p` values (after a
  // level is restored); the pass then yields no more cells and ends the loop.
  int previous = 0;
  while (m.parts > previous) {
    sort_vertices(m);
    // Each vertex is compared with the first vertex of its run, and neighbours'
    // cells are read from `p`, which changes only after the whole pass.
    CanonVertex* leader = &m.vtx[m.perm[0]];
    leader->P = 0;
    m.newpart[0] = 0;
    for (int k = 1; k < m.vs; ++k) {
      CanonVertex& x = m.vtx[m.perm[k]];
      if (compare_vertices(m, *leader, x) == 0) {
        x.P = leader->P;
      } else {
        x.P = leader->P + 1;
        m.newpart[x.P] = k;
        leader = &x;
      }
    }
    m.newparts = leader->P + 1;
    m.newpart[m.newparts] = m.vs;
    previous = m.parts;
    m.parts = m.newparts;
    for (int c = 0; c <= m.parts; ++c) m.part[c] = m.newpart[c];
    for (int k = 0; k < m.vs; ++k) m.vtx[k].p = m.vtx[k].P;
  }
}
