// The run's counting (one search per compound over every length, canonical
// forms grown along the search path) against the plain path, where every
// length enumerates every compound again and every set is built, labelled
// and inserted on its own: whole runs over random compounds must issue the
// same slots, ids, support and forms and leave identical lists.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "enumerate/enumerate.h"
#include "enumerate/fragment_counter.h"
#include "graph/graph.h"
#include "table/table.h"

namespace {

// A random connected compound: a tree plus a few ring-closing bonds, labels
// from small alphabets so that fragments repeat within and across compounds.
// With `leaves`, every atom of the skeleton also gets up to four leaf atoms of
// one label, as explicit hydrogens give: cells of five or more equal atoms.
Graph random_compound(std::mt19937& rng, bool leaves = false) {
  const int skeleton = 2 + static_cast<int>(rng() % (leaves ? 5 : 14));
  int n = skeleton;
  std::vector<int> leaf_of;
  if (leaves)
    for (int k = 0; k < skeleton; ++k)
      for (int h = static_cast<int>(rng() % 5); h > 0; --h) leaf_of.push_back(k);
  n += static_cast<int>(leaf_of.size());
  std::vector<EdgeTriple> t;
  std::vector<std::vector<char>> bonded(n, std::vector<char>(n, 0));
  auto bond = [&](int a, int b) {
    if (a == b || bonded[a][b]) return;
    bonded[a][b] = bonded[b][a] = 1;
    const int l = static_cast<int>(rng() % 2);
    t.push_back({a, b, l});
    t.push_back({b, a, l});
  };
  for (int k = 1; k < skeleton; ++k) bond(static_cast<int>(rng() % k), k);
  for (int extra = static_cast<int>(rng() % 3); extra > 0; --extra)
    bond(static_cast<int>(rng() % skeleton), static_cast<int>(rng() % skeleton));
  for (std::size_t h = 0; h < leaf_of.size(); ++h) bond(leaf_of[h], skeleton + static_cast<int>(h));
  Graph g;
  g.vs = n;
  g.es = static_cast<int>(t.size());
  g.vid.resize(n);
  g.vl.resize(n);
  for (int i = 0; i < n; ++i) {
    g.vid[i] = i;
    g.vl[i] = i < skeleton ? static_cast<int>(rng() % 3) : 9;
  }
  build_adjacency(t, g);
  return g;
}

struct TableRun {
  FragmentTable table;
  std::vector<int> issued;  // slots in the order the driver would number them
};

void issue(TableRun& r, int slot, int id, int support, const GraphView& g) {
  r.issued.push_back(slot);
  r.issued.push_back(id);
  r.issued.push_back(support);
  r.issued.push_back(static_cast<int>(g.key));
  r.issued.insert(r.issued.end(), g.v, g.v + g.vs + 1);
  r.issued.insert(r.issued.end(), g.e, g.e + g.es);
  r.issued.insert(r.issued.end(), g.el, g.el + g.es);
  r.issued.insert(r.issued.end(), g.vl, g.vl + g.vs);
}

void run_plain(TableRun& r, const std::vector<Graph>& compounds, int lmin, int lmax, int opt) {
  create_table(r.table);
  r.table.total = 0;
  create_occurrence_lists(r.table, static_cast<int>(compounds.size()));
  FragmentContext ctx;
  ctx.opt = opt;
  ctx.table = &r.table;
  r.issued.clear();
  for (int t = lmin; t <= lmax; ++t) {
    ctx.threshold = t;
    r.table.threshold = t;
    for (int c = 0; c < static_cast<int>(compounds.size()); ++c) {
      enumerate_fragments(compounds[c], c, ctx);
      r.table.csrcount[c].offset = r.table.csrcount[c].size;
    }
    for (int slot : current_slots(r.table)) {
      const HashEntry& e = r.table.hashg[slot];
      issue(r, slot, e.id, e.support, view_of(r.table.stored[e.g]));
    }
    release_stored(r.table);
  }
}

void run_counted(TableRun& r, const std::vector<Graph>& compounds, int lmin, int lmax, int opt) {
  r.table = FragmentTable{};
  create_occurrence_lists(r.table, static_cast<int>(compounds.size()));
  FragmentCounter counter(lmin, lmax, opt);
  for (int c = 0; c < static_cast<int>(compounds.size()); ++c) {
    counter.count_compound(compounds[c], c, r.table.csr[c]);
    r.table.csrcount[c].size = static_cast<int>(r.table.csr[c].size());
  }
  r.issued.clear();
  for (int t = lmin; t <= lmax; ++t) {
    for (int f : counter.number_length(r.table, t)) {
      const FormNumbers& k = counter.numbers();
      issue(r, k.slot[f], k.id[f], k.support[f], counter.form(f));
    }
  }
}

}  // namespace

TEST(fragment_counter, gives_the_same_tables_as_the_plain_path) {
  static TableRun plain, counted;
  std::mt19937 rng(99);
  for (int round = 0; round < 14; ++round) {
    // The last rounds reach fragments of more atoms than a step keeps inline.
    const bool long_run = round >= 12;
    std::vector<Graph> compounds;
    for (int c = 0; c < (long_run ? 12 : 40); ++c) compounds.push_back(random_compound(rng, round >= 6 && !long_run));
    const int opt = 1 + round % 3;
    // Some runs start above length 1: the shorter sets are still searched
    // (the longer ones grow from them) but not counted.
    const int lmin = round % 4 == 3 ? 3 : 1;
    const int lmax = long_run ? 10 : 6;
    run_plain(plain, compounds, lmin, lmax, opt);
    run_counted(counted, compounds, lmin, lmax, opt);
    EXPECT_EQ(plain.table.total, counted.table.total);
    EXPECT_EQ(plain.issued, counted.issued);
    for (int c = 0; c < static_cast<int>(compounds.size()); ++c) {
      ASSERT_EQ(plain.table.csrcount[c].size, counted.table.csrcount[c].size) << "compound " << c;
      for (int p = 0; p < plain.table.csrcount[c].size; ++p) {
        EXPECT_EQ(plain.table.csr[c][p].id, counted.table.csr[c][p].id);
        EXPECT_EQ(plain.table.csr[c][p].count, counted.table.csr[c][p].count);
      }
    }
    EXPECT_GT(plain.table.total, 0);
  }
}
