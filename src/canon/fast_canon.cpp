// A quicker route to the same canonical form for small fragments.
//
// What canonical_label writes (v, e, el, vl and the key) is fixed by two
// things only: the ordered cells that refinement ends with, and, when cells
// of several vertices remain, the greatest adjacency code over the orders
// those cells allow. Refinement gives every vertex the rank of its
// properties among all vertices, which does not depend on how ties happen to
// be ordered while sorting; and the permutation search, whose pruning only
// drops orders with a smaller code, ends on that greatest code whichever
// order it starts from. So for graphs whose cells stay below
// SEARCH_CELL_LIMIT the work can be done on small fixed arrays, sorted any
// way, with the same result. Larger cells go to the individualization
// search, whose result may depend on where it starts, and are declined here.
#include <algorithm>
#include <cstring>

#include "canon/canon.h"
#include "table/table.h"

namespace {

constexpr int MAXV = SMALL_GRAPH_VERTICES;
constexpr int MAXK = 3 + 2 * MAXV;  // key entries: p, -d, l, then (code, p) per neighbour

struct Small {
  int n = 0;
  const int (*adj)[MAXV] = nullptr;  // the input's matrix
  const int* label = nullptr;        // the input's labels
  const int* deg = nullptr;          // the input's degrees
  const int (*nb)[MAXV] = nullptr;   // the input's neighbour lists
  int p[MAXV];          // cell of each vertex
  int key[MAXV][MAXK];
  int keylen[MAXV];
  int order[MAXV];      // vertices by cell
  int part[MAXV + 1];
  int parts = 0;
  int perm[MAXV];
  int best[MAXV];
  int vkey[MAXV];       // what a vertex stands for in the arrangements
  int keys[MAXV];       // per position: the vkey placed there
  bool packed = false;  // keys fit the packed form below
};

thread_local Small s;  // one per thread: labelling runs on several at once

int compare_keys(int a, int b) {
  const int n = std::min(s.keylen[a], s.keylen[b]);
  for (int k = 0; k < n; ++k)
    if (s.key[a][k] != s.key[b][k]) return s.key[a][k] < s.key[b][k] ? -1 : 1;
  return 0;  // equal degrees give equal lengths
}

// One refinement pass; returns the number of cells it finds.
int refine_pass() {
  const int n = s.n;
  for (int v = 0; v < n; ++v) {
    int* k = s.key[v];
    k[0] = s.p[v];
    k[1] = -s.deg[v];
    k[2] = s.label[v];
    int len = 3;
    // Neighbour pairs (code, cell), sorted.
    for (int j = 0; j < s.deg[v]; ++j) {
      const int w = s.nb[v][j];
      const int code = s.adj[v][w], cell = s.p[w];
      int q = len;
      while (q > 3 && (k[q - 2] > code || (k[q - 2] == code && k[q - 1] > cell))) {
        k[q] = k[q - 2];
        k[q + 1] = k[q - 1];
        q -= 2;
      }
      k[q] = code;
      k[q + 1] = cell;
      len += 2;
    }
    s.keylen[v] = len;
  }
  for (int i = 0; i < n; ++i) s.order[i] = i;
  for (int i = 1; i < n; ++i) {
    const int x = s.order[i];
    int j = i;
    for (; j > 0 && compare_keys(x, s.order[j - 1]) < 0; --j) s.order[j] = s.order[j - 1];
    s.order[j] = x;
  }
  int cell = 0;
  int newp[MAXV];
  newp[s.order[0]] = 0;
  s.part[0] = 0;
  for (int i = 1; i < n; ++i) {
    if (compare_keys(s.order[i - 1], s.order[i]) != 0) s.part[++cell] = i;
    newp[s.order[i]] = cell;
  }
  s.part[cell + 1] = n;
  std::memcpy(s.p, newp, sizeof(int) * n);
  return cell + 1;
}

// The same pass with each key packed into one 128-bit number whose order is
// the keys' order: cell (6 bits), 63 - degree (6), label (20), then the
// sorted (code, cell) pairs in 9 bits each from the top down. Keys of equal
// degree hold equally many pairs, and keys of different degrees differ
// before the pairs, so comparing the numbers compares the keys. Taken when
// every degree is at most PACKED_PAIRS, labels are below 2^20 and codes below 16.
constexpr int PACKED_PAIRS = 10;
using PackedKey = unsigned __int128;

int refine_pass_packed() {
  const int n = s.n;
  PackedKey key[MAXV];
  for (int v = 0; v < n; ++v) {
    unsigned pairs[PACKED_PAIRS];
    const int d = s.deg[v];
    for (int j = 0; j < d; ++j) {
      const int w = s.nb[v][j];
      const unsigned pair = static_cast<unsigned>(s.adj[v][w]) << 5 | static_cast<unsigned>(s.p[w]);
      int q = j;
      for (; q > 0 && pairs[q - 1] > pair; --q) pairs[q] = pairs[q - 1];
      pairs[q] = pair;
    }
    PackedKey k = static_cast<PackedKey>(s.p[v]) << 122 | static_cast<PackedKey>(63 - d) << 116 |
                  static_cast<PackedKey>(s.label[v]) << 96;
    for (int j = 0; j < d; ++j) k |= static_cast<PackedKey>(pairs[j]) << (96 - 9 * (j + 1));
    key[v] = k;
  }
  for (int i = 0; i < n; ++i) s.order[i] = i;
  for (int i = 1; i < n; ++i) {
    const int x = s.order[i];
    int j = i;
    for (; j > 0 && key[x] < key[s.order[j - 1]]; --j) s.order[j] = s.order[j - 1];
    s.order[j] = x;
  }
  int cell = 0;
  s.p[s.order[0]] = 0;
  s.part[0] = 0;
  for (int i = 1; i < n; ++i) {
    if (key[s.order[i - 1]] != key[s.order[i]]) s.part[++cell] = i;
    s.p[s.order[i]] = cell;
  }
  s.part[cell + 1] = n;
  return cell + 1;
}

// Compares the code rows of positions part[first]..part[last+1]-1 of perm and best.
int compare_blocks(int first, int last) {
  for (int i = s.part[first]; i < s.part[last + 1]; ++i)
    for (int j = 0; j < i; ++j) {
      const int d = s.adj[s.perm[i]][s.perm[j]] - s.adj[s.best[i]][s.best[j]];
      if (d != 0) return d;
    }
  return 0;
}

// Places the vertices of cell c in the order its keys give: each key takes
// the first vertex of the cell with that key not placed yet.
void place_cell(int c) {
  const int from = s.part[c], to = s.part[c + 1];
  bool used[MAXV] = {};
  for (int i = from; i < to; ++i) {
    for (int q = from; q < to; ++q) {
      const int v = s.order[q];
      if (!used[q - from] && s.vkey[v] == s.keys[i]) {
        used[q - from] = true;
        s.perm[i] = v;
        break;
      }
    }
  }
}

// Rows of cell c depend only on cells 0..c and, standing at cell c, the
// earlier rows of perm equal those of best: a smaller block rules out every
// completion, a greater one makes perm the best, an equal one is explored.
// Leaves of one cell hanging from the same vertex can swap places without
// changing any code, so they share a key and only the distinct arrangements
// of the keys are tried, each cell's from sorted back to sorted.
void search(int c) {
  int* cell = s.keys + s.part[c];
  const int size = s.part[c + 1] - s.part[c];
  const bool last = c == s.parts - 1;
  do {
    place_cell(c);
    const int r = compare_blocks(c, c);
    if (last) {
      if (r > 0) std::memcpy(s.best, s.perm, sizeof(int) * s.n);
      continue;
    }
    if (r < 0) continue;
    if (r > 0) std::memcpy(s.best, s.perm, sizeof(int) * s.n);
    search(c + 1);
  } while (std::next_permutation(cell, cell + size));
  place_cell(c);
}

}  // namespace

bool canonical_order_fast(const SmallGraph& g, int* order) {
  const int n = g.n;
  if (n < 1 || n > MAXV) return false;
  s.n = n;
  s.adj = g.adj;
  s.label = g.label;
  s.deg = g.deg;
  s.nb = g.nb;
  s.packed = true;
  for (int u = 0; u < n; ++u) {
    const int d = g.deg[u];
    for (int j = 0; j < d; ++j) {
      const int code = g.adj[u][g.nb[u][j]];
      if (code < 0 || code >= 16) s.packed = false;
    }
    s.p[u] = 0;
    if (d > PACKED_PAIRS || g.label[u] < 0 || g.label[u] >= (1 << 20)) s.packed = false;
  }
  // Passes go on while they add cells, as in refine. Once every cell is a
  // single vertex a further pass would only confirm the same order.
  int parts = 1, previous = 0;
  do {
    previous = parts;
    parts = s.packed ? refine_pass_packed() : refine_pass();
  } while (parts > previous && parts < n);
  s.parts = parts;
  int largest = 0;
  for (int c = 0; c < parts; ++c) largest = std::max(largest, s.part[c + 1] - s.part[c]);
  if (largest >= SEARCH_CELL_LIMIT) return false;
  for (int k = 0; k < n; ++k) s.perm[k] = s.order[k];
  if (largest > 1) {
    for (int v = 0; v < n; ++v) s.vkey[v] = s.deg[v] == 1 ? s.nb[v][0] : n + v;
    for (int k = 0; k < n; ++k) s.keys[k] = s.vkey[s.order[k]];
    for (int c = 0; c < parts; ++c) {
      std::sort(s.keys + s.part[c], s.keys + s.part[c + 1]);
      place_cell(c);
    }
    std::memcpy(s.best, s.perm, sizeof(int) * n);
    search(0);
    std::memcpy(s.perm, s.best, sizeof(int) * n);
  }
  std::memcpy(order, s.perm, sizeof(int) * n);
  return true;
}

bool canonical_label_fast(Graph& g) {
  const int n = g.vs;
  if (n < 1 || n > MAXV) return false;
  thread_local SmallGraph in;
  in.n = n;
  for (int u = 0; u < n; ++u) {
    if (g.v[u + 1] - g.v[u] > MAXV) return false;
    std::memset(in.adj[u], 0, sizeof(int) * n);
    in.label[u] = g.vl[u];
    in.deg[u] = g.v[u + 1] - g.v[u];
    for (int j = g.v[u]; j < g.v[u + 1]; ++j) {
      in.adj[u][g.e[j]] = g.el[j] + 1;
      in.nb[u][j - g.v[u]] = g.e[j];
    }
  }
  int perm[MAXV];
  if (!canonical_order_fast(in, perm)) return false;
  // Write the graph back in the chosen order, as store_graph does.
  int vid[MAXV];
  for (int k = 0; k < n; ++k) vid[k] = g.vid[perm[k]];
  g.vcell.resize(n);
  g.ncell = s.parts;
  for (int k = 0; k < n; ++k) {
    g.vl[k] = in.label[perm[k]];
    g.vid[k] = vid[k];
    g.vcell[k] = s.p[perm[k]];
  }
  int c = 0;
  g.v[0] = 0;
  for (int a = 0; a < n; ++a) {
    const int* row = in.adj[perm[a]];
    for (int b = 0; b < n; ++b) {
      if (b == a) continue;
      const int code = row[perm[b]];
      if (code != 0) {
        g.e[c] = b;
        g.el[c] = code - 1;
        ++c;
      }
    }
    g.v[a + 1] = c;
  }
  g.key = compute_key(g);
  return true;
}
