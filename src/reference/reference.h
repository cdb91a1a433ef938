// The plain path: what a run computes, done the slow, obvious way, for the
// tests to compare the program's own path against. Nothing the programs
// run links this library; it is built for the tests alone.
//
// Every length enumerates every compound again; every connected acyclic
// bond set is built into its own fragment graph, filtered by type,
// labelled, and looked up by probing a table of HASHTBL_SIZE slots from its
// key's home slot. Ids go in order of first insertion, support counts the
// compounds holding a fragment, and each length's descriptors are its
// fragments with enough support in ascending slot order.
#pragma once

#include <functional>
#include <utility>
#include <vector>

#include "graph/graph.h"

// Calls emit for every connected acyclic set of `length` bonds of g, each
// once, in the include/exclude order: the lowest qualifying bond (by lower,
// then higher atom) is included and the search goes on below it, then it is
// excluded. A bond qualifies when the set is empty or exactly one of its
// atoms is in the set.
void plain_subtrees(const Graph& g, int length, const std::function<void(const EdgeSet&)>& emit);

struct PlainDescriptor {
  int id = 0;
  int support = 0;
  Graph form;  // canonically labelled
};

struct PlainRun {
  std::vector<PlainDescriptor> descriptors;             // in descriptor order
  std::vector<std::vector<std::pair<int, int>>> rows;   // per compound: (descriptor number, count)
};

// Whether two labelled graphs are the same form: equal in vs, es, key, v,
// e, el and vl (vid, vcell and ncell take no part).
bool same_form(const Graph& a, const Graph& b);

// opt: 1 every fragment, 2 those with an atom of three or more of their
// bonds, 3 the others.
PlainRun plain_run(const std::vector<Graph>& compounds, int opt, int lmin, int lmax, int fmin);
