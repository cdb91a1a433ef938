// The labelling's records: the process-wide scratch pair, loading a graph
// into a record, writing the chosen order back, and copying records.
#include <algorithm>
#include <bit>

#include "canon/canon_internal.h"
#include "common/common.h"

namespace {

// Reused by every call of canonical_label on the same thread (each thread
// has its own pair, so labelling may run on several at once); remade only
// for a larger graph.
thread_local CanonState working;
thread_local CanonState best;
thread_local int capacity = 0;

thread_local std::vector<int> save_stack;
thread_local int save_top = 0;

}  // namespace

void create_state(CanonState& m, int cap) {
  m = CanonState{};
  m.cap = cap;
  m.vtx.resize(cap);
  for (CanonVertex& x : m.vtx) x.neighbours.resize(cap);
  m.adj.assign(static_cast<std::size_t>(cap) * cap, 0);
  m.part.assign(cap + 1, 0);
  m.newpart.assign(cap + 1, 0);
  m.perm0.assign(cap, 0);
  m.perm.assign(cap, 0);
  m.perm_inv.assign(cap, 0);
  m.key_fixed.assign(cap, 0);
  m.key.assign(cap, 0);
}

void prepare_scratch(int n) {
  if (n <= capacity) return;
  create_state(working, n);
  create_state(best, n);
  // Each nested level of the individualization search fixes at least one
  // more vertex, so n levels are never exceeded.
  save_stack.assign(static_cast<std::size_t>(3) * n * n, 0);
  save_top = 0;
  capacity = n;
}

CanonState& working_state() { return working; }
CanonState& best_state() { return best; }

SaveArea take_save_area(int vs) {
  TAVRIX_CHECK(save_top + 3 * vs <= static_cast<int>(save_stack.size()));
  int* base = save_stack.data() + save_top;
  save_top += 3 * vs;
  return SaveArea{base, base + vs, base + 2 * vs};
}

void release_save_area(int vs) {
  TAVRIX_CHECK(save_top >= 3 * vs);
  save_top -= 3 * vs;
}

namespace {

// Distinct codes beyond this many leave the keys unpacked.
constexpr int MAX_PACKED_CODES = 16;
// Vertex indices, and so cell indices, then fit in 6 bits: the low bits of
// the words ranked below, and the per-cell counts of a refinement pass.
constexpr int MAX_PACKED_VERTICES = 64;

int bits_for(int largest) { return static_cast<int>(std::bit_width(static_cast<unsigned>(largest))); }

// Decides whether m's keys fit one word and, if so, sets their layout and
// the ranks behind them. Uses m.key as scratch, so it allocates nothing.
void set_up_packed_keys(CanonState& m) {
  const int n = m.vs;
  m.packed = false;
  if (n > MAX_PACKED_VERTICES) return;
  int codes[MAX_PACKED_CODES];
  int ncodes = 0, max_degree = 0;
  for (int v = 0; v < n; ++v) {
    const CanonVertex& x = m.vtx[v];
    max_degree = std::max(max_degree, x.d);
    for (int s = 0; s < x.d; ++s) {
      const int code = x.neighbours[s].code;
      if (std::find(codes, codes + ncodes, code) != codes + ncodes) continue;
      if (ncodes == MAX_PACKED_CODES) return;
      codes[ncodes++] = code;
    }
  }
  std::sort(codes, codes + ncodes);
  // (degree descending, label) as one number, the vertex in the low 6 bits;
  // sorted, equal numbers above those bits share a rank.
  for (int v = 0; v < n; ++v) {
    const std::uint64_t label = static_cast<std::uint32_t>(m.vtx[v].l) ^ 0x80000000u;
    m.key[v] = static_cast<std::uint64_t>(MAX_PACKED_VERTICES - 1 - m.vtx[v].d) << 38 | label << 6 |
               static_cast<std::uint64_t>(v);
  }
  std::sort(m.key.begin(), m.key.begin() + n);
  int rank = 0;
  for (int k = 0; k < n; ++k) {
    if (k > 0 && (m.key[k] >> 6) != (m.key[k - 1] >> 6)) ++rank;
    m.key_fixed[m.key[k] & 63] = static_cast<std::uint64_t>(rank);
  }
  const int cell_bits = bits_for(n - 1);
  const int rank_bits = bits_for(rank);
  const int pair_bits = bits_for(std::max(ncodes, 1) * n - 1);
  if (cell_bits + rank_bits + max_degree * pair_bits > 64) return;
  m.packed = true;
  m.pair_bits = pair_bits;
  m.first_pair_shift = std::max(max_degree - 1, 0) * pair_bits;
  m.cell_shift = rank_bits + max_degree * pair_bits;
  for (int v = 0; v < n; ++v) {
    m.key_fixed[v] <<= max_degree * pair_bits;
    CanonVertex& x = m.vtx[v];
    for (int s = 0; s < x.d; ++s)
      x.neighbours[s].pair = static_cast<int>(std::lower_bound(codes, codes + ncodes, x.neighbours[s].code) - codes) * n;
  }
}

}  // namespace

void load_graph(CanonState& m, const Graph& g) {
  const int n = g.vs;
  TAVRIX_CHECK(n >= 1 && n <= m.cap);
  m.vs = n;
  m.parts = 1;
  m.part[0] = 0;
  m.part[1] = n;
  for (int k = 0; k < n; ++k) {
    m.vtx[k].r = k;
    m.perm[k] = k;
    m.perm_inv[k] = k;
  }
  for (int u = 0; u < n; ++u) std::fill_n(m.adj.begin() + u * m.cap, n, 0);
  for (int k = 0; k < n; ++k) {
    CanonVertex& x = m.vtx[k];
    x.i = g.vid[k];
    x.d = g.v[k + 1] - g.v[k];
    x.l = g.vl[k];
    x.p = 0;
    x.P = 0;  // refinement sets it before anyone reads it; this keeps it defined
    int s = 0;
    for (int j = g.v[k]; j < g.v[k + 1]; ++j) {
      m.adj[k * m.cap + g.e[j]] = g.el[j] + 1;
      x.neighbours[s++] = NeighbourRef{g.el[j] + 1, g.e[j], 0};
    }
  }
  set_up_packed_keys(m);
}

void store_graph(const CanonState& m, Graph& g) {
  const int n = m.vs;
  int es = 0;
  for (int u = 0; u < n; ++u)
    for (int w = 0; w < n; ++w) es += adj_at(m, u, w) != 0;
  TAVRIX_CHECK(es == g.es && m.vs == g.vs);
  g.vcell.resize(n);  // fragment graphs come with it; no allocation then
  g.ncell = m.parts;
  for (int k = 0; k < n; ++k) {
    const CanonVertex& x = m.vtx[m.perm[k]];
    g.vl[k] = x.l;
    g.vid[k] = x.i;
    g.vcell[k] = x.P;
  }
  // Walking the positions b in increasing order keeps each vertex's entries
  // sorted by the neighbour's new position.
  int c = 0;
  g.v[0] = 0;
  for (int a = 0; a < n; ++a) {
    for (int b = 0; b < n; ++b) {
      if (b == a) continue;
      const int code = adj_at(m, m.perm[a], m.perm[b]);
      if (code != 0) {
        g.e[c] = b;
        g.el[c] = code - 1;
        ++c;
      }
    }
    g.v[a + 1] = c;
  }
}

void copy_state(const CanonState& src, CanonState& dst) {
  TAVRIX_CHECK(dst.vs == src.vs);
  const int n = src.vs;
  TAVRIX_CHECK(n <= dst.cap);
  dst.parts = src.parts;
  dst.newparts = src.newparts;
  for (int k = 0; k < n; ++k) {
    const CanonVertex& x = src.vtx[k];
    CanonVertex& y = dst.vtx[k];
    y.i = x.i;
    y.d = x.d;
    y.l = x.l;
    y.r = x.r;
    y.p = x.p;
    y.P = x.P;
    // References are indices into vtx, so they already name dst's entries.
    std::copy_n(x.neighbours.begin(), x.d, y.neighbours.begin());
  }
  std::copy_n(src.perm0.begin(), n, dst.perm0.begin());
  std::copy_n(src.perm.begin(), n, dst.perm.begin());
  std::copy_n(src.perm_inv.begin(), n, dst.perm_inv.begin());
  for (int u = 0; u < n; ++u)
    std::copy_n(src.adj.begin() + u * src.cap, n, dst.adj.begin() + u * dst.cap);
  std::copy_n(src.part.begin(), n + 1, dst.part.begin());
  std::copy_n(src.newpart.begin(), n + 1, dst.newpart.begin());
  dst.packed = src.packed;
  dst.cell_shift = src.cell_shift;
  dst.pair_bits = src.pair_bits;
  dst.first_pair_shift = src.first_pair_shift;
  std::copy_n(src.key_fixed.begin(), n, dst.key_fixed.begin());
  std::copy_n(src.key.begin(), n, dst.key.begin());
}
