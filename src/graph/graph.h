// The labelled graph record shared by compounds and fragments, and the bond
// set the subtree search hands on.
#pragma once

#include <cstdint>
#include <span>
#include <utility>
#include <vector>

// Undirected labelled simple graph in compressed adjacency form. The entries
// of vertex i are e[v[i]] .. e[v[i+1]-1], sorted by target then label; every
// bond appears once from each end with the same label.
struct Graph {
  int es = 0;              // adjacency entries, two per bond
  int vs = 0;              // vertices
  int ncell = 0;           // cells left by canonical labelling
  std::uint32_t key = 0;   // hash key of the canonical form
  std::vector<int> e;      // far end of each entry
  std::vector<int> vcell;  // cell of each vertex after labelling (fragments only)
  std::vector<int> v;      // vs + 1 offsets into e
  std::vector<int> vid;    // vertex id: index before relabelling
  std::vector<int> el;     // label of each entry, parallel to e
  std::vector<int> vl;     // vertex labels
};

// A read-only look at the arrays of a graph held elsewhere (a Graph, or the
// packed canonical forms the enumeration keeps).
struct GraphView {
  int vs = 0;
  int es = 0;
  std::uint32_t key = 0;
  const int* v = nullptr;   // vs + 1 offsets
  const int* e = nullptr;   // es far ends
  const int* el = nullptr;  // es edge labels
  const int* vl = nullptr;  // vs vertex labels
};

inline GraphView view_of(const Graph& g) {
  return GraphView{g.vs, g.es, g.key, g.v.data(), g.e.data(), g.el.data(), g.vl.data()};
}

// One directed adjacency entry before the arrays are built.
struct EdgeTriple {
  int u = 0;
  int v = 0;
  int label = 0;
};

// Sorts the triples by (u, v, label) and fills e, el and v of g, whose es and
// vs are set. Two triples with the same (u, v), whatever their labels, end
// the run with the "duplicated edges" message. Resizes e, el, v as needed.
void build_adjacency(std::span<EdgeTriple> triples, Graph& g);

// Smallest index whose vid is id, or the run ends with the lookup message.
int find_vertex_by_id(int id, const Graph& g);

// The bonds of one fragment, 1-based compound vertex numbers, in the order chosen.
struct EdgeSet {
  std::vector<std::pair<int, int>> edge;  // capacity threshold
  int size = 0;
};
