// From a bond set of a compound to its fragment graph.
#pragma once

#include <vector>

#include "graph/graph.h"

// The fragment graph of a bond set into f; `vertices` receives the compound
// vertices of the set in ascending order (fragment vertex k is vertices[k]),
// and so numbers the fragment's vertices.
void fill_fragment_graph(const EdgeSet& s, const Graph& compound, Graph& f, std::vector<int>& vertices);
