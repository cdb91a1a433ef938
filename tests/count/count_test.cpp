// The run's counting (workers, one search per compound over every length,
// forms grown along the search path, the merge in input order, the spill)
// against the plain path, where every length enumerates every compound again
// and every set is built, labelled and inserted into the table on its own:
// random and real compound sets must give the same descriptors (id, support,
// key and canonical arrays, in descriptor order) and the same rows.
#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "count/count.h"
#include "input/input.h"
#include "reference/reference.h"
#include "support/process.h"

namespace {

struct Outcome {
  std::vector<std::vector<int>> descriptors;  // id, support, key, then v, e, el, vl
  std::vector<DescriptorPairs> rows;
};

std::vector<int> record(int id, int support, const GraphView& g) {
  std::vector<int> r = {id, support, static_cast<int>(g.key)};
  r.insert(r.end(), g.v, g.v + g.vs + 1);
  r.insert(r.end(), g.e, g.e + g.es);
  r.insert(r.end(), g.el, g.el + g.es);
  r.insert(r.end(), g.vl, g.vl + g.vs);
  return r;
}

Outcome plain(const CompoundInput& input, const RunSettings& s) {
  const PlainRun run = plain_run(input.compounds, s.opt, s.lmin, s.lmax, s.fmin);
  Outcome o;
  for (const PlainDescriptor& d : run.descriptors) o.descriptors.push_back(record(d.id, d.support, view_of(d.form)));
  o.rows = run.rows;
  return o;
}

Outcome counted(const std::string& text, const RunSettings& s, int threads, std::size_t spill, std::size_t steps) {
  CompoundStream stream;
  open_compounds_in_memory(s, InputSource{"compounds", &text}, stream);
  CountOptions options = count_options(s);
  options.threads = threads;
  options.spill_limit = spill;
  options.step_limit = steps;
  options.spill_directory = "/tmp";
  CountedRun run;
  count_compounds(stream, options, run);
  Numbering numbering;
  number_forms(run, s, stream.dictionary, false, nullptr, "", numbering);
  Outcome o;
  o.descriptors.resize(numbering.descriptors);
  for (int f = 0; f < run.store.size(); ++f)
    if (numbering.descriptor[f] != 0)
      o.descriptors[numbering.descriptor[f] - 1] = record(numbering.id[f], run.support[f], run.store.view(f));
  RowReader rows;
  start_rows(run, rows);
  std::string name;
  for (DescriptorPairs pairs; next_row(rows, numbering, name, pairs);) o.rows.push_back(pairs);
  return o;
}

// SD text of random compounds: a tree plus a few ring-closing bonds, labels
// from small alphabets so that fragments repeat within and across compounds;
// with `leaves`, up to four hydrogens on each skeleton atom, which give cells
// of five or more equal atoms.
std::string random_compounds(std::mt19937& rng, int count, bool leaves) {
  static const char* const symbols[] = {"C", "N", "O"};
  std::string text;
  char line[128];
  for (int c = 0; c < count; ++c) {
    const int skeleton = 2 + static_cast<int>(rng() % (leaves ? 5 : 14));
    std::vector<const char*> atoms;
    std::vector<std::vector<int>> bonds;  // a, b, type (1-based atoms)
    std::vector<std::vector<char>> bonded(80, std::vector<char>(80, 0));
    for (int k = 0; k < skeleton; ++k) atoms.push_back(symbols[rng() % 3]);
    auto bond = [&](int a, int b) {
      if (a == b || bonded[a][b]) return;
      bonded[a][b] = bonded[b][a] = 1;
      bonds.push_back({a + 1, b + 1, 1 + static_cast<int>(rng() % 2)});
    };
    for (int k = 1; k < skeleton; ++k) bond(static_cast<int>(rng() % k), k);
    for (int extra = static_cast<int>(rng() % 3); extra > 0; --extra)
      bond(static_cast<int>(rng() % skeleton), static_cast<int>(rng() % skeleton));
    if (leaves)
      for (int k = 0; k < skeleton; ++k)
        for (int h = static_cast<int>(rng() % 5); h > 0; --h) {
          atoms.push_back("H");
          bond(k, static_cast<int>(atoms.size()) - 1);
        }
    text += 'c';
    text += std::to_string(c);
    text += "\n\n\n";
    std::snprintf(line, sizeof line, "%3zu%3zu  0  0  0  0  0  0  0  0999 V2000\n", atoms.size(), bonds.size());
    text += line;
    for (const char* a : atoms) {
      std::snprintf(line, sizeof line, "    0.0000    0.0000    0.0000 %-3s 0  0  0  0  0  0  0  0  0  0  0  0\n", a);
      text += line;
    }
    for (const auto& b : bonds) {
      std::snprintf(line, sizeof line, "%3d%3d%3d  0\n", b[0], b[1], b[2]);
      text += line;
    }
    text += "M  END\n$$$$\n";
  }
  return text;
}

void expect_same_run(const std::string& text, const RunSettings& s, const std::string& what) {
  const CompoundInput input = read_compounds_in_memory(s, InputSource{"compounds", &text});
  const Outcome expected = plain(input, s);
  ASSERT_FALSE(expected.descriptors.empty()) << what;
  // Three threads with every entry spilled, and growth steps forgotten
  // whenever a few stripes of their tables fill.
  for (const auto& [threads, spill] : {std::pair<int, std::size_t>{1, std::size_t{1} << 30}, {3, 0}}) {
    const Outcome got = counted(text, s, threads, spill, threads == 1 ? std::size_t{64} << 20 : 256 << 10);
    ASSERT_EQ(expected.descriptors.size(), got.descriptors.size()) << what << ", " << threads << " threads";
    for (std::size_t d = 0; d < expected.descriptors.size(); ++d)
      ASSERT_EQ(expected.descriptors[d], got.descriptors[d])
          << what << ", " << threads << " threads: descriptor " << d + 1 << " (id, support, key, arrays) differs";
    ASSERT_EQ(expected.rows.size(), got.rows.size()) << what;
    for (std::size_t c = 0; c < expected.rows.size(); ++c)
      ASSERT_EQ(expected.rows[c], got.rows[c]) << what << ", " << threads << " threads: compound " << c + 1;
  }
}

RunSettings settings(int opt, int lmin, int lmax, int fmin, bool mol2 = false) {
  RunSettings s;
  s.opt = opt;
  s.lmin = lmin;
  s.lmax = lmax;
  s.fmin = fmin;
  s.mol2input = mol2;
  return s;
}

TEST(counting, random_compounds_give_the_plain_paths_descriptors_and_rows) {
  std::mt19937 rng(99);
  for (int round = 0; round < 12; ++round) {
    const bool leaves = round >= 6;
    // Some runs start above length 1: the shorter sets are still searched
    // (the longer ones grow from them) but not counted.
    const RunSettings s = settings(1 + round % 3, round % 4 == 3 ? 3 : 1, round >= 10 ? 9 : 6, 1 + round % 2);
    expect_same_run(random_compounds(rng, round >= 10 ? 12 : 40, leaves), s, "round " + std::to_string(round));
  }
}

TEST(counting, real_compounds_give_the_plain_paths_descriptors_and_rows) {
  const std::string data = std::string(TAVRIX_TEST_DATA) + "/input/";
  // Hundreds of real compounds: forms met again and again across compounds,
  // where a wrong memory of an earlier one would show.
  std::string nci = testsupport::unxz(std::string(TAVRIX_TEST_DATA) + "/../../bench/data/nci5k.sdf.xz");
  std::size_t end = 0;
  for (int k = 0; k < 600; ++k) end = nci.find("$$$$\n", end) + 5;
  nci.resize(end);
  expect_same_run(nci, settings(1, 1, 6, 1), "nci5k, 600 compounds");
  expect_same_run(testsupport::unxz(data + "cdk2.sdf.xz"), settings(2, 2, 6, 2), "cdk2.sdf, trees");
  expect_same_run(testsupport::unxz(data + "cdk2.mol2.xz"), settings(3, 1, 5, 1, true), "cdk2.mol2, paths");
}

}  // namespace
