// tavrix-apply: a run's structure file applied to compounds gives exactly the
// lines that run wrote for them; a structure file or input it cannot use is
// refused with one message, exit status 1 and no file left behind.
#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <random>
#include <set>
#include <sstream>
#include <utility>

#include "support/process.h"

namespace {

using namespace testsupport;

const std::string golden_dir = std::string(TAVRIX_TEST_DATA) + "/golden";

RunResult run_apply(const std::vector<std::string>& args, const std::string& cwd,
                    const std::vector<std::string>& env = {}) {
  return run_program(TAVRIX_APPLY_BINARY, args, cwd, env);
}

std::vector<std::string> split_words(const std::string& line) {
  std::istringstream in(line);
  std::vector<std::string> words;
  for (std::string w; in >> w;) words.push_back(w);
  return words;
}

std::set<std::string> files_in(const std::string& dir) {
  std::set<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d))
      if (std::string(e->d_name) != "." && std::string(e->d_name) != "..") names.insert(e->d_name);
    closedir(d);
  }
  return names;
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// A descriptor line without its name: the name's closing quote and what follows.
std::string without_name(const std::string& line) { return line.substr(line.rfind('"')); }

TEST(apply, reproduces_the_descriptor_file_of_every_reviewed_run) {
  int cases = 0;
  for (const std::string& name : files_in(golden_dir)) {
    if (!file_exists(golden_dir + "/" + name + "/command.txt")) continue;
    ++cases;
    const std::vector<std::string> args = split_words(read_file(golden_dir + "/" + name + "/command.txt"));
    const std::string input = args.back();
    std::string stem = input.substr(0, input.find('.'));
    std::vector<std::string> apply_args;
    for (std::size_t i = 1; i + 1 < args.size(); ++i) {
      if (args[i] == "-ofile") stem = args[i + 1];
      if (args[i] == "-NoAtmLabels" || args[i] == "-NoBndLabels") apply_args.push_back(args[i]);
    }
    const std::string work = make_temp_dir();
    write_file(work + "/" + input, unxz(golden_dir + "/inputs/" + input + ".xz"));
    write_file(work + "/space_frag.sdf", unxz(golden_dir + "/" + name + "/" + stem + "_frag.sdf.xz"));
    apply_args.insert(apply_args.end(), {"-ofile", "applied", "space_frag.sdf", input});

    // One thread and several give the same file and the same summary.
    std::string summary;
    for (const std::string threads : {"1", "3"}) {
      const std::string what = name + " with TAVRIX_THREADS=" + threads;
      const RunResult r = run_apply(apply_args, work, {"TAVRIX_THREADS=" + threads});
      EXPECT_EQ(r.status, 0) << what << ": " << r.err;
      EXPECT_EQ(r.err, "") << what;
      EXPECT_TRUE(read_file(work + "/applied.out") == unxz(golden_dir + "/" + name + "/" + stem + ".out.xz"))
          << what << ": applied.out differs from the run's " << stem << ".out";
      if (summary.empty()) summary = r.out;
      EXPECT_EQ(r.out, summary) << what << ": the summary differs from one thread's";
      EXPECT_EQ(files_in(work), (std::set<std::string>{input, "space_frag.sdf", "applied.out"})) << what;
    }
    remove_tree(work);
  }
  EXPECT_GE(cases, 9);
}

// The records of a file, each with its lines: SD records end with "$$$$",
// Mol2 records begin with "@<TRIPOS>MOLECULE".
std::vector<std::string> records_of(const std::string& text, bool mol2) {
  std::vector<std::string> records;
  std::string record;
  for (const std::string& line : lines_of(text)) {
    if (mol2 && line.rfind("@<TRIPOS>MOLECULE", 0) == 0 && !record.empty()) records.push_back(std::exchange(record, ""));
    record += line + "\n";
    if (!mol2 && line == "$$$$") records.push_back(std::exchange(record, ""));
  }
  if (!record.empty()) records.push_back(record);
  return records;
}

// A compound set A followed by B: Tavrix on A+B, then its structure file
// applied to B alone gives B's lines of that run, and applied to A+B the whole
// descriptor file. Records are drawn at random, repeats allowed, with random
// fragment types, lengths, thresholds and label switches.
TEST(apply, carries_a_run_over_to_part_of_its_compounds_exactly) {
  const std::uint32_t seed = 20261123;
  std::mt19937 rng(seed);
  const std::vector<std::string> files = {"nci200.sdf", "cdk2.sdf", "cdk2.mol2", "symmetric_h.sdf"};
  std::vector<std::vector<std::string>> records;
  for (const std::string& f : files)
    records.push_back(records_of(unxz(golden_dir + "/inputs/" + f + ".xz"), f.find(".mol2") != std::string::npos));
  const std::string work = make_temp_dir();
  for (int round = 0; round < 16; ++round) {
    const int file = static_cast<int>(rng() % files.size());
    const std::string ext = files[file].substr(files[file].find('.'));
    const std::vector<std::string>& pool = records[file];
    std::string a, b;
    const int na = 1 + static_cast<int>(rng() % 10), nb = 1 + static_cast<int>(rng() % 10);
    for (int i = 0; i < na; ++i) a += pool[rng() % pool.size()];
    for (int i = 0; i < nb; ++i) b += pool[rng() % pool.size()];
    write_file(work + "/ab" + ext, a + b);
    write_file(work + "/b" + ext, b);

    const int lmin = 1 + static_cast<int>(rng() % 3), lmax = lmin + static_cast<int>(rng() % 4);
    std::vector<std::string> switches;
    if (rng() % 2) switches.push_back("-NoBndLabels");
    if (rng() % 2) switches.push_back("-NoAtmLabels");
    std::vector<std::string> args = {"-ds", std::vector<std::string>{"QZ", "TF", "PF"}[rng() % 3], "-lmin",
                                     std::to_string(lmin), "-lmax", std::to_string(lmax), "-fmin",
                                     std::to_string(1 + rng() % 3)};
    args.insert(args.end(), switches.begin(), switches.end());
    args.push_back("ab" + ext);
    std::string run;
    for (const std::string& w : args) run += " " + w;
    SCOPED_TRACE("seed " + std::to_string(seed) + ", round " + std::to_string(round) + ": Tavrix" + run + " (" +
                 std::to_string(na) + " + " + std::to_string(nb) + " records of " + files[file] + ")");
    ASSERT_EQ(run_tavrix(args, work).status, 1);
    const std::vector<std::string> whole = lines_of(read_file(work + "/ab.out"));
    ASSERT_EQ(whole.size(), static_cast<std::size_t>(na + nb));

    std::vector<std::string> apply_b = switches;
    apply_b.insert(apply_b.end(), {"ab_frag.sdf", "b" + ext});
    const RunResult rb = run_apply(apply_b, work);
    ASSERT_EQ(rb.status, 0) << rb.err;
    const std::vector<std::string> lines_b = lines_of(read_file(work + "/b.out"));
    ASSERT_EQ(lines_b.size(), static_cast<std::size_t>(nb));
    for (int i = 0; i < nb; ++i)  // a record without a name is named by its position, which differs
      EXPECT_EQ(without_name(lines_b[i]), without_name(whole[na + i])) << "compound " << i + 1 << " of B";

    std::vector<std::string> apply_ab = switches;
    apply_ab.insert(apply_ab.end(), {"-ofile", "applied", "ab_frag.sdf", "ab" + ext});
    ASSERT_EQ(run_apply(apply_ab, work).status, 0);
    EXPECT_TRUE(read_file(work + "/applied.out") == read_file(work + "/ab.out")) << "applied to A+B";
    if (HasFailure()) break;
  }
  if (!HasFailure()) remove_tree(work);
}

std::string sd_atom(const char* symbol) {
  return std::string("    0.0000    0.0000    0.0000 ") + symbol + "   0  0  0  0  0  0  0\n";
}

// Descriptor C-C as a run writes it, and records of the same shape with
// other counts and bonds.
std::string sd_record(const std::string& counts, int atoms, const std::string& bonds) {
  std::string r = "1\n  QZ                2D\n\n" + counts + "  0  0  0  0  0  0  0  0  0\n";
  for (int i = 0; i < atoms; ++i) r += sd_atom("C");
  return r + bonds + "M  END\n$$$$\n";
}
const std::string CC = sd_record("  2  1", 2, "  1  2  1  0  0  0  0\n");

const std::string INPUT = "methane\n  test\n\n  2  1  0  0  0  0  0  0  0  0999 V2000\n" + sd_atom("C") +
                          sd_atom("C") + "  1  2  1  0  0  0  0\nM  END\n$$$$\n";

TEST(apply, refuses_what_it_cannot_use_with_one_message_and_no_file) {
  struct Case {
    const char* what;
    std::string space;  // the structure file space_frag.sdf; none when "-"
    std::string input;  // in.sdf
    std::vector<std::string> args;
    int status;
    std::string err;  // standard error, whole
    std::vector<std::string> env = {};
  };
  const std::vector<std::string> usual = {"space_frag.sdf", "in.sdf"};
  const std::vector<Case> cases = {
      {"record cut short", CC.substr(0, CC.find(sd_atom("C"))) + sd_atom("C"), INPUT, usual, 1,
       "space_frag.sdf: record 1 (line 5): the file ends before atom line 2 of 2\n"},
      {"bond to a missing atom", sd_record("  2  1", 2, "  1  3  1  0  0  0  0\n"), INPUT, usual, 1,
       "space_frag.sdf: record 1 (line 7): bond 1 joins atoms 1 and 3, but the record has 2 atoms\n"},
      {"ring", CC + sd_record("  3  3", 3, "  1  2  1  0  0  0  0\n  2  3  1  0  0  0  0\n  1  3  1  0  0  0  0\n"),
       INPUT, usual, 1, "space_frag.sdf: record 2 (line 13): 3 atoms and 3 bonds are not a tree\n"},
      {"bond twice", sd_record("  3  2", 3, "  1  2  1  0  0  0  0\n  2  1  1  0  0  0  0\n"), INPUT, usual, 1,
       "space_frag.sdf: record 1 (line 9): bond 2 joins atoms 2 and 1 a second time\n"},
      {"same fragment twice", CC + CC, INPUT, usual, 1, "space_frag.sdf: record 2: the same fragment as record 1\n"},
      {"not a structure record", "hello\n", INPUT, usual, 1,
       "space_frag.sdf: record 1 (line 1): the file ends before the program line\n"},
      {"a record larger than a fragment can be", "@<TRIPOS>MOLECULE\n1\n70000 69999 0 0 0\n", INPUT, usual, 1,
       "space_frag.sdf: record 1 (line 3): the record has 70000 atoms, more than the 65535 a fragment may have\n"},
      {"structure file missing", "-", INPUT, usual, 1, "can't open a file 'space_frag.sdf'\n"},
      {"input refused by the SD reader", CC, INPUT.substr(0, INPUT.find("  1  2  1")) + "  1  2  7  0  0  0  0\n",
       usual, 1, "in.sdf: read sdf file : edge label not valid 7\n"},
      {"input record refused", CC, INPUT.substr(0, INPUT.find("  1  2  1")) + "  0  2  1  0  0  0  0\n", usual, 1,
       "in.sdf: compound 1 (methane): bond line 1 names atom 0\n"},
      {"input missing", CC, "-", usual, 1, "can't open a file 'in.sdf'\n"},
      {"one file only", CC, INPUT, {"in.sdf"}, 2, "tavrix-apply: a structure file and an input file are needed\n"},
      {"unknown option", CC, INPUT, {"-x", "space_frag.sdf", "in.sdf"}, 2, "tavrix-apply: unknown option -x\n"},
      {"option after the files without its value", CC, INPUT, {"space_frag.sdf", "in.sdf", "-ofile"}, 2,
       "tavrix-apply: -ofile needs a value\n"},
      {"thread count refused", CC, INPUT, usual, 1,
       "TAVRIX_THREADS must be a whole number of threads from 1 to 1024, not '0'\n", {"TAVRIX_THREADS=0"}},
  };
  for (const Case& c : cases) {
    const std::string work = make_temp_dir();
    if (c.space != "-") write_file(work + "/space_frag.sdf", c.space);
    if (c.input != "-") write_file(work + "/in.sdf", c.input);
    const std::set<std::string> before = files_in(work);
    const RunResult r = run_apply(c.args, work, c.env);
    EXPECT_EQ(r.status, c.status) << c.what;
    EXPECT_EQ(r.err.substr(0, r.err.find('\n') + 1), c.err) << c.what;
    EXPECT_EQ(r.out, "") << c.what;
    EXPECT_EQ(files_in(work), before) << c.what << ": a file was left behind";
    remove_tree(work);
  }
}

TEST(apply, empty_structure_file_is_an_empty_space) {
  const std::string work = make_temp_dir();
  write_file(work + "/space_frag.sdf", "");
  write_file(work + "/in.sdf", INPUT + INPUT);
  const RunResult r = run_apply({"space_frag.sdf", "in.sdf"}, work);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(read_file(work + "/in.out"), "\"methane\",0\n\"methane\",0\n");
  EXPECT_NE(r.out.find("compounds read: 2\ndescriptors in the space: 0\n"), std::string::npos) << r.out;
  remove_tree(work);
}

// The space's memory is reserved as it fills, so applying a small space on
// several threads fits a tight address-space limit (a batch queue's ulimit -v).
TEST(apply, a_small_space_fits_a_70_mb_address_space_limit) {
#ifdef TAVRIX_SANITIZED
  GTEST_SKIP() << "the sanitizers reserve terabytes of address space";
#endif
  const std::string work = make_temp_dir();
  write_file(work + "/example.sdf", read_file(std::string(TAVRIX_TEST_DATA) + "/example/example.sdf"));
  ASSERT_EQ(run_tavrix({"-lmax", "3", "example.sdf"}, work).status, 1);
  const RunResult limited = run_program(
      "/bin/sh",
      {"-c", "ulimit -v 70000 && TAVRIX_THREADS=3 exec '" TAVRIX_APPLY_BINARY "' -ofile limited example_frag.sdf "
             "example.sdf"},
      work);
  EXPECT_EQ(limited.status, 0) << limited.err;
  EXPECT_EQ(read_file(work + "/limited.out"), read_file(work + "/example.out"));
  remove_tree(work);
}

TEST(apply, never_writes_over_a_file_it_reads) {
  // Arguments swapped: the input named STEM.out is the run's descriptor file.
  const std::string work = make_temp_dir();
  write_file(work + "/space_frag.sdf", CC);
  write_file(work + "/run.out", "\"methane\",1,1,1\n");
  const RunResult r = run_apply({"-ofile", "run", "space_frag.sdf", "run.out"}, work, {});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "run.out: is a file being read; choose another -ofile STEM\n");
  EXPECT_EQ(read_file(work + "/run.out"), "\"methane\",1,1,1\n");
  remove_tree(work);
}

}  // namespace
