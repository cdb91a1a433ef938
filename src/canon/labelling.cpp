// The entries of canonical labelling: loading a graph, choosing the search,
// and writing the graph back in the chosen order.
//
// What the labelling writes (v, e, el, vl and the key) is fixed by two
// things only: the ordered cells refinement ends with, which do not depend
// on how the input is numbered, and the greatest adjacency code over the
// orders those cells allow. The permutation search looks at every such
// order (but those it proves smaller), so for cells below SEARCH_CELL_LIMIT
// the form is the same whichever arrangement refinement leaves. The
// individualization search is the one step whose start matters, which is
// why refinement keeps one tie rule.
#include <algorithm>
#include <cstring>

#include "canon/canon.h"
#include "canon/canon_internal.h"
#include "common/common.h"
#include "table/table.h"

namespace {

// One record per thread: labelling runs on several at once.
thread_local Labelling scratch;

thread_local std::vector<int> old_vid, refined_cell;

// Writes g in the order of m.best: labels, vid and each vertex's refined
// cell, then the adjacency by ascending position, which keeps every
// vertex's entries sorted.
void store(const Labelling& m, const int* cell, int ncell, Graph& g) {
  const int n = m.n;
  const int* order = m.best.data();
  old_vid.assign(g.vid.begin(), g.vid.begin() + n);
  g.vcell.resize(n);
  g.ncell = ncell;
  for (int k = 0; k < n; ++k) {
    g.vl[k] = m.label[order[k]];
    g.vid[k] = old_vid[order[k]];
    g.vcell[k] = cell[order[k]];
  }
  int c = 0;
  g.v[0] = 0;
  for (int a = 0; a < n; ++a) {
    for (int b = 0; b < n; ++b) {
      const int code = b == a ? 0 : m.code(order[a], order[b]);
      if (code != 0) {
        g.e[c] = b;
        g.el[c] = code - 1;
        ++c;
      }
    }
    g.v[a + 1] = c;
  }
  TAVRIX_CHECK(c == g.es);
  g.key = compute_key(g);
}

// Refines m and, when the cells allow, runs the permutation search;
// false when a cell of SEARCH_CELL_LIMIT or more is left.
bool label_small_cells(Labelling& m) {
  refine(m);
  if (m.parts == m.n) {
    std::copy_n(m.perm.begin(), m.n, m.best.begin());
    return true;
  }
  if (largest_cell(m) >= SEARCH_CELL_LIMIT) return false;
  permutation_search(m);
  return true;
}

}  // namespace

void load(Labelling& m, const Graph& g) {
  const int n = g.vs;
  m.own_label.assign(g.vl.begin(), g.vl.begin() + n);
  m.own_deg.resize(n);
  m.own_nb.resize(static_cast<std::size_t>(n) * n);
  m.own_adj.assign(static_cast<std::size_t>(n) * n, 0);
  for (int u = 0; u < n; ++u) {
    m.own_deg[u] = g.v[u + 1] - g.v[u];
    for (int j = g.v[u]; j < g.v[u + 1]; ++j) {
      m.own_nb[u * n + j - g.v[u]] = g.e[j];
      m.own_adj[u * n + g.e[j]] = g.el[j] + 1;
    }
  }
  m.label = m.own_label.data();
  m.deg = m.own_deg.data();
  m.nb = m.own_nb.data();
  m.adj = m.own_adj.data();
  m.stride = n;
  start(m, n);
}

void canonical_label(Graph& g) {
  Labelling& m = scratch;
  load(m, g);
  if (label_small_cells(m)) {
    store(m, m.p.data(), m.parts, g);
    return;
  }
  // The search moves the cells; vcell keeps those of refinement, ncell is
  // the leaf's.
  refined_cell.assign(m.p.begin(), m.p.begin() + m.n);
  individualization_search(m);
  store(m, refined_cell.data(), m.n, g);
}

bool canonical_label_fast(Graph& g) {
  if (g.vs < 1 || g.vs > SMALL_GRAPH_VERTICES) return false;
  Labelling& m = scratch;
  load(m, g);
  if (!label_small_cells(m)) return false;
  store(m, m.p.data(), m.parts, g);
  return true;
}

bool canonical_order_fast(const SmallGraph& g, int* order) {
  if (g.n < 1 || g.n > SMALL_GRAPH_VERTICES) return false;
  Labelling& m = scratch;
  m.label = g.label;
  m.deg = g.deg;
  m.nb = &g.nb[0][0];
  m.adj = &g.adj[0][0];
  m.stride = SMALL_GRAPH_VERTICES;
  start(m, g.n);
  if (!label_small_cells(m)) return false;
  std::copy_n(m.best.begin(), g.n, order);
  return true;
}
