// Search for large cells: fix one vertex of the first open cell as a cell of
// its own, refine, go deeper, and keep the leaf with the greatest code.
#include <algorithm>

#include "canon/canon_internal.h"
#include "common/common.h"

namespace {

int first_open_cell(const Labelling& m, int from) {
  for (int c = from; c < m.parts; ++c)
    if (m.part[c + 1] - m.part[c] > 1) return c;
  return -1;
}

// v keeps its cell index; the rest of its cell and every later cell move up
// one, so v sorts to the front of its cell. Refinement's first pass sorts
// under these cells.
void individualize(Labelling& m, int v) {
  bool hit = false;
  for (int q = m.part[m.p[v]]; q < m.n; ++q) {
    if (m.perm[q] == v) hit = true;
    else ++m.p[m.perm[q]];
  }
  TAVRIX_CHECK(hit);
  refine(m);
}

// Back to the level's arrangement and cells: cells are numbered in position
// order, so each starts where p steps up.
void restore(Labelling& m, const int* saved_perm, const int* saved_p) {
  int c = 0;
  m.part[0] = 0;
  for (int k = 0; k < m.n; ++k) {
    m.perm[k] = saved_perm[k];
    m.p[k] = saved_p[k];
    if (k > 0 && saved_p[saved_perm[k]] != saved_p[saved_perm[k - 1]]) m.part[++c] = k;
  }
  m.parts = c + 1;
  m.part[m.parts] = m.n;
}

// The search below one level, whose first open cell is c. `before` is the
// sign of the comparison with best of the rows before position c, which are
// the same in every trial of the level: cells before c are single vertices
// that individualizing and refining within cell c or later cannot move. So
// rows 0..c compare as `before` unless it is 0, when row c decides, exactly
// as comparing them all would; `before` is recomputed whenever best
// changes. Returns whether best changed anywhere below.
bool search_from(Labelling& m, int c, int prev, int before, int level) {
  const int n = m.n;
  if (m.parts == n) {
    // A leaf. The first is always taken; later ones must be strictly
    // greater over the rows from the parent's fixed position on.
    if (m.best_is_leaf && compare_rows(m, prev, c) <= 0) return false;
    std::copy_n(m.perm.begin(), n, m.best.begin());
    m.best_is_leaf = true;
    return true;
  }
  TAVRIX_CHECK(first_open_cell(m, 0) == c);
  // Each level fixes at least one more vertex, so n levels are never exceeded.
  int* saved_perm = m.save_stack.data() + static_cast<std::size_t>(2) * n * level;
  int* saved_p = saved_perm + n;
  std::copy_n(m.perm.begin(), n, saved_perm);
  std::copy_n(m.p.begin(), n, saved_p);
  bool changed = false;
  const int first = m.part[c], end = m.part[c + 1];
  for (int k = first; k < end; ++k) {
    individualize(m, saved_perm[k]);
    // Cell c now holds just the vertex fixed: rows 0..c are settled.
    const int upto_c = before != 0 ? before : compare_rows(m, c, c);
    if (upto_c >= 0) {
      int next = first_open_cell(m, c + 1);
      if (next == -1) next = n - 1;
      // The cells between c and next are single vertices too.
      int upto_next = upto_c;
      if (upto_next == 0 && m.parts != n && next > c + 1) upto_next = compare_rows(m, c + 1, next - 1);
      if (search_from(m, next, c, upto_next, level + 1)) {
        changed = true;
        before = c > 0 ? compare_rows(m, 0, c - 1) : 0;
      }
    }
    restore(m, saved_perm, saved_p);
  }
  return changed;
}

}  // namespace

void individualization_search(Labelling& m) {
  const int n = m.n;
  if (m.save_stack.size() < static_cast<std::size_t>(2) * n * n) m.save_stack.resize(static_cast<std::size_t>(2) * n * n);
  // Until the first leaf, best is the refined arrangement, which trials are
  // compared with as they go.
  std::copy_n(m.perm.begin(), n, m.best.begin());
  m.best_is_leaf = false;
  const int c = first_open_cell(m, 0);
  search_from(m, c, 0, 0, 0);
}
