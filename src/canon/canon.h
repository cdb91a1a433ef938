// Canonical labelling: renumbers the vertices of a fragment graph so that
// isomorphic labelled fragments come out identical, then sets its key.
#pragma once

#include "graph/graph.h"

constexpr int SEARCH_CELL_LIMIT = 5;

// Relabels g in place (v, e, el, vl, vid rewritten in canonical order) and
// sets ncell, vcell and key. g satisfies the adjacency invariants, vs >= 1.
// Not re-entrant on one thread: it uses that thread's scratch records.
void canonical_label(Graph& g);

// canonical_label for graphs of at most 32 vertices whose refined cells all
// have fewer than SEARCH_CELL_LIMIT vertices; returns false, leaving g
// unchanged, for any other graph. Such a graph's form does not depend on
// how it is numbered, which the counter's grown forms rely on.
bool canonical_label_fast(Graph& g);

// A graph of at most SMALL_GRAPH_VERTICES vertices as the short route reads
// it: labels, a matrix of edge label + 1 (0 for no bond, rows and columns
// 0..n-1 filled, the diagonal 0) and the same bonds as neighbour lists (in
// any order).
constexpr int SMALL_GRAPH_VERTICES = 32;
struct SmallGraph {
  int n = 0;
  int label[SMALL_GRAPH_VERTICES];
  int adj[SMALL_GRAPH_VERTICES][SMALL_GRAPH_VERTICES];
  int deg[SMALL_GRAPH_VERTICES];
  int nb[SMALL_GRAPH_VERTICES][SMALL_GRAPH_VERTICES];
};

// The short route on a SmallGraph: when every refined cell has fewer than
// SEARCH_CELL_LIMIT vertices, writes into order[k] the vertex at canonical
// position k and returns true (the canonical form is then the graph read in
// that order, whatever the input numbering); false otherwise.
bool canonical_order_fast(const SmallGraph& g, int* order);
