// Fragment enumeration: every connected acyclic set of `threshold` bonds of a
// compound, turned into a fragment graph, filtered by type, labelled and
// counted in the fragment table.
#pragma once

#include "graph/graph.h"
#include "table/table.h"

struct FragmentContext {
  int threshold = 0;               // bonds per fragment
  int opt = 1;                     // 1 all acyclic, 2 trees (a vertex of degree > 2), 3 paths
  FragmentTable* table = nullptr;  // where labelled fragments are counted
};

// Emits every subtree of `threshold` bonds of the compound once, in the
// fixed search order, through emit_fragment. A threshold of 0 emits nothing.
void enumerate_fragments(const Graph& compound, int compid, FragmentContext& ctx);

// The fragment graph of a bond set: its vertices are the compound vertices
// of the set in ascending compound order, with their labels and bonds.
Graph build_fragment_graph(const EdgeSet& s, const Graph& compound);

// The edge label of bond i of the set in the compound.
int bond_label(const EdgeSet& s, int i, const Graph& compound);

// Builds, filters, labels and inserts one fragment, the way every set is
// handled on the straightforward path.
void emit_fragment(const EdgeSet& s, const Graph& compound, int compid, FragmentContext& ctx);

// The fragment graph of a bond set into f; `vertices` receives the compound
// vertices of the set in ascending order (fragment vertex k is vertices[k]).
void fill_fragment_graph(const EdgeSet& s, const Graph& compound, Graph& f, std::vector<int>& vertices);
