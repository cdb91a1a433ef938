// Canonical labelling: renumbers the vertices of a fragment graph so that
// isomorphic labelled fragments come out identical, then sets its key.
#pragma once

#include "graph/graph.h"

constexpr int SEARCH_CELL_LIMIT = 5;

// Relabels g in place (v, e, el, vl, vid rewritten in canonical order) and
// sets ncell, vcell and key. g satisfies the adjacency invariants, vs >= 1.
// Not re-entrant: it uses process-wide scratch records.
void canonical_label(Graph& g);
