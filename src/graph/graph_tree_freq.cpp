// Edge-list operations of the subtree enumeration.
#include "graph/graph.h"

#include <cstdio>

#include "common/common.h"

EdgeList new_edge_list(const Graph& g) {
  EdgeList list;
  list.node.resize(g.vs);
  list.edge.resize(g.es / 2);
  return list;
}

void add_node(EdgeList& list, int x) {
  if (x != -1) {
    std::fprintf(stderr, "add_node: expecting -1, got %d instead\n", x);
    return;
  }
  TAVRIX_CHECK(list.nnode < static_cast<int>(list.node.size()));
  list.node[list.nnode] = list.nnode + 1;
  ++list.nnode;
}

void add_edge(EdgeList& list, int u, int v) {
  TAVRIX_CHECK(u != v);
  TAVRIX_CHECK(list.nedge < static_cast<int>(list.edge.size()));
  list.edge[list.nedge] = {u, v};
  ++list.nedge;
  ++list.nlive;
}

void remove_edge(EdgeList& list, int slot) {
  list.edge[slot] = {0, 0};
  --list.nlive;
}

void remove_self_loops(EdgeList& list) {
  for (int i = 0; i < list.nedge; ++i) {
    if (list.edge[i].first != 0 && list.edge[i].first == list.edge[i].second) {
      list.edge[i] = {0, 0};
      --list.nlive;
    }
  }
}

void copy_edge_list(const EdgeList& source, EdgeList& target) {
  target.nnode = source.nnode;
  target.nedge = source.nedge;
  target.nlive = source.nlive;
  if (target.node.size() < source.node.size()) target.node.resize(source.node.size());
  if (target.edge.size() < source.edge.size()) target.edge.resize(source.edge.size());
  std::copy(source.node.begin(), source.node.begin() + source.nnode, target.node.begin());
  std::copy(source.edge.begin(), source.edge.begin() + source.nedge, target.edge.begin());
}
