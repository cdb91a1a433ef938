// Entry of canonical labelling and the driver that picks a search.
#include <algorithm>

#include "canon/canon.h"
#include "canon/canon_internal.h"
#include "common/common.h"
#include "table/table.h"

void search_labelling(CanonState& m, CanonState& best) {
  refine(m);
  if (m.parts == m.vs) return;  // every cell a single vertex: order is final
  int largest = 0;
  for (int c = 0; c < m.parts; ++c) largest = std::max(largest, m.part[c + 1] - m.part[c]);
  best.vs = m.vs;
  copy_state(m, best);
  if (largest < SEARCH_CELL_LIMIT) {
    for (int k = 0; k < m.vs; ++k) m.perm0[k] = m.perm[k];
    permutation_search(m, 0, best);
  } else {
    int c = 0;
    while (m.part[c + 1] - m.part[c] == 1) ++c;
    individualization_search(m, c, 0, best);
  }
  // best keeps the P values copied before the search, so vcell shows the
  // cells of refinement even after the individualization search.
  copy_state(best, m);
}

void canonical_label(Graph& g) {
  prepare_scratch(g.vs);
  CanonState& m = working_state();
  load_graph(m, g);
  search_labelling(m, best_state());
  store_graph(m, g);
  g.key = compute_key(g);
}
