// Search for large cells: fix one vertex of the first non-trivial cell as a
// cell of its own, refine, go deeper, and keep the leaf with the greatest code.
#include <algorithm>

#include "canon/canon_internal.h"
#include "common/common.h"

namespace {

int first_open_cell(const CanonState& m, int from) {
  for (int c = from; c < m.parts; ++c)
    if (m.part[c + 1] - m.part[c] > 1) return c;
  return -1;
}

}  // namespace

void copy_partition(const CanonState& src, CanonState& dst) {
  TAVRIX_CHECK(src.vs == dst.vs);
  for (int k = 0; k < src.vs; ++k) dst.vtx[k].p = src.vtx[k].p;
  std::copy_n(src.part.begin(), src.vs + 1, dst.part.begin());
  dst.parts = src.parts;
}

namespace {

// Single loops rather than one copy call per array: records here are a few
// vertices long, where the calls cost more than the copying.
void save_level(const CanonState& m, const SaveArea& save) {
  for (int k = 0; k < m.vs; ++k) {
    save.perm[k] = m.perm[k];
    save.perm_inv[k] = m.perm_inv[k];
    save.p[k] = m.vtx[k].p;
  }
}

// individualize without saving: every trial of a level starts from the same
// record, so the search saves it once per level.
void individualize_vertex(CanonState& m, int v) {
  // v's cell has another vertex, so cell indices stay below vs (as packed
  // keys need) after those behind v move up.
  TAVRIX_CHECK(m.parts < m.vs);
  // v keeps its cell index; the rest of its cell and every later cell move up
  // one, so cell indices stay consecutive and v sorts to the cell's front.
  bool hit = false;
  const int* perm = m.perm.data();
  CanonVertex* vtx = m.vtx.data();
  for (int q = m.part[vtx[v].p], n = m.vs; q < n; ++q) {
    if (perm[q] == v) hit = true;
    else ++vtx[perm[q]].p;
  }
  TAVRIX_CHECK(hit);
  // Refinement's first pass sorts under these cells; a sort before it would
  // leave that pass a sorted record, which sorting again does not move.
  refine(m);
}

}  // namespace

void individualize(CanonState& m, int v, const SaveArea& save) {
  save_level(m, save);
  individualize_vertex(m, v);
}

// The saved record is one that refinement ended on: its order is sorted
// under its cells, and a further pass finds the same cells, numbered as they
// are (so P equals p). Re-sorting and refining it would leave the order
// untouched, rebuild the same perm_inv and recompute part and newpart from
// p; copying gives those very values. Only the arrangement of equal entries
// in the neighbour lists may differ from what re-sorting would leave, and
// comparisons read those lists only after sorting them again.
void restore_level(CanonState& m, const SaveArea& save) {
  const int n = m.vs;
  // Cells are numbered in position order, so each starts where p steps up.
  int c = 0;
  m.part[0] = m.newpart[0] = 0;
  for (int k = 0; k < n; ++k) {
    m.perm[k] = save.perm[k];
    m.perm_inv[k] = save.perm_inv[k];
    m.vtx[k].p = m.vtx[k].P = save.p[k];
    if (k > 0 && save.p[save.perm[k]] != save.p[save.perm[k - 1]]) {
      ++c;
      m.part[c] = m.newpart[c] = k;
    }
  }
  m.parts = m.newparts = c + 1;
  m.part[m.parts] = m.newpart[m.parts] = n;
}

namespace {

// The search below one level. `before` is the sign of the comparison with
// best of the rows before position c, which are the same in every trial of
// the level: cells before c are single vertices that individualizing and
// refining within cell c or later cannot move. So rows 0..c compare as
// `before` unless it is 0, when row c decides, exactly as comparing them all
// would; `before` is recomputed whenever best changes. Returns whether best
// changed anywhere below.
bool search_from(CanonState& m, int c, int prev, CanonState& best, int before) {
  if (m.parts != m.vs) {
    TAVRIX_CHECK(m.part[c + 1] - m.part[c] > 1);
    const int pindex = first_open_cell(m, 0);
    TAVRIX_CHECK(pindex != -1);
    TAVRIX_CHECK(pindex == c);
    const SaveArea save = take_save_area(m.vs);
    save_level(m, save);
    bool changed = false;
    // Every trial starts from the level's cells and order (restored below),
    // so the bounds of cell c hold for the whole loop.
    const int first = m.part[c], end = m.part[c + 1];
    for (int k = first; k < end; ++k) {
      individualize_vertex(m, m.perm[k]);
      TAVRIX_CHECK(m.parts <= m.vs);
      // Cell c starts at position c and now holds just the vertex fixed:
      // rows 0..c are settled.
      const int upto_c = before != 0 ? before : compare_rows(m, best, c, c);
      if (upto_c >= 0) {
        int next = first_open_cell(m, c + 1);
        if (next == -1) next = m.vs - 1;
        // The cells between c and next are single vertices too.
        int upto_next = upto_c;
        if (upto_next == 0 && m.parts != m.vs && next > c + 1) upto_next = compare_rows(m, best, c + 1, next - 1);
        if (search_from(m, next, c, best, upto_next)) {
          changed = true;
          before = c > 0 ? compare_rows(m, best, 0, c - 1) : 0;
        }
      }
      restore_level(m, save);
    }
    release_save_area(m.vs);
    return changed;
  }
  // A leaf. The best record starts as the refined, non-discrete record, so
  // the first leaf is always taken; later ones must be strictly greater over
  // the rows from the parent's fixed position on.
  if (best.parts != best.vs || compare_rows(m, best, prev, c) > 0) {
    copy_permutation(m, best);
    copy_partition(m, best);
    return true;
  }
  return false;
}

}  // namespace

void individualization_search(CanonState& m, int c, int prev, CanonState& best) {
  search_from(m, c, prev, best, c > 0 && m.parts != m.vs ? compare_rows(m, best, 0, c - 1) : 0);
}
