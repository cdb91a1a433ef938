// The adjacency code (lower triangle of the code matrix in position order)
// and the search, cell by cell, for the arrangement that maximises it.
#include <algorithm>

#include "canon/canon_internal.h"
#include "common/common.h"

int compare_rows(const Labelling& m, int first_cell, int last_cell) {
  const int* perm = m.perm.data();
  const int* best = m.best.data();
  const int* adj = m.adj;
  const int stride = m.stride;
  for (int i = m.part[first_cell], end = m.part[last_cell + 1]; i < end; ++i) {
    const int* row = adj + perm[i] * stride;
    const int* best_row = adj + best[i] * stride;
    for (int j = 0; j < i; ++j) {
      const int d = row[perm[j]] - best_row[best[j]];
      if (d != 0) return d;
    }
  }
  return 0;
}

namespace {

// Places the vertices of cell c as its keys say: each position takes the
// first vertex of the cell, in refined order, with that key not placed yet.
void place_cell(Labelling& m, int c) {
  const int from = m.part[c], to = m.part[c + 1];
  const int* order = m.order.data();
  const int* vkey = m.vkey.data();
  const int* keys = m.keys.data();
  int* perm = m.perm.data();
  bool used[SEARCH_CELL_LIMIT] = {};
  for (int i = from; i < to; ++i)
    for (int q = from; q < to; ++q) {
      const int v = order[q];
      if (!used[q - from] && vkey[v] == keys[i]) {
        used[q - from] = true;
        perm[i] = v;
        break;
      }
    }
}

// Rows of cell c depend only on cells 0..c and, standing at cell c, the
// earlier rows of perm equal those of best: a smaller block rules out every
// completion, a greater one makes perm the best, an equal one is explored.
// Leaves of one cell hanging from the same vertex can swap places without
// changing any code, so they share a key and only the distinct arrangements
// of the keys are tried, each cell's from sorted back to sorted.
void search(Labelling& m, int c) {
  int* cell = m.keys.data() + m.part[c];
  const int size = m.part[c + 1] - m.part[c];
  const bool last = c == m.parts - 1;
  do {
    place_cell(m, c);
    const int r = compare_rows(m, c, c);
    if (r > 0) std::copy_n(m.perm.begin(), m.n, m.best.begin());
    if (!last && r >= 0) search(m, c + 1);
  } while (std::next_permutation(cell, cell + size));
  place_cell(m, c);
}

}  // namespace

void permutation_search(Labelling& m) {
  const int n = m.n;
  std::copy_n(m.perm.begin(), n, m.order.begin());
  for (int v = 0; v < n; ++v) m.vkey[v] = m.deg[v] == 1 ? m.nb[v * m.stride] : n + v;
  for (int k = 0; k < n; ++k) m.keys[k] = m.vkey[m.order[k]];
  for (int c = 0; c < m.parts; ++c) {
    std::sort(m.keys.begin() + m.part[c], m.keys.begin() + m.part[c + 1]);
    place_cell(m, c);
  }
  std::copy_n(m.perm.begin(), n, m.best.begin());
  search(m, 0);
}
