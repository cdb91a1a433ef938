// Fragment enumeration: every connected acyclic set of `threshold` bonds of a
// compound, turned into a fragment graph, filtered by type, labelled and
// counted in the fragment table.
#pragma once

#include "enumerate/fragment_cache.h"
#include "graph/graph.h"
#include "table/table.h"

struct FragmentContext {
  int threshold = 0;               // bonds per fragment
  int opt = 1;                     // 1 all acyclic, 2 trees (a vertex of degree > 2), 3 paths
  FragmentTable* table = nullptr;  // where labelled fragments are counted
  bool memo = true;                // reuse results of fragment graphs met before in this length
  FragmentCache cache;             // those results
};

// Emits every subtree of `threshold` bonds of the compound once, in the
// fixed search order, through emit_fragment. A threshold of 0 emits nothing.
void enumerate_fragments(const Graph& compound, int compid, FragmentContext& ctx);

// The fragment graph of a bond set: its vertices are the compound vertices
// of the set in ascending compound order, with their labels and bonds.
Graph build_fragment_graph(const EdgeSet& s, const Graph& compound);

// The edge label of bond i of the set in the compound.
int bond_label(const EdgeSet& s, int i, const Graph& compound);

// Builds, filters, labels and inserts one fragment. With ctx.memo set, a
// fragment graph met before in this length goes straight to its slot.
void emit_fragment(const EdgeSet& s, const Graph& compound, int compid, FragmentContext& ctx);

// The same without the memo: every fragment is built, filtered, labelled and
// probed for. Returns the slot, or -1 when the type filter drops the fragment.
int emit_fragment_plain(const EdgeSet& s, const Graph& compound, int compid, FragmentContext& ctx);
