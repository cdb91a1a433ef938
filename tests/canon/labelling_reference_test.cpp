// The labelling against a frozen copy of its first, literal implementation,
// kept below exactly as it was written. The individualization search's result
// depends on the order refinement leaves and on every tie rule, so any change
// to the working code that alters one decision shows up here as a different
// vid (or code) on some renumbering of a graph with a large cell of equal
// vertices. Families: random trees and graphs, molecule-like trees with
// hydrogens, stars of 5-8 equal leaves, twin centres, all-hydrogen chains,
// graphs too large for the packed refinement keys, each freshly renumbered.
#include <gtest/gtest.h>

#include "support/graphs.h"

#include <algorithm>
#include <random>
#include <utility>
#include <vector>

#include "canon/canon.h"
#include "canon/canon_internal.h"
#include "graph/graph.h"
#include "table/table.h"

namespace frozen {

struct Ref {
  int code = 0, vertex = 0;
};
struct Vertex {
  int i = 0, d = 0, l = 0, r = 0, p = 0, P = 0;
  std::vector<Ref> neighbours;
};
struct State {
  int cap = 0, vs = 0;
  std::vector<Vertex> vtx;
  std::vector<int> adj, part, newpart, perm0, perm, perm_inv;
  int parts = 0, newparts = 0;
};
struct Save {
  std::vector<int> perm, perm_inv, p;
};

int adj_at(const State& m, int u, int w) { return m.adj[u * m.cap + w]; }

void create(State& m, int cap) {
  m = State{};
  m.cap = cap;
  m.vtx.resize(cap);
  for (Vertex& x : m.vtx) x.neighbours.resize(cap);
  m.adj.assign(cap * cap, 0);
  m.part.assign(cap + 1, 0);
  m.newpart.assign(cap + 1, 0);
  m.perm0.assign(cap, 0);
  m.perm.assign(cap, 0);
  m.perm_inv.assign(cap, 0);
}

void load(State& m, const Graph& g) {
  const int n = g.vs;
  m.vs = n;
  m.parts = 1;
  m.part[0] = 0;
  m.part[1] = n;
  for (int k = 0; k < n; ++k) m.vtx[k].r = m.perm[k] = m.perm_inv[k] = k;
  for (int k = 0; k < n; ++k) {
    Vertex& x = m.vtx[k];
    x.i = g.vid[k];
    x.d = g.v[k + 1] - g.v[k];
    x.l = g.vl[k];
    x.p = x.P = 0;
    int s = 0;
    for (int j = g.v[k]; j < g.v[k + 1]; ++j) {
      m.adj[k * m.cap + g.e[j]] = g.el[j] + 1;
      x.neighbours[s++] = Ref{g.el[j] + 1, g.e[j]};
    }
  }
}

void store(const State& m, Graph& g) {
  const int n = m.vs;
  g.vcell.resize(n);
  g.ncell = m.parts;
  for (int k = 0; k < n; ++k) {
    const Vertex& x = m.vtx[m.perm[k]];
    g.vl[k] = x.l;
    g.vid[k] = x.i;
    g.vcell[k] = x.P;
  }
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

void copy_state(const State& src, State& dst) {
  const int n = src.vs;
  dst.parts = src.parts;
  dst.newparts = src.newparts;
  for (int k = 0; k < n; ++k) {
    const Vertex& x = src.vtx[k];
    Vertex& y = dst.vtx[k];
    y.i = x.i, y.d = x.d, y.l = x.l, y.r = x.r, y.p = x.p, y.P = x.P;
    std::copy_n(x.neighbours.begin(), x.d, y.neighbours.begin());
  }
  std::copy_n(src.perm0.begin(), n, dst.perm0.begin());
  std::copy_n(src.perm.begin(), n, dst.perm.begin());
  std::copy_n(src.perm_inv.begin(), n, dst.perm_inv.begin());
  for (int u = 0; u < n; ++u) std::copy_n(src.adj.begin() + u * src.cap, n, dst.adj.begin() + u * dst.cap);
  std::copy_n(src.part.begin(), n + 1, dst.part.begin());
  std::copy_n(src.newpart.begin(), n + 1, dst.newpart.begin());
}

template <class T, class Less>
void selection_sort(T* items, int n, Less less) {
  for (int s = 0; s < n; ++s) {
    int kept = s;
    for (int t = s + 1; t < n; ++t)
      if (less(items[t], items[kept])) kept = t;
    if (kept != s) std::swap(items[s], items[kept]);
  }
}

int compare_vertices(const State& m, const Vertex& a, const Vertex& b) {
  if (a.p != b.p) return a.p - b.p;
  if (a.d != b.d) return b.d - a.d;
  if (a.l != b.l) return a.l - b.l;
  for (int s = 0; s < a.d; ++s) {
    const Ref& x = a.neighbours[s];
    const Ref& y = b.neighbours[s];
    if (x.code != y.code) return x.code - y.code;
    const int px = m.vtx[x.vertex].p, py = m.vtx[y.vertex].p;
    if (px != py) return px - py;
  }
  return 0;
}

void sort_vertices(State& m) {
  for (int k = 0; k < m.vs; ++k) {
    Vertex& x = m.vtx[k];
    selection_sort(x.neighbours.data(), x.d, [&m](const Ref& a, const Ref& b) {
      if (a.code != b.code) return a.code < b.code;
      return m.vtx[a.vertex].p < m.vtx[b.vertex].p;
    });
  }
  selection_sort(m.perm.data(), m.vs, [&m](int a, int b) { return compare_vertices(m, m.vtx[a], m.vtx[b]) < 0; });
  for (int k = 0; k < m.vs; ++k) m.perm_inv[m.perm[k]] = k;
}

void refine(State& m) {
  int previous = 0;
  while (m.parts > previous) {
    sort_vertices(m);
    Vertex* leader = &m.vtx[m.perm[0]];
    leader->P = 0;
    m.newpart[0] = 0;
    for (int k = 1; k < m.vs; ++k) {
      Vertex& x = m.vtx[m.perm[k]];
      if (compare_vertices(m, *leader, x) == 0) {
        x.P = leader->P;
      } else {
        x.P = leader->P + 1;
        m.newpart[x.P] = k;
        leader = &x;
      }
    }
    m.newparts = leader->P + 1;
    m.newpart[m.newparts] = m.vs;
    previous = m.parts;
    m.parts = m.newparts;
    for (int c = 0; c <= m.parts; ++c) m.part[c] = m.newpart[c];
    for (int k = 0; k < m.vs; ++k) m.vtx[k].p = m.vtx[k].P;
  }
}

int compare_rows(const State& a, const State& b, int first_cell, int last_cell) {
  for (int i = a.part[first_cell]; i < a.part[last_cell + 1]; ++i)
    for (int j = 0; j < i; ++j) {
      const int diff = adj_at(a, a.perm[i], a.perm[j]) - adj_at(b, b.perm[i], b.perm[j]);
      if (diff != 0) return diff;
    }
  return 0;
}

void copy_permutation(const State& src, State& dst) {
  std::copy_n(src.perm.begin(), src.vs, dst.perm.begin());
  std::copy_n(src.perm_inv.begin(), src.vs, dst.perm_inv.begin());
}

int next_cell_permutation(State& m, int c) {
  const int s = m.part[c];
  const int size = m.part[c + 1] - s;
  if (size == 1) return 0;
  int* cell = m.perm.data() + s;
  if (!std::next_permutation(cell, cell + size)) std::sort(cell, cell + size);
  for (int k = s; k < s + size; ++k) m.perm_inv[m.perm[k]] = k;
  for (int k = s; k < s + size; ++k)
    if (m.perm[k] != m.perm0[k]) return 1;
  return 0;
}

void permutation_search(State& m, int c, State& best) {
  if (c == m.parts - 1) {
    do {
      if (compare_rows(m, best, c, c) > 0) copy_permutation(m, best);
    } while (next_cell_permutation(m, c));
    return;
  }
  if (m.vtx[m.perm[m.part[c]]].d == 0) {
    permutation_search(m, c + 1, best);
    return;
  }
  do {
    const int r = compare_rows(m, best, c, c);
    if (r < 0) continue;
    if (r > 0) copy_permutation(m, best);
    permutation_search(m, c + 1, best);
  } while (next_cell_permutation(m, c));
}

int first_open_cell(const State& m, int from) {
  for (int c = from; c < m.parts; ++c)
    if (m.part[c + 1] - m.part[c] > 1) return c;
  return -1;
}

void individualize(State& m, int v, Save& save) {
  save.perm.assign(m.perm.begin(), m.perm.begin() + m.vs);
  save.perm_inv.assign(m.perm_inv.begin(), m.perm_inv.begin() + m.vs);
  save.p.resize(m.vs);
  for (int k = 0; k < m.vs; ++k) save.p[k] = m.vtx[k].p;
  for (int q = m.part[m.vtx[v].p]; q < m.vs; ++q)
    if (m.perm[q] != v) ++m.vtx[m.perm[q]].p;
  sort_vertices(m);
  refine(m);
}

void restore_level(State& m, const Save& save) {
  std::copy(save.perm.begin(), save.perm.end(), m.perm.begin());
  for (int k = 0; k < m.vs; ++k) m.vtx[k].p = save.p[k];
  sort_vertices(m);
  refine(m);
}

void individualization_search(State& m, int c, int prev, State& best) {
  if (m.parts != m.vs) {
    Save save;
    const int first = m.part[c], end = m.part[c + 1];
    for (int k = first; k < end; ++k) {
      individualize(m, m.perm[k], save);
      if (compare_rows(m, best, 0, c) >= 0) {
        int next = first_open_cell(m, c + 1);
        if (next == -1) next = m.vs - 1;
        individualization_search(m, next, c, best);
      }
      restore_level(m, save);
    }
    return;
  }
  if (best.parts != best.vs || compare_rows(m, best, prev, c) > 0) {
    copy_permutation(m, best);
    for (int k = 0; k < m.vs; ++k) best.vtx[k].p = m.vtx[k].p;
    std::copy_n(m.part.begin(), m.vs + 1, best.part.begin());
    best.parts = m.parts;
  }
}

void canonical_label(Graph& g) {
  State m, best;
  create(m, g.vs);
  create(best, g.vs);
  load(m, g);
  refine(m);
  if (m.parts != m.vs) {
    int largest = 0;
    for (int c = 0; c < m.parts; ++c) largest = std::max(largest, m.part[c + 1] - m.part[c]);
    best.vs = m.vs;
    copy_state(m, best);
    if (largest < SEARCH_CELL_LIMIT) {
      for (int k = 0; k < m.vs; ++k) m.perm0[k] = m.perm[k];
      permutation_search(m, 0, best);
    } else {
      int c = 0;
      while (m.part[c + 1] - m.part[c] == 1) ++c;
      individualization_search(m, c, 0, best);
    }
    copy_state(best, m);
  }
  store(m, g);
  g.key = compute_key(g);
}

}  // namespace frozen

namespace {

using testsupport::Bond;
using testsupport::make_graph;

int draw(std::mt19937& rng, int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); }

// A graph given as labels and bonds, renumbered at random on every use.
struct Shape {
  std::vector<int> labels;
  std::vector<Bond> bonds;
};

Graph renumbered(const Shape& s, std::mt19937& rng) {
  std::vector<int> to(s.labels.size());
  for (std::size_t k = 0; k < to.size(); ++k) to[k] = static_cast<int>(k);
  std::shuffle(to.begin(), to.end(), rng);
  std::vector<int> labels(to.size());
  for (std::size_t k = 0; k < to.size(); ++k) labels[to[k]] = s.labels[k];
  std::vector<Bond> bonds;
  for (const Bond& b : s.bonds) bonds.push_back({to[b.u], to[b.w], b.label});
  return make_graph(labels, bonds);
}

// Random tree, degrees capped, labels from small alphabets so equal cells
// are common; `extra` more bonds between unbonded pairs close cycles.
Shape random_shape(std::mt19937& rng, int n, int vlabels, int elabels, int max_degree, int extra) {
  Shape s;
  std::vector<int> degree(n, 0);
  for (int k = 0; k < n; ++k) s.labels.push_back(draw(rng, vlabels));
  std::vector<std::vector<bool>> bonded(n, std::vector<bool>(n, false));
  auto bond = [&](int a, int b) {
    s.bonds.push_back({a, b, draw(rng, elabels)});
    bonded[a][b] = bonded[b][a] = true;
    ++degree[a];
    ++degree[b];
  };
  for (int k = 1; k < n; ++k) {
    int parent = draw(rng, k);
    for (int tries = 0; degree[parent] >= max_degree && tries < 20; ++tries) parent = draw(rng, k);
    bond(parent, k);
  }
  for (int k = 0; k < extra && n > 2; ++k) {
    const int a = draw(rng, n), b = draw(rng, n);
    if (a != b && !bonded[a][b]) bond(a, b);
  }
  return s;
}

// Heavy atoms in a random tree, each filled up with hydrogens (label 1);
// sometimes one atom carries 5 or 6 equal halogen-like leaves instead.
Shape molecule_like(std::mt19937& rng) {
  Shape s;
  const int heavy = 1 + draw(rng, 3);
  std::vector<int> free_valence;
  for (int k = 0; k < heavy; ++k) {
    s.labels.push_back(5 + draw(rng, 3));
    free_valence.push_back(4);
    if (k > 0) {
      const int parent = draw(rng, k);
      s.bonds.push_back({parent, k, draw(rng, 4) == 0 ? 1 : 0});
      --free_valence[parent];
      --free_valence[k];
    }
  }
  const int hyper = draw(rng, 3) == 0 ? draw(rng, heavy) : -1;
  for (int k = 0; k < heavy; ++k) {
    const int leaves = k == hyper ? 5 + draw(rng, 2) : std::max(0, free_valence[k] - draw(rng, 2));
    const int label = k == hyper ? 9 : 1;
    for (int j = 0; j < leaves && s.labels.size() < 12; ++j) {
      s.labels.push_back(label);
      s.bonds.push_back({k, static_cast<int>(s.labels.size()) - 1, 0});
    }
  }
  return s;
}

// A centre with `leaves` equal leaves, and optionally a two-atom arm.
Shape star(int leaves, bool arm) {
  Shape s{std::vector<int>(leaves + 1, 1), {}};
  s.labels[0] = 6;
  for (int k = 1; k <= leaves; ++k) s.bonds.push_back({0, k, 0});
  if (arm) {
    s.labels.push_back(5);
    s.labels.push_back(1);
    s.bonds.push_back({0, leaves + 1, 0});
    s.bonds.push_back({leaves + 1, leaves + 2, 0});
  }
  return s;
}

// `centres` atoms in a chain, each filled with hydrogens up to four bonds
// (ethane, propane), or two bonded centres with `leaves` equal leaves each.
Shape hydrogen_chain(int centres) {
  Shape s{std::vector<int>(centres, 6), {}};
  for (int k = 1; k < centres; ++k) s.bonds.push_back({k - 1, k, 0});
  for (int k = 0; k < centres; ++k) {
    const int h = 4 - (k > 0) - (k + 1 < centres);
    for (int j = 0; j < h; ++j) {
      s.labels.push_back(1);
      s.bonds.push_back({k, static_cast<int>(s.labels.size()) - 1, 0});
    }
  }
  return s;
}

Shape twin_centres(int leaves, int leaf_label) {
  Shape s{{6, 6}, {{0, 1, 0}}};
  for (int c = 0; c < 2; ++c)
    for (int j = 0; j < leaves; ++j) {
      s.labels.push_back(leaf_label);
      s.bonds.push_back({c, static_cast<int>(s.labels.size()) - 1, 0});
    }
  return s;
}

// A tree of 33-40 vertices with one vertex of degree 10: too wide for the
// packed refinement keys, so the labelling takes its general comparisons.
// The hub's neighbours carry distinct labels except five equal leaves, which
// keeps a cell for the individualization search but the search small.
Shape wide_tree(std::mt19937& rng, bool five_equal) {
  const int n = 33 + draw(rng, 8);
  Shape s = random_shape(rng, n - 10, 40, 3, 3, 0);
  const int hub = draw(rng, n - 10);
  for (int j = 0; j < 10; ++j) {
    s.labels.push_back(five_equal && j < 5 ? 100 : 101 + j);
    s.bonds.push_back({hub, static_cast<int>(s.labels.size()) - 1, 0});
  }
  return s;
}

bool packed_keys(const Graph& g) {
  CanonState m;
  create_state(m, g.vs);
  load_graph(m, g);
  return m.packed;
}

int largest_cell(const Graph& g) {
  frozen::State f;
  frozen::create(f, g.vs);
  frozen::load(f, g);
  frozen::refine(f);
  int largest = 0;
  for (int c = 0; c < f.parts; ++c) largest = std::max(largest, f.part[c + 1] - f.part[c]);
  return largest;
}

// Labels g with both implementations; every field written must agree.
void expect_same_labelling(const Graph& g) {
  Graph want = g, got = g;
  frozen::canonical_label(want);
  canonical_label(got);
  EXPECT_EQ(got.vs, want.vs);
  EXPECT_EQ(got.es, want.es);
  EXPECT_EQ(got.v, want.v);
  EXPECT_EQ(got.e, want.e);
  EXPECT_EQ(got.el, want.el);
  EXPECT_EQ(got.vl, want.vl);
  EXPECT_EQ(got.vid, want.vid);
  EXPECT_EQ(got.vcell, want.vcell);
  EXPECT_EQ(got.ncell, want.ncell);
  EXPECT_EQ(got.key, want.key);
}

std::vector<int> cells_of(const CanonState& m) {
  std::vector<int> fields(m.part.begin(), m.part.begin() + m.parts + 1);
  fields.push_back(m.parts);
  for (int k = 0; k < m.vs; ++k) fields.push_back(m.vtx[k].p);
  return fields;
}
std::vector<int> cells_of(const frozen::State& m) {
  std::vector<int> fields(m.part.begin(), m.part.begin() + m.parts + 1);
  fields.push_back(m.parts);
  for (int k = 0; k < m.vs; ++k) fields.push_back(m.vtx[k].p);
  return fields;
}
template <class State>
std::vector<int> order_of(const State& m) {
  std::vector<int> fields(m.perm.begin(), m.perm.begin() + m.vs);
  fields.insert(fields.end(), m.perm_inv.begin(), m.perm_inv.begin() + m.vs);
  return fields;
}

// Every field of the working record that refinement and the search read.
std::vector<int> search_fields(const CanonState& m) {
  std::vector<int> fields = order_of(m);
  const std::vector<int> cells = cells_of(m);
  fields.insert(fields.end(), cells.begin(), cells.end());
  fields.insert(fields.end(), m.newpart.begin(), m.newpart.begin() + m.newparts + 1);
  fields.push_back(m.newparts);
  for (int k = 0; k < m.vs; ++k) fields.push_back(m.vtx[k].P);
  return fields;
}

}  // namespace

TEST(LabellingReference, RandomTreesAndGraphsRenumbered) {
  std::mt19937 rng(20250611);
  for (int round = 0; round < 2500; ++round) {
    const int n = 1 + draw(rng, 12);
    const Shape s = random_shape(rng, n, 1 + draw(rng, 3), 1 + draw(rng, 2), 2 + draw(rng, 5),
                                 draw(rng, 4) == 0 ? draw(rng, 3) : 0);
    const Graph g = renumbered(s, rng);
    expect_same_labelling(g);
    ASSERT_FALSE(HasFailure()) << "round " << round;
  }
}

TEST(LabellingReference, MoleculeLikeTreesWithLargeCellsOfHydrogens) {
  std::mt19937 rng(20250612);
  int individualized = 0;
  for (int round = 0; round < 300; ++round) {
    const Graph g = renumbered(molecule_like(rng), rng);
    expect_same_labelling(g);
    individualized += largest_cell(g) >= SEARCH_CELL_LIMIT;
    ASSERT_FALSE(HasFailure()) << "round " << round;
  }
  EXPECT_GT(individualized, 75);
}

TEST(LabellingReference, StarsTwinCentresAndHydrogenChainsInEveryFamily) {
  std::mt19937 rng(20250613);
  std::vector<std::pair<Shape, int>> shapes;  // shape, numberings tried
  for (int leaves = 5; leaves <= 7; ++leaves) {
    shapes.push_back({star(leaves, false), leaves == 7 ? 3 : 12});
    shapes.push_back({star(leaves, true), leaves == 7 ? 2 : 12});
  }
  shapes.push_back({star(8, false), 1});
  for (int leaves = 3; leaves <= 4; ++leaves)
    for (int label : {1, 6}) shapes.push_back({twin_centres(leaves, label), leaves == 4 ? 3 : 12});
  shapes.push_back({hydrogen_chain(2), 12});
  shapes.push_back({hydrogen_chain(3), 4});
  for (const auto& [shape, numberings] : shapes)
    for (int k = 0; k < numberings; ++k) {
      expect_same_labelling(renumbered(shape, rng));
      ASSERT_FALSE(HasFailure()) << shape.labels.size() << " vertices, numbering " << k;
    }
}

TEST(LabellingReference, GraphsTooWideForPackedKeysTakeTheGeneralComparisons) {
  std::mt19937 rng(20250614);
  for (int round = 0; round < 20; ++round) {
    const Graph g = renumbered(wide_tree(rng, round % 2 == 0), rng);
    EXPECT_FALSE(packed_keys(g));
    expect_same_labelling(g);
    ASSERT_FALSE(HasFailure()) << "round " << round;
  }
  // The families above fit the packed keys.
  EXPECT_TRUE(packed_keys(renumbered(star(8, true), rng)));
  EXPECT_TRUE(packed_keys(renumbered(hydrogen_chain(3), rng)));
}

// Below the whole labelling: refinement, individualizing each vertex of the
// first open cell, and restoring the level must leave every field the search
// reads as the literal steps leave it.
TEST(LabellingReference, IndividualizingAndRestoringLeaveWhatTheLiteralStepsLeave) {
  std::mt19937 rng(20250615);
  for (int round = 0; round < 600; ++round) {
    const Shape s = round % 3 == 0 ? molecule_like(rng)
                                   : random_shape(rng, 2 + draw(rng, 10), 1 + draw(rng, 2), 1 + draw(rng, 2),
                                                  2 + draw(rng, 5), draw(rng, 2));
    const Graph g = renumbered(s, rng);
    CanonState m;
    create_state(m, g.vs);
    load_graph(m, g);
    refine(m);
    frozen::State f;
    frozen::create(f, g.vs);
    frozen::load(f, g);
    frozen::refine(f);
    ASSERT_EQ(order_of(m), order_of(f)) << "round " << round;
    ASSERT_EQ(cells_of(m), cells_of(f)) << "round " << round;
    int c = 0;
    while (c < m.parts && m.part[c + 1] - m.part[c] == 1) ++c;
    if (c == m.parts) continue;
    const std::vector<int> level = search_fields(m);
    std::vector<int> storage(3 * g.vs);
    const SaveArea save{storage.data(), storage.data() + g.vs, storage.data() + 2 * g.vs};
    frozen::Save fsave;
    for (int k = m.part[c]; k < m.part[c + 1]; ++k) {
      const int v = m.perm[k];
      individualize(m, v, save);
      frozen::individualize(f, v, fsave);
      ASSERT_EQ(order_of(m), order_of(f)) << "round " << round << " vertex " << v;
      ASSERT_EQ(cells_of(m), cells_of(f)) << "round " << round << " vertex " << v;
      restore_level(m, save);
      frozen::restore_level(f, fsave);
      ASSERT_EQ(search_fields(m), level) << "round " << round << " vertex " << v;
      ASSERT_EQ(order_of(f), order_of(m));
      ASSERT_EQ(cells_of(f), cells_of(m));
    }
  }
}
