// Internals of canonical labelling, shared by its source files and its tests.
// Nothing outside src/canon and tests/canon includes this header.
//
// Labelling has three steps, each written once: refinement orders the
// vertices by numbering-independent properties and splits them into cells;
// when cells of several vertices remain, either the permutation search
// (every cell below SEARCH_CELL_LIMIT) or the individualization search finds
// the order within the cells whose adjacency code is greatest.
#pragma once

#include <vector>

#include "canon/canon.h"
#include "graph/graph.h"

// The working record. The graph is read through pointers, so the short
// route reads a SmallGraph where it lies; load() fills the record's own
// arrays from a Graph. Arrays only grow, so a thread's record stops
// allocating once it has seen its largest graph.
struct Labelling {
  // The graph.
  int n = 0;
  const int* label = nullptr;  // per vertex
  const int* deg = nullptr;    // per vertex
  const int* nb = nullptr;     // neighbour j of u at nb[u * stride + j]
  const int* adj = nullptr;    // adj[u * stride + w]: edge label + 1, 0 for no bond
  int stride = 0;
  int code(int u, int w) const { return adj[u * stride + w]; }

  // Refinement: perm[k] is the vertex at position k, p[v] the cell of v;
  // cell c holds positions part[c] .. part[c + 1] - 1, cells numbered in
  // position order.
  std::vector<int> perm, p, part;
  int parts = 0;
  int capacity = 0;  // vertices the arrays below and above hold

  // Searches: the best arrangement so far, and what the permutation search
  // reads (the refined arrangement, and the key of each vertex and position).
  std::vector<int> best, order, vkey, keys;
  bool best_is_leaf = false;  // the individualization search has taken a leaf

  // Refinement keys: packed into one number when the graph's widths fit,
  // else rows of ints.
  bool packed = false;
  bool narrow = false;  // packed keys fit 64 bits
  int cell_bits = 0, degree_bits = 0, label_bits = 0, code_bits = 0, max_degree = 0;
  std::vector<int> row_key;  // per vertex: p, -degree, label, then (code, p) pairs

  // Arrays of a graph loaded from a Graph.
  std::vector<int> own_label, own_deg, own_nb, own_adj;
  std::vector<int> save_stack;  // the individualization search's levels
};

// Sizes the working arrays for n vertices; every vertex in one cell, in
// vertex order; decides the refinement keys' form.
void start(Labelling& m, int n);
// Points m at the arrays of g, in g's numbering, and starts it.
void load(Labelling& m, const Graph& g);

// Refines the current cells until a pass adds none. The arrangement it
// leaves decides where the individualization search starts, so its sort
// keeps one tie rule: a position is given a vertex of a strictly smaller key
// only.
void refine(Labelling& m);
int largest_cell(const Labelling& m);

// Compares the code rows of positions part[first_cell] .. part[last_cell +
// 1] - 1 under perm with those under best (rows read below the diagonal).
int compare_rows(const Labelling& m, int first_cell, int last_cell);

// Leaves in best the arrangement within the refined cells (all below
// SEARCH_CELL_LIMIT) with the greatest code.
void permutation_search(Labelling& m);

// Leaves in best the leaf of greatest code of the search that fixes the
// vertices of the first open cell one at a time, refining after each.
void individualization_search(Labelling& m);
