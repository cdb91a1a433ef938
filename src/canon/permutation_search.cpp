// The adjacency code (lower triangle of the code matrix in vertex order) and
// the exhaustive search, cell by cell, for the arrangement that maximises it.
#include <algorithm>

#include "canon/canon_internal.h"
#include "common/common.h"

int compare_rows(const CanonState& a, const CanonState& b, int first_cell, int last_cell) {
  TAVRIX_CHECK(a.vs == b.vs);
  for (int i = a.part[first_cell]; i < a.part[last_cell + 1]; ++i) {
    for (int j = 0; j < i; ++j) {
      const int diff = adj_at(a, a.perm[i], a.perm[j]) - adj_at(b, b.perm[i], b.perm[j]);
      if (diff != 0) return diff;
    }
  }
  return 0;
}

void copy_permutation(const CanonState& src, CanonState& dst) {
  TAVRIX_CHECK(src.vs == dst.vs);
  std::copy_n(src.perm.begin(), src.vs, dst.perm.begin());
  std::copy_n(src.perm_inv.begin(), src.vs, dst.perm_inv.begin());
}

int next_cell_permutation(CanonState& m, int c) {
  const int s = m.part[c];
  const int size = m.part[c + 1] - s;
  if (size == 1) return 0;
  int* cell = m.perm.data() + s;
  // Cyclic: after the greatest arrangement comes the smallest, so starting
  // anywhere every arrangement is met once before the start comes back.
  if (!next_permutation(cell, size)) std::sort(cell, cell + size);
  for (int k = s; k < s + size; ++k) m.perm_inv[m.perm[k]] = k;
  for (int k = s; k < s + size; ++k)
    if (m.perm[k] != m.perm0[k]) return 1;
  return 0;
}

// Rows of cell c depend only on cells 0..c, and whenever the search stands at
// cell c the earlier rows of m equal those of best. So a smaller row block
// rules out every completion, a greater one makes m the new best, and an
// equal one must be explored further. Among equal codes the first stays.
void permutation_search(CanonState& m, int c, CanonState& best) {
  if (c == m.parts - 1) {
    do {
      if (compare_rows(m, best, c, c) > 0) copy_permutation(m, best);
    } while (next_cell_permutation(m, c));
    return;
  }
  // All vertices of a cell share their degree; isolated ones add only zero
  // rows whatever their order.
  if (m.vtx[m.perm[m.part[c]]].d == 0) {
    permutation_search(m, c + 1, best);
    return;
  }
  do {
    const int r = compare_rows(m, best, c, c);
    if (r < 0) continue;
    if (r > 0) copy_permutation(m, best);
    permutation_search(m, c + 1, best);
  } while (next_cell_permutation(m, c));
}
