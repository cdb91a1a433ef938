// Internals of canonical labelling, shared by its source files and its tests.
// Nothing outside src/canon and tests/canon includes this header.
#pragma once

#include <cstdint>
#include <vector>

#include "graph/graph.h"

// One bond as seen from one end. `vertex` is the index of the far end in the
// same CanonState's vtx, so a record copied wholesale needs no fixing up.
struct NeighbourRef {
  int code = 0;    // edge label + 1; never 0
  int vertex = 0;  // index into CanonState::vtx
  int pair = 0;    // packed keys: rank of code among the graph's codes, times vs
};

struct CanonVertex {
  int i = 0;  // vertex id, carried from the graph's vid and written back
  int d = 0;  // degree
  int l = 0;  // vertex label
  int r = 0;  // own index in vtx
  int p = 0;  // cell index, cells numbered in position order
  int P = 0;  // cell index being assigned by the running refinement pass
  std::vector<NeighbourRef> neighbours;  // first d used; sized to capacity once
};

// The labelling's working record. Arrays are sized for `cap` vertices when
// the record is made and never shrink, so loading a graph allocates nothing.
struct CanonState {
  int cap = 0;                   // capacity in vertices; also the row stride of adj
  int vs = 0;                    // vertices now loaded
  std::vector<CanonVertex> vtx;  // indexed by graph vertex index; entries never move
  std::vector<int> adj;          // adj[u * cap + w]: 0 for no bond, else edge label + 1
  std::vector<int> part;         // cell c is positions part[c] .. part[c+1]-1
  int parts = 0;
  std::vector<int> newpart;      // boundaries computed by a refinement pass
  int newparts = 0;
  std::vector<int> perm0;        // arrangement when the permutation search began
  std::vector<int> perm;         // perm[k]: vertex at position k
  std::vector<int> perm_inv;     // position of each vertex

  // Packed refinement keys, set up by load_graph when they fit: one 64-bit
  // word per vertex that orders vertices as compare_vertices does. From the
  // top: p; the rank of (degree descending, label) among the graph's vertices;
  // then the neighbour pairs (code rank * vs + far end's p) in increasing
  // order, zeros after the last. Equal ranks mean equal degrees, so lists of
  // different lengths are never compared past the rank. Refinement on packed
  // keys leaves the neighbour lists in load order, which nothing then reads.
  bool packed = false;
  int cell_shift = 0;        // of p
  int pair_bits = 0;         // width of one neighbour pair
  int first_pair_shift = 0;  // of the smallest pair; each later one pair_bits lower
  std::vector<std::uint64_t> key_fixed;  // per vertex: the rank, in place
  std::vector<std::uint64_t> key;        // per vertex: its key in the running pass
};

inline int adj_at(const CanonState& m, int u, int w) { return m.adj[u * m.cap + w]; }

// Views into the storage of one search level: the working record as the
// level found it, which every trial of the level starts from.
struct SaveArea {
  int* perm = nullptr;
  int* perm_inv = nullptr;
  int* p = nullptr;  // indexed by graph vertex index
};

// ---- Scratch records ------------------------------------------------------

// Ensures both of this thread's records (and the search's save stack) can hold
// n vertices; they are remade only when n exceeds the capacity.
void prepare_scratch(int n);
CanonState& working_state();
CanonState& best_state();

// Save areas of the individualization search come off one stack made with
// the scratch records (3 x vs integers per level, at most capacity levels),
// so a search allocates nothing. Areas are released in reverse order.
SaveArea take_save_area(int vs);
void release_save_area(int vs);

// A record of the given capacity, independent of the per-thread pair.
void create_state(CanonState& m, int capacity);

// ---- Loading, storing, copying --------------------------------------------

void load_graph(CanonState& m, const Graph& g);
void store_graph(const CanonState& m, Graph& g);
void copy_state(const CanonState& src, CanonState& dst);

// ---- Refinement -----------------------------------------------------------

int compare_neighbour_lists(const CanonState& m, const CanonVertex& x, const CanonVertex& y);
int compare_vertices(const CanonState& m, const CanonVertex& a, const CanonVertex& b);
void sort_vertices(CanonState& m);
void refine(CanonState& m);

// ---- Adjacency code and permutation search --------------------------------

int compare_rows(const CanonState& a, const CanonState& b, int first_cell, int last_cell);
void permutation_search(CanonState& m, int c, CanonState& best);
int next_cell_permutation(CanonState& m, int c);
void copy_permutation(const CanonState& src, CanonState& dst);

// ---- Individualization search ---------------------------------------------

void individualization_search(CanonState& m, int c, int prev, CanonState& best);
void individualize(CanonState& m, int v, const SaveArea& save);
void restore_level(CanonState& m, const SaveArea& save);
void copy_partition(const CanonState& src, CanonState& dst);

// ---- Driver ---------------------------------------------------------------

void search_labelling(CanonState& m, CanonState& best);
